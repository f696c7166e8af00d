// The password-based primitives against answers of independent
// implementations (tests/data/pkcs12/gen_vectors.py): the appendix B key
// derivation by OpenSSL, HMAC-SHA-1 by Python, the BMP password by Python's
// UTF-16 codec. The six PBE schemes are proven by reading OpenSSL's files.
#include <gtest/gtest.h>

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
using p12test::Records;

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
  auto records = Records("kdf-openssl.txt");
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
  auto records = Records("hmac-sha1.txt");
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

}  // namespace
