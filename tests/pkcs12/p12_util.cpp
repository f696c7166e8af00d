#include "pkcs12/p12_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "asn1/asn1.h"

namespace p12test {

std::string DataPath(const std::string& name) {
  return std::string(KV_TEST_DATA_DIR) + "/pkcs12/" + name;
}

std::string PemDer(const std::string& name) {
  auto blocks =
      kvtest::PemBlocks(kvtest::ReadFile(DataPath(name)), {"CERTIFICATE", "RSA PRIVATE KEY"});
  EXPECT_FALSE(blocks.empty()) << name;
  return blocks.empty() ? std::string() : blocks[0];
}

std::vector<std::map<std::string, std::string>> Records(const std::string& name) {
  std::ifstream f(DataPath(name));
  EXPECT_TRUE(f.good()) << name;
  std::vector<std::map<std::string, std::string>> out(1);
  std::string line;
  while (std::getline(f, line)) {
    size_t eq = line.find(" = ");
    if (line.empty() && !out.back().empty()) out.emplace_back();
    if (!line.empty() && line[0] != '#' && eq != std::string::npos)
      out.back()[line.substr(0, eq)] = line.substr(eq + 3);
  }
  if (out.back().empty()) out.pop_back();
  return out;
}

namespace {

void Take(const AsnInteger* v, unsigned char*& p, unsigned& n) {
  MiByte m = v->GetData().GetMagnitude();
  n = m.GetLength();
  p = static_cast<unsigned char*>(T_malloc(n));
  std::memcpy(p, m.GetChars(), n);
}

}  // namespace

KeyRecord::KeyRecord(const std::string& name) {
  std::string der = PemDer(name);
  RSAPrivateKey rsa;
  rsa.DerDecode(MiByte(der.data(), static_cast<unsigned>(der.size())), 0);
  Take(rsa.GetPkModulus(), key_.modulus, key_.modulusLen);
  Take(rsa.GetPublicExponent(), key_.publicExponent, key_.publicExponentLen);
  Take(rsa.GetPrivateExponent(), key_.privateExponent, key_.privateExponentLen);
  Take(rsa.GetPrime1(), key_.prime1, key_.prime1Len);
  Take(rsa.GetPrime2(), key_.prime2, key_.prime2Len);
  Take(rsa.GetExponent1(), key_.exponent1, key_.exponent1Len);
  Take(rsa.GetExponent2(), key_.exponent2, key_.exponent2Len);
  Take(rsa.GetCoefficient(), key_.coefficient, key_.coefficientLen);
}

KeyRecord::~KeyRecord() {
  PKCS_FreePriKey(nullptr, &key_);
}

std::string KeyRecord::ModulusHex() const {
  return Hex(key_.modulus, key_.modulusLen);
}

Library::Library() {
  EXPECT_EQ(PKCS_Initialize(), 0);
  EXPECT_EQ(PKCS_CreateCtx(&ctx_), 0);
}

Library::~Library() {
  PKCS_DestroyCtx(ctx_);
  PKCS_Finalize();
}

std::string Build(const Library& lib, const std::string& cert, const PKCS_PRIKEY* key,
                  const char* password, const KV_PFX_OPTIONS* opt, int* status) {
  unsigned char* out = nullptr;
  unsigned len = 0;
  int rv = KV_GenPFXEx(lib.ctx(), reinterpret_cast<const unsigned char*>(cert.data()),
                       static_cast<unsigned>(cert.size()), key, password, opt, &out, &len);
  if (status)
    *status = rv;
  else
    EXPECT_EQ(rv, 0);
  std::string result(reinterpret_cast<char*>(out), out ? len : 0);
  T_free(out);
  return result;
}

std::vector<std::string> Parsed::Others() const {
  std::vector<std::string> v;
  unsigned n = 0;
  if (c.others) KV_ListCount(c.others, &n);
  for (unsigned i = 0; i < n; ++i) {
    const unsigned char* p;
    unsigned len;
    KV_ListGet(c.others, i, &p, &len);
    v.emplace_back(reinterpret_cast<const char*>(p), len);
  }
  return v;
}

std::string Parsed::ModulusHex() const {
  return Hex(c.key.modulus, c.key.modulusLen);
}

int Parse(const Library& lib, const std::string& pfx, const char* password, Parsed& out) {
  return KV_ParsePFX(lib.ctx(), reinterpret_cast<const unsigned char*>(pfx.data()),
                     static_cast<unsigned>(pfx.size()), password, &out.c);
}

std::string Hex(const unsigned char* p, unsigned n) {
  static const char d[] = "0123456789abcdef";
  std::string s;
  for (unsigned i = 0; i < n; ++i) {
    s += d[p[i] >> 4];
    s += d[p[i] & 15];
  }
  return s;
}

std::string Hex(const std::string& s) {
  return Hex(reinterpret_cast<const unsigned char*>(s.data()), static_cast<unsigned>(s.size()));
}

std::string Quote(const std::string& s) {
  std::string q = "'";
  for (char ch : s) q += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
  return q + "'";
}

}  // namespace p12test
