// The KMC key import on the fake platform, fed by the reference KMC: the
// Microsoft path through a PFX that OpenSSL must open, the token path, every
// reachable `ret`, the refused key size, writeKmcCertToPFX, and the public key
// of a PKCS#10 request.
#include "control/control_util.h"

namespace kvtest {
namespace {

using kv::control::KV_AT_KEYEXCHANGE;
using kv::control::KV_AT_SIGNATURE;
using Ret = CBrendalKorvanta::Ret;
using Text = CBrendalKorvanta::Text;

const char kBase[] = "Microsoft Base Cryptographic Provider v1.0";
const char kEnhanced[] = "Microsoft Enhanced Cryptographic Provider v1.0";

class Kmc : public ControlTest {
 protected:
  void Prepare(const std::string& provider = kEnhanced, int bits = 2048,
               const std::string& extra = "") {
    MakeKey(provider);
    name_ = control_.CurrentContainer();
    Text temp;
    ASSERT_EQ(control_.genTempKeyPair(&temp), 0);
    const std::string tempFile = dir_.Write("temp.b64", Utf8(temp));
    ASSERT_EQ(RefCa("kmc --tempkey " + tempFile + " --bits " + std::to_string(bits) +
                    " --out-dir " + Path("kmc") + " " + extra)
                  .status,
              0);
    p7_ = ReadFile(Path("kmc/p7.b64"));
    enc_ = ReadFile(Path("kmc/encprikey.b64"));
    ukek_ = ReadFile(Path("kmc/tempukek.b64"));
    leaf_ = ReadFile(Path("kmc/leaf.der"));
  }
  Ret Write() {
    Ret ret;
    EXPECT_EQ(control_.writeKmcCert(U(p7_), U(enc_), U(ukek_), &ret), 0);
    return ret;
  }
  // True when the key decrypts what OpenSSL encrypted to the leaf's key.
  bool KeyOpensLeafEncryption(const RsaKey& key) {
    const std::string leaf = dir_.Write("leaf.der", leaf_);
    const std::string keyFile = Path("k.der");
    const Bytes der = key.PrivateDer();
    dir_.Write("k.der", std::string(der.begin(), der.end()));
    dir_.Write("plain.txt", "the KMC's key works");
    ShellResult r = RunShell("openssl x509 -inform DER -in " + leaf + " -out " + Path("leaf.pem") +
                             " && openssl pkeyutl -encrypt -certin -inkey " + Path("leaf.pem") +
                             " -in " + Path("plain.txt") + " -out " + Path("c.bin") +
                             " && openssl pkeyutl -decrypt -keyform " + "DER -inkey " + keyFile +
                             " -in " + Path("c.bin"));
    return r.status == 0 && r.out == "the KMC's key works";
  }
  std::string UserModulus() { return OpensslKeyModulus(Path("kmc/user.pem")); }
  std::string ModulusOf(const RsaKey& key) {
    const Bytes der = key.PrivateDer();
    return OpensslKeyModulus(dir_.Write("m.der", std::string(der.begin(), der.end())));
  }
  size_t StoreSize(const std::string& name) { return fake_.stores[name].size(); }

  std::string name_, p7_, enc_, ukek_, leaf_;
};

TEST_F(Kmc, MicrosoftPathImportsThroughAPfxOpenSslCanRead) {
  Prepare();
  ASSERT_EQ(Write(), 0);
  EXPECT_FALSE(ContainerFileExists());
  ASSERT_EQ(StoreSize("MY"), 1u);
  const auto& stored = fake_.stores["MY"][0];
  EXPECT_EQ(std::string(stored.der.begin(), stored.der.end()), leaf_);
  // The certificate names the container the PFX import made, which holds the
  // KMC's key, exportable.
  const std::string container(stored.info.containerName.begin(), stored.info.containerName.end());
  FakePlatform::Container* c = fake_.FindContainer(kEnhanced, container);
  ASSERT_NE(c, nullptr);
  ASSERT_TRUE(c->keys.count(KV_AT_KEYEXCHANGE));
  EXPECT_TRUE(c->keys[KV_AT_KEYEXCHANGE].exportable);
  EXPECT_EQ(ModulusOf(*c->keys[KV_AT_KEYEXCHANGE].rsa), UserModulus());
  EXPECT_TRUE(KeyOpensLeafEncryption(*c->keys[KV_AT_KEYEXCHANGE].rsa));
  // A braced GUID container, empty; the temporary key untouched.
  int braced = 0;
  for (const auto& [key, value] : fake_.containers) {
    if (key.find("\n{") != std::string::npos) {
      ++braced;
      EXPECT_TRUE(value.keys.empty());
      EXPECT_EQ(key.size(), std::string("soft\n{}").size() + 36);
    }
  }
  EXPECT_EQ(braced, 1);
  EXPECT_NE(fake_.FindContainer(kBase, "BrendalTmpContainer"), nullptr);
  EXPECT_EQ(StoreSize("ROOT"), 1u);
  EXPECT_EQ(StoreSize("CA"), 1u);
}

TEST_F(Kmc, TokenPathImportsANonExportableExchangeKeyWithItsCertificate) {
  Prepare("Token CSP", 1024);
  ASSERT_EQ(Write(), 0);
  FakePlatform::Container* c = fake_.FindContainer("Token CSP", name_);
  ASSERT_NE(c, nullptr);
  ASSERT_TRUE(c->keys.count(KV_AT_KEYEXCHANGE)) << "CALG_RSA_KEYX whatever the converter wrote";
  const FakePlatform::Key& k = c->keys[KV_AT_KEYEXCHANGE];
  EXPECT_EQ(k.importFlags, 0u);
  EXPECT_FALSE(k.exportable);
  EXPECT_EQ(k.certificate, Bytes(leaf_.begin(), leaf_.end()));
  EXPECT_EQ(ModulusOf(*k.rsa), UserModulus());
  EXPECT_TRUE(KeyOpensLeafEncryption(*k.rsa));
  EXPECT_EQ(StoreSize("MY"), 0u);
  // The same again: the temporary key still unwraps.
  fake_.files[fake_.kContainerFile] = Bytes(name_.begin(), name_.end());
  EXPECT_EQ(Write(), 0);
}

TEST_F(Kmc, RestoreCreatesTheContainerAndKeepsTheNameFile) {
  Prepare("Token CSP");
  const std::string fresh = "restored-container";
  fake_.files[fake_.kContainerFile] = Bytes(fresh.begin(), fresh.end());
  Ret ret;
  ASSERT_EQ(control_.restoreKmcCert(U(p7_), U(enc_), U(ukek_), &ret), 0);
  EXPECT_EQ(ret, 0);
  EXPECT_TRUE(ContainerFileExists());
  ASSERT_NE(fake_.FindContainer("Token CSP", fresh), nullptr);
  // It exists now: creating it again fails; a failure after creating it
  // leaves nothing.
  ASSERT_EQ(control_.restoreKmcCert(U(p7_), U(enc_), U(ukek_), &ret), 0);
  EXPECT_EQ(ret, 22078112);
  const std::string other = "second-container";
  fake_.files[fake_.kContainerFile] = Bytes(other.begin(), other.end());
  for (const char* step : {"ImportKey", "SetKeyParam"}) {
    fake_.Fail(step);
    ASSERT_EQ(control_.restoreKmcCert(U(p7_), U(enc_), U(ukek_), &ret), 0);
    EXPECT_EQ(ret, std::string(step) == "ImportKey" ? 22078117 : 22078118);
    EXPECT_EQ(fake_.FindContainer("Token CSP", other), nullptr) << step;
  }
}

TEST_F(Kmc, OnlyKeysOf1024And2048BitsAreAccepted) {
  Prepare(kEnhanced, 1536);
  Ret ret;
  EXPECT_EQ(control_.writeKmcCert(U(p7_), U(enc_), U(ukek_), &ret), KV_E_FAIL);
  EXPECT_FALSE(ret.has_value());
  EXPECT_EQ(StoreSize("MY"), 0u);
}

TEST_F(Kmc, FailureTable) {
  Prepare();
  // Material that does not fit: content key wrapped for another key, a
  // wrapped key of no whole block, an encrypted key that is noise.
  const std::string other = dir_.Write("other.b64", PublicB64(*RsaKey::Pool(2048, 9)));
  ASSERT_EQ(RefCa("kmc --tempkey " + Path("temp.b64") + " --bits 1024 --out-dir " +
                  Path("foreign") + " --wrap-for " + other)
                .status,
            0);
  const std::string foreignUkek = ReadFile(Path("foreign/tempukek.b64"));
  struct Case {
    const char* what;
    std::string p7, enc, ukek;
    const char* method;
    int nth;
    int32_t ret;
  } cases[] = {
      {"no certificates", "", enc_, ukek_, "", 0, 22078204},
      {"not a bundle", "bm9wZQ==", enc_, ukek_, "", 0, 22078017},
      {"no key", p7_, "", ukek_, "", 0, 22078205},
      {"no content key", p7_, enc_, "", "", 0, 22078206},
      {"temporary container", p7_, enc_, ukek_, "AcquireContext", 1, 22078103},
      {"temporary key", p7_, enc_, ukek_, "GetUserKey", 1, 22078105},
      {"export size", p7_, enc_, ukek_, "ExportKey", 1, 22078116},
      {"export", p7_, enc_, ukek_, "ExportKey", 2, 22078108},
      {"wrapped for another key", p7_, enc_, foreignUkek, "", 0, 22078004},
      {"partial block", p7_, enc_, "AAAA", "", 0, 22078004},
      {"noise", p7_, B64(std::string(600, '\x5a')), ukek_, "", 0, 22078016},
      {"PFX import", p7_, enc_, ukek_, "PFXImportCertStore", 1, 22078303},
      {"imported certificate", p7_, enc_, ukek_, "EnumCertificatesInStore", 1, 22078303},
      {"key information", p7_, enc_, ukek_, "GetKeyProvInfo", 1, 22078303},
      {"imported container", p7_, enc_, ukek_, "AcquireContext", 2, 22078303},
      {"imported key", p7_, enc_, ukek_, "GetUserKey", 2, 22078303},
      {"braced container", p7_, enc_, ukek_, "AcquireContext", 3, 22078303},
      {"binding", p7_, enc_, ukek_, "SetKeyProvInfo", 1, 22078303},
      {"MY", p7_, enc_, ukek_, "OpenStore", 1, 22078303},
      {"add", p7_, enc_, ukek_, "AddCertificateContextToStore", 1, 22078303},
      {"chain", p7_, enc_, ukek_, "OpenSystemStore", 1, 22078207},
  };
  for (const Case& c : cases) {
    fake_.stores.clear();
    const size_t containers = fake_.ContainerCount();
    if (*c.method) fake_.Fail(c.method, c.nth);
    Ret ret;
    EXPECT_EQ(control_.writeKmcCert(U(c.p7), U(c.enc), U(c.ukek), &ret), 0) << c.what;
    EXPECT_EQ(ret, c.ret) << c.what;
    // Without the imported certificate's key information the container the
    // import made cannot be named, so it stays.
    const bool unnamed =
        std::string(c.what) == "imported certificate" || std::string(c.what) == "key information";
    if (c.ret != 22078207 && !unnamed) {
      EXPECT_EQ(fake_.ContainerCount(), containers) << c.what << ": nothing half-made";
      EXPECT_EQ(StoreSize("MY"), 0u) << c.what;
    }
  }
  Ret ret;
  ASSERT_EQ(control_.setCSP(U("")), 22028201);
  EXPECT_EQ(control_.writeKmcCert(U(p7_), U(enc_), U(ukek_), &ret), 0);
  EXPECT_EQ(ret, 22078201);
}

TEST_F(Kmc, TemporaryKeyProblems) {
  Prepare();
  // Before any genTempKeyPair there is no temporary container.
  FakePlatform fresh;
  CBrendalKorvanta control(fresh);
  ASSERT_EQ(control.setCSP(U(kEnhanced)), 0);
  Ret ret;
  ASSERT_EQ(control.writeKmcCert(U(p7_), U(enc_), U(ukek_), &ret), 0);
  EXPECT_EQ(ret, 22078103);
  // A temporary key the blob reader cannot take (4096 bits).
  fake_.FindContainer(kBase, "BrendalTmpContainer")->keys[KV_AT_SIGNATURE].rsa =
      RsaKey::Pool(4096, 0);
  EXPECT_EQ(Write(), 22078003);
}

TEST_F(Kmc, TokenPathFailures) {
  Prepare("Token CSP");
  struct Case {
    const char* method;
    int nth;
    int32_t ret;
  } cases[] = {
      {"AcquireContext", 2, 22078112}, {"ImportKey", 1, 22078117}, {"SetKeyParam", 1, 22078118}};
  for (const Case& c : cases) {
    fake_.files[fake_.kContainerFile] = Bytes(name_.begin(), name_.end());
    fake_.Fail(c.method, c.nth);
    EXPECT_EQ(Write(), c.ret) << c.method;
    EXPECT_NE(fake_.FindContainer("Token CSP", name_), nullptr) << "the user's container stays";
  }
}

TEST_F(Kmc, KmcCertToPfxReturnsTheKmcKey) {
  Prepare();
  Text pfx;
  ASSERT_EQ(control_.writeKmcCertToPFX(U(p7_), U(enc_), U(ukek_), U("export-pw"), &pfx), 0);
  ASSERT_TRUE(pfx.has_value());
  Bytes key;
  std::vector<Bytes> certs;
  const std::string der = UnB64(Utf8(pfx));
  ASSERT_TRUE(OpensslReadPfx(dir_, Bytes(der.begin(), der.end()), "export-pw", &key, &certs));
  EXPECT_EQ(ModulusOf(*RsaKey::FromPrivateDer(key)), UserModulus());
  EXPECT_EQ(std::string(certs[0].begin(), certs[0].end()), leaf_);
  EXPECT_EQ(StoreSize("MY"), 1u);
  EXPECT_EQ(control_.writeKmcCertToPFX(U(p7_), U(enc_), U(ukek_), U(""), &pfx), 22178216);
  EXPECT_EQ(control_.writeKmcCertToPFX(U(p7_), U(enc_), U(""), U("pw"), &pfx), 22178206);
}

TEST_F(Kmc, PublicKeyOfARequest) {
  ASSERT_EQ(RunShell("openssl req -new -newkey rsa:1024 -nodes -keyout " + Path("k.pem") +
                     " -subj /CN=x -outform DER -out " + Path("r.der") +
                     " 2>/dev/null && openssl rsa -in " + Path("k.pem") +
                     " -RSAPublicKey_out -outform DER -out " + Path("p1.der") + " 2>/dev/null")
                .status,
            0);
  Text p1;
  ASSERT_EQ(control_.getPublicKeyFromPKCS10Data(U(B64(ReadFile(Path("r.der")))), &p1), 0);
  EXPECT_EQ(UnB64(Utf8(p1)), ReadFile(Path("p1.der")));
  // The request's signature is not checked.
  std::string tampered = ReadFile(Path("r.der"));
  tampered[tampered.size() - 5] ^= 1;
  ASSERT_EQ(control_.getPublicKeyFromPKCS10Data(U(B64(tampered)), &p1), 0);
  // An EC key is not an RSA key.
  ASSERT_EQ(
      RunShell("openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout " +
               Path("e.pem") + " -subj /CN=x -outform DER -out " + Path("e.der") + " 2>/dev/null")
          .status,
      0);
  struct Case {
    std::string b64;
    int32_t status;
  } cases[] = {{"", 22128211},
               {"!!!!", 22128211},
               {B64("not a request"), 22128009},
               {B64(ReadFile(Path("e.der"))), 22128009}};
  for (const Case& c : cases) {
    Text out;
    EXPECT_EQ(control_.getPublicKeyFromPKCS10Data(U(c.b64), &out), c.status) << c.b64;
    EXPECT_FALSE(out.has_value());
  }
}

}  // namespace
}  // namespace kvtest
