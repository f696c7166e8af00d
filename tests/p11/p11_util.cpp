#include "p11/p11_util.h"

#include <gtest/gtest.h>

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
  return M(Bytes(s.begin(), s.end()));
}
Bytes B(const MiByte& m) {
  return Bytes(m.GetBytes(), m.GetBytes() + m.GetLength());
}

Bytes Random(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  Bytes v(n);
  for (auto& b : v) b = static_cast<unsigned char>(rng());
  return v;
}

std::string Hex(const Bytes& b) {
  std::string s;
  for (unsigned char c : b) {
    s += "0123456789abcdef"[c >> 4];
    s += "0123456789abcdef"[c & 15];
  }
  return s;
}

Bytes Unhex(const std::string& hex) {
  const std::string h = hex.size() % 2 ? "0" + hex : hex;
  Bytes out;
  for (size_t i = 0; i + 1 < h.size(); i += 2)
    out.push_back(std::stoi(h.substr(i, 2), nullptr, 16));
  return out;
}

void OpenSoft(KV_P11_OP& op) {
  KV_PKCS11_S s{KV_P11_STORE_SOFT, nullptr, 0, nullptr, 0};
  ASSERT_EQ(op.createChooser(&s), 0);
}

namespace {
const kvtest::TempDir& Dir() {
  static kvtest::TempDir dir;
  return dir;
}
const std::string kRsaKeyPy = std::string(KV_TEST_DATA_DIR) + "/p11/rsakey.py";
}  // namespace

std::string Scratch(const std::string& name) {
  return Dir() / name;
}

std::string WriteScratch(const std::string& name, const Bytes& data) {
  std::ofstream(Scratch(name), std::ios::binary)
      .write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size()));
  return Scratch(name);
}

Bytes ReadScratch(const std::string& name) {
  std::ifstream in(Scratch(name), std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

int Shell(const std::string& cmd, std::string* out) {
  kvtest::ShellResult r = kvtest::RunShell("cd '" + Dir().Path() + "' && " + cmd);
  if (out) *out = r.out;
  return r.status;
}

Bytes Openssl(const std::string& args, const Bytes& data, int* status) {
  WriteScratch("in", data);
  const int rc = Shell("openssl " + args + " <in >out 2>err");
  if (status) {
    *status = rc;
  } else {
    EXPECT_EQ(rc, 0) << args;
  }
  return ReadScratch("out");
}

bool HaveOracles() {
  return Shell("openssl version && " + kPython + " -c 'import cryptography' >/dev/null 2>&1") == 0;
}

const RsaKey& OpensslKey(int bits) {
  static std::map<int, RsaKey> keys;
  auto it = keys.find(bits);
  if (it != keys.end()) return it->second;
  RsaKey& k = keys[bits];
  const std::string b = std::to_string(bits);
  k.privPem = Scratch("key" + b + ".pem");
  k.pubPem = k.privPem + ".pub";
  std::string out;
  EXPECT_EQ(Shell("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:" + b + " -out key" + b +
                      ".pem 2>/dev/null && openssl pkey -in key" + b + ".pem -pubout -out key" + b +
                      ".pem.pub && " + kPython + " " + kRsaKeyPy + " dump key" + b + ".pem",
                  &out),
            0);
  std::istringstream lines(out);
  std::string line;
  for (Bytes& c : k.comp) {
    std::getline(lines, line);
    c = Unhex(line);
  }
  return k;
}

RsaKey KeyFromComponents(const std::vector<Bytes>& comp) {
  static int serial = 0;
  RsaKey k;
  k.privPem = Scratch("made" + std::to_string(++serial) + ".pem");
  k.pubPem = k.privPem + ".pub";
  std::string cmd = kPython + " " + kRsaKeyPy + " pem " + k.privPem;
  for (size_t i = 0; i < 8 && i < comp.size(); ++i) {
    k.comp[i] = comp[i];
    cmd += " " + Hex(comp[i]);
  }
  EXPECT_EQ(Shell(cmd), 0) << cmd;
  return k;
}

KV_P11_Key PublicKey(const RsaKey& k) {
  KV_P11_Key key;
  KV_PKCS11_RSA_PUBLIC_KEY s{
      const_cast<unsigned char*>(k.comp[0].data()), unsigned(k.comp[0].size()),
      const_cast<unsigned char*>(k.comp[1].data()), unsigned(k.comp[1].size())};
  EXPECT_EQ(key.setPublicKey(&s), 0);
  return key;
}

KV_P11_Key PrivateKey(const RsaKey& k) {
  KV_P11_Key key;
  unsigned char* p[8];
  unsigned n[8];
  for (int i = 0; i < 8; ++i) {
    p[i] = const_cast<unsigned char*>(k.comp[i].data());
    n[i] = unsigned(k.comp[i].size());
  }
  KV_PKCS11_RSA_PRIVATE_KEY s{p[0], n[0], p[1], n[1], p[2], n[2], p[3], n[3],
                              p[4], n[4], p[5], n[5], p[6], n[6], p[7], n[7]};
  EXPECT_EQ(key.setPrivateKey(&s), 0);
  return key;
}

std::vector<Bytes> Components(KV_P11_Key& key) {
  std::vector<Bytes> out;
  KV_PKCS11_RSA_PRIVATE_KEY s{};
  KV_PKCS11_RSA_PUBLIC_KEY p{};
  if (key.getPrivateKey(&s) == 0) {
    const std::pair<unsigned char*, unsigned> parts[8] = {{s.modulus, s.modulusLen},
                                                          {s.publicExponent, s.publicExponentLen},
                                                          {s.privateExponent, s.privateExponentLen},
                                                          {s.prime1, s.prime1Len},
                                                          {s.prime2, s.prime2Len},
                                                          {s.exponent1, s.exponent1Len},
                                                          {s.exponent2, s.exponent2Len},
                                                          {s.coefficient, s.coefficientLen}};
    for (auto [d, n] : parts) {
      out.emplace_back(d, d + n);
      T_free(d);
    }
  } else if (key.getPublicKey(&p) == 0) {
    out.emplace_back(p.modulus, p.modulus + p.modulusLen);
    out.emplace_back(p.exponent, p.exponent + p.exponentLen);
    T_free(p.modulus);
    T_free(p.exponent);
  }
  return out;
}

}  // namespace p11test
