// Certificate installation on the fake platform: the software path (a key
// copy bound in MY), the token path (the certificate on the key), chain order
// into ROOT and CA, every `ret` of the failure table, the variants' flags,
// leavingMostRecentCert and the PFX export.
#include "control/control_util.h"

namespace kvtest {
namespace {

using kv::control::KV_AT_KEYEXCHANGE;
using kv::control::KV_AT_SIGNATURE;
using Ret = CBrendalKorvanta::Ret;
using Text = CBrendalKorvanta::Text;

const char kEnhanced[] = "Microsoft Enhanced Cryptographic Provider v1.0";

class Install : public ControlTest {
 protected:
  // A key in the provider and its certificate bundle (root, two
  // intermediates, leaf, shuffled), issued once.
  void Prepare(const std::string& provider = kEnhanced, const std::string& extra = "") {
    pub_ = MakeKey(provider);
    name_ = control_.CurrentContainer();
    p7_ = Issue(pub_,
                "--intermediates 2 --order shuffle --leaf-out " + Path("leaf.der") + " " + extra);
    leaf_ = ReadFile(Path("leaf.der"));
  }
  // Puts the container-name file back as key generation left it.
  void Rearm(const std::string& content = "") {
    const std::string text = content.empty() ? name_ : content;
    fake_.files[fake_.kContainerFile] = Bytes(text.begin(), text.end());
  }
  size_t StoreSize(const std::string& name) { return fake_.stores[name].size(); }
  std::string StoreCert(const std::string& name, size_t i) {
    const Bytes& der = fake_.stores[name][i].der;
    return std::string(der.begin(), der.end());
  }
  void ClearStores() { fake_.stores.clear(); }

  std::string pub_, name_, p7_, leaf_;
};

TEST_F(Install, SoftwarePathCopiesTheKeyBindsTheLeafAndInstallsTheChain) {
  Prepare();
  Ret ret;
  ASSERT_EQ(control_.writeClientCert(U(p7_), &ret), 0);
  ASSERT_EQ(ret, 0);
  EXPECT_FALSE(ContainerFileExists());
  // MY: the leaf only, bound to a fresh copy of the key.
  ASSERT_EQ(StoreSize("MY"), 1u);
  EXPECT_EQ(StoreCert("MY", 0), leaf_);
  const auto& info = fake_.stores["MY"][0].info;
  ASSERT_TRUE(fake_.stores["MY"][0].hasInfo);
  const std::string copy(info.containerName.begin(), info.containerName.end());
  EXPECT_NE(copy, name_);
  EXPECT_EQ(info.providerName, U(kEnhanced));
  EXPECT_EQ(info.provType, 1u);
  EXPECT_EQ(info.flags, 0u);
  EXPECT_EQ(info.keySpec, KV_AT_SIGNATURE);
  FakePlatform::Container* c = fake_.FindContainer(kEnhanced, copy);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->keys[KV_AT_SIGNATURE].importFlags, 3u);
  EXPECT_EQ(c->keys[KV_AT_SIGNATURE].rsa->n,
            fake_.FindContainer(kEnhanced, name_)->keys[KV_AT_SIGNATURE].rsa->n);
  EXPECT_EQ(fake_.ContainerCount(), 2u) << "the generated container and its copy";
  // The chain: the root (self-signed) in ROOT, both intermediates in CA.
  ASSERT_EQ(StoreSize("ROOT"), 1u);
  ASSERT_EQ(StoreSize("CA"), 2u);
  const std::string root = dir_.Write("root.der", StoreCert("ROOT", 0));
  EXPECT_EQ(
      RunShell("openssl x509 -inform DER -in " + root + " -noout -subject -issuer -nameopt RFC2253")
          .out,
      "subject=CN=Reference Root CA,O=Korvanta Test,C=CN\n"
      "issuer=CN=Reference Root CA,O=Korvanta Test,C=CN\n");
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_NE(StoreCert("CA", i), leaf_);
    EXPECT_NE(StoreCert("CA", i), StoreCert("ROOT", 0));
  }
  // The name file is used up.
  Ret again;
  EXPECT_EQ(control_.writeClientCert(U(p7_), &again), 0);
  EXPECT_EQ(again, 22038309);
}

TEST_F(Install, ChainOrderDoesNotDependOnBundleOrder) {
  Prepare();
  for (const char* order : {"root-first", "leaf-first", "middle"}) {
    const std::string p7 =
        Issue(pub_, std::string("--intermediates 2 --ca-dir ") + Path("ca") + " --order " + order);
    ClearStores();
    Rearm();
    Ret ret;
    ASSERT_EQ(control_.writeClientCert(U(p7), &ret), 0);
    EXPECT_EQ(ret, 0) << order;
    EXPECT_EQ(StoreSize("ROOT"), 1u) << order;
    EXPECT_EQ(StoreSize("CA"), 2u) << order;
    EXPECT_EQ(StoreSize("MY"), 1u) << order;
  }
}

TEST_F(Install, FailureTable) {
  Prepare();
  // A bundle for another key, and one of the leaf alone.
  const std::string foreign = Issue(PublicB64(*RsaKey::Pool(1024, 7)), "--intermediates 0");
  struct Case {
    const char* what;
    std::string p7;
    const char* method;
    int nth;
    int32_t ret;
  } cases[] = {
      {"empty", "", "", 0, 22068204},
      {"not a bundle", "bm90IGEgYnVuZGxl", "", 0, 22068017},
      {"another key", foreign, "", 0, 8125},
      // Step 6 opens the container once, the software path again.
      {"copy open", p7_, "AcquireContext", 2, 22068103},
      {"copy key", p7_, "GetUserKey", 1, 22068105},
      {"export size", p7_, "ExportKey", 1, 22068106},
      {"export", p7_, "ExportKey", 2, 22068108},
      {"import", p7_, "ImportKey", 1, 22068117},
      {"MY", p7_, "OpenStore", 1, 22068101},
      {"add", p7_, "AddEncodedCertificateToStore", 1, 22068110},
      {"bind", p7_, "SetKeyProvInfo", 1, 22068110},
      {"ROOT", p7_, "OpenSystemStore", 1, 22068207},
      {"CA", p7_, "OpenSystemStore", 2, 22068207},
      {"context", p7_, "CreateCertificateContext", 1, 22068207},
      {"chain add", p7_, "AddCertificateContextToStore", 1, 22068207},
  };
  for (const Case& c : cases) {
    Rearm();
    ClearStores();
    const size_t containers = fake_.ContainerCount();
    if (*c.method) fake_.Fail(c.method, c.nth);
    Ret ret;
    EXPECT_EQ(control_.writeClientCert(U(c.p7), &ret), 0) << c.what;
    EXPECT_EQ(ret, c.ret) << c.what;
    EXPECT_FALSE(ContainerFileExists()) << c.what;
    if (c.ret != 22068207) {
      EXPECT_EQ(fake_.ContainerCount(), containers) << c.what << ": no half-made copy";
      EXPECT_EQ(StoreSize("MY"), 0u) << c.what;
    }
  }
  // No name file; no provider.
  Ret ret;
  EXPECT_EQ(control_.writeClientCert(U(p7_), &ret), 0);
  EXPECT_EQ(ret, 22038309);
  Rearm();
  ASSERT_EQ(control_.setCSP(U("")), 22028201);
  EXPECT_EQ(control_.writeClientCert(U(p7_), &ret), 0);
  EXPECT_EQ(ret, 22068201);
  EXPECT_FALSE(ContainerFileExists()) << "used up even when the call fails";
}

TEST_F(Install, LeafOnlyBundleInstallsTheLeafThenFailsTheChain) {
  Prepare();
  // The leaf alone, in a bundle OpenSSL makes.
  const std::string leafFile = dir_.Write("only.der", leaf_);
  ASSERT_EQ(RunShell("openssl x509 -inform DER -in " + leafFile + " -out " + Path("only.pem") +
                     " && openssl crl2pkcs7 -nocrl -certfile " + Path("only.pem") +
                     " -outform DER -out " + Path("only.p7"))
                .status,
            0);
  Rearm();
  Ret ret;
  ASSERT_EQ(control_.writeClientCert(U(B64(ReadFile(Path("only.p7")))), &ret), 0);
  EXPECT_EQ(ret, 22068207);
  EXPECT_EQ(StoreSize("MY"), 1u);
  EXPECT_EQ(StoreSize("ROOT"), 0u);
}

TEST_F(Install, TokenPathPutsTheCertificateOnTheKey) {
  Prepare("Token CSP");
  Ret ret;
  ASSERT_EQ(control_.writeClientCert(U(p7_), &ret), 0);
  EXPECT_EQ(ret, 0);
  EXPECT_EQ(StoreSize("MY"), 0u);
  EXPECT_EQ(StoreSize("ROOT"), 1u);
  FakePlatform::Container* c = fake_.FindContainer("Token CSP", name_);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->keys[KV_AT_SIGNATURE].certificate, Bytes(leaf_.begin(), leaf_.end()));
  EXPECT_EQ(fake_.ContainerCount(), 1u) << "no copy on a token";
  struct Case {
    const char* method;
    int32_t ret;
  } cases[] = {{"AcquireContext", 22068103}, {"GetUserKey", 22068105}, {"SetKeyParam", 22068118}};
  for (const Case& c : cases) {
    Rearm();
    fake_.Fail(c.method);
    EXPECT_EQ(control_.writeClientCert(U(p7_), &ret), 0);
    EXPECT_EQ(ret, c.ret) << c.method;
  }
}

TEST_F(Install, VariantsChooseKeySpecAndProtection) {
  // _kex: the exchange key of genP10_kex.
  ASSERT_EQ(control_.setCSP(U(kEnhanced)), 0);
  Text req;
  ASSERT_EQ(control_.genP10_kex(1024, &req), 0);
  name_ = control_.CurrentContainer();
  const std::string reqFile = dir_.Write("req.b64", Utf8(req));
  ASSERT_EQ(RefCa("issue --request " + reqFile + " --out " + Path("kex.p7")).status, 0);
  Ret ret;
  ASSERT_EQ(control_.writeClientCert_kex(U(ReadFile(Path("kex.p7"))), &ret), 0);
  ASSERT_EQ(ret, 0);
  EXPECT_EQ(fake_.stores["MY"].back().info.keySpec, KV_AT_KEYEXCHANGE);

  // The others on one signature key; the name file is put back each time.
  Prepare();
  auto importFlags = [&]() {
    const auto& info = fake_.stores["MY"].back().info;
    return fake_
        .FindContainer(kEnhanced, std::string(info.containerName.begin(), info.containerName.end()))
        ->keys[KV_AT_SIGNATURE]
        .importFlags;
  };
  Rearm();
  ASSERT_EQ(control_.writeClientCert_noprotect(U(p7_), &ret), 0);
  EXPECT_EQ(ret, 0);
  EXPECT_EQ(importFlags(), 0u);
  Rearm(name_ + "1");
  ASSERT_EQ(control_.writeClientCert_exp(U(p7_), &ret), 0);
  EXPECT_EQ(ret, 0);
  EXPECT_EQ(importFlags(), 3u);
  Rearm(name_ + "0");
  ASSERT_EQ(control_.writeClientCert_exp(U(p7_), &ret), 0);
  EXPECT_EQ(ret, 0);
  EXPECT_EQ(importFlags(), 2u);
  // Without the flag octet (a genKeyPair file): exportable.
  Rearm(name_);
  ASSERT_EQ(control_.writeClientCert_exp(U(p7_), &ret), 0);
  EXPECT_EQ(ret, 0);
  EXPECT_EQ(importFlags(), 3u);
  // Shorter than a name: unreadable.
  Rearm("short");
  ASSERT_EQ(control_.writeClientCert_exp(U(p7_), &ret), 0);
  EXPECT_EQ(ret, 22038309);
  // The plain install reads the flag octet as part of the name.
  Rearm(name_ + "1");
  ASSERT_EQ(control_.writeClientCert(U(p7_), &ret), 0);
  EXPECT_EQ(ret, 22068103);
}

TEST_F(Install, X509VariantBindsTheExistingContainerWithoutChain) {
  Prepare();
  ClearStores();
  Rearm(name_ + "1");
  const size_t containers = fake_.ContainerCount();
  Ret ret;
  ASSERT_EQ(control_.writeClientCert_exp_X509(U(B64(leaf_)), &ret), 0);
  ASSERT_EQ(ret, 0);
  ASSERT_EQ(StoreSize("MY"), 1u);
  EXPECT_EQ(StoreCert("MY", 0), leaf_);
  EXPECT_EQ(fake_.stores["MY"][0].info.containerName, U(name_));
  EXPECT_EQ(StoreSize("ROOT") + StoreSize("CA"), 0u);
  EXPECT_EQ(fake_.ContainerCount(), containers);
  struct Case {
    const char* method;
    int nth;
    int32_t ret;
  } cases[] = {{"AcquireContext", 2, 22068103},
               {"OpenStore", 1, 22068101},
               {"AddEncodedCertificateToStore", 1, 22068110}};
  for (const Case& c : cases) {
    Rearm(name_ + "1");
    fake_.Fail(c.method, c.nth);
    EXPECT_EQ(control_.writeClientCert_exp_X509(U(B64(leaf_)), &ret), 0);
    EXPECT_EQ(ret, c.ret) << c.method;
  }
  // A certificate of another key.
  Rearm(name_ + "1");
  const std::string otherFile = dir_.Write("o.b64", PublicB64(*RsaKey::Pool(1024, 7)));
  ASSERT_EQ(RefCa("issue --pubkey " + otherFile + " --out " + Path("o.p7") + " --leaf-out " +
                  Path("o.der"))
                .status,
            0);
  EXPECT_EQ(control_.writeClientCert_exp_X509(U(B64(ReadFile(Path("o.der")))), &ret), 0);
  EXPECT_EQ(ret, 8125);
}

TEST_F(Install, LeavingMostRecentCertKeepsTheLatestExpiry) {
  const std::string caDir = Path("ca");
  auto leafExpiring = [&](const std::string& notAfter, size_t key) {
    const std::string f = dir_.Write("p.b64", PublicB64(*RsaKey::Pool(512, key)));
    EXPECT_EQ(RefCa("issue --pubkey " + f + " --subject \"CN=Alice,C=CN\" --ca-dir " + caDir +
                    " --not-after " + notAfter + " --out " + Path("x.p7") + " --leaf-out " +
                    Path("x.der"))
                  .status,
              0);
    const std::string der = ReadFile(Path("x.der"));
    FakePlatform::StoredCert c;
    c.id = 1000 + key;
    c.der.assign(der.begin(), der.end());
    fake_.stores["MY"].push_back(c);
    return der;
  };
  leafExpiring("20300101000000", 0);
  const std::string latest = leafExpiring("20320101000000", 1);
  leafExpiring("20310101000000", 2);
  const std::u16string user = U("CN=Alice,C=CN");
  const std::u16string issuer = U("CN=Reference Sub CA 1,O=Korvanta Test,C=CN");
  Ret ret;
  // Names compare exactly.
  EXPECT_EQ(control_.leavingMostRecentCert(U("CN=alice,C=CN"), issuer, &ret), 0);
  EXPECT_EQ(ret, 8126);
  EXPECT_EQ(control_.leavingMostRecentCert(user, U("CN=Reference Root CA"), &ret), 0);
  EXPECT_EQ(ret, 8126);
  EXPECT_EQ(StoreSize("MY"), 3u);
  ASSERT_EQ(control_.leavingMostRecentCert(user, issuer, &ret), 0);
  EXPECT_EQ(ret, 0);
  ASSERT_EQ(StoreSize("MY"), 1u);
  EXPECT_EQ(StoreCert("MY", 0), latest);
  // Equal expiry: the one added later stays.
  const std::string newer = leafExpiring("20320101000000", 3);
  ASSERT_EQ(control_.leavingMostRecentCert(user, issuer, &ret), 0);
  ASSERT_EQ(StoreSize("MY"), 1u);
  EXPECT_EQ(StoreCert("MY", 0), newer);
  fake_.Fail("OpenSystemStore");
  EXPECT_EQ(control_.leavingMostRecentCert(user, issuer, &ret), 0);
  EXPECT_EQ(ret, 22298101);
}

TEST_F(Install, ClientCertToPfxReturnsTheKeyAndLeafUnderThePassword) {
  Prepare();
  Text pfx;
  ASSERT_EQ(control_.writeClientCertToPFX(U(p7_), U("pässwörd"), &pfx), 0);
  ASSERT_TRUE(pfx.has_value());
  EXPECT_FALSE(ContainerFileExists());
  EXPECT_EQ(StoreSize("MY"), 1u);
  Bytes key;
  std::vector<Bytes> certs;
  const std::string der = UnB64(Utf8(pfx));
  ASSERT_TRUE(OpensslReadPfx(dir_, Bytes(der.begin(), der.end()), "pässwörd", &key, &certs));
  auto rsa = RsaKey::FromPrivateDer(key);
  ASSERT_TRUE(rsa);
  EXPECT_EQ(rsa->n, fake_.FindContainer(kEnhanced, name_)->keys[KV_AT_SIGNATURE].rsa->n);
  ASSERT_FALSE(certs.empty());
  EXPECT_EQ(std::string(certs[0].begin(), certs[0].end()), leaf_);
  // Refusals before anything is used up, then the install's own codes.
  Rearm();
  EXPECT_EQ(control_.writeClientCertToPFX(U(p7_), U(""), &pfx), 22168216);
  EXPECT_TRUE(ContainerFileExists());
  ASSERT_EQ(control_.setCSP(U("Token CSP")), 0);
  pfx.reset();
  EXPECT_EQ(control_.writeClientCertToPFX(U(p7_), U("pw"), &pfx), 22168108);
  EXPECT_TRUE(ContainerFileExists());
  ASSERT_EQ(control_.setCSP(U(kEnhanced)), 0);
  EXPECT_EQ(control_.writeClientCertToPFX(U(""), U("pw"), &pfx), 22168204);
  EXPECT_EQ(control_.writeClientCertToPFX(U(p7_), U("pw"), &pfx), 22168309);
  EXPECT_FALSE(pfx.has_value());
}

}  // namespace
}  // namespace kvtest
