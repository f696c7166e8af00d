// The password-based primitives against answers of independent
// implementations (tests/data/pkcs12/gen_vectors.py): the appendix B key
// derivation by OpenSSL, HMAC-SHA-1 by Python, the BMP password by Python's
// UTF-16 codec.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "asn1/asn1.h"
#include "pkcs12/p12_util.h"
#include "pki/internal/context.h"
#include "pki/internal/pkcs12_pbe.h"

namespace {

using namespace kv::pki::p12;
using Record = std::map<std::string, std::string>;

// Records of "NAME = value" lines separated by blank lines; "#" comments.
std::vector<Record> ReadRecords(const std::string& name) {
  std::ifstream f(p12test::DataPath(name));
  EXPECT_TRUE(f.good()) << name;
  std::vector<Record> out;
  Record cur;
  std::string line;
  while (std::getline(f, line)) {
    if (line.empty() || line[0] == '#') {
      if (!cur.empty()) out.push_back(cur);
      cur.clear();
      continue;
    }
    size_t eq = line.find(" = ");
    if (eq != std::string::npos) cur[line.substr(0, eq)] = line.substr(eq + 3);
  }
  if (!cur.empty()) out.push_back(cur);
  return out;
}

MiByte FromHex(const std::string& hex) {
  std::string bytes;
  if (hex != "-")
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
      bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return MiByte(bytes.data(), static_cast<unsigned>(bytes.size()));
}

std::string ToHex(const MiByte& b) {
  return p12test::Hex(b.GetBytes(), b.GetLength());
}

class Pbe : public ::testing::Test {
 protected:
  KV_P11_OP& op() { return *kv::pki::ContextOp(lib_.ctx()); }
  p12test::Library lib_;
};

TEST_F(Pbe, KeyDerivationMatchesOpenSsl) {
  auto records = ReadRecords("kdf-openssl.txt");
  ASSERT_EQ(records.size(), 12u);
  for (const Record& r : records) {
    MiByte pw = FromHex(r.at("PASSWORD"));
    std::string text(pw.GetChars() ? pw.GetChars() : "", pw.GetLength());
    MiByte bmp;
    ASSERT_TRUE(PasswordToBmp(text.c_str(), bmp));
    EXPECT_EQ(ToHex(bmp), r.at("BMP")) << r.at("PASSWORD");
    MiByte out;
    std::string want = r.at("OUT");
    ASSERT_EQ(DeriveKey(op(), bmp, FromHex(r.at("SALT")), std::stoi(r.at("ITERATIONS")),
                        std::stoi(r.at("ID")), static_cast<unsigned>(want.size() / 2), out),
              0);
    EXPECT_EQ(ToHex(out), want) << r.at("PASSWORD") << " id " << r.at("ID");
  }
}

TEST_F(Pbe, HmacSha1MatchesPython) {
  auto records = ReadRecords("hmac-sha1.txt");
  ASSERT_EQ(records.size(), 10u);
  for (const Record& r : records) {
    MiByte mac;
    ASSERT_EQ(HmacSha1(op(), FromHex(r.at("KEY")), FromHex(r.at("MSG")), mac), 0);
    EXPECT_EQ(ToHex(mac), r.at("MAC")) << r.at("KEY");
  }
}

TEST(PbePassword, RefusesWhatIsNotUtf8) {
  MiByte out;
  for (const char* bad : {"\x80", "a\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF"})
    EXPECT_FALSE(PasswordToBmp(bad, out)) << p12test::Hex(std::string(bad));
  ASSERT_TRUE(PasswordToBmp(nullptr, out));
  EXPECT_EQ(ToHex(out), "0000");
}

// Each scheme decrypts what it encrypted, and a wrong password is reported as
// a failed decryption, never as success with other octets.
TEST_F(Pbe, SchemesRoundTripAndRefuseWrongPassword) {
  MiByte pw, other, salt("saltsalt", 8);
  PasswordToBmp("58203716", pw);
  PasswordToBmp("58203717", other);
  MiByte plain("a SafeContents stands in here, 45 octets long", 45);
  for (const char* oid : {"1.2.840.113549.1.12.1.3", "1.2.840.113549.1.12.1.4",
                          "1.2.840.113549.1.12.1.5", "1.2.840.113549.1.12.1.6"}) {
    const PbeScheme* s = FindPbe(oid);
    ASSERT_NE(s, nullptr) << oid;
    MiByte enc, dec;
    ASSERT_EQ(PbeCrypt(op(), *s, pw, salt, 5, true, plain, enc), 0) << oid;
    EXPECT_EQ(enc.GetLength(), 48u) << oid;
    ASSERT_EQ(PbeCrypt(op(), *s, pw, salt, 5, false, enc, dec), 0) << oid;
    EXPECT_TRUE(dec == plain) << oid;
    MiByte wrong;
    int rv = PbeCrypt(op(), *s, other, salt, 5, false, enc, wrong);
    // One wrong key in 256 pads correctly by chance; these inputs do not.
    EXPECT_EQ(rv, KV_ERR_DECRYPT) << oid;
  }
  EXPECT_EQ(FindPbe("1.2.840.113549.1.5.13"), nullptr);
}

}  // namespace
