// Whole enrolments through the control on the portable platform, key
// generation left out: the MAC request and the chain install of a client
// enrolment, and the KMC encryption-key import. The reference CA (Python)
// issues the answers once; each iteration then repeats what the page would
// do after key generation. OpenSSL's side runs the same cryptographic steps
// with libcrypto, without any of the store or container bookkeeping.
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>
#include <openssl/provider.h>
#include <openssl/rc4.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>
#include <openssl/x509.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>

#include "bench.h"
#include "control/korvanta_control.h"
#include "control/portable/portable_platform.h"
#include "crypto/crypto.h"

#ifndef KV_SOURCE_DIR
#define KV_SOURCE_DIR "."
#endif

namespace {

using kv::control::Bytes;
using kv::control::KeyHandle;
using kv::control::PortablePlatform;
using kv::control::ProvHandle;
using Text = CBrendalKorvanta::Text;
using Ret = CBrendalKorvanta::Ret;

const char kEnhanced[] = "Microsoft Enhanced Cryptographic Provider v1.0";
const char kBase[] = "Microsoft Base Cryptographic Provider v1.0";
const char kTempContainer[] = "BrendalTmpContainer";
const char kAuthCode[] = "bench-code-0417";
const char kPython[] = "/usr/bin/python3";
// What the control's PFX path uses (the PFX builder's default).
constexpr int kPfxIterations = 2048;

// Texts here are ASCII (base64, XML of ASCII fields), so widening and
// narrowing are per character.
std::u16string Wide(const std::string& s) {
  return std::u16string(s.begin(), s.end());
}
std::string Narrow(const std::u16string& s) {
  return std::string(s.begin(), s.end());
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

bool Spill(const std::string& path, const std::string& data) {
  std::ofstream out(path, std::ios::binary);
  out << data;
  return static_cast<bool>(out);
}

std::string UnBase64(const std::string& text) {
  std::string clean;
  for (char c : text)
    if (c != '\n' && c != '\r' && c != ' ') clean += c;
  std::string out(clean.size() / 4 * 3 + 3, '\0');
  const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&out[0]),
                                reinterpret_cast<const unsigned char*>(clean.data()),
                                static_cast<int>(clean.size()));
  if (n < 0) return std::string();
  size_t len = static_cast<size_t>(n);
  for (size_t i = clean.size(); i > 0 && clean[i - 1] == '='; --i) --len;
  out.resize(len);
  return out;
}

// A scratch directory, removed with its content.
class Scratch {
 public:
  Scratch() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "kvbench-control-XXXXXX").string();
    if (mkdtemp(&tmpl[0])) path_ = tmpl;
  }
  ~Scratch() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  bool ok() const { return !path_.empty(); }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

bool RefCa(const std::string& args) {
  const std::string cmd = std::string(kPython) + " " + KV_SOURCE_DIR + "/tests/refca/refca.py " +
                          args + " >/dev/null 2>&1";
  return std::system(cmd.c_str()) == 0;
}

struct PkeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
struct X509Free {
  void operator()(X509* x) const { X509_free(x); }
};
using Cert = std::unique_ptr<X509, X509Free>;

// The private key of a container, exported as the platform's blob and read
// by OpenSSL.
Pkey ExportPrivate(PortablePlatform& p, const std::string& container, const char* provider) {
  ProvHandle prov = 0;
  if (!p.AcquireContext(&prov, container.c_str(), provider, kv::control::KV_PROV_RSA_FULL, 0))
    return nullptr;
  KeyHandle key = 0;
  Bytes blob;
  if (p.GetUserKey(prov, kv::control::KV_AT_SIGNATURE, &key)) {
    uint32_t len = 0;
    if (p.ExportKey(key, kv::control::KV_PRIVATEKEYBLOB, 0, nullptr, &len)) {
      blob.resize(len);
      if (!p.ExportKey(key, kv::control::KV_PRIVATEKEYBLOB, 0, blob.data(), &len)) blob.clear();
      blob.resize(blob.empty() ? 0 : len);
    }
    p.DestroyKey(key);
  }
  p.ReleaseContext(prov);
  if (blob.empty()) return nullptr;
  const unsigned char* in = blob.data();
  return Pkey(b2i_PrivateKey(&in, static_cast<long>(blob.size())));
}

// Mean seconds per call over at least min_seconds (and at least 10 calls),
// after one warm-up call; a negative value when a call fails.
double MeanSeconds(const std::function<bool()>& fn, double min_seconds = 1.0) {
  if (!fn()) return -1;
  long calls = 0;
  const auto start = kvbench::Clock::now();
  double elapsed = 0;
  while (calls < 10 || (elapsed = kvbench::seconds_since(start)) < min_seconds) {
    if (!fn()) return -1;
    ++calls;
  }
  return kvbench::seconds_since(start) / calls;
}

void Report(const char* name, double ours, double theirs) {
  if (ours < 0 || theirs < 0) {
    std::printf("%s: %s side failed\n", name, ours < 0 ? "our" : "OpenSSL's");
    return;
  }
  kvbench::report(name, ours * 1000, theirs * 1000, false);
}

struct Setup {
  std::unique_ptr<PortablePlatform> platform;
  std::unique_ptr<CBrendalKorvanta> control;
  std::string containerFile;                     // the 36-byte name genKeyPair left
  std::u16string publicKey;                      // genKeyPair's answer
  std::string clientBundle;                      // base64 PKCS #7 for that key
  std::string macSource;                         // the <source> element of one MAC request
  Pkey clientKey;                                // the generated key, for OpenSSL's key copy
  std::string kmcBundle, kmcEncKey, kmcWrapped;  // base64, from the KMC
  Pkey tempKey;                                  // the temporary key
  Cert kmcLeaf;
};

// Everything the iterations need; false with a message printed otherwise.
bool Prepare(const Scratch& dir, Setup* s) {
  if (access(kPython, X_OK) != 0) {
    std::printf("control: %s not found, enrolment figures skipped\n", kPython);
    return false;
  }
  kv::control::PortableConfig config;
  config.dataDirectory = dir / "data";
  config.homeDirectory = dir.path();
  config.p11KitModules = false;
  config.tokenConfigFile = dir / "tokens.conf";
  s->platform = std::make_unique<PortablePlatform>(config);
  s->control = std::make_unique<CBrendalKorvanta>(*s->platform);
  CBrendalKorvanta& c = *s->control;
  Text pub;
  if (c.setCSP(Wide(kEnhanced)) != 0 || c.genKeyPair(2048, &pub) != 0 || !pub) {
    std::printf("control: key generation failed\n");
    return false;
  }
  s->publicKey = *pub;
  s->containerFile = Slurp(s->platform->ContainerFilePath());
  if (s->containerFile.size() != 36) {
    std::printf("control: no container-name file after genKeyPair\n");
    return false;
  }
  s->clientKey = ExportPrivate(*s->platform, s->containerFile, kEnhanced);
  Text request;
  if (c.genEEDownCertRequestData_Client(u"REF-BENCH", Wide(kAuthCode), s->publicKey, &request) !=
          0 ||
      !request) {
    std::printf("control: MAC request failed\n");
    return false;
  }
  const std::string xml = Narrow(*request);
  const size_t from = xml.find("<source>"), to = xml.find("</source>");
  if (from == std::string::npos || to == std::string::npos) return false;
  s->macSource = xml.substr(from, to + 9 - from);

  Text temp;
  if (c.genTempKeyPair(&temp) != 0 || !temp) {
    std::printf("control: temporary key generation failed\n");
    return false;
  }
  s->tempKey = ExportPrivate(*s->platform, kTempContainer, kBase);
  if (!s->clientKey || !s->tempKey) {
    std::printf("control: keys not readable by OpenSSL\n");
    return false;
  }
  if (!Spill(dir / "pub.b64", Narrow(s->publicKey)) || !Spill(dir / "temp.b64", Narrow(*temp)))
    return false;
  if (!RefCa("issue --pubkey " + (dir / "pub.b64") +
             " --subject \"CN=Bench User,C=CN\" --intermediates 1 --out " + (dir / "p7.b64")) ||
      !RefCa("kmc --tempkey " + (dir / "temp.b64") + " --bits 2048 --out-dir " + (dir / "kmc"))) {
    std::printf("control: the reference CA (%s tests/refca/refca.py) failed, figures skipped\n",
                kPython);
    return false;
  }
  s->clientBundle = Slurp(dir / "p7.b64");
  s->kmcBundle = Slurp(dir / "kmc/p7.b64");
  s->kmcEncKey = Slurp(dir / "kmc/encprikey.b64");
  s->kmcWrapped = Slurp(dir / "kmc/tempukek.b64");
  const std::string leaf = Slurp(dir / "kmc/leaf.der");
  const unsigned char* in = reinterpret_cast<const unsigned char*>(leaf.data());
  s->kmcLeaf.reset(d2i_X509(nullptr, &in, static_cast<long>(leaf.size())));
  return s->kmcLeaf != nullptr;
}

bool RestoreContainerFile(Setup& s) {
  return s.platform->WriteFileAtomic(s.platform->ContainerFilePath(),
                                     reinterpret_cast<const uint8_t*>(s.containerFile.data()),
                                     s.containerFile.size());
}

void ClientEnrolment(Setup& s) {
  const std::u16string bundle = Wide(s.clientBundle);
  auto ours = [&] {
    if (!RestoreContainerFile(s)) return false;
    Text request;
    Ret ret;
    return s.control->genEEDownCertRequestData_Client(u"REF-BENCH", Wide(kAuthCode), s.publicKey,
                                                      &request) == 0 &&
           request && s.control->writeClientCert(bundle, &ret) == 0 && ret == 0;
  };

  const std::string p7 = UnBase64(s.clientBundle);
  const std::string p1 = UnBase64(Narrow(s.publicKey));
  const unsigned char* pin = reinterpret_cast<const unsigned char*>(p1.data());
  Pkey requested(d2i_PublicKey(EVP_PKEY_RSA, nullptr, &pin, static_cast<long>(p1.size())));
  auto theirs = [&] {
    // The MAC: SHA-1 of the source, RC4 under the authorisation code.
    unsigned char digest[SHA_DIGEST_LENGTH];
    unsigned char sealed[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(s.macSource.data()), s.macSource.size(), digest);
    RC4_KEY rc4;
    RC4_set_key(&rc4, static_cast<int>(sizeof kAuthCode - 1),
                reinterpret_cast<const unsigned char*>(kAuthCode));
    RC4(&rc4, sizeof digest, digest, sealed);
    // The bundle and its certificates; the leaf is the one of our key.
    const unsigned char* in = reinterpret_cast<const unsigned char*>(p7.data());
    PKCS7* bundle = d2i_PKCS7(nullptr, &in, static_cast<long>(p7.size()));
    if (!bundle || !PKCS7_type_is_signed(bundle)) {
      PKCS7_free(bundle);
      return false;
    }
    STACK_OF(X509)* certs = bundle->d.sign->cert;
    bool matched = false;
    for (int i = 0; i < sk_X509_num(certs); ++i) {
      const EVP_PKEY* key = X509_get0_pubkey(sk_X509_value(certs, i));
      if (key && EVP_PKEY_eq(key, requested.get()) == 1) matched = true;
    }
    PKCS7_free(bundle);
    // The key copy.
    unsigned char* der = nullptr;
    const int len = i2d_PrivateKey(s.clientKey.get(), &der);
    const unsigned char* din = der;
    Pkey copy(d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &din, len));
    OPENSSL_free(der);
    // Used, so the MAC is not optimised away; all-zero only by chance.
    bool sealedAny = false;
    for (unsigned char b : sealed) sealedAny = sealedAny || b != 0;
    return matched && copy != nullptr && sealedAny;
  };
  const double o = MeanSeconds(ours);
  Report("control_client_enrolment_ms", o, MeanSeconds(theirs));
}

void KmcImport(Setup& s) {
  const std::u16string bundle = Wide(s.kmcBundle), enc = Wide(s.kmcEncKey),
                       wrapped = Wide(s.kmcWrapped);
  auto ours = [&] {
    if (!RestoreContainerFile(s)) return false;
    Ret ret;
    return s.control->writeKmcCert(bundle, enc, wrapped, &ret) == 0 && ret == 0;
  };

  const std::string wrappedDer = UnBase64(s.kmcWrapped);
  const std::string encDer = UnBase64(s.kmcEncKey);
  const char* password = "58203716";
  auto theirs = [&] {
    // Unwrap the content key with the temporary key.
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(s.tempKey.get(), nullptr);
    unsigned char contentKey[512];
    size_t keyLen = sizeof contentKey;
    const bool unwrapped =
        ctx && EVP_PKEY_decrypt_init(ctx) == 1 &&
        EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) == 1 &&
        EVP_PKEY_decrypt(ctx, contentKey, &keyLen,
                         reinterpret_cast<const unsigned char*>(wrappedDer.data()),
                         wrappedDer.size()) == 1;
    EVP_PKEY_CTX_free(ctx);
    if (!unwrapped) return false;
    // Decrypt and decode the user's key.
    std::string p1(encDer.size(), '\0');
    RC4_KEY rc4;
    RC4_set_key(&rc4, static_cast<int>(keyLen), contentKey);
    RC4(&rc4, encDer.size(), reinterpret_cast<const unsigned char*>(encDer.data()),
        reinterpret_cast<unsigned char*>(&p1[0]));
    const unsigned char* in = reinterpret_cast<const unsigned char*>(p1.data());
    Pkey user(d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &in, static_cast<long>(p1.size())));
    if (!user) return false;
    // The PFX the import goes through, with the same profile, and its reading.
    PKCS12* p12 = PKCS12_create(password, nullptr, user.get(), s.kmcLeaf.get(), nullptr,
                                NID_pbe_WithSHA1And3_Key_TripleDES_CBC,
                                NID_pbe_WithSHA1And40BitRC2_CBC, kPfxIterations, -1, 0);
    bool ok = p12 && PKCS12_set_mac(p12, password, -1, nullptr, 0, kPfxIterations, EVP_sha1());
    EVP_PKEY* key = nullptr;
    X509* cert = nullptr;
    ok = ok && PKCS12_parse(p12, password, &key, &cert, nullptr) && key && cert;
    EVP_PKEY_free(key);
    X509_free(cert);
    PKCS12_free(p12);
    return ok;
  };
  const double o = MeanSeconds(ours);
  Report("control_kmc_import_ms", o, MeanSeconds(theirs));
}

void Quiet(void*, const char*) {}

}  // namespace

KV_BENCH(control) {
  // Every MAC loads the placeholder token module, which is never there; its
  // note on standard error would bury the figures.
  KV_P11_SetDiagnostics(Quiet, nullptr);
  // RC4, RC2 and the PKCS #12 PBEs live in OpenSSL's legacy provider.
  OSSL_PROVIDER* legacy = OSSL_PROVIDER_load(nullptr, "legacy");
  OSSL_PROVIDER* deflt = OSSL_PROVIDER_load(nullptr, "default");
  {
    Scratch dir;
    Setup s;
    if (!dir.ok()) {
      std::printf("control: no scratch directory\n");
    } else if (Prepare(dir, &s)) {
      ClientEnrolment(s);
      KmcImport(s);
    }
  }
  if (deflt) OSSL_PROVIDER_unload(deflt);
  if (legacy) OSSL_PROVIDER_unload(legacy);
  KV_P11_SetDiagnostics(nullptr, nullptr);
}
