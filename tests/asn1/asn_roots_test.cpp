// Every certificate of the system roots read through the open-type holder
// re-encodes to exactly the octets it came from.
#include <gtest/gtest.h>

#include <dirent.h>

#include <vector>

#include "asn_test_util.h"

using namespace asntest;

namespace {

// The Base64 body of the first PEM block (test-local: keeps this test
// independent of the toolkit's own codec).
std::string PemBody(const std::string& pem) {
  static const std::string alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  size_t begin = pem.find("-----BEGIN CERTIFICATE-----");
  size_t end = pem.find("-----END CERTIFICATE-----");
  if (begin == std::string::npos || end == std::string::npos) return "";
  std::string out;
  unsigned acc = 0, bits = 0;
  for (size_t i = begin + 27; i < end; ++i) {
    size_t v = alphabet.find(pem[i]);
    if (v == std::string::npos) continue;  // line ends and padding
    acc = (acc << 6) | static_cast<unsigned>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((acc >> bits) & 0xFF));
    }
  }
  return out;
}

std::vector<std::string> Roots() {
  std::vector<std::string> files;
  const std::string dir = "/usr/share/ca-certificates/mozilla";
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name.size() > 4 && name.substr(name.size() - 4) == ".crt")
        files.push_back(dir + "/" + name);
    }
    closedir(d);
  }
  return files;
}

}  // namespace

TEST(SystemRoots, OpenTypeHolderReEncodesEveryCertificateExactly) {
  const std::vector<std::string> files = Roots();
  if (files.empty()) GTEST_SKIP() << "no system roots installed";
  unsigned checked = 0;
  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    const std::string der = PemBody(ReadFile(file));
    ASSERT_FALSE(der.empty());
    MiByte in(der.data(), static_cast<unsigned>(der.size()));
    AsnAny any;
    ASSERT_EQ(any.DerDecode(in, 0), in.GetLength());
    EXPECT_EQ(Der(any), Hex(in));
    // The tree is a SEQUENCE of three: to-be-signed part, algorithm, signature.
    auto* top = dynamic_cast<AsnSequenceOf<AsnAny>*>(any.GetData());
    ASSERT_TRUE(top);
    ASSERT_EQ(top->Size(), 3u);
    EXPECT_TRUE(dynamic_cast<AsnBitString*>(top->Get(2)->GetData()));
    EXPECT_FALSE(Dump(any).empty());
    ++checked;
  }
  std::printf("system roots re-encoded: %u\n", checked);
  EXPECT_GT(checked, 100u);
}
