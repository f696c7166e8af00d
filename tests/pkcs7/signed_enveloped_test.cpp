// signedAndEnvelopedData: no common tool writes it, so a Python script that
// builds and opens it stands in (RSA by Python cryptography, ciphers and
// digests by pycryptodome), with OpenSSL's asn1parse, pkeyutl and enc on the
// parts of one message.
#include "fixture.h"

namespace {

using namespace p7test;

class SignedEnvelopedTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(pki_.ok); }

  std::string Write(const std::string& content, int digest, int cipher, int flags = 0) {
    PriKey key(pki_.signer.key);
    PKCS7_SIGNER s{U(pki_.signer.cert), N(pki_.signer.cert), key.get(), digest};
    List recipients({pki_.recipient.cert});
    unsigned char* out = nullptr;
    unsigned n = 0;
    EXPECT_EQ(PKCS7_WriteSignedAndEnvelopedDataMsg(ctx_.get(), U(content), N(content), &s,
                                                   recipients.get(), cipher, flags, &out, &n),
              0);
    return Take(out, n);
  }

  int Open(const std::string& msg, const Party& as, const std::string* signerCert,
           std::string* content = nullptr, const std::string* key = nullptr) {
    PriKey k(key ? *key : as.key);
    unsigned char* out = nullptr;
    unsigned n = 0;
    int rv = PKCS7_ReadSignedAndEnvelopedDataMsg(ctx_.get(), U(msg), N(msg), U(as.cert), N(as.cert),
                                                 k.get(), signerCert ? U(*signerCert) : nullptr,
                                                 signerCert ? N(*signerCert) : 0, &out, &n);
    std::string got = Take(out, n);
    if (rv != 0) {
      EXPECT_TRUE(got.empty()) << "content handed out on failure";
    }
    if (content) *content = got;
    return rv;
  }

  const Pki& pki_ = TestPki();
  Context ctx_;
  kvtest::TempDir dir_;
};

TEST_F(SignedEnvelopedTest, OursOpensWithThePythonOracle) {
  struct Case {
    int digest, cipher, flags;
  } cases[] = {
      {KV_ALG_SHA1, PKCS7_CIPHER_DES3, 0},
      {KV_ALG_MD5, PKCS7_CIPHER_RC2_40, 0},
      {KV_ALG_MD2, PKCS7_CIPHER_RC4, 0},
      {KV_ALG_SHA1, PKCS7_CIPHER_DES, PKCS7_NOATTR},
      {KV_ALG_SHA1, PKCS7_CIPHER_RC2_128, PKCS7_NOATTR},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.digest) + "/" + std::to_string(c.cipher));
    const std::string content = Content(500 + c.cipher, c.digest);
    const std::string msg = dir_.Write("ours.der", Write(content, c.digest, c.cipher, c.flags));
    kvtest::ShellResult r = Oracle("open-sae " + msg + " " + pki_.recipient.keyPem + " " +
                                   pki_.signer.certPem + " " + (dir_ / "out.bin"));
    EXPECT_EQ(r.out, "ok\n");
    EXPECT_TRUE(kvtest::ReadFile(dir_ / "out.bin") == content);
    std::string got;
    EXPECT_EQ(Open(kvtest::ReadFile(msg), pki_.recipient, nullptr, &got), 0);
    EXPECT_TRUE(got == content);
  }
}

TEST_F(SignedEnvelopedTest, PartsOpenWithOpensslTools) {
  const std::string content = Content(256, 21);
  const std::string msg = dir_.Write("m.der", Write(content, KV_ALG_SHA1, PKCS7_CIPHER_DES3));
  kvtest::ShellResult parse = kvtest::RunShell("openssl asn1parse -inform DER -in " + msg);
  ASSERT_EQ(parse.status, 0);
  EXPECT_NE(parse.out.find(":pkcs7-signedAndEnvelopedData"), std::string::npos);
  EXPECT_NE(parse.out.find(":des-ede3-cbc"), std::string::npos);
  // The recipient's encrypted key, the IV and the encrypted content, by offset.
  kvtest::ShellResult parts = Oracle("parts-sae " + msg + " " + dir_.Path());
  ASSERT_EQ(parts.status, 0) << parts.out;
  ASSERT_TRUE(Openssl("pkeyutl -decrypt -inkey " + pki_.recipient.keyPem + " -in " +
                      (dir_ / "key.enc") + " -out " + (dir_ / "key.bin")));
  const std::string cek = kvtest::ReadFile(dir_ / "key.bin");
  ASSERT_EQ(cek.size(), 24u);
  std::string hexKey;
  for (unsigned char c : cek) {
    char b[3];
    snprintf(b, sizeof b, "%02x", c);
    hexKey += b;
  }
  ASSERT_TRUE(Openssl("enc -d -des-ede3-cbc -K " + hexKey + " -iv " +
                      kvtest::ReadFile(dir_ / "iv.hex") + " -in " + (dir_ / "content.enc") +
                      " -out " + (dir_ / "content.bin")));
  EXPECT_TRUE(kvtest::ReadFile(dir_ / "content.bin") == content);
}

TEST_F(SignedEnvelopedTest, PythonMadeMessageOpensHere) {
  const std::string content = Content(1234, 22);
  const std::string msg = dir_ / "py.der";
  kvtest::ShellResult r =
      Oracle("make-sae " + dir_.Write("c.bin", content) + " " + pki_.signer.certPem + " " +
             pki_.signer.keyPem + " " + pki_.recipient.certPem + " " + msg);
  ASSERT_EQ(r.status, 0) << r.out;
  const std::string der = kvtest::ReadFile(msg);
  std::string got;
  EXPECT_EQ(Open(der, pki_.recipient, nullptr, &got), 0);
  EXPECT_TRUE(got == content);
  EXPECT_EQ(Open(der, pki_.recipient, &pki_.signer.cert), 0);
  // Someone else's certificate as the signer's, a stranger, a wrong key.
  EXPECT_EQ(Open(der, pki_.recipient, &pki_.stranger.cert), KV_ERR_NOT_FOUND);
  EXPECT_EQ(Open(der, pki_.stranger, nullptr), KV_ERR_NOT_FOUND);
  EXPECT_EQ(Open(der, pki_.recipient, nullptr, nullptr, &pki_.stranger.key), KV_ERR_DECRYPT);
}

TEST_F(SignedEnvelopedTest, SpoiltSignatureIsReported) {
  const std::string content = Content(100, 23);
  // The signer information is the message's last field, its sealed digest the
  // last octets: spoiling the next-to-last block garbles the signature block
  // but leaves its padding intact.
  std::string msg = Write(content, KV_ALG_SHA1, PKCS7_CIPHER_DES3);
  msg[msg.size() - 12] ^= 0x01;
  EXPECT_EQ(Open(msg, pki_.recipient, nullptr), KV_ERR_SIGNATURE);
  // Without a signer nothing is written.
  List recipients({pki_.recipient.cert});
  unsigned char* out = nullptr;
  unsigned n = 0;
  EXPECT_EQ(PKCS7_WriteSignedAndEnvelopedDataMsg(ctx_.get(), U(content), N(content), nullptr,
                                                 recipients.get(), PKCS7_CIPHER_DES3, 0, &out, &n),
            KV_ERR_ARGUMENT);
}

}  // namespace
