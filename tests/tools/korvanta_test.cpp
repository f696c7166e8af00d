// The korvanta command, run as a user would run it. OpenSSL makes the inputs
// (every format and structure the command recognises) and checks the Base64.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>

#include "support/support.h"

namespace {

using kvtest::ReadFile;
using kvtest::RunShell;
using kvtest::ShellResult;

const char kRoot[] = "/usr/share/ca-certificates/mozilla/ISRG_Root_X1.crt";

std::string Kv(const std::string& args) {
  return std::string(KV_KORVANTA_BIN) + " " + args;
}

class KorvantaCommand : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(dir_.Path().empty()); }
  std::string Path(const std::string& name) const { return dir_ / name; }
  // Runs an openssl command line that must succeed.
  void Openssl(const std::string& args) {
    ASSERT_EQ(RunShell("openssl " + args + " 2>/dev/null").status, 0) << args;
  }
  kvtest::TempDir dir_;
};

TEST_F(KorvantaCommand, DumpsASystemRootInEveryInputFormat) {
  Openssl(std::string("x509 -in ") + kRoot + " -outform DER -out " + Path("root.der"));
  Openssl("base64 -in " + Path("root.der") + " -out " + Path("root.b64"));
  ShellResult pem = RunShell(Kv(std::string("dump ") + kRoot));
  ASSERT_EQ(pem.status, 0);
  EXPECT_EQ(pem.out.rfind("SEQUENCE : {\n    tBSCertificate  SEQUENCE : {", 0), 0u) << pem.out;
  EXPECT_NE(pem.out.find("PrintableString : ISRG Root X1"), std::string::npos);
  EXPECT_NE(pem.out.find("utcTime  UTCTime : 150604110438Z"), std::string::npos);
  // DER, bare Base64 and standard input give the very same dump.
  EXPECT_EQ(RunShell(Kv("dump " + Path("root.der"))).out, pem.out);
  EXPECT_EQ(RunShell(Kv("dump " + Path("root.b64"))).out, pem.out);
  EXPECT_EQ(RunShell(Kv("dump - < " + Path("root.der"))).out, pem.out);
}

TEST_F(KorvantaCommand, RecognisesEachStructureWithoutBeingTold) {
  const std::string v = KV_VECTORS_DIR;
  Openssl("genrsa -traditional -out " + Path("rsa.pem") + " 1024");
  Openssl("rsa -in " + Path("rsa.pem") + " -traditional -outform DER -out " + Path("rsa.der"));
  Openssl("rsa -in " + Path("rsa.pem") + " -RSAPublicKey_out -outform DER -out " +
          Path("pub1.der"));
  Openssl("rsa -in " + Path("rsa.pem") + " -pubout -outform DER -out " + Path("spki.der"));
  Openssl("pkcs8 -topk8 -nocrypt -in " + Path("rsa.pem") + " -outform DER -out " + Path("p8.der"));
  Openssl("req -new -key " + Path("rsa.pem") + " -subj /CN=kv -outform DER -out " +
          Path("req.der"));
  Openssl("crl -in " + v + "/x509/custom/crl_all_reasons.pem -outform DER -out " + Path("crl.der"));
  Openssl(std::string("crl2pkcs7 -nocrl -certfile ") + kRoot + " -outform DER -out " +
          Path("p7.der"));
  struct Case {
    std::string file, expect;
  } cases[] = {
      {Path("rsa.der"), "    prime1  INTEGER : "},
      {Path("pub1.der"), "    pkModulus  INTEGER : "},
      {Path("spki.der"), "    subjectPublicKey  BIT STRING : "},
      {Path("p8.der"), "    privateKeyAlgorithm  SEQUENCE : {"},
      {Path("req.der"), "    certificationRequestInfo  SEQUENCE : {"},
      {Path("crl.der"), "    tBSCertificateList  SEQUENCE : {"},
      {Path("p7.der"), "    contentType  OBJECT IDENTIFER : 1.2.840.113549.1.7.2"},
      {v + "/pkcs12/cert-key-aes256cbc.p12", "    authSafe  SEQUENCE : {"},
  };
  for (const Case& c : cases) {
    ShellResult r = RunShell(Kv("dump " + c.file));
    EXPECT_EQ(r.status, 0) << c.file;
    EXPECT_NE(r.out.find(c.expect), std::string::npos) << c.file << "\n" << r.out.substr(0, 300);
  }
  // A PKCS#7 message shows its signed content with named fields.
  ShellResult p7 = RunShell(Kv("dump " + Path("p7.der")));
  EXPECT_NE(p7.out.find("digestAlgorithms  CHOICE : {"), std::string::npos) << p7.out;
}

TEST_F(KorvantaCommand, TypeOptionDecodesAnyCatalogueClass) {
  // An AlgorithmIdentifier for sha256WithRSAEncryption with NULL parameters.
  std::ofstream(Path("alg.der"), std::ios::binary)
      << std::string("\x30\x0d\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x01\x0b\x05\x00", 15);
  ShellResult r = RunShell(Kv("dump --type AlgorithmIdentifier " + Path("alg.der")));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "SEQUENCE : {\n    algorithm  OBJECT IDENTIFER : 1.2.840.113549.1.1.11\n"
            "    parameters  NULL }\n");
  EXPECT_EQ(RunShell(Kv("dump " + Path("alg.der") + " 2>/dev/null")).status, 1);  // not recognised
  EXPECT_EQ(RunShell(Kv("dump --type NoSuchType " + Path("alg.der") + " 2>/dev/null")).status, 2);
  ShellResult types = RunShell(Kv("types"));
  EXPECT_EQ(types.status, 0);
  EXPECT_NE(types.out.find("\nTBSCertificate\n"), std::string::npos);
  EXPECT_NE(types.out.find("\nRC2_CBC_parameter\n"), std::string::npos);
}

TEST_F(KorvantaCommand, DumpsEveryBlockOfABundle) {
  RunShell(std::string("cat ") + kRoot + " " + kRoot + " > " + Path("two.pem"));
  ShellResult r = RunShell(Kv("dump " + Path("two.pem")));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("# 1 of 2 (CERTIFICATE)\n", 0), 0u);
  EXPECT_NE(r.out.find("\n# 2 of 2 (CERTIFICATE)\n"), std::string::npos);
}

TEST_F(KorvantaCommand, BadInputFailsWithAMessage) {
  Openssl(std::string("x509 -in ") + kRoot + " -outform DER -out " + Path("root.der"));
  std::string der = ReadFile(Path("root.der"));
  std::ofstream(Path("cut.der"), std::ios::binary) << der.substr(0, der.size() / 2);
  std::ofstream(Path("empty"), std::ios::binary) << "";
  std::ofstream(Path("noend.pem")) << "-----BEGIN CERTIFICATE-----\nTWFu\n";
  std::ofstream(Path("trail.der"), std::ios::binary) << der << "xx";
  for (const std::string& f :
       {Path("cut.der"), Path("empty"), Path("noend.pem"), Path("trail.der"), Path("missing")}) {
    ShellResult r = RunShell(Kv("dump " + f + " 2>&1"));
    EXPECT_EQ(r.status, 1) << f;
    EXPECT_EQ(r.out.rfind("korvanta: " + f + ": ", 0), 0u) << r.out;
  }
}

TEST_F(KorvantaCommand, UsageErrorsAndHelp) {
  EXPECT_EQ(RunShell(Kv("2>/dev/null")).status, 2);
  EXPECT_EQ(RunShell(Kv("frobnicate 2>/dev/null")).status, 2);
  EXPECT_EQ(RunShell(Kv("dump 2>/dev/null")).status, 2);
  EXPECT_EQ(RunShell(Kv("dump --bogus x 2>/dev/null")).status, 2);
  EXPECT_EQ(RunShell(Kv("base64 sideways 2>/dev/null")).status, 2);
  for (const char* v : {"--help", "help", "dump --help", "base64 --help", "types --help",
                        "help dump", "base64 encode --help"}) {
    ShellResult r = RunShell(Kv(v));
    EXPECT_EQ(r.status, 0) << v;
    EXPECT_EQ(r.out.rfind("usage: korvanta", 0), 0u) << v;
  }
}

TEST_F(KorvantaCommand, Base64MatchesOpenssl) {
  std::mt19937 rng(7);
  for (size_t n : {0u, 1u, 2u, 3u, 47u, 48u, 49u, 1000u}) {
    std::string data(n, '\0');
    for (char& c : data) c = static_cast<char>(rng());
    std::string in = Path("in" + std::to_string(n));
    std::ofstream(in, std::ios::binary) << data;
    ShellResult ours = RunShell(Kv("base64 encode " + in));
    ASSERT_EQ(ours.status, 0);
    EXPECT_EQ(ours.out, RunShell("openssl base64 -in " + in).out) << n;
    ShellResult one = RunShell(Kv("base64 encode --no-wrap " + in));
    EXPECT_EQ(one.out, RunShell("openssl base64 -A -in " + in).out + (n ? "\n" : "")) << n;
    // Decoding OpenSSL's text through a file gives the data back.
    RunShell("openssl base64 -in " + in + " -out " + in + ".b64");
    ASSERT_EQ(RunShell(Kv("base64 decode -o " + in + ".out " + in + ".b64")).status, 0);
    EXPECT_EQ(ReadFile(in + ".out"), data) << n;
  }
}

TEST_F(KorvantaCommand, FailedDecodeLeavesNoOutputFile) {
  std::ofstream(Path("bad.b64")) << "TWFuTW";
  ShellResult r =
      RunShell(Kv("base64 decode -o " + Path("out.bin") + " " + Path("bad.b64") + " 2>&1"));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("incomplete group"), std::string::npos);
  struct stat st;
  EXPECT_NE(stat(Path("out.bin").c_str(), &st), 0);
}

}  // namespace
