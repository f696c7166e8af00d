#include "p11/p11_util.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <sstream>

namespace p11test {

const std::string kPython = "/usr/bin/python3";

MiByte M(const Bytes& b) {
  return b.empty() ? MiByte() : MiByte(reinterpret_cast<const char*>(b.data()), unsigned(b.size()));
}

MiByte M(const std::string& s) {
  return s.empty() ? MiByte() : MiByte(s.data(), unsigned(s.size()));
}

Bytes B(const MiByte& m) {
  return Bytes(m.GetBytes(), m.GetBytes() + m.GetLength());
}

Bytes Random(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  Bytes v(n);
  for (auto& b : v) b = static_cast<unsigned char>(rng());
  return v;
}

std::string Hex(const Bytes& b) {
  static const char* digits = "0123456789abcdef";
  std::string s;
  for (unsigned char c : b) {
    s += digits[c >> 4];
    s += digits[c & 15];
  }
  return s;
}

Bytes Unhex(const std::string& hex) {
  std::string h = hex.size() % 2 ? "0" + hex : hex;
  Bytes out;
  for (size_t i = 0; i + 1 < h.size(); i += 2) {
    out.push_back(static_cast<unsigned char>(std::stoi(h.substr(i, 2), nullptr, 16)));
  }
  return out;
}

void OpenSoft(KV_P11_OP& op) {
  KV_PKCS11_S s{KV_P11_STORE_SOFT, nullptr, 0, nullptr, 0};
  ASSERT_EQ(op.createChooser(&s), 0);
}

unsigned RsaKey::ModulusBytes() const {
  return static_cast<unsigned>(comp[0].size());
}

const kvtest::TempDir& Scratch() {
  static kvtest::TempDir dir;
  return dir;
}

std::string WriteScratch(const std::string& name, const Bytes& data) {
  const std::string path = Scratch() / name;
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size()));
  return path;
}

Bytes ReadScratch(const std::string& name) {
  std::ifstream in(Scratch() / name, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

int Shell(const std::string& cmd, std::string* out) {
  kvtest::ShellResult r = kvtest::RunShell(cmd);
  if (out) *out = r.out;
  return r.status;
}

Bytes Openssl(const std::string& args, const Bytes& data, int* status) {
  WriteScratch("in", data);
  std::remove((Scratch() / "out").c_str());
  const std::string cmd = "cd '" + Scratch().Path() + "' && openssl " + args + " <in >out 2>err";
  const int rc = Shell(cmd);
  if (status) {
    *status = rc;
  } else {
    EXPECT_EQ(rc, 0) << cmd;
  }
  return ReadScratch("out");
}

bool HaveOpenssl() {
  return Shell("openssl version >/dev/null 2>&1") == 0;
}

bool HavePython(const std::string& module) {
  return Shell(kPython + " -c 'import " + module + "' >/dev/null 2>&1") == 0;
}

namespace {
const std::string kRsaKeyPy = std::string(KV_TEST_DATA_DIR) + "/p11/rsakey.py";

std::vector<Bytes> DumpKey(const std::string& pem) {
  std::string out;
  EXPECT_EQ(Shell(kPython + " '" + kRsaKeyPy + "' dump '" + pem + "'", &out), 0);
  std::istringstream lines(out);
  std::vector<Bytes> parts;
  for (std::string line; std::getline(lines, line);) parts.push_back(Unhex(line));
  return parts;
}
}  // namespace

const RsaKey& OpensslKey(int bits) {
  static std::map<int, RsaKey> keys;
  auto it = keys.find(bits);
  if (it != keys.end()) return it->second;
  RsaKey& k = keys[bits];
  const std::string name = "key" + std::to_string(bits);
  k.privPem = Scratch() / (name + ".pem");
  k.pubPem = Scratch() / (name + ".pub");
  EXPECT_EQ(
      Shell("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:" + std::to_string(bits) +
            " -out '" + k.privPem + "' 2>/dev/null && openssl pkey -in '" + k.privPem +
            "' -pubout -out '" + k.pubPem + "' 2>/dev/null"),
      0);
  std::vector<Bytes> parts = DumpKey(k.privPem);
  EXPECT_EQ(parts.size(), 8u);
  for (size_t i = 0; i < parts.size() && i < 8; ++i) k.comp[i] = parts[i];
  return k;
}

RsaKey KeyFromComponents(const Bytes* comp, int count) {
  static int serial = 0;
  RsaKey k;
  const std::string path = Scratch() / ("made" + std::to_string(++serial) + ".pem");
  std::string cmd = kPython + " '" + kRsaKeyPy + "' pem '" + path + "'";
  for (int i = 0; i < count; ++i) {
    k.comp[i] = comp[i];
    cmd += " " + Hex(comp[i]);
  }
  EXPECT_EQ(Shell(cmd), 0) << cmd;
  if (count == 8) {
    k.privPem = path;
    k.pubPem = path + ".pub";
  } else {
    k.pubPem = path;
  }
  return k;
}

KV_P11_Key PublicKey(const RsaKey& k) {
  KV_P11_Key key;
  KV_PKCS11_RSA_PUBLIC_KEY s{
      const_cast<unsigned char*>(k.comp[0].data()), unsigned(k.comp[0].size()),
      const_cast<unsigned char*>(k.comp[1].data()), unsigned(k.comp[1].size())};
  EXPECT_EQ(key.setPublicKey(&s), 0);
  key.setKeyType(KV_KEY_RSA_PUBLIC);
  return key;
}

KV_P11_Key PrivateKey(const RsaKey& k) {
  KV_P11_Key key;
  auto p = [&](int i) { return const_cast<unsigned char*>(k.comp[i].data()); };
  auto n = [&](int i) { return unsigned(k.comp[i].size()); };
  KV_PKCS11_RSA_PRIVATE_KEY s{p(0), n(0), p(1), n(1), p(2), n(2), p(3), n(3),
                              p(4), n(4), p(5), n(5), p(6), n(6), p(7), n(7)};
  EXPECT_EQ(key.setPrivateKey(&s), 0);
  key.setKeyType(KV_KEY_RSA_PRIVATE);
  return key;
}

std::vector<Bytes> Components(KV_P11_Key& key) {
  std::vector<Bytes> out;
  KV_PKCS11_RSA_PRIVATE_KEY s{};
  if (key.getPrivateKey(&s) == 0) {
    unsigned char* d[8] = {s.modulus, s.publicExponent, s.privateExponent, s.prime1,
                           s.prime2,  s.exponent1,      s.exponent2,       s.coefficient};
    unsigned l[8] = {s.modulusLen, s.publicExponentLen, s.privateExponentLen, s.prime1Len,
                     s.prime2Len,  s.exponent1Len,      s.exponent2Len,       s.coefficientLen};
    for (int i = 0; i < 8; ++i) {
      out.emplace_back(d[i], d[i] + l[i]);
      T_free(d[i]);
    }
    return out;
  }
  KV_PKCS11_RSA_PUBLIC_KEY p{};
  if (key.getPublicKey(&p) == 0) {
    out.emplace_back(p.modulus, p.modulus + p.modulusLen);
    out.emplace_back(p.exponent, p.exponent + p.exponentLen);
    T_free(p.modulus);
    T_free(p.exponent);
  }
  return out;
}

}  // namespace p11test
