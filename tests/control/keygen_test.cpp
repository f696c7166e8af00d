// Provider listing and selection, and the key-generating methods with every
// detail of their failure tables, on the fake platform. Keys and requests are
// read back by OpenSSL.
#include <regex>

#include "control/control_util.h"

namespace kvtest {
namespace {

using kv::control::KV_AT_KEYEXCHANGE;
using kv::control::KV_AT_SIGNATURE;
using Text = CBrendalKorvanta::Text;

const char kBase[] = "Microsoft Base Cryptographic Provider v1.0";
const char kEnhanced[] = "Microsoft Enhanced Cryptographic Provider v1.0";
// The fake's first GUID, as the container name format prints it.
const char kFirstName[] = "A0B0C001-BEEF-cafe-D1D2-D3D4D5D6D7D8";

class KeyGen : public ControlTest {
 protected:
  // The modulus OpenSSL reads from a DER RSAPublicKey.
  std::string OpensslModulus(const std::string& der) {
    const std::string f = dir_.Write("k.der", der);
    return RunShell("openssl rsa -pubin -RSAPublicKey_in -inform DER -noout -modulus -in " + f +
                    " 2>&1")
        .out;
  }
  std::string HexModulus(const RsaKey& k) {
    std::string out = "Modulus=";
    char buf[3];
    for (uint8_t b : k.n) {
      snprintf(buf, sizeof buf, "%02X", b);
      out += buf;
    }
    return out + "\n";
  }
  // Runs `openssl req -verify` and returns its text output.
  std::string VerifyRequest(const std::string& b64, const std::string& fields = "-subject") {
    const std::string f = dir_.Write("req.der", UnB64(b64));
    return RunShell("openssl req -inform DER -in " + f + " -verify -noout " + fields +
                    " -nameopt RFC2253,-esc_msb 2>&1")
        .out;
  }
  FakePlatform::Key* KeyIn(const std::string& provider, const std::string& name, uint32_t spec) {
    FakePlatform::Container* c = fake_.FindContainer(provider, name);
    if (!c || !c->keys.count(spec)) return nullptr;
    return &c->keys[spec];
  }
};

TEST_F(KeyGen, ListsOnlyRsaFullProvidersInPlatformOrder) {
  const char* expected[] = {kBase, kEnhanced, "Microsoft Strong Cryptographic Provider",
                            "Token CSP"};
  for (int i = 0; i < 4; ++i) {
    Text name;
    EXPECT_EQ(control_.listCSP(i, &name), 0);
    EXPECT_EQ(Utf8(name), expected[i]) << i;
  }
  // Past the end: success, unassigned; negative: the empty string and 8102.
  Text end;
  EXPECT_EQ(control_.listCSP(4, &end), 0);
  EXPECT_FALSE(end.has_value());
  Text negative;
  EXPECT_EQ(control_.listCSP(-1, &negative), 22018102);
  EXPECT_EQ(Utf8(negative), "");
  // An enumeration failure ends the list.
  fake_.Fail("EnumProviders");
  Text failed;
  EXPECT_EQ(control_.listCSP(0, &failed), 0);
  EXPECT_FALSE(failed.has_value());
}

TEST_F(KeyGen, SetCspAndVersion) {
  EXPECT_EQ(control_.setCSP(U("")), 22028201);
  Text key;
  EXPECT_EQ(control_.genKeyPair(1024, &key), 22038201);
  EXPECT_EQ(Utf8(key), "");
  EXPECT_EQ(control_.setCSP(U("No such provider")), 0);
  EXPECT_EQ(control_.genKeyPair(1024, &key), 22038112);
  Text version;
  EXPECT_EQ(control_.getVersion(&version), 0);
  EXPECT_EQ(Utf8(version), "Version:2.5.26.1 Build:201406041650");
}

TEST_F(KeyGen, GenKeyPairMakesAnExportableSignatureKeyInARandomContainer) {
  ASSERT_EQ(control_.setCSP(U(kEnhanced)), 0);
  Text key;
  ASSERT_EQ(control_.genKeyPair(1024, &key), 0);
  EXPECT_EQ(control_.CurrentContainer(), kFirstName);
  EXPECT_EQ(ContainerFile(), kFirstName);
  EXPECT_EQ(ContainerFile().size(), 36u);
  FakePlatform::Key* k = KeyIn(kEnhanced, kFirstName, KV_AT_SIGNATURE);
  ASSERT_NE(k, nullptr);
  EXPECT_EQ(k->genFlags, (1024u << 16) | 1u);
  EXPECT_TRUE(k->exportable);
  EXPECT_EQ(OpensslModulus(UnB64(Utf8(key))), HexModulus(*k->rsa));
  const Bytes der = k->rsa->PublicDer();
  EXPECT_EQ(UnB64(Utf8(key)), std::string(der.begin(), der.end()));
}

TEST_F(KeyGen, GenKeyPairFailureTable) {
  ASSERT_EQ(control_.setCSP(U(kEnhanced)), 0);
  struct Case {
    const char* method;
    int nth;
    uint32_t error;
    int bits;
    int32_t status;
  } cases[] = {
      {"", 0, 0, 768, 22038202},
      {"WriteFileAtomic", 1, 0, 1024, 22038308},
      {"AcquireContext", 1, kv::control::KV_NTE_FAIL, 1024, 22038112},
      // Exists: deleted and created again; the second creation fails.
      {"AcquireContext", 1, kv::control::KV_NTE_EXISTS, 1024, 22038112},
      {"GetUserKey", 1, kv::control::KV_NTE_BAD_KEYSET, 1024, 22038105},
      {"GenKey", 1, kv::control::KV_NTE_FAIL, 1024, 22038104},
      {"ExportKey", 1, kv::control::KV_NTE_FAIL, 1024, 22038106},
      {"ExportKey", 2, kv::control::KV_NTE_FAIL, 1024, 22038107},
  };
  for (const Case& c : cases) {
    if (*c.method) fake_.Fail(c.method, c.nth, c.error);
    if (c.error == kv::control::KV_NTE_EXISTS) fake_.Fail("AcquireContext", 3);
    Text key;
    EXPECT_EQ(control_.genKeyPair(c.bits, &key), c.status) << c.method << " " << c.nth;
    EXPECT_EQ(Utf8(key), "");
    EXPECT_EQ(fake_.ContainerCount(), 0u) << c.method << ": no container left behind";
  }
  // The name file is written before the length is checked.
  Text key;
  EXPECT_EQ(control_.genKeyPair(768, &key), 22038202);
  EXPECT_EQ(ContainerFile(), control_.CurrentContainer());
  // A size the blob cannot have is not allocated.
  fake_.exportSizeOverride = 0xFFFFFFF0u;
  EXPECT_EQ(control_.genKeyPair(1024, &key), 22038203);
  fake_.exportSizeOverride = 0;
  EXPECT_EQ(fake_.ContainerCount(), 0u);
  // No GUID: the failing automation result, the empty string.
  fake_.Fail("CoCreateGuid");
  key.reset();
  EXPECT_EQ(control_.genKeyPair(1024, &key), KV_E_FAIL);
  EXPECT_EQ(Utf8(key), "");
}

TEST_F(KeyGen, ExistingContainerIsReplacedAndKeySizesAtTheProviderLimits) {
  // A container of the same name exists: deleted and made again.
  fake_.Fail("AcquireContext", 1, kv::control::KV_NTE_EXISTS);
  ASSERT_EQ(control_.setCSP(U(kEnhanced)), 0);
  Text key;
  EXPECT_EQ(control_.genKeyPair(512, &key), 0);
  EXPECT_EQ(fake_.ContainerCount(), 1u);
  // A provider that refuses 4096-bit keys: 8104 and nothing left behind.
  ASSERT_EQ(control_.setCSP(U("Token CSP")), 0);
  EXPECT_EQ(control_.genKeyPair(4096, &key), 22038104);
  EXPECT_EQ(fake_.ContainerCount(), 1u);
  // One that makes them, while the PKCS#1 conversion takes at most 2048 bits:
  // 8010, container deleted.
  ASSERT_EQ(control_.setCSP(U(kEnhanced)), 0);
  EXPECT_EQ(control_.genKeyPair(4096, &key), 22038010);
  EXPECT_EQ(Utf8(key), "");
  EXPECT_EQ(fake_.ContainerCount(), 1u);
}

TEST_F(KeyGen, TempKeyPairIsRecreatedWithAFresh2048BitKey) {
  Text first, second;
  ASSERT_EQ(control_.genTempKeyPair(&first), 0);
  ASSERT_EQ(control_.genTempKeyPair(&second), 0);
  EXPECT_NE(Utf8(first), Utf8(second));
  FakePlatform::Key* k = KeyIn(kBase, "BrendalTmpContainer", KV_AT_SIGNATURE);
  ASSERT_NE(k, nullptr);
  EXPECT_EQ(k->genFlags, 0x08000001u);
  EXPECT_EQ(OpensslModulus(UnB64(Utf8(second))), HexModulus(*k->rsa));
  EXPECT_FALSE(ContainerFileExists()) << "the temporary key is not recorded in the name file";
}

TEST_F(KeyGen, TempKeyPairFailureTable) {
  struct Case {
    const char* method;
    int nth;
    uint32_t error;
    int32_t status;
  } cases[] = {
      {"AcquireContext", 1, kv::control::KV_NTE_FAIL, 22048112},
      {"GetUserKey", 1, kv::control::KV_NTE_BAD_KEYSET, 22048104},
      {"GenKey", 1, kv::control::KV_NTE_FAIL, 22048104},
      {"ExportKey", 1, kv::control::KV_NTE_FAIL, 22048106},
      {"ExportKey", 2, kv::control::KV_NTE_FAIL, 22048107},
  };
  for (const Case& c : cases) {
    fake_.Fail(c.method, c.nth, c.error);
    Text key;
    EXPECT_EQ(control_.genTempKeyPair(&key), c.status) << c.method;
    EXPECT_EQ(Utf8(key), "");
    EXPECT_EQ(fake_.ContainerCount(), 0u) << c.method;
  }
  fake_.exportSizeOverride = 0xFFFFFFF0u;
  Text key;
  EXPECT_EQ(control_.genTempKeyPair(&key), 22048203);
  EXPECT_EQ(fake_.ContainerCount(), 0u);
}

TEST_F(KeyGen, RequestsVerifyInOpenSslAndCarryTheContainersKey) {
  ASSERT_EQ(control_.setCSP(U(kEnhanced)), 0);
  Text req;
  ASSERT_EQ(control_.genP10(1024, &req), 0);
  // No DN given: the subject names the container.
  std::string out = VerifyRequest(Utf8(req));
  EXPECT_NE(out.find("verify OK"), std::string::npos) << out;
  EXPECT_NE(out.find(std::string("subject=CN=") + kFirstName), std::string::npos) << out;
  EXPECT_NE(KeyIn(kEnhanced, kFirstName, KV_AT_SIGNATURE), nullptr);
  EXPECT_EQ(ContainerFile(), kFirstName);
  // The request holds exactly the container's key.
  const std::string f = dir_.Write("r.der", UnB64(Utf8(req)));
  std::string modulus = RunShell("openssl req -inform DER -in " + f + " -noout -modulus 2>&1").out;
  EXPECT_EQ(modulus, HexModulus(*KeyIn(kEnhanced, kFirstName, KV_AT_SIGNATURE)->rsa));
  // No attributes.
  std::string text = RunShell("openssl req -inform DER -in " + f + " -noout -text 2>&1").out;
  EXPECT_NE(text.find("Attributes:\n            (none)"), std::string::npos) << text;

  // genP10_kex: an exchange key.
  ASSERT_EQ(control_.genP10_kex(1024, &req), 0);
  EXPECT_NE(VerifyRequest(Utf8(req)).find("verify OK"), std::string::npos);
  EXPECT_NE(KeyIn(kEnhanced, control_.CurrentContainer(), KV_AT_KEYEXCHANGE), nullptr);
  EXPECT_EQ(ContainerFile().size(), 36u);
}

TEST_F(KeyGen, ExportabilityIsRecordedBesideTheName) {
  ASSERT_EQ(control_.setCSP(U(kEnhanced)), 0);
  Text req;
  ASSERT_EQ(control_.genP10_exp(1024, 1, &req), 0);
  EXPECT_EQ(ContainerFile().size(), 37u);
  EXPECT_EQ(ContainerFile().back(), '1');
  EXPECT_TRUE(KeyIn(kEnhanced, control_.CurrentContainer(), KV_AT_SIGNATURE)->exportable);
  ASSERT_EQ(control_.genP10_exp(1024, 0, &req), 0);
  EXPECT_EQ(ContainerFile().back(), '0');
  EXPECT_FALSE(KeyIn(kEnhanced, control_.CurrentContainer(), KV_AT_SIGNATURE)->exportable);
  // Any other non-zero value: exportable, recorded as "0".
  ASSERT_EQ(control_.genP10_exp(1024, 5, &req), 0);
  EXPECT_EQ(ContainerFile().back(), '0');
  EXPECT_TRUE(KeyIn(kEnhanced, control_.CurrentContainer(), KV_AT_SIGNATURE)->exportable);
}

TEST_F(KeyGen, RequestWithDnTakesTheSubjectAndTwoAddsHighProtection) {
  ASSERT_EQ(control_.setCSP(U(kEnhanced)), 0);
  Text req;
  ASSERT_EQ(control_.genP10_exp_withdn(1024, 2, U("CN=张三,O=Example,C=CN"), &req), 0);
  std::string out = VerifyRequest(Utf8(req));
  EXPECT_NE(out.find("verify OK"), std::string::npos) << out;
  EXPECT_NE(out.find("subject=CN=张三,O=Example,C=CN"), std::string::npos) << out;
  FakePlatform::Key* k = KeyIn(kEnhanced, control_.CurrentContainer(), KV_AT_SIGNATURE);
  ASSERT_NE(k, nullptr);
  EXPECT_EQ(k->genFlags, (1024u << 16) | 0x8000u | 1u);
  EXPECT_EQ(ContainerFile().back(), '0');
  ASSERT_EQ(control_.genP10_exp_withdn(1024, 1, U("CN=alice"), &req), 0);
  EXPECT_EQ(KeyIn(kEnhanced, control_.CurrentContainer(), KV_AT_SIGNATURE)->genFlags,
            (1024u << 16) | 1u);
  EXPECT_EQ(ContainerFile().back(), '1');
}

TEST_F(KeyGen, RequestFailures) {
  ASSERT_EQ(control_.setCSP(U(kEnhanced)), 0);
  const size_t before = fake_.ContainerCount();
  Text req;
  // Unusable subject text: 8215 before any container is made, but after the
  // name file is written.
  for (const char* dn : {"", "CN", "XX=1", "CN=a;b"}) {
    EXPECT_EQ(control_.genP10_exp_withdn(1024, 1, U(dn), &req), 22038215) << dn;
    EXPECT_EQ(Utf8(req), "");
    EXPECT_EQ(ContainerFile(), control_.CurrentContainer() + "1");
  }
  EXPECT_EQ(control_.genP10(1000, &req), 22038202);
  // The provider cannot hash or sign: 8109, container deleted.
  for (const char* step : {"CreateHash", "HashData", "SignHash"}) {
    fake_.Fail(step);
    EXPECT_EQ(control_.genP10(1024, &req), 22038109) << step;
    EXPECT_EQ(Utf8(req), "");
  }
  fake_.Fail("GenKey");
  EXPECT_EQ(control_.genP10_kex(1024, &req), 22038104);
  fake_.Fail("ExportKey");
  EXPECT_EQ(control_.genP10_exp(1024, 1, &req), 22038106);
  EXPECT_EQ(fake_.ContainerCount(), before);
}

}  // namespace
}  // namespace kvtest
