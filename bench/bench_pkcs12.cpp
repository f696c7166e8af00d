// PFX build and parse against OpenSSL's PKCS12_create / PKCS12_parse with the
// same legacy algorithms (triple DES key bag, 40-bit RC2 certificates, SHA-1
// MAC), a 2048-bit key and 2048 iterations.
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench.h"
#include "pki/pki.h"

namespace {

std::vector<unsigned char> BnBytes(const BIGNUM* b) {
  std::vector<unsigned char> v(BN_num_bytes(b));
  BN_bn2bin(b, v.data());
  return v;
}

// A self-signed certificate for the key, made by OpenSSL.
X509* SelfSigned(EVP_PKEY* key) {
  X509* x = X509_new();
  X509_set_version(x, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
  X509_gmtime_adj(X509_getm_notBefore(x), 0);
  X509_gmtime_adj(X509_getm_notAfter(x), 86400);
  X509_NAME* name = X509_get_subject_name(x);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("bench"), -1, -1, 0);
  X509_set_issuer_name(x, name);
  X509_set_pubkey(x, key);
  X509_sign(x, key, EVP_sha256());
  return x;
}

}  // namespace

KV_BENCH(pkcs12) {
  OSSL_PROVIDER* legacy = OSSL_PROVIDER_load(nullptr, "legacy");
  OSSL_PROVIDER* deflt = OSSL_PROVIDER_load(nullptr, "default");
  EVP_PKEY* pkey = EVP_RSA_gen(2048);
  X509* x = SelfSigned(pkey);
  unsigned char* certDer = nullptr;
  int certLen = i2d_X509(x, &certDer);

  const RSA* rsa = EVP_PKEY_get0_RSA(pkey);
  const BIGNUM* parts[8];
  RSA_get0_key(rsa, &parts[0], &parts[1], &parts[2]);
  RSA_get0_factors(rsa, &parts[3], &parts[4]);
  RSA_get0_crt_params(rsa, &parts[5], &parts[6], &parts[7]);
  std::vector<unsigned char> bytes[8];
  for (int i = 0; i < 8; ++i) bytes[i] = BnBytes(parts[i]);
  PKCS_PRIKEY key{
      bytes[0].data(), unsigned(bytes[0].size()), bytes[1].data(), unsigned(bytes[1].size()),
      bytes[2].data(), unsigned(bytes[2].size()), bytes[3].data(), unsigned(bytes[3].size()),
      bytes[4].data(), unsigned(bytes[4].size()), bytes[5].data(), unsigned(bytes[5].size()),
      bytes[6].data(), unsigned(bytes[6].size()), bytes[7].data(), unsigned(bytes[7].size())};

  PKCS_Initialize();
  PKCS_CTX ctx = nullptr;
  PKCS_CreateCtx(&ctx);
  const char* pw = "58203716";
  std::string ours;
  double buildOurs = kvbench::rate([&] {
    unsigned char* out = nullptr;
    unsigned len = 0;
    if (KV_GenPFX(ctx, certDer, unsigned(certLen), &key, pw, &out, &len) == 0)
      ours.assign(reinterpret_cast<char*>(out), len);
    T_free(out);
  });
  std::string theirs;
  double buildTheirs = kvbench::rate([&] {
    // No MAC from PKCS12_create (OpenSSL 3 would choose SHA-256): the legacy
    // profile's SHA-1 MAC is set explicitly.
    PKCS12* p12 =
        PKCS12_create(pw, nullptr, pkey, x, nullptr, NID_pbe_WithSHA1And3_Key_TripleDES_CBC,
                      NID_pbe_WithSHA1And40BitRC2_CBC, 2048, -1, 0);
    PKCS12_set_mac(p12, pw, -1, nullptr, 0, 2048, EVP_sha1());
    unsigned char* der = nullptr;
    int n = i2d_PKCS12(p12, &der);
    if (n > 0) theirs.assign(reinterpret_cast<char*>(der), size_t(n));
    OPENSSL_free(der);
    PKCS12_free(p12);
  });
  kvbench::report("pfx_build_per_s", buildOurs, buildTheirs, true);

  // Each side parses the file the other side built, so a slow path of one
  // writer does not flatter its own reader. Both are checked once first.
  auto ourParse = [&]() {
    KV_PFX_CONTENTS c;
    KV_InitPFXContents(&c);
    int rv = KV_ParsePFX(ctx, reinterpret_cast<const unsigned char*>(theirs.data()),
                         unsigned(theirs.size()), pw, &c);
    if (rv == 0 && !c.hasKey) rv = -1;
    KV_FreePFXContents(&c);
    return rv;
  };
  auto theirParse = [&]() {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(ours.data());
    PKCS12* p12 = d2i_PKCS12(nullptr, &p, long(ours.size()));
    EVP_PKEY* k = nullptr;
    X509* c = nullptr;
    bool ok = p12 && PKCS12_parse(p12, pw, &k, &c, nullptr) && k && c;
    EVP_PKEY_free(k);
    X509_free(c);
    PKCS12_free(p12);
    return ok;
  };
  int rv = ourParse();
  if (rv != 0 || !theirParse()) {
    std::printf("pfx_parse: our reader %d, OpenSSL's %s\n", rv, theirParse() ? "ok" : "failed");
  } else {
    double parseOurs = kvbench::rate([&] { ourParse(); });
    double parseTheirs = kvbench::rate([&] { theirParse(); });
    kvbench::report("pfx_parse_per_s", parseOurs, parseTheirs, true);
  }

  PKCS_DestroyCtx(ctx);
  PKCS_Finalize();
  OPENSSL_free(certDer);
  X509_free(x);
  EVP_PKEY_free(pkey);
  OSSL_PROVIDER_unload(deflt);
  OSSL_PROVIDER_unload(legacy);
}
