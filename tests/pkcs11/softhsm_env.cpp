#include "softhsm_env.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "crypto/p11.h"

namespace p11test {

const char kModule[] = "/usr/lib/softhsm/libsofthsm2.so";
const char kPin[] = "1234";
const char kSoPin[] = "12345678";
const char kPython[] = "/usr/bin/python3";
const char kOpsToken[] = "kv-ops";
const char kPinToken[] = "kv-pin";
const char kKnownToken[] = "kv-known";

namespace {

kvtest::TempDir* g_scratch = nullptr;
std::string g_knownModulus;

class SoftHsmEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    g_scratch = new kvtest::TempDir;
    const kvtest::TempDir& d = *g_scratch;
    ASSERT_FALSE(d.Path().empty());
    ASSERT_EQ(kvtest::RunShell("mkdir -p '" + (d / "tokens") + "'").status, 0);
    std::string conf = d.Write("softhsm2.conf", "directories.tokendir = " + (d / "tokens") +
                                                    "\nobjectstore.backend = file\n"
                                                    "log.level = ERROR\n");
    // Before anything loads the module: SoftHSM reads it at C_Initialize.
    ::setenv("SOFTHSM2_CONF", conf.c_str(), 1);
    for (const char* label : {kOpsToken, kPinToken, kKnownToken}) {
      auto r = kvtest::RunShell(std::string("softhsm2-util --init-token --free --label ") + label +
                                " --so-pin " + kSoPin + " --pin " + kPin + " 2>&1");
      ASSERT_EQ(r.status, 0) << r.out;
    }
    // A known key pair, made and imported by tools other than ours.
    std::string key = d / "known.pem";
    auto r =
        kvtest::RunShell("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 -out '" +
                         key + "' 2>&1 && openssl pkey -in '" + key + "' -outform DER -out '" +
                         (d / "known.der") + "' 2>&1 && " + "openssl pkey -in '" + key +
                         "' -pubout -outform DER -out '" + (d / "known-pub.der") + "' 2>&1");
    ASSERT_EQ(r.status, 0) << r.out;
    std::string tool = std::string("pkcs11-tool --module ") + kModule + " --token-label " +
                       kKnownToken + " --login --pin " + kPin + " --id 4b01 --label known ";
    r = kvtest::RunShell(tool + "--write-object '" + (d / "known.der") +
                         "' --type privkey 2>&1 && " + tool + "--write-object '" +
                         (d / "known-pub.der") + "' --type pubkey 2>&1");
    ASSERT_EQ(r.status, 0) << r.out;
    r = kvtest::RunShell("openssl rsa -in '" + key + "' -noout -modulus");
    ASSERT_EQ(r.status, 0);
    ASSERT_EQ(r.out.rfind("Modulus=", 0), 0u);
    g_knownModulus = r.out.substr(8);
    while (!g_knownModulus.empty() && g_knownModulus.back() == '\n') g_knownModulus.pop_back();
    for (char& c : g_knownModulus) c = static_cast<char>(std::tolower(c));
  }
  void TearDown() override {
    KV_P11_UnloadModules();
    delete g_scratch;
    g_scratch = nullptr;
  }
};

const auto* const g_env = ::testing::AddGlobalTestEnvironment(new SoftHsmEnvironment);

}  // namespace

const kvtest::TempDir& Scratch() {
  return *g_scratch;
}
std::string Oracle(const std::string& args) {
  return kvtest::RunShell(std::string(kPython) + " '" + KV_TEST_DATA_DIR +
                          "/pkcs11/rsa_oracle.py' " + args)
      .out;
}
std::string ConfPath() {
  return Scratch() / "softhsm2.conf";
}
std::string KnownKeyPem() {
  return Scratch() / "known.pem";
}
std::string KnownModulusHex() {
  return g_knownModulus;
}

std::string Hex(const std::vector<unsigned char>& v) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  for (unsigned char c : v) {
    s += digits[c >> 4];
    s += digits[c & 15];
  }
  return s;
}

std::vector<unsigned char> FromHex(const std::string& hex) {
  std::vector<unsigned char> v;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    v.push_back(static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  return v;
}

std::string WritePublicPem(const std::string& name, const std::vector<unsigned char>& n,
                           const std::vector<unsigned char>& e) {
  std::string path = Scratch() / name;
  auto r = kvtest::RunShell(
      std::string(kPython) +
      " -c 'import sys\n"
      "from cryptography.hazmat.primitives.asymmetric import rsa\n"
      "from cryptography.hazmat.primitives import serialization as s\n"
      "k = rsa.RSAPublicNumbers(int(sys.argv[2], 16), int(sys.argv[1], 16)).public_key()\n"
      "open(sys.argv[3], \"wb\").write(k.public_bytes(s.Encoding.PEM, "
      "s.PublicFormat.SubjectPublicKeyInfo))' " +
      Hex(n) + " " + Hex(e) + " '" + path + "' 2>&1");
  return r.status == 0 ? path : std::string();
}

int LoadToken(const char* token) {
  return KV_P11_LoadModule(kModule, token, kPin);
}

DiagCapture::DiagCapture() {
  KV_P11_SetDiagnostics(&DiagCapture::Sink, this);
}
DiagCapture::~DiagCapture() {
  KV_P11_SetDiagnostics(nullptr, nullptr);
}
void DiagCapture::Sink(void* arg, const char* text) {
  static_cast<DiagCapture*>(arg)->texts_.push_back(text);
}

}  // namespace p11test
