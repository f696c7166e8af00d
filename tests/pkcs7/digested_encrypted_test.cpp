// digestedData and encryptedData with OpenSSL (cms -digest_create /
// -digest_verify, -EncryptedData_encrypt / -EncryptedData_decrypt), MD2 with
// pycryptodome, and the known-answer messages of tests/data/pkcs7/kat.txt.
#include <fstream>
#include <sstream>

#include "fixture.h"

namespace {

using namespace p7test;

const char kLegacy[] = " -provider legacy -provider default";

std::string Hex(const std::string& s) {
  static const char d[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : s) {
    out += d[c >> 4];
    out += d[c & 15];
  }
  return out;
}

std::string Unhex(const std::string& h) {
  std::string out;
  for (size_t i = 0; i + 1 < h.size(); i += 2)
    out += static_cast<char>(std::stoi(h.substr(i, 2), nullptr, 16));
  return out;
}

class DigestedEncryptedTest : public ::testing::Test {
 protected:
  // The reader of a type over a message: content or "status:N".
  std::string Read(const std::string& type, const std::string& msg, const std::string& key) {
    unsigned char* out = nullptr;
    unsigned n = 0;
    int rv = KV_ERR_ARGUMENT;
    if (type == "encrypted") {
      rv = PKCS7_ReadEncryptedDataMsg(ctx_.get(), U(msg), N(msg), U(key), N(key), &out, &n);
    } else if (type == "digested") {
      rv = PKCS7_ReadDigestedDataMsg(ctx_.get(), U(msg), N(msg), &out, &n);
    } else if (type == "signed") {
      rv = PKCS7_VerifySignedDataMsg(ctx_.get(), U(msg), N(msg), nullptr, 0, nullptr, 0, &out, &n);
    }
    std::string got = Take(out, n);
    if (rv != 0) return got.empty() ? "status:" + std::to_string(rv) : "content on failure";
    return "content:" + Hex(got);
  }

  Context ctx_;
  kvtest::TempDir dir_;
};

TEST_F(DigestedEncryptedTest, KnownAnswerMessages) {
  const std::string dir = std::string(KV_TEST_DATA_DIR) + "/pkcs7/";
  std::ifstream in(dir + "kat.txt");
  ASSERT_TRUE(in.good());
  std::string line;
  int cases = 0;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream f(line);
    std::string type, file, key, expected;
    ASSERT_TRUE(f >> type >> file >> key >> expected) << line;
    const std::string msg = kvtest::ReadFile(dir + file);
    ASSERT_FALSE(msg.empty()) << file;
    EXPECT_EQ(Read(type, msg, key == "-" ? "" : Unhex(key)), expected) << line;
    ++cases;
  }
  EXPECT_GE(cases, 15);
}

TEST_F(DigestedEncryptedTest, DigestedDataBothWaysWithOpenssl) {
  const std::string content = Content(600, 11);
  const std::string data = dir_.Write("content.bin", content);
  for (int digest : {int(KV_ALG_SHA1), int(KV_ALG_MD5)}) {
    const std::string md = digest == KV_ALG_SHA1 ? "sha1" : "md5";
    SCOPED_TRACE(md);
    unsigned char* out = nullptr;
    unsigned n = 0;
    ASSERT_EQ(PKCS7_WriteDigestedDataMsg(ctx_.get(), U(content), N(content), digest, &out, &n), 0);
    const std::string ours = dir_.Write("ours.der", Take(out, n));
    std::remove((dir_ / "out.bin").c_str());
    EXPECT_TRUE(Openssl("cms -digest_verify -binary -inform DER -in " + ours + " -out " +
                        (dir_ / "out.bin")));
    EXPECT_TRUE(kvtest::ReadFile(dir_ / "out.bin") == content);
    ASSERT_TRUE(Openssl("cms -digest_create -binary -md " + md + " -in " + data +
                        " -outform DER -out " + (dir_ / "theirs.der")));
    EXPECT_EQ(Read("digested", kvtest::ReadFile(dir_ / "theirs.der"), ""),
              "content:" + Hex(content));
  }
}

TEST_F(DigestedEncryptedTest, Md2DigestedDataMatchesPycryptodome) {
  const std::string content = Content(100, 12);
  unsigned char* out = nullptr;
  unsigned n = 0;
  ASSERT_EQ(PKCS7_WriteDigestedDataMsg(ctx_.get(), U(content), N(content), KV_ALG_MD2, &out, &n),
            0);
  const std::string msg = Take(out, n);
  // The digest is the message's last field: an OCTET STRING of 16.
  kvtest::ShellResult r = kvtest::RunShell(
      "/usr/bin/python3 -c \"import sys; from Cryptodome.Hash import MD2; "
      "print(MD2.new(open(sys.argv[1],'rb').read()).hexdigest())\" " +
      dir_.Write("c.bin", content));
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(Hex(msg.substr(msg.size() - 18)), "0410" + r.out.substr(0, 32));
  EXPECT_EQ(Read("digested", msg, ""), "content:" + Hex(content));
}

TEST_F(DigestedEncryptedTest, EncryptedDataBothWaysWithOpenssl) {
  struct Case {
    int cipher;
    const char* name;
    std::string key;
  } cases[] = {
      {PKCS7_CIPHER_DES, "des-cbc", Unhex("0123456789abcdef")},
      {PKCS7_CIPHER_DES3, "des-ede3-cbc", Content(24, 2)},
      {PKCS7_CIPHER_RC2_40, "rc2-40-cbc", Content(5, 3)},
      {PKCS7_CIPHER_RC2_64, "rc2-64-cbc", Content(8, 4)},
      {PKCS7_CIPHER_RC2_128, "rc2-cbc", Content(16, 5)},
      {PKCS7_CIPHER_RC4, "rc4", Content(16, 6)},
  };
  const std::string content = Content(333, 13);
  const std::string data = dir_.Write("content.bin", content);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    unsigned char* out = nullptr;
    unsigned n = 0;
    ASSERT_EQ(PKCS7_WriteEncryptedDataMsg(ctx_.get(), U(content), N(content), c.cipher, U(c.key),
                                          N(c.key), &out, &n),
              0);
    const std::string ours = dir_.Write("ours.der", Take(out, n));
    std::remove((dir_ / "out.bin").c_str());
    EXPECT_TRUE(Openssl("cms -EncryptedData_decrypt -binary -inform DER -in " + ours +
                        " -secretkey " + Hex(c.key) + " -out " + (dir_ / "out.bin") + kLegacy));
    EXPECT_TRUE(kvtest::ReadFile(dir_ / "out.bin") == content);
    ASSERT_TRUE(Openssl("cms -EncryptedData_encrypt -binary -" + std::string(c.name) +
                        " -secretkey " + Hex(c.key) + " -in " + data + " -outform DER -out " +
                        (dir_ / "theirs.der") + kLegacy));
    EXPECT_EQ(Read("encrypted", kvtest::ReadFile(dir_ / "theirs.der"), c.key),
              "content:" + Hex(content));
  }
  // A key that does not fit the cipher is refused when writing.
  unsigned char* out = nullptr;
  unsigned n = 0;
  const std::string key = Content(16, 1);
  EXPECT_EQ(PKCS7_WriteEncryptedDataMsg(ctx_.get(), U(content), N(content), PKCS7_CIPHER_RC2_40,
                                        U(key), N(key), &out, &n),
            KV_ERR_ARGUMENT);
  EXPECT_EQ(PKCS7_WriteEncryptedDataMsg(ctx_.get(), U(content), N(content), PKCS7_CIPHER_DES,
                                        U(key), N(key), &out, &n),
            KV_ERR_ARGUMENT);
}

TEST_F(DigestedEncryptedTest, DataRoundTripsAndContextRules) {
  const std::string content = Content(70000, 14);  // long-form lengths of three octets
  unsigned char* out = nullptr;
  unsigned n = 0;
  ASSERT_EQ(PKCS7_WriteDataMsg(nullptr, U(content), N(content), &out, &n), 0);
  const std::string msg = Take(out, n);
  ASSERT_TRUE(Openssl("asn1parse -inform DER -in " + dir_.Write("data.der", msg)));
  int type = 0;
  EXPECT_EQ(PKCS7_GetContentType(U(msg), N(msg), &type), 0);
  EXPECT_EQ(type, PKCS7_TYPE_DATA);
  ASSERT_EQ(PKCS7_ReadDataMsg(nullptr, U(msg), N(msg), &out, &n), 0);
  EXPECT_TRUE(Take(out, n) == content);
  // Cryptography needs a live context.
  EXPECT_EQ(PKCS7_WriteDigestedDataMsg(nullptr, U(content), N(content), KV_ALG_SHA1, &out, &n),
            KV_ERR_BAD_CONTEXT);
  EXPECT_EQ(PKCS7_WriteDigestedDataMsg(ctx_.get(), U(content), N(content), 4, &out, &n),
            KV_ERR_UNSUPPORTED);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(n, 0u);
}

}  // namespace
