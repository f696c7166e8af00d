#include "keyconv/keyconv_test_util.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <sstream>

#include "support/support.h"

namespace kctest {

const char* const kPrivateNames[8] = {"modulus",   "publicExponent", "privateExponent",
                                      "prime1",    "prime2",         "exponent1",
                                      "exponent2", "coefficient"};

Bytes Hex(const std::string& hex) {
  Bytes out;
  int nibble = -1;
  for (char c : hex) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) continue;
    const int v = std::isdigit(static_cast<unsigned char>(c))
                      ? c - '0'
                      : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
    if (nibble < 0) {
      nibble = v;
    } else {
      out.push_back(static_cast<char>(nibble * 16 + v));
      nibble = -1;
    }
  }
  return out;
}

std::string ToHex(const Bytes& b) {
  static const char d[] = "0123456789abcdef";
  std::string s;
  for (unsigned char c : b) {
    s.push_back(d[c >> 4]);
    s.push_back(d[c & 15]);
  }
  return s;
}

Bytes StripZeros(const Bytes& b) {
  size_t i = 0;
  while (i + 1 < b.size() && b[i] == 0) ++i;
  return b.substr(i);
}

int OpenSsl(const std::string& args, std::string* out) {
  kvtest::ShellResult r = kvtest::RunShell("openssl " + args + " 2>&1");
  if (out) *out = r.out;
  return r.status;
}

namespace {

// The integers of "openssl rsa -text": a "name:" line followed by indented
// hex lines, or "publicExponent: 65537 (0x10001)" on one line.
std::map<std::string, Bytes> ParseText(const std::string& text) {
  std::map<std::string, Bytes> parts;
  std::istringstream in(text);
  std::string line, current;
  while (std::getline(in, line)) {
    if (!line.empty() && line[0] == ' ') {
      if (!current.empty()) parts[current] += Hex(line);
      continue;
    }
    current.clear();
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    const std::string name = line.substr(0, colon);
    const size_t paren = line.find("(0x");
    if (paren != std::string::npos) {
      std::string hex = line.substr(paren + 3, line.find(')') - paren - 3);
      if (hex.size() % 2) hex = "0" + hex;
      parts[name] = Hex(hex);
    } else {
      current = name;
    }
  }
  for (auto& p : parts) p.second = StripZeros(p.second);
  return parts;
}

OpenSslKey Convert(const std::string& name) {
  OpenSslKey key;
  kvtest::TempDir dir;
  const std::string pem = std::string(KV_TEST_DATA_DIR) + "/keyconv/" + name + ".pem";
  const std::string in = " -in '" + pem + "'";
  std::string text;
  EXPECT_EQ(0, OpenSsl("rsa" + in + " -outform MSBLOB -out " + (dir / "priv.blob")));
  EXPECT_EQ(0, OpenSsl("rsa" + in + " -pubout -outform MSBLOB -out " + (dir / "pub.blob")));
  EXPECT_EQ(0, OpenSsl("rsa" + in + " -outform DER -traditional -out " + (dir / "priv.der")));
  EXPECT_EQ(0, OpenSsl("rsa" + in + " -RSAPublicKey_out -outform DER -out " + (dir / "pub.der")));
  EXPECT_EQ(0, OpenSsl("rsa" + in + " -text -noout", &text));
  key.privBlob = kvtest::ReadFile(dir / "priv.blob");
  key.pubBlob = kvtest::ReadFile(dir / "pub.blob");
  key.privDer = kvtest::ReadFile(dir / "priv.der");
  key.pubDer = kvtest::ReadFile(dir / "pub.der");
  key.parts = ParseText(text);
  key.bits = static_cast<unsigned>(key.parts["modulus"].size() * 8);
  return key;
}

}  // namespace

const OpenSslKey& Key(const std::string& name) {
  static std::map<std::string, OpenSslKey> cache;
  auto it = cache.find(name);
  if (it == cache.end()) it = cache.emplace(name, Convert(name)).first;
  const OpenSslKey& k = it->second;
  EXPECT_FALSE(k.privBlob.empty() || k.pubDer.empty() || k.parts.size() != 8)
      << "OpenSSL could not convert " << name;
  return k;
}

Bytes PriRec::Part(int i) const {
  const unsigned char* const data[8] = {k.modulus,   k.publicExponent, k.privateExponent,
                                        k.prime1,    k.prime2,         k.exponent1,
                                        k.exponent2, k.coefficient};
  const unsigned len[8] = {k.modulusLen,   k.publicExponentLen, k.privateExponentLen,
                           k.prime1Len,    k.prime2Len,         k.exponent1Len,
                           k.exponent2Len, k.coefficientLen};
  return ToBytes(data[i], len[i]);
}

}  // namespace kctest
