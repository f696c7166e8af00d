// korvanta control, run as a host would run it: calls as arguments, JSON
// lines, the result forms (null, "", ret integers, the error member), bad
// input and usage, and a PFX export whose password never reaches the command
// line.
#include <gtest/gtest.h>

#include <string>

#include "support/support.h"

namespace {

using kvtest::ReadFile;
using kvtest::RunShell;
using kvtest::ShellResult;

const char kEnhanced[] = "\"Microsoft Enhanced Cryptographic Provider v1.0\"";

class ControlCommand : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(dir_.Path().empty()); }
  std::string Kv(const std::string& args) {
    return std::string(KV_KORVANTA_BIN) + " control --data-dir " + dir_ / "data" + " --home " +
           dir_.Path() + " " + args;
  }
  ShellResult Lines(const std::string& input, const std::string& options = "") {
    return RunShell(Kv(options) + " < " + dir_.Write("in.jsonl", input) + " 2>/dev/null");
  }
  ShellResult RefCa(const std::string& args) {
    return RunShell(std::string("/usr/bin/python3 ") + KV_SOURCE_DIR + "/tests/refca/refca.py " +
                    args);
  }
  // The value of "result" in a one-line answer that holds a string.
  static std::string ResultText(const std::string& line) {
    const std::string key = "\"result\":\"";
    size_t at = line.find(key);
    if (at == std::string::npos) return std::string();
    size_t end = line.find('"', at + key.size());
    return line.substr(at + key.size(), end - at - key.size());
  }
  kvtest::TempDir dir_;
};

TEST_F(ControlCommand, CallsAsArgumentsPrintOneLineEach) {
  ShellResult r = RunShell(Kv(std::string("listCSP 0 listCSP 40 listCSP -1 setCSP ") + kEnhanced +
                              " genKeyPair 768 getVersion"));
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "{\"id\":1,\"status\":0,\"result\":\"Microsoft Base Cryptographic Provider v1.0\"}\n"
            "{\"id\":2,\"status\":0,\"result\":null}\n"
            "{\"id\":3,\"status\":22018102,\"result\":\"\"}\n"
            "{\"id\":4,\"status\":0,\"result\":null}\n"
            "{\"id\":5,\"status\":22038202,\"result\":\"\"}\n"
            "{\"id\":6,\"status\":0,\"result\":\"Version:2.5.26.1 Build:201406041650\"}\n");
}

TEST_F(ControlCommand, JsonLinesKeepTheirIdsAndReportBadLines) {
  ShellResult r = Lines(
      "{\"id\":\"x\",\"method\":\"writeClientCert\",\"args\":[\"\"]}\n"
      "\n"
      "{\"id\":2,\"method\":\"genEERevokeCertRequestData\"}\n"
      "[1,2]\n"
      "{\"id\":3,\"method\":\"nosuch\",\"args\":[]}\n"
      "{\"id\":4,\"method\":\"genKeyPair\",\"args\":[\"1024\"]}\n"
      "{\"id\":5,\"method\":\"genKeyPair\",\"args\":[]}\n"
      "{\"id\":6,\"method\":\"writeKH\",\"args\":[\"@@\"]}\n");
  EXPECT_EQ(r.status, 1) << "bad lines are reported in the exit status";
  EXPECT_EQ(r.out,
            "{\"id\":\"x\",\"status\":0,\"result\":22038309}\n"
            "{\"id\":2,\"status\":22108306,\"result\":null}\n"
            "{\"id\":null,\"error\":\"not a JSON object\"}\n"
            "{\"id\":3,\"error\":\"no such method\"}\n"
            "{\"id\":4,\"error\":\"genKeyPair: argument 1 is an integer\"}\n"
            "{\"id\":5,\"error\":\"genKeyPair takes 1 argument(s)\"}\n"
            "{\"id\":6,\"status\":0,\"result\":22158307}\n");
}

TEST_F(ControlCommand, UsageErrors) {
  EXPECT_EQ(RunShell(Kv("nosuch 2>/dev/null")).status, 2);
  EXPECT_EQ(RunShell(Kv("genKeyPair 2>/dev/null")).status, 2);
  EXPECT_EQ(RunShell(Kv("genKeyPair abc 2>/dev/null")).status, 2);
  EXPECT_EQ(RunShell(Kv("writeClientCertToPFX x - 2>/dev/null")).status, 2);
  EXPECT_EQ(RunShell(Kv("--pass-env KV_NO_SUCH_VARIABLE_SET getVersion 2>/dev/null")).status, 2);
  ShellResult help = RunShell(std::string(KV_KORVANTA_BIN) + " control --help");
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("usage: korvanta control"), std::string::npos);
}

TEST_F(ControlCommand, EnrolAndExportWithThePasswordFromAFile) {
  ShellResult key = RunShell(Kv(std::string("setCSP ") + kEnhanced + " genKeyPair 1024"));
  ASSERT_EQ(key.status, 0);
  const std::string pub = ResultText(key.out.substr(key.out.find('\n') + 1));
  ASSERT_FALSE(pub.empty()) << key.out;
  ASSERT_EQ(
      RefCa("issue --pubkey " + dir_.Write("pub.b64", pub) + " --out " + dir_ / "p7.b64").status,
      0);
  const std::string pass = dir_.Write("pass.txt", "file-secret\n");
  ShellResult pfx = RunShell(Kv("--pass-file " + pass + " setCSP " + kEnhanced +
                                " writeClientCertToPFX " + ReadFile(dir_ / "p7.b64") + " -"));
  ASSERT_EQ(pfx.status, 0);
  EXPECT_EQ(pfx.out.find("file-secret"), std::string::npos);
  const std::string line = pfx.out.substr(pfx.out.find('\n') + 1);
  ASSERT_NE(line.find("\"status\":0"), std::string::npos) << line;
  const std::string p12 = dir_.Write("x.b64", ResultText(line));
  EXPECT_EQ(
      RunShell("openssl base64 -d -A -in " + p12 + " | openssl pkcs12 -passin pass:file-secret" +
               " -legacy -nodes -nocerts 2>/dev/null | openssl rsa -noout -check 2>&1")
          .out,
      "RSA key ok\n");
}

TEST_F(ControlCommand, FailingAutomationResultIsAnErrorMember) {
  ShellResult temp =
      RunShell(Kv(std::string("setCSP ") + kEnhanced + " genKeyPair 1024 genTempKeyPair"));
  ASSERT_EQ(temp.status, 0);
  const std::string tempKey = ResultText(temp.out.substr(temp.out.rfind("{\"id\":3")));
  ASSERT_EQ(RefCa("kmc --tempkey " + dir_.Write("t.b64", tempKey) + " --bits 1536 --out-dir " +
                  dir_ / "kmc")
                .status,
            0);
  ShellResult r =
      Lines("{\"id\":1,\"method\":\"setCSP\",\"args\":[" + std::string(kEnhanced) +
            "]}\n{\"id\":2,\"method\":\"writeKmcCert\",\"args\":[\"" +
            ReadFile(dir_ / "kmc/p7.b64") + "\",\"" + ReadFile(dir_ / "kmc/encprikey.b64") +
            "\",\"" + ReadFile(dir_ / "kmc/tempukek.b64") + "\"]}\n");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("{\"id\":2,\"status\":-2147467259,\"error\":"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("\"result\"", r.out.find("\"id\":2")), std::string::npos);
}

}  // namespace
