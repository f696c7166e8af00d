// KV_Certificate and KV_Certificate_Tool on certificates that OpenSSL signed
// (SHA-1, MD5, SHA-256, EC) and that pycryptodome signed with MD2
// (tests/data/pki/gen_pki_data.py). Expected keys, serials and validity bounds
// come from OpenSSL and Python cryptography, never from the toolkit.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "pki/pki.h"
#include "support/support.h"

namespace {

const std::string kData = std::string(KV_TEST_DATA_DIR) + "/pki/";

// DER of a test certificate (PEM files are unwrapped by the test support).
MiByte LoadCert(const std::string& file) {
  std::string text = kvtest::ReadFile(kData + file);
  if (file.size() > 4 && file.substr(file.size() - 4) == ".pem") {
    auto blocks = kvtest::PemBlocks(text, {"CERTIFICATE"});
    text = blocks.empty() ? std::string() : blocks[0];
  }
  return MiByte(text.data(), static_cast<unsigned>(text.size()));
}

// Validity bounds from certs.txt (Python cryptography's reading).
std::pair<int64_t, int64_t> Bounds(const std::string& file) {
  std::ifstream in(kData + "certs.txt");
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string name;
    int64_t nb, na;
    if (fields >> name >> nb >> na && name == file) return {nb, na};
  }
  ADD_FAILURE() << "no bounds for " << file;
  return {0, 0};
}

std::string Hex(const MiByte& b) {
  static const char d[] = "0123456789ABCDEF";
  std::string s;
  for (unsigned i = 0; i < b.GetLength(); ++i) {
    s += d[b.GetBytes()[i] >> 4];
    s += d[b.GetBytes()[i] & 15];
  }
  return s;
}

std::string Trim(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
  return s;
}

class CertificateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KV_PKCS11_S soft{};
    soft.selector = KV_P11_STORE_SOFT;
    ASSERT_EQ(op_.createChooser(&soft), 0);
  }
  int Verify(const std::string& cert, const std::string& issuer) {
    MiByte c = LoadCert(cert), i;
    if (!issuer.empty()) i = LoadCert(issuer);
    return KV_Certificate_Tool::VerifyCertificateChain(op_, &c, issuer.empty() ? nullptr : &i);
  }
  KV_P11_OP op_;
};

TEST_F(CertificateTest, SignaturesOfEachDigestVerifyAgainstTheirIssuer) {
  EXPECT_EQ(Verify("root.pem", ""), 0);  // self-signed, SHA-1
  EXPECT_EQ(Verify("leaf_sha1.pem", "root.pem"), 0);
  EXPECT_EQ(Verify("leaf_md5.pem", "root.pem"), 0);
  EXPECT_EQ(Verify("md2_root.der", ""), 0);
  EXPECT_EQ(Verify("md2_leaf.der", "md2_root.der"), 0);
  EXPECT_EQ(Verify("generalized_time.der", ""), 0);
  // The Certificate form gives the same answers.
  KV_Certificate leaf, root;
  ASSERT_EQ(leaf.setCertificate(LoadCert("leaf_md5.pem")), 0);
  ASSERT_EQ(root.setCertificate(LoadCert("root.pem")), 0);
  EXPECT_EQ(
      KV_Certificate_Tool::VerifyCertificateChain(op_, leaf.certificate(), root.certificate()), 0);
}

TEST_F(CertificateTest, ChainRulesAndRefusals) {
  // Issued by an intermediate: the intermediate's ISSUER is the root, not the
  // leaf's issuer, so the issuer-with-issuer rule refuses it.
  EXPECT_EQ(Verify("leaf_under_inter.pem", "inter.pem"), KV_ERR_ISSUER);
  // Same issuer name, other key: the signature does not open (the token
  // layer's status is passed through).
  EXPECT_LT(Verify("leaf_sha1.pem", "root_other_key.pem"), 0);
  // A leaf is not self-signed.
  EXPECT_LT(Verify("leaf_sha1.pem", ""), 0);
  EXPECT_EQ(Verify("root_sha256.pem", ""), KV_ERR_UNSUPPORTED);
  EXPECT_EQ(Verify("ec_root.pem", ""), KV_ERR_UNSUPPORTED);
  EXPECT_EQ(KV_Certificate_Tool::VerifyCertificateChain(op_, static_cast<const MiByte*>(nullptr),
                                                        nullptr),
            KV_ERR_ARGUMENT);
  MiByte empty;
  EXPECT_EQ(KV_Certificate_Tool::VerifyCertificateChain(op_, &empty, &empty), KV_ERR_ARGUMENT);
  MiByte junk("\x30\x03\x02\x01\x01", 5);
  EXPECT_EQ(KV_Certificate_Tool::VerifyCertificateChain(op_, &junk, nullptr), KV_ERR_DECODE);
}

TEST_F(CertificateTest, AFlippedBitAnywhereSignedFailsTheCheck) {
  MiByte root = LoadCert("root.pem");
  for (const char* file : {"leaf_sha1.pem", "leaf_md5.pem"}) {
    MiByte good = LoadCert(file);
    // The serial number (2 or 3) lies inside the TBS; the last octet of the
    // file is the signature's.
    std::string der(good.GetChars(), good.GetLength());
    size_t serialAt = der.find(std::string("\x02\x01", 2) + (file[5] == 's' ? '\x02' : '\x03'));
    ASSERT_NE(serialAt, std::string::npos);
    std::string tbsFlip = der, sigFlip = der;
    tbsFlip[serialAt + 2] ^= 0x01;
    sigFlip[der.size() - 1] ^= 0x01;
    MiByte a(tbsFlip.data(), static_cast<unsigned>(tbsFlip.size()));
    MiByte b(sigFlip.data(), static_cast<unsigned>(sigFlip.size()));
    EXPECT_EQ(KV_Certificate_Tool::VerifyCertificateChain(op_, &a, &root), KV_ERR_SIGNATURE)
        << file;
    EXPECT_LT(KV_Certificate_Tool::VerifyCertificateChain(op_, &b, &root), 0) << file;
  }
}

TEST(CertificateAccessors, KeySerialSubjectAsOpenSSLReadsThem) {
  KV_Certificate cert;
  ASSERT_EQ(cert.setCertificate(LoadCert("leaf_sha1.pem")), 0);
  RSAPublicKey key;
  ASSERT_EQ(cert.getRSAPublicKey(key), 0);
  std::string modulus =
      kvtest::RunShell("openssl x509 -noout -modulus -in " + kData + "leaf_sha1.pem").out;
  EXPECT_EQ("Modulus=" + Hex(key.GetPkModulus()->GetData().GetMagnitude()), Trim(modulus));
  EXPECT_EQ(key.GetPublicExponent()->GetData().ToStdString(), "65537");

  IssuerAndSerialNumber ias;
  ASSERT_EQ(cert.getIssuerAndSerialNumber(ias), 0);
  EXPECT_EQ(ias.GetSerialNumber()->GetData().ToStdString(), "2");
  KV_Name issuer(*ias.GetIssuer());
  MiString issuerText;
  ASSERT_EQ(issuer.getText(issuerText), 0);
  EXPECT_EQ(std::string(issuerText), "CN=Test Root,O=Korvanta Test,C=CN");

  // "/C=CN/O=Example/CN=alice/serialNumber=42": serialNumber is outside the
  // label table.
  int total = 0;
  ASSERT_EQ(cert.getSubjectsTotal(total), 0);
  ASSERT_EQ(total, 4);
  const char* nodes[] = {"  C =CN", "  O =Example", " CN =alice", " ?? =42"};
  for (int i = 0; i < 4; ++i) {
    MiByte node;
    ASSERT_EQ(cert.getSubjectsByIndex(i, node), 0);
    EXPECT_EQ(std::string(node.GetChars(), node.GetLength()), nodes[i]);
  }
  MiByte node;
  EXPECT_EQ(cert.getSubjectsByIndex(4, node), KV_ERR_INDEX);

  KV_Certificate ec;
  ASSERT_EQ(ec.setCertificate(LoadCert("ec_root.pem")), 0);
  EXPECT_EQ(ec.getRSAPublicKey(key), KV_ERR_UNSUPPORTED);

  // Round trip through both forms, and the PKCS#7 wrapper.
  MiByte der;
  ASSERT_EQ(cert.getCertificate(der), 0);
  EXPECT_TRUE(der == LoadCert("leaf_sha1.pem"));
  ExtendedCertificateOrCertificate wrapped;
  ASSERT_EQ(cert.getExtendedCertificate(wrapped), 0);
  KV_Certificate again;
  ASSERT_EQ(again.setExtendedCertificate(wrapped), 0);
  ASSERT_EQ(again.getCertificate(der), 0);
  EXPECT_TRUE(der == LoadCert("leaf_sha1.pem"));
}

TEST(CertificateAccessors, NothingHeldAndUndecodableInput) {
  KV_Certificate none;
  RSAPublicKey key;
  MiByte out;
  int total;
  IssuerAndSerialNumber ias;
  EXPECT_EQ(none.getRSAPublicKey(key), KV_ERR_NOTHING_HELD);
  EXPECT_EQ(none.getCertificate(out), KV_ERR_NOTHING_HELD);
  EXPECT_EQ(none.getSubjectsTotal(total), KV_ERR_NOTHING_HELD);
  EXPECT_EQ(none.getIssuerAndSerialNumber(ias), KV_ERR_NOTHING_HELD);
  EXPECT_EQ(none.VerifyValidityPeriod(), KV_ERR_NOTHING_HELD);
  MiByte cert = LoadCert("root.pem");
  MiByte truncated(cert.GetChars(), cert.GetLength() - 1);
  EXPECT_EQ(none.setCertificate(truncated), KV_ERR_DECODE);
  MiByte trailing(cert);
  trailing.Concat("\0", 1);
  EXPECT_EQ(none.setCertificate(trailing), KV_ERR_DECODE);
  EXPECT_EQ(none.getCertificate(out), KV_ERR_NOTHING_HELD);
}

TEST(CertificateValidity, BoundsAreInclusiveInUtcTimeAndGeneralizedTime) {
  for (const char* file : {"leaf_sha1.pem", "md2_root.der", "generalized_time.der"}) {
    KV_Certificate cert;
    ASSERT_EQ(cert.setCertificate(LoadCert(file)), 0);
    auto bounds = Bounds(file);
    EXPECT_EQ(cert.VerifyValidityPeriod(MiTime(bounds.first)), 0) << file;
    EXPECT_EQ(cert.VerifyValidityPeriod(MiTime(bounds.second)), 0) << file;
    EXPECT_EQ(cert.VerifyValidityPeriod(MiTime(bounds.first - 1)), KV_ERR_VALIDITY) << file;
    EXPECT_EQ(cert.VerifyValidityPeriod(MiTime(bounds.second + 1)), KV_ERR_VALIDITY) << file;
  }
  // Against the system clock: the MD2 root runs 2020 .. 2049.
  KV_Certificate md2;
  ASSERT_EQ(md2.setCertificate(LoadCert("md2_root.der")), 0);
  EXPECT_EQ(md2.VerifyValidityPeriod(), 0);
  KV_Certificate future;
  ASSERT_EQ(future.setCertificate(LoadCert("generalized_time.der")), 0);
  EXPECT_EQ(future.VerifyValidityPeriod(), KV_ERR_VALIDITY);
}

TEST(CertificateValidity, MissingOrUntypedBounds) {
  KV_Certificate source;
  ASSERT_EQ(source.setCertificate(LoadCert("root.pem")), 0);
  Certificate c;
  ASSERT_EQ(source.getCertificate(c), 0);
  Certificate untyped(c);
  untyped.GetTBSCertificate()->GetValidity()->GetNotAfter()->Unselect();
  KV_Certificate cert;
  ASSERT_EQ(cert.setCertificate(untyped), 0);
  EXPECT_EQ(cert.VerifyValidityPeriod(), KV_ERR_TIME_FORMAT);
  Certificate missing(c);
  missing.GetTBSCertificate()->Element("validity")->SetAsnPresent(false);
  ASSERT_EQ(cert.setCertificate(missing), 0);
  EXPECT_EQ(cert.VerifyValidityPeriod(), KV_ERR_MISSING_FIELD);
}

}  // namespace
