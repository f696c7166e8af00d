// Whole enrolments on the portable platform against the reference CA and
// KMC: the control's requests are checked by them, what they return is
// installed, and the installed keys are checked by OpenSSL.
#include <gtest/gtest.h>

#include "control/control.h"
#include "control/control_util.h"
#include "control/korvanta_control.h"

namespace kvtest {
namespace {

using kv::control::CertHandle;
using kv::control::KeyHandle;
using kv::control::KeyProvInfo;
using kv::control::PortablePlatform;
using kv::control::ProvHandle;
using kv::control::StoreHandle;
using Ret = CBrendalKorvanta::Ret;
using Text = CBrendalKorvanta::Text;

const char kEnhanced[] = "Microsoft Enhanced Cryptographic Provider v1.0";

class Flow : public ::testing::Test {
 protected:
  Flow() : chooser_(kv::control::ScriptedChooser::BySubject("Enrolled User")) {
    kv::control::PortableConfig config;
    config.dataDirectory = dir_ / "data";
    config.homeDirectory = dir_.Path();
    config.chooser = &chooser_;
    platform_ = std::make_unique<PortablePlatform>(config);
    control_ = std::make_unique<CBrendalKorvanta>(*platform_);
  }
  std::string Path(const std::string& name) const { return dir_ / name; }
  std::string Narrow(const Text& text) {
    std::string out;
    EXPECT_TRUE(platform_->ToNarrow(*text, &out));
    return out;
  }
  // The certificates of a store, DER, in store order.
  std::vector<std::string> Store(const char* name) {
    std::vector<std::string> out;
    StoreHandle store = 0;
    if (!platform_->OpenSystemStore(name, &store)) return out;
    CertHandle cert = 0;
    while (platform_->EnumCertificatesInStore(store, cert, &cert)) {
      Bytes der;
      platform_->GetEncoded(cert, &der);
      out.emplace_back(der.begin(), der.end());
    }
    platform_->CloseStore(store);
    return out;
  }
  // The private key bound to the first certificate of MY, exported as the
  // platform's blob and read by OpenSSL: its modulus line.
  std::string BoundKeyModulus(uint32_t* keySpec = nullptr) {
    StoreHandle store = 0;
    CertHandle cert = 0;
    if (!platform_->OpenSystemStore("MY", &store)) return "no MY";
    KeyProvInfo info;
    bool found = platform_->EnumCertificatesInStore(store, 0, &cert) &&
                 platform_->GetKeyProvInfo(cert, &info);
    if (cert) platform_->FreeCertificateContext(cert);
    platform_->CloseStore(store);
    if (!found) return "no binding";
    std::string container, provider;
    platform_->ToNarrow(info.containerName, &container);
    platform_->ToNarrow(info.providerName, &provider);
    if (keySpec) *keySpec = info.keySpec;
    ProvHandle prov = 0;
    KeyHandle key = 0;
    if (!platform_->AcquireContext(&prov, container.c_str(), provider.c_str(), info.provType, 0) ||
        !platform_->GetUserKey(prov, info.keySpec, &key)) {
      return "no key";
    }
    uint32_t len = 0;
    platform_->ExportKey(key, kv::control::KV_PRIVATEKEYBLOB, 0, nullptr, &len);
    Bytes blob(len);
    bool ok = platform_->ExportKey(key, kv::control::KV_PRIVATEKEYBLOB, 0, blob.data(), &len);
    platform_->DestroyKey(key);
    platform_->ReleaseContext(prov);
    if (!ok) return "not exportable";
    const std::string f = dir_.Write("blob.bin", std::string(blob.begin(), blob.end()));
    return RunShell("openssl rsa -inform MSBLOB -in " + f + " -noout -modulus 2>&1").out;
  }
  std::string CertModulus(const std::string& der) {
    const std::string f = dir_.Write("c.der", der);
    return RunShell("openssl x509 -inform DER -in " + f + " -noout -modulus 2>&1").out;
  }

  TempDir dir_;
  kv::control::ScriptedChooser chooser_;
  std::unique_ptr<PortablePlatform> platform_;
  std::unique_ptr<CBrendalKorvanta> control_;
};

TEST_F(Flow, SignatureCertificateThroughTheMacRequest) {
  ASSERT_EQ(control_->setCSP(U(kEnhanced)), 0);
  Text pub;
  ASSERT_EQ(control_->genKeyPair(2048, &pub), 0);
  Text request;
  ASSERT_EQ(control_->genEEDownCertRequestData_Client(U("REF-1"), U("授权码"), *pub, &request), 0);
  const std::string msg = dir_.Write("req.xml", Narrow(request));
  EXPECT_EQ(RefCa("check-mac --message " + msg + " --authcode 授权码").out, "MAC OK\n");
  const std::string key = dir_.Write("pub.b64", Utf8(pub));
  ASSERT_EQ(RefCa("issue --pubkey " + key +
                  " --subject \"CN=Enrolled User,C=CN\" --intermediates 2"
                  " --order shuffle --out " +
                  Path("p7.b64") + " --leaf-out " + Path("leaf.der"))
                .status,
            0);
  Ret ret;
  ASSERT_EQ(control_->writeClientCert(U(ReadFile(Path("p7.b64"))), &ret), 0);
  ASSERT_EQ(ret, 0);
  const std::string leaf = ReadFile(Path("leaf.der"));
  ASSERT_EQ(Store("MY"), std::vector<std::string>{leaf});
  EXPECT_EQ(Store("ROOT").size(), 1u);
  EXPECT_EQ(Store("CA").size(), 2u);
  uint32_t spec = 0;
  EXPECT_EQ(BoundKeyModulus(&spec), CertModulus(leaf));
  EXPECT_EQ(spec, kv::control::KV_AT_SIGNATURE);

  // Signed requests with the new certificate verify at the reference CA.
  Text revoke;
  ASSERT_EQ(control_->genEERevokeCertRequestData(&revoke), 0);
  EXPECT_EQ(RefCa("check-ds --message " + dir_.Write("rev.xml", Narrow(revoke))).out, "DS OK\n");
  EXPECT_EQ(chooser_.Calls(), 1);
}

TEST_F(Flow, RequestsAreIssuedAndInstalled) {
  ASSERT_EQ(control_->setCSP(U(kEnhanced)), 0);
  Text req;
  ASSERT_EQ(control_->genP10_exp_withdn(2048, 1, U("CN=Enrolled User,O=Example,C=CN"), &req), 0);
  const std::string reqFile = dir_.Write("req.b64", Utf8(req));
  const std::string der = dir_.Write("req.der", UnB64(Utf8(req)));
  EXPECT_NE(
      RunShell("openssl req -inform DER -in " + der + " -verify -noout 2>&1").out.find("verify OK"),
      std::string::npos);
  // The public key the control reads from its own request is the request's.
  Text p1;
  ASSERT_EQ(control_->getPublicKeyFromPKCS10Data(*req, &p1), 0);
  const std::string p1File = dir_.Write("p1.der", UnB64(Utf8(p1)));
  EXPECT_EQ(
      RunShell("openssl rsa -pubin -RSAPublicKey_in -inform DER -in " + p1File + " -noout -modulus")
          .out,
      RunShell("openssl req -inform DER -in " + der + " -noout -modulus").out);
  ASSERT_EQ(RefCa("issue --request " + reqFile + " --out " + Path("p7.b64") + " --leaf-out " +
                  Path("leaf.der"))
                .status,
            0);
  Ret ret;
  ASSERT_EQ(control_->writeClientCert_exp(U(ReadFile(Path("p7.b64"))), &ret), 0);
  ASSERT_EQ(ret, 0);
  EXPECT_EQ(BoundKeyModulus(), CertModulus(ReadFile(Path("leaf.der"))));

  // genP10 with the Base provider, installed by the plain method.
  ASSERT_EQ(control_->setCSP(U("Microsoft Base Cryptographic Provider v1.0")), 0);
  ASSERT_EQ(control_->genP10(1024, &req), 0);
  dir_.Write("req2.b64", Utf8(req));
  ASSERT_EQ(RefCa("issue --request " + Path("req2.b64") + " --out " + Path("p7b.b64")).status, 0);
  ASSERT_EQ(control_->writeClientCert(U(ReadFile(Path("p7b.b64"))), &ret), 0);
  EXPECT_EQ(ret, 0);
  EXPECT_EQ(Store("MY").size(), 2u);
}

TEST_F(Flow, KmcEncryptionKeyIsImportedAndUsable) {
  ASSERT_EQ(control_->setCSP(U(kEnhanced)), 0);
  Text pub, temp, request;
  ASSERT_EQ(control_->genKeyPair(1024, &pub), 0);
  ASSERT_EQ(control_->genTempKeyPair(&temp), 0);
  ASSERT_EQ(
      control_->genEEDownCertRequestData_Kmc(U("REF-2"), U("kmc-code"), *temp, U("2048"), &request),
      0);
  EXPECT_EQ(RefCa("check-mac --message " + dir_.Write("kmc.xml", Narrow(request)) +
                  " --authcode kmc-code")
                .out,
            "MAC OK\n");
  const std::string tempFile = dir_.Write("temp.b64", Utf8(temp));
  ASSERT_EQ(RefCa("kmc --tempkey " + tempFile + " --bits 2048 --out-dir " + Path("kmc")).status, 0);
  Ret ret;
  ASSERT_EQ(control_->writeKmcCert(U(ReadFile(Path("kmc/p7.b64"))),
                                   U(ReadFile(Path("kmc/encprikey.b64"))),
                                   U(ReadFile(Path("kmc/tempukek.b64"))), &ret),
            0);
  ASSERT_EQ(ret, 0);
  // The bound key is the KMC's: it opens what OpenSSL encrypts to the leaf.
  EXPECT_EQ(BoundKeyModulus(), OpensslKeyModulus(Path("kmc/user.pem")));
  dir_.Write("plain.txt", "secret for the encryption key");
  ShellResult r = RunShell(
      "openssl x509 -inform DER -in " + Path("kmc/leaf.der") + " -out " + Path("leaf.pem") +
      " && openssl pkeyutl -encrypt -certin -inkey " + Path("leaf.pem") + " -in " +
      Path("plain.txt") + " -out " + Path("c.bin") + " && openssl rsa -inform MSBLOB -in " +
      Path("blob.bin") + " -out " + Path("k.pem") + " 2>/dev/null" +
      " && openssl pkeyutl -decrypt -inkey " + Path("k.pem") + " -in " + Path("c.bin"));
  EXPECT_EQ(r.out, "secret for the encryption key");
}

TEST_F(Flow, LeavingMostRecentCertAndPfxExport) {
  ASSERT_EQ(control_->setCSP(U(kEnhanced)), 0);
  const std::string ca = Path("ca");
  std::string lastLeaf;
  for (const char* notAfter : {"20310101000000", "20330101000000", "20320101000000"}) {
    Text pub;
    ASSERT_EQ(control_->genKeyPair(1024, &pub), 0);
    dir_.Write("pub.b64", Utf8(pub));
    ASSERT_EQ(RefCa("issue --pubkey " + Path("pub.b64") + " --subject \"CN=Enrolled User,C=CN\"" +
                    " --ca-dir " + ca + " --not-after " + notAfter + " --out " + Path("p7.b64") +
                    " --leaf-out " + Path(std::string(notAfter) + ".der"))
                  .status,
              0);
    Ret ret;
    ASSERT_EQ(control_->writeClientCert(U(ReadFile(Path("p7.b64"))), &ret), 0);
    ASSERT_EQ(ret, 0);
  }
  ASSERT_EQ(Store("MY").size(), 3u);
  Ret ret;
  ASSERT_EQ(control_->leavingMostRecentCert(U("CN=Enrolled User,C=CN"),
                                            U("CN=Reference Sub CA 1,O=Korvanta Test,C=CN"), &ret),
            0);
  EXPECT_EQ(ret, 0);
  EXPECT_EQ(Store("MY"), std::vector<std::string>{ReadFile(Path("20330101000000.der"))});

  // A PFX of a new key and its certificate.
  Text pub;
  ASSERT_EQ(control_->genKeyPair(2048, &pub), 0);
  dir_.Write("pub.b64", Utf8(pub));
  ASSERT_EQ(RefCa("issue --pubkey " + Path("pub.b64") + " --ca-dir " + ca + " --out " +
                  Path("p7.b64") + " --leaf-out " + Path("pfxleaf.der"))
                .status,
            0);
  Text pfx;
  ASSERT_EQ(control_->writeClientCertToPFX(U(ReadFile(Path("p7.b64"))), U("export"), &pfx), 0);
  const std::string p12 = dir_.Write("x.p12", UnB64(Utf8(pfx)));
  EXPECT_EQ(RunShell("openssl pkcs12 -in " + p12 + " -passin pass:export -legacy -nodes " +
                     "-nocerts 2>/dev/null | openssl rsa -noout -modulus")
                .out,
            CertModulus(ReadFile(Path("pfxleaf.der"))));
}

}  // namespace
}  // namespace kvtest
