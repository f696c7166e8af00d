// envelopedData both ways with OpenSSL (legacy provider for DES, RC2, RC4),
// every content cipher, and the failures of a wrong key, a stranger and a
// corrupted message.
#include "fixture.h"

namespace {

using namespace p7test;

const char kLegacy[] = " -provider legacy -provider default";

struct CipherCase {
  int cipher;
  const char* opensslName;
  size_t contentLen;
};

const CipherCase kCiphers[] = {
    {PKCS7_CIPHER_DES, "des", 1000},      {PKCS7_CIPHER_DES3, "des3", 0},
    {PKCS7_CIPHER_RC2_40, "rc2-40", 8},   {PKCS7_CIPHER_RC2_64, "rc2-64", 999},
    {PKCS7_CIPHER_RC2_128, "rc2-128", 1}, {PKCS7_CIPHER_RC4, "rc4", 1000},
};

class EnvelopedDataTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(pki_.ok); }

  std::string Envelope(const std::string& content, int cipher,
                       const std::vector<std::string>& recipients) {
    List list(recipients);
    unsigned char* out = nullptr;
    unsigned n = 0;
    EXPECT_EQ(PKCS7_WriteEnvelopedDataMsg(ctx_.get(), U(content), N(content), list.get(), cipher,
                                          &out, &n),
              0);
    return Take(out, n);
  }

  int Open(const std::string& msg, const Party& as, std::string* content = nullptr,
           const std::string* key = nullptr) {
    PriKey k(key ? *key : as.key);
    unsigned char* out = nullptr;
    unsigned n = 0;
    int rv = PKCS7_ReadEnvelopedDataMsg(ctx_.get(), U(msg), N(msg), U(as.cert), N(as.cert), k.get(),
                                        &out, &n);
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

TEST_F(EnvelopedDataTest, OursOpensInOpensslWithEveryCipher) {
  for (const CipherCase& c : kCiphers) {
    SCOPED_TRACE(c.opensslName);
    const std::string content = Content(c.contentLen, c.cipher);
    const std::string msg = dir_.Write(
        "ours.der", Envelope(content, c.cipher, {pki_.recipient.cert, pki_.signer.cert}));
    for (const Party* p : {&pki_.recipient, &pki_.signer}) {
      std::remove((dir_ / "out.bin").c_str());
      EXPECT_TRUE(Openssl("cms -decrypt -binary -inform DER -in " + msg + " -recip " + p->certPem +
                          " -inkey " + p->keyPem + " -out " + (dir_ / "out.bin") + kLegacy));
      EXPECT_TRUE(kvtest::ReadFile(dir_ / "out.bin") == content);
    }
  }
}

TEST_F(EnvelopedDataTest, OpensslEnvelopesOpenHere) {
  for (const CipherCase& c : kCiphers) {
    SCOPED_TRACE(c.opensslName);
    const std::string content = Content(c.contentLen + 3, c.cipher);
    const std::string data = dir_.Write("content.bin", content);
    for (const char* tool : {"cms", "smime"}) {
      SCOPED_TRACE(tool);
      ASSERT_TRUE(Openssl(std::string(tool) + " -encrypt -binary -" + c.opensslName + " -in " +
                          data + " -outform DER -out " + (dir_ / "theirs.der") + kLegacy + " " +
                          pki_.recipient.certPem));
      std::string got;
      EXPECT_EQ(Open(kvtest::ReadFile(dir_ / "theirs.der"), pki_.recipient, &got), 0);
      EXPECT_TRUE(got == content);
    }
  }
}

TEST_F(EnvelopedDataTest, WrongKeyStrangerAndCorruptionFail) {
  const std::string content = Content(1000, 9);
  const std::string msg = Envelope(content, PKCS7_CIPHER_DES3, {pki_.recipient.cert});
  std::string got;
  ASSERT_EQ(Open(msg, pki_.recipient, &got), 0);
  ASSERT_EQ(got, content);
  // The recipient's certificate with another key cannot unwrap the content key.
  EXPECT_EQ(Open(msg, pki_.recipient, nullptr, &pki_.stranger.key), KV_ERR_DECRYPT);
  // Someone the message was not made for.
  EXPECT_EQ(Open(msg, pki_.stranger), KV_ERR_NOT_FOUND);
  // The last octet of the next-to-last block turns the padding octet 08 into
  // 88: no longer valid padding.
  std::string spoilt = msg;
  spoilt[spoilt.size() - 9] ^= 0x80;
  EXPECT_EQ(Open(spoilt, pki_.recipient), KV_ERR_DECRYPT);
  // A cipher we do not take, read and written.
  ASSERT_TRUE(Openssl("cms -encrypt -binary -aes128 -in " + dir_.Write("c.bin", content) +
                      " -outform DER -out " + (dir_ / "aes.der") + " " + pki_.recipient.certPem));
  EXPECT_EQ(Open(kvtest::ReadFile(dir_ / "aes.der"), pki_.recipient), KV_ERR_UNSUPPORTED);
  List list({pki_.recipient.cert});
  unsigned char* out = nullptr;
  unsigned n = 0;
  EXPECT_EQ(
      PKCS7_WriteEnvelopedDataMsg(ctx_.get(), U(content), N(content), list.get(), 99, &out, &n),
      KV_ERR_UNSUPPORTED);
  EXPECT_EQ(out, nullptr);
  List none;
  EXPECT_EQ(PKCS7_WriteEnvelopedDataMsg(ctx_.get(), U(content), N(content), none.get(),
                                        PKCS7_CIPHER_DES3, &out, &n),
            KV_ERR_ARGUMENT);
}

TEST_F(EnvelopedDataTest, VectorFileNamesItsRecipients) {
  auto blocks = kvtest::PemBlocks(
      kvtest::ReadFile(std::string(KV_VECTORS_DIR) + "/pkcs7/enveloped.pem"), {"PKCS7"});
  ASSERT_EQ(blocks.size(), 1u);
  KV_PKCS7_EnvelopedData ed;
  ASSERT_EQ(ed.decode(MiByte(blocks[0].data(), N(blocks[0]))), 0);
  EXPECT_EQ(ed.recipientCount(), 2u);
  // Made for two others: our recipient finds no recipient information.
  EXPECT_EQ(Open(blocks[0], pki_.recipient), KV_ERR_NOT_FOUND);
}

}  // namespace
