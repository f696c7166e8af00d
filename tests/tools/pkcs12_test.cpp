// korvanta pkcs12, run as a user would: files it builds open in OpenSSL,
// files OpenSSL builds list correctly, and secrets stay private.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "support/support.h"

namespace {

using kvtest::ReadFile;
using kvtest::RunShell;

std::string Data(const std::string& name) {
  return std::string(KV_TEST_DATA_DIR) + "/pkcs12/" + name;
}

std::string Kv(const std::string& args) {
  return std::string(KV_KORVANTA_BIN) + " pkcs12 " + args + " 2>&1";
}

unsigned Mode(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : 0;
}

class Pkcs12Command : public ::testing::Test {
 protected:
  void SetUp() override { pw_ = dir_.Write("pw", "58203716\n"); }
  std::string P(const std::string& name) const { return dir_ / name; }
  std::string BuildArgs() const {
    return "build --cert " + Data("leaf.pem") + " --key " + Data("leaf-key.pem") + " --ca " +
           Data("ca.pem") + " --name 'Leaf User' --pass-file " + pw_ + " --out " + P("o.p12");
  }
  kvtest::TempDir dir_;
  std::string pw_;
};

TEST_F(Pkcs12Command, BuildsWhatOpenSslOpensAndListsIt) {
  auto r = RunShell(Kv(BuildArgs()));
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(Mode(P("o.p12")), 0600u);
  auto mod = RunShell("openssl pkcs12 -legacy -in " + P("o.p12") + " -passin pass:58203716" +
                      " -nocerts -nodes | openssl rsa -noout -modulus");
  auto want = RunShell("openssl rsa -noout -modulus -in " + Data("leaf-key.pem"));
  EXPECT_EQ(mod.out, want.out);

  r = RunShell(Kv("info --pass-file " + pw_ + " " + P("o.p12")));
  ASSERT_EQ(r.status, 0) << r.out;
  for (const char* line :
       {"integrity: HMAC-SHA-1, 2048 iterations\n",
        "bag 1: certificate (pbeWithSHAAnd40BitRC2-CBC, 2048 iterations)\n"
        "  friendlyName: Leaf User\n",
        "  subject: C=CN, O=Korvanta Test, CN=Leaf User\n",
        "bag 2: certificate (pbeWithSHAAnd40BitRC2-CBC, 2048 iterations)\n"
        "  subject: C=CN, O=Korvanta Test, CN=Korvanta Test Root\n",
        "bag 3: private key, shrouded (pbeWithSHAAnd3-KeyTripleDES-CBC, 2048 iterations)\n"})
    EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;
  // The key is never printed.
  EXPECT_EQ(r.out.find("PRIVATE KEY"), std::string::npos);
}

TEST_F(Pkcs12Command, ExportsTheKeyPrivatelyAndOnlyWithTheRightPassword) {
  ASSERT_EQ(RunShell(Kv(BuildArgs() + " --iter 7 --cert-cipher 3des")).status, 0);
  // Wrong password: a clear message, exit 1, nothing written.
  auto r = RunShell("echo wrong | " +
                    Kv("info --pass-stdin --export-key " + P("k.pem") + " " + P("o.p12")));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("wrong password"), std::string::npos) << r.out;
  EXPECT_TRUE(ReadFile(P("k.pem")).empty());
  EXPECT_TRUE(RunShell("ls " + dir_.Path() + " | grep -c tmp").out == "0\n");

  r = RunShell("KVPW=58203716 " +
               Kv("info --pass-env KVPW --export-key " + P("k.pem") + " " + P("o.p12")));
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("(pbeWithSHAAnd3-KeyTripleDES-CBC, 7 iterations)"), std::string::npos);
  EXPECT_EQ(Mode(P("k.pem")), 0600u);
  auto mod = RunShell("openssl rsa -noout -modulus -in " + P("k.pem"));
  auto want = RunShell("openssl rsa -noout -modulus -in " + Data("leaf-key.pem"));
  EXPECT_EQ(mod.out, want.out);
}

TEST_F(Pkcs12Command, ListsFilesOfOtherWritersAndRefusesNewSchemesClearly) {
  ASSERT_EQ(RunShell("openssl pkcs12 -export -legacy -inkey " + Data("leaf-key.pem") + " -in " +
                     Data("leaf.pem") + " -passout pass:58203716 -out " + P("ossl.p12"))
                .status,
            0);
  auto r = RunShell(Kv("info --pass-file " + pw_ + " " + P("ossl.p12")));
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("localKeyId: "), std::string::npos);
  ASSERT_EQ(RunShell("openssl pkcs12 -export -inkey " + Data("leaf-key.pem") + " -in " +
                     Data("leaf.pem") + " -passout pass:58203716 -out " + P("aes.p12"))
                .status,
            0);
  r = RunShell(Kv("info --pass-file " + pw_ + " " + P("aes.p12")));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("does not implement"), std::string::npos) << r.out;
}

TEST_F(Pkcs12Command, UsageErrors) {
  // No password source, two sources, a missing --out, an unknown cipher.
  for (const std::string& args :
       {std::string("info ") + P("o.p12"),
        "info --pass-file " + pw_ + " --pass-env X " + P("o.p12"),
        "build --cert " + Data("leaf.pem") + " --key " + Data("leaf-key.pem") + " --pass-file " +
            pw_,
        BuildArgs() + " --cert-cipher aes", BuildArgs() + " --iter 0", std::string("frobnicate")})
    EXPECT_EQ(RunShell(Kv(args)).status, 2) << args;
  // A certificate where the key should be is bad input, and nothing is written.
  auto r = RunShell(Kv("build --cert " + Data("leaf.pem") + " --key " + Data("leaf.pem") +
                       " --pass-file " + pw_ + " --out " + P("x.p12")));
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_EQ(Mode(P("x.p12")), 0u);
  EXPECT_EQ(RunShell(Kv("--help")).status, 0);
}

}  // namespace
