// signedData both ways with OpenSSL: our signatures verify there, theirs
// verify here, and every way of spoiling a message is reported by its status.
#include "fixture.h"

namespace {

using namespace p7test;

class SignedDataTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(pki_.ok); }

  // Our signedData by the test signer.
  std::string Sign(const std::string& content, int digest, int flags,
                   const std::vector<std::string>& extra = {}) {
    PriKey key(pki_.signer.key);
    PKCS7_SIGNER s{U(pki_.signer.cert), N(pki_.signer.cert), key.get(), digest};
    List certs(extra);
    unsigned char* out = nullptr;
    unsigned n = 0;
    EXPECT_EQ(PKCS7_WriteSignedDataMsg(ctx_.get(), U(content), N(content), &s, 1, certs.get(),
                                       flags, &out, &n),
              0);
    return Take(out, n);
  }

  // Our verification; the content handed out goes to *content.
  int Verify(const std::string& msg, const std::string* detached = nullptr,
             const std::string* cert = nullptr, std::string* content = nullptr) {
    unsigned char* out = nullptr;
    unsigned n = 0;
    int rv = PKCS7_VerifySignedDataMsg(
        ctx_.get(), U(msg), N(msg), detached ? U(*detached) : nullptr, detached ? N(*detached) : 0,
        cert ? U(*cert) : nullptr, cert ? N(*cert) : 0, &out, &n);
    std::string got = Take(out, n);
    if (rv != 0) {
      EXPECT_TRUE(got.empty()) << "content handed out on failure";
    }
    if (content) *content = got;
    return rv;
  }

  std::string Path(const std::string& name) const { return dir_ / name; }
  std::string Put(const std::string& name, const std::string& data) const {
    return dir_.Write(name, data);
  }

  const Pki& pki_ = TestPki();
  Context ctx_;
  kvtest::TempDir dir_;
};

TEST_F(SignedDataTest, OurSignaturesVerifyWithOpenssl) {
  const std::string content = Content(1000);
  const std::string data = Put("content.bin", content);
  struct Case {
    int digest;
    int flags;
  } cases[] = {{KV_ALG_SHA1, 0},
               {KV_ALG_SHA1, PKCS7_DETACHED},
               {KV_ALG_SHA1, PKCS7_NOATTR},
               {KV_ALG_SHA1, PKCS7_DETACHED | PKCS7_NOATTR},
               {KV_ALG_MD5, 0},
               {KV_ALG_MD5, PKCS7_DETACHED | PKCS7_NOATTR}};
  for (const Case& c : cases) {
    SCOPED_TRACE("digest " + std::to_string(c.digest) + " flags " + std::to_string(c.flags));
    const std::string msg = Put("signed.der", Sign(content, c.digest, c.flags));
    const std::string detached = (c.flags & PKCS7_DETACHED) ? " -content " + data : "";
    for (const char* tool : {"cms", "smime"}) {
      SCOPED_TRACE(tool);
      std::remove(Path("out.bin").c_str());
      EXPECT_TRUE(Openssl(std::string(tool) + " -verify -noverify -binary -inform DER -in " + msg +
                          detached + " -out " + Path("out.bin")));
      EXPECT_TRUE(kvtest::ReadFile(Path("out.bin")) == content);
    }
  }
}

TEST_F(SignedDataTest, Md2SignatureChecksOutWithPython) {
  // OpenSSL has no MD2; the oracle recomputes digest and DigestInfo itself.
  const std::string content = Content(300, 7);
  for (int flags : {0, int(PKCS7_NOATTR)}) {
    const std::string der = Sign(content, KV_ALG_MD2, flags);
    kvtest::ShellResult r = Oracle("verify-signed " + Put("md2.der", der) + " " +
                                   Put("c.bin", content) + " " + pki_.signer.certPem);
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(r.out, "md2 ok\n");
    EXPECT_EQ(Verify(der), 0);
  }
}

TEST_F(SignedDataTest, OpensslSignaturesVerifyHere) {
  const std::string content = Content(777, 3);
  const std::string data = Put("content.bin", content);
  const std::string signer = " -signer " + pki_.signer.certPem + " -inkey " + pki_.signer.keyPem;
  const std::string second =
      " -signer " + pki_.recipient.certPem + " -inkey " + pki_.recipient.keyPem;
  struct Case {
    std::string args;
    bool detached;
  } cases[] = {
      {"cms -sign -md sha1 -nodetach" + signer, false},
      {"cms -sign -md md5 -nodetach" + signer, false},
      {"cms -sign -md sha1" + signer, true},
      {"cms -sign -md md5 -noattr -nodetach" + signer, false},
      {"cms -sign -md sha1 -nodetach" + signer + second, false},
      {"cms -sign -md sha1 -nodetach -stream" + signer, false},  // BER, indefinite lengths
      {"smime -sign -md sha1 -nodetach" + signer, false},
      {"smime -sign -md md5" + signer, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    const std::string msg = Path("theirs.der");
    ASSERT_TRUE(Openssl(c.args + " -binary -in " + data + " -outform DER -out " + msg));
    const std::string der = kvtest::ReadFile(msg);
    std::string got;
    EXPECT_EQ(Verify(der, c.detached ? &content : nullptr, nullptr, &got), 0);
    EXPECT_TRUE(got == content);
    // The signer's certificate may also be handed in instead of looked up.
    EXPECT_EQ(Verify(der, c.detached ? &content : nullptr, &pki_.signer.cert), 0);
  }
}

TEST_F(SignedDataTest, SpoiltMessagesFailWithTheirStatus) {
  const std::string content = Content(512, 5);
  const std::string data = Put("content.bin", content);
  const std::string signer = " -signer " + pki_.signer.certPem + " -inkey " + pki_.signer.keyPem;
  auto theirs = [&](const std::string& extra) {
    EXPECT_TRUE(Openssl("cms -sign -md sha1 -binary -nodetach" + extra + signer + " -in " + data +
                        " -outform DER -out " + Path("m.der")));
    return kvtest::ReadFile(Path("m.der"));
  };
  auto flipContent = [&](std::string msg) {
    size_t at = msg.find(content.substr(100, 16));
    EXPECT_NE(at, std::string::npos);
    msg[at] ^= 0x01;
    return msg;
  };
  // Content changed under signed attributes: the message digest differs.
  EXPECT_EQ(Verify(flipContent(theirs(""))), KV_ERR_DIGEST);
  EXPECT_EQ(Verify(flipContent(Sign(content, KV_ALG_SHA1, 0))), KV_ERR_DIGEST);
  // Without attributes the signature itself fails.
  EXPECT_EQ(Verify(flipContent(theirs(" -noattr"))), KV_ERR_SIGNATURE);
  EXPECT_EQ(Verify(flipContent(Sign(content, KV_ALG_MD5, PKCS7_NOATTR))), KV_ERR_SIGNATURE);
  // The signature is the message's last field.
  for (std::string msg : {theirs(""), Sign(content, KV_ALG_SHA1, 0)}) {
    msg.back() ^= 0x40;
    EXPECT_EQ(Verify(msg), KV_ERR_SIGNATURE);
  }
  // Detached content that is not what was signed.
  std::string other = content;
  other[0] ^= 1;
  const std::string detached = Sign(content, KV_ALG_SHA1, PKCS7_DETACHED);
  EXPECT_EQ(Verify(detached, &other), KV_ERR_DIGEST);
  EXPECT_EQ(Verify(detached), KV_ERR_ARGUMENT);
  // A certificate that is not the signer's, and a message that carries none.
  const std::string good = Sign(content, KV_ALG_SHA1, 0);
  EXPECT_EQ(Verify(good, nullptr, &pki_.recipient.cert), KV_ERR_NOT_FOUND);
  const std::string bare = Sign(content, KV_ALG_SHA1, PKCS7_NOCERTS);
  EXPECT_EQ(Verify(bare), KV_ERR_NOT_FOUND);
  EXPECT_EQ(Verify(bare, nullptr, &pki_.signer.cert), 0);
  // Another content type, and no message at all.
  EXPECT_EQ(Verify(std::string("\x30\x05\x06\x03\x2a", 5)), KV_ERR_DECODE);
  unsigned char* out = nullptr;
  unsigned n = 0;
  ASSERT_EQ(PKCS7_WriteDataMsg(ctx_.get(), U(content), N(content), &out, &n), 0);
  EXPECT_EQ(Verify(Take(out, n)), KV_ERR_CONTENT_TYPE);
}

TEST_F(SignedDataTest, ObjectInterfaceNamesSignersAndCarriedCertificates) {
  const std::string content = "attached";
  const std::string msg =
      Sign(content, KV_ALG_SHA1, 0, {pki_.inter.cert, pki_.root.cert, pki_.signer.cert});
  KV_PKCS7_SignedData sd;
  ASSERT_EQ(sd.decode(MiByte(msg.data(), N(msg))), 0);
  EXPECT_FALSE(sd.detached());
  EXPECT_EQ(std::string(sd.content().GetChars(), sd.content().GetLength()), content);
  // The signer's certificate given twice is carried once.
  EXPECT_EQ(sd.certificates().size(), 3u);
  ASSERT_EQ(sd.signerCount(), 1u);
  MiByte cert;
  ASSERT_EQ(sd.signerCertificate(0, cert), 0);
  EXPECT_EQ(std::string(cert.GetChars(), cert.GetLength()), pki_.signer.cert);
  EXPECT_EQ(sd.signerCertificate(1, cert), KV_ERR_INDEX);
}

TEST_F(SignedDataTest, SignerChainsToATrustedCertificate) {
  // OpenSSL agrees that the chain holds.
  ASSERT_TRUE(Openssl("verify -CAfile " + pki_.root.certPem + " -untrusted " + pki_.inter.certPem +
                      " " + pki_.signer.certPem));
  auto decode = [](const std::string& msg, KV_PKCS7_SignedData& sd) {
    ASSERT_EQ(sd.decode(MiByte(msg.data(), N(msg))), 0);
  };
  auto bytes = [](const std::string& s) { return MiByte(s.data(), N(s)); };
  KV_P11_OP op;
  KV_PKCS11_S soft{};
  soft.selector = KV_P11_STORE_SOFT;
  ASSERT_EQ(op.createChooser(&soft), 0);
  const MiByte root = bytes(pki_.root.cert), inter = bytes(pki_.inter.cert);

  KV_PKCS7_SignedData sd;
  decode(Sign("x", KV_ALG_SHA1, 0, {pki_.inter.cert}), sd);
  EXPECT_EQ(sd.verifyChain(op, {root}), 0);
  EXPECT_EQ(sd.verifyChain(op, {inter}), 0);
  EXPECT_EQ(sd.verifyChain(op, {}), KV_ERR_CHAIN);
  EXPECT_EQ(sd.verifyChain(op, {bytes(pki_.stranger.cert)}), KV_ERR_CHAIN);
  // Without the intermediate in the message the caller can supply it.
  KV_PKCS7_SignedData bare;
  decode(Sign("x", KV_ALG_SHA1, 0), bare);
  EXPECT_EQ(bare.verifyChain(op, {root}), KV_ERR_CHAIN);
  EXPECT_EQ(bare.verifyChain(op, {inter}), 0);

  // An intermediate whose signature was spoilt (its last octet).
  std::string badInter = pki_.inter.cert;
  badInter.back() ^= 0x01;
  KV_PKCS7_SignedData spoilt;
  decode(Sign("x", KV_ALG_SHA1, 0, {badInter}), spoilt);
  EXPECT_EQ(spoilt.verifyChain(op, {root}), KV_ERR_SIGNATURE);

  // A signer certificate signed with SHA-256, which the toolkit lacks.
  ASSERT_TRUE(Openssl("req -new -key " + pki_.signer.keyPem + " -subj /CN=Signer256 -out " +
                      Path("s256.csr")));
  ASSERT_TRUE(Openssl("x509 -req -sha256 -in " + Path("s256.csr") + " -CA " + pki_.inter.certPem +
                      " -CAkey " + pki_.inter.keyPem + " -set_serial 9 -outform DER -out " +
                      Path("s256.der")));
  const std::string s256 = kvtest::ReadFile(Path("s256.der"));
  PriKey key(pki_.signer.key);
  PKCS7_SIGNER s{U(s256), N(s256), key.get(), KV_ALG_SHA1};
  unsigned char* out = nullptr;
  unsigned n = 0;
  ASSERT_EQ(PKCS7_WriteSignedDataMsg(ctx_.get(), U(s256), N(s256), &s, 1, nullptr, 0, &out, &n), 0);
  KV_PKCS7_SignedData sha256;
  decode(Take(out, n), sha256);
  EXPECT_EQ(sha256.verify(op), 0);
  EXPECT_EQ(sha256.verifyChain(op, {inter}), KV_ERR_UNSUPPORTED);
}

}  // namespace
