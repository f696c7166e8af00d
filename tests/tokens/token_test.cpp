// Token providers on SoftHSM2 tokens made by this program: enumeration, a
// whole client enrolment and a KMC import onto a token, "DS" signing with a
// token key, a wrong PIN and a token taken away between two steps. What the
// token holds is read back with OpenSC's pkcs11-tool and OpenSSL.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "control/control.h"
#include "control/korvanta_control.h"
#include "support/support.h"

namespace kvtest {
namespace {

using kv::control::PortablePlatform;
using Ret = CBrendalKorvanta::Ret;
using Text = CBrendalKorvanta::Text;

const char kModule[] = "/usr/lib/softhsm/libsofthsm2.so";
const char kPin[] = "1234";

TempDir* g_dir = nullptr;

class SoftHsm : public ::testing::Environment {
 public:
  void SetUp() override {
    g_dir = new TempDir;
    const TempDir& d = *g_dir;
    ASSERT_EQ(RunShell("mkdir -p '" + (d / "tokens") + "'").status, 0);
    std::string conf =
        d.Write("softhsm2.conf", "directories.tokendir = " + (d / "tokens") +
                                     "\nobjectstore.backend = file\nlog.level = ERROR\n");
    ::setenv("SOFTHSM2_CONF", conf.c_str(), 1);
    for (const char* label : {"kv-a", "kv-gone", "kv-pin"}) {
      auto r = RunShell(std::string("softhsm2-util --init-token --free --label ") + label +
                        " --so-pin 12345678 --pin " + kPin + " 2>&1");
      ASSERT_EQ(r.status, 0) << r.out;
    }
    // The per-user file: kv-pin is configured with a PIN the token refuses.
    d.Write("tokens.conf", std::string("# test tokens\nmodule ") + kModule + "\ntoken kv-a\npin " +
                               kPin + "\nmodule " + kModule + "\ntoken kv-gone\npin-file " +
                               d.Write("pin.txt", "1234\n") + "\nmodule " + kModule +
                               "\ntoken kv-pin\npin 9999\n");
  }
  void TearDown() override {
    delete g_dir;
    g_dir = nullptr;
  }
};
const auto* const g_env = ::testing::AddGlobalTestEnvironment(new SoftHsm);

std::u16string U(const std::string& s) {
  return std::u16string(s.begin(), s.end());
}
std::string A(const Text& t) {
  return t ? std::string(t->begin(), t->end()) : "<null>";
}
ShellResult RefCa(const std::string& args) {
  return RunShell(std::string("/usr/bin/python3 ") + KV_SOURCE_DIR + "/tests/refca/refca.py " +
                  args);
}
std::string Tool(const std::string& token, const std::string& args) {
  return RunShell(std::string("pkcs11-tool --module ") + kModule + " --token-label " + token +
                  " --login --pin " + kPin + " " + args + " 2>&1")
      .out;
}

class Tokens : public ::testing::Test {
 protected:
  Tokens() : chooser_(kv::control::ScriptedChooser::BySubject("Token User")) {
    kv::control::PortableConfig config;
    config.dataDirectory = dir_ / "data";
    config.homeDirectory = dir_.Path();
    config.chooser = &chooser_;
    config.tokenConfigFile = *g_dir / "tokens.conf";
    config.p11KitModules = false;
    platform_ = std::make_unique<PortablePlatform>(config);
    control_ = std::make_unique<CBrendalKorvanta>(*platform_);
  }
  std::string Path(const std::string& n) const { return dir_ / n; }
  // genKeyPair on the token, a certificate for it from the reference CA.
  std::string Enrol(const std::string& token, int bits) {
    EXPECT_EQ(control_->setCSP(U(token)), 0);
    Text pub;
    EXPECT_EQ(control_->genKeyPair(bits, &pub), 0);
    const std::string key = dir_.Write("pub.b64", A(pub));
    EXPECT_EQ(RefCa("issue --pubkey " + key + " --subject \"CN=Token User,C=CN\" --out " +
                    Path("p7.b64") + " --leaf-out " + Path("leaf.der"))
                  .status,
              0);
    return A(pub);
  }
  size_t StoreSize(const char* name) {
    kv::control::StoreHandle store = 0;
    size_t n = 0;
    if (!platform_->OpenSystemStore(name, &store)) return 0;
    kv::control::CertHandle cert = 0;
    while (platform_->EnumCertificatesInStore(store, cert, &cert)) ++n;
    platform_->CloseStore(store);
    return n;
  }

  TempDir dir_;
  kv::control::ScriptedChooser chooser_;
  std::unique_ptr<PortablePlatform> platform_;
  std::unique_ptr<CBrendalKorvanta> control_;
};

TEST_F(Tokens, EachTokenIsAProviderAfterTheSoftwareOnes) {
  std::vector<std::string> names;
  int rsaFullBefore = 0;  // what listCSP counts ahead of the first token
  for (uint32_t i = 0;; ++i) {
    uint32_t type = 0, len = 0;
    if (!platform_->EnumProviders(i, &type, nullptr, &len)) {
      EXPECT_EQ(platform_->GetLastError(), kv::control::KV_ERROR_NO_MORE_ITEMS);
      break;
    }
    std::string name(len, '\0');
    ASSERT_TRUE(platform_->EnumProviders(i, &type, &name[0], &len));
    name.resize(len - 1);
    names.push_back(name);
    if (name.rfind("Microsoft", 0) == 0 && type == kv::control::KV_PROV_RSA_FULL) ++rsaFullBefore;
    if (name.rfind("kv-", 0) == 0) {
      EXPECT_EQ(type, kv::control::KV_PROV_RSA_FULL) << name;
    }
  }
  ASSERT_GE(names.size(), 3u);
  EXPECT_EQ(std::vector<std::string>(names.end() - 3, names.end()),
            (std::vector<std::string>{"kv-a", "kv-gone", "kv-pin"}));
  EXPECT_EQ(names[0].rfind("Microsoft", 0), 0u);
  // The page sees them through listCSP too.
  Text name;
  ASSERT_EQ(control_->listCSP(rsaFullBefore, &name), 0);
  EXPECT_EQ(A(name), "kv-a");
  ASSERT_EQ(control_->listCSP(rsaFullBefore + 2, &name), 0);
  EXPECT_EQ(A(name), "kv-pin");
}

TEST_F(Tokens, ClientEnrolmentPutsTheCertificateBesideTheKey) {
  const std::string pub = Enrol("kv-a", 1024);
  const std::string container = control_->CurrentContainer();
  ASSERT_EQ(container.size(), 36u);
  // The key was made at the size asked for.
  const std::string p1 = dir_.Write("p1.der", RunShell("base64 -d " + Path("pub.b64")).out);
  EXPECT_NE(
      RunShell("openssl rsa -pubin -RSAPublicKey_in -inform DER -in " + p1 + " -noout -text 2>&1")
          .out.find("1024 bit"),
      std::string::npos);
  Ret ret;
  ASSERT_EQ(control_->writeClientCert(U(ReadFile(Path("p7.b64"))), &ret), 0);
  ASSERT_EQ(ret, 0);
  // The token carries the certificate: nothing in MY, the chain in ROOT.
  EXPECT_EQ(StoreSize("MY"), 0u);
  EXPECT_EQ(StoreSize("ROOT"), 1u);

  const std::string list = Tool("kv-a", "--list-objects");
  // Private key, public key and certificate under the container's label, one ID.
  size_t at = 0, labelled = 0;
  while ((at = list.find("label:      " + container, at)) != std::string::npos) ++labelled, ++at;
  EXPECT_GE(labelled, 3u) << list;
  EXPECT_NE(list.find("Certificate Object"), std::string::npos) << list;
  EXPECT_NE(list.find("never extractable"), std::string::npos) << list;
  // The certificate object is the leaf the CA issued.
  const std::string out = Path("oncard.der");
  Tool("kv-a", "--read-object --type cert --label " + container + " -o " + out);
  EXPECT_EQ(ReadFile(out), ReadFile(Path("leaf.der")));

  // Public blob leaves the token; the private key does not.
  kv::control::ProvHandle prov = 0;
  kv::control::KeyHandle key = 0;
  ASSERT_TRUE(platform_->AcquireContext(&prov, container.c_str(), "kv-a",
                                        kv::control::KV_PROV_RSA_FULL, 0));
  ASSERT_TRUE(platform_->GetUserKey(prov, kv::control::KV_AT_SIGNATURE, &key));
  uint32_t len = 0;
  EXPECT_TRUE(platform_->ExportKey(key, kv::control::KV_PUBLICKEYBLOB, 0, nullptr, &len));
  EXPECT_FALSE(platform_->ExportKey(key, kv::control::KV_PRIVATEKEYBLOB, 0, nullptr, &len));
  EXPECT_EQ(platform_->GetLastError(), kv::control::KV_NTE_BAD_KEY_STATE);
  platform_->DestroyKey(key);
  platform_->ReleaseContext(prov);

  // "DS" requests are signed on the token and verify at the CA.
  Text revoke;
  ASSERT_EQ(control_->genEERevokeCertRequestData(&revoke), 0);
  EXPECT_EQ(RefCa("check-ds --message " + dir_.Write("rev.xml", A(revoke))).out, "DS OK\n");
  EXPECT_EQ(chooser_.Calls(), 1);
  ASSERT_FALSE(chooser_.LastCandidates().empty());
  EXPECT_EQ(chooser_.LastCandidates().back().certificate.size(), ReadFile(Path("leaf.der")).size());

  // Deleting the container takes every object of it off the token.
  ASSERT_TRUE(platform_->AcquireContext(&prov, container.c_str(), "kv-a",
                                        kv::control::KV_PROV_RSA_FULL,
                                        kv::control::KV_CRYPT_DELETEKEYSET));
  EXPECT_EQ(Tool("kv-a", "--list-objects").find(container), std::string::npos);
  EXPECT_FALSE(platform_->AcquireContext(&prov, container.c_str(), "kv-a",
                                         kv::control::KV_PROV_RSA_FULL, 0));
  EXPECT_EQ(platform_->GetLastError(), kv::control::KV_NTE_BAD_KEYSET);
}

TEST_F(Tokens, KmcKeyIsImportedOntoTheTokenNotExtractable) {
  ASSERT_EQ(control_->setCSP(U("kv-a")), 0);
  Text pub, temp;
  ASSERT_EQ(control_->genKeyPair(1024, &pub), 0);
  const std::string container = control_->CurrentContainer();
  ASSERT_EQ(control_->genTempKeyPair(&temp), 0);
  ASSERT_EQ(RefCa("kmc --tempkey " + dir_.Write("temp.b64", A(temp)) +
                  " --bits 2048 --subject \"CN=Token User,C=CN\" --out-dir " + Path("kmc"))
                .status,
            0);
  Ret ret;
  ASSERT_EQ(control_->writeKmcCert(U(ReadFile(Path("kmc/p7.b64"))),
                                   U(ReadFile(Path("kmc/encprikey.b64"))),
                                   U(ReadFile(Path("kmc/tempukek.b64"))), &ret),
            0);
  ASSERT_EQ(ret, 0);
  // The token's public key of the container is the KMC's key.
  const std::string pubDer = Path("kmcpub.der");
  Tool("kv-a", "--read-object --type pubkey --label " + container + " -o " + pubDer);
  EXPECT_EQ(
      RunShell("openssl pkey -pubin -inform DER -in " + pubDer + " -noout -text 2>&1 | sha1sum")
          .out,
      RunShell("openssl pkey -in " + Path("kmc/user.pem") +
               " -pubout -outform DER | openssl pkey -pubin -inform DER -noout -text 2>&1 "
               "| sha1sum")
          .out);
  // Imported, so not "never extractable", but sensitive and not extractable.
  const std::string list = Tool("kv-a", "--list-objects");
  const size_t priv = list.find("Private Key Object");
  ASSERT_NE(priv, std::string::npos) << list;
  const std::string block = list.substr(priv, list.find("Public Key Object", priv) - priv);
  EXPECT_NE(block.find("Access:     sensitive"), std::string::npos) << block;
  EXPECT_EQ(block.find(" extractable"), std::string::npos) << block;
  const std::string cert = Path("kmccert.der");
  Tool("kv-a", "--read-object --type cert --label " + container + " -o " + cert);
  EXPECT_EQ(ReadFile(cert), ReadFile(Path("kmc/leaf.der")));
}

TEST_F(Tokens, WrongPinAndTokenTakenAwayGiveTheirCodes) {
  ASSERT_EQ(control_->setCSP(U("kv-pin")), 0);
  Text pub;
  EXPECT_EQ(control_->genKeyPair(1024, &pub), 22038112);
  EXPECT_EQ(A(pub), "");

  Enrol("kv-gone", 1024);
  // The token disappears between key generation and installation.
  ASSERT_EQ(RunShell("grep -l kv-gone " + (*g_dir / "tokens") +
                     "/*/token.object | xargs -n1 dirname | xargs rm -rf")
                .status,
            0);
  Ret ret;
  ASSERT_EQ(control_->writeClientCert(U(ReadFile(Path("p7.b64"))), &ret), 0);
  EXPECT_EQ(ret, 22068103);
  // A provider whose token is gone cannot make containers either.
  EXPECT_EQ(control_->genKeyPair(1024, &pub), 22038112);
}

}  // namespace
}  // namespace kvtest
