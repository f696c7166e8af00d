// The demo page in headless Chromium: both enrolments through korvanta.js,
// the bridge and the demo CA, then the installed items checked by our
// commands and by OpenSSL.
#include <gtest/gtest.h>

#include <cstdlib>

#include "harness.h"

namespace {

using kvbtest::Bridge;
using kvbtest::Process;

// Where scripts/browser-deps.sh installs playwright-core (this build's
// folder or the main build's); "" when it is not there.
std::string NodePath() {
  const char* env = std::getenv("KV_NODE_PATH");
  if (env && *env) return env;
  const char* bin = std::getenv("KV_BINARY_DIR");
  for (const std::string& base :
       {std::string(bin ? bin : ""), std::string(KV_SOURCE_DIR "/build")}) {
    const std::string dir = base + "/node/node_modules";
    if (!base.empty() && kvtest::RunShell("test -d '" + dir + "/playwright-core'").status == 0)
      return dir;
  }
  return "";
}

class DemoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    nodePath_ = NodePath();
    if (nodePath_.empty() || kvtest::RunShell("command -v node && command -v chromium").status)
      GTEST_SKIP() << "needs node, chromium and playwright-core (scripts/run.sh installs them)";
    ca_ = std::make_unique<Process>(
        std::vector<std::string>{"/usr/bin/python3", KV_SOURCE_DIR "/bridge/demo/democa.py", "--port", "0",
                                 "--ca-dir", dir_ / "ca"},
        std::vector<std::string>{}, dir_ / "ca.log");
    ASSERT_NE(ca_->Port(), 0) << kvtest::ReadFile(dir_ / "ca.log");
    page_ = "http://127.0.0.1:" + std::to_string(ca_->Port());
    bridge_ = std::make_unique<Bridge>(std::vector<std::string>{page_});
    ASSERT_NE(bridge_->Port(), 0);
  }

  kvtest::ShellResult Browse(const std::string& mode, const std::string& url,
                             const std::string& shot = "") {
    return kvtest::RunShell("NODE_PATH='" + nodePath_ +
                            "' timeout 180 node '" KV_SOURCE_DIR "/tests/bridge/e2e/enrol.mjs' " +
                            mode + " '" + url + "' '" + shot + "' 2>'" + (dir_ / "browser.log") +
                            "'");
  }

  kvtest::TempDir dir_;
  std::string nodePath_, page_;
  std::unique_ptr<Process> ca_;
  std::unique_ptr<Bridge> bridge_;
};

TEST_F(DemoTest, PageEnrolsClientAndKmc) {
  const char* bin = std::getenv("KV_BINARY_DIR");
  const std::string shot = bin ? std::string(bin) + "/bridge-demo.png" : dir_ / "demo.png";
  const auto run = Browse("enrol", page_ + "/?bridge=" + std::to_string(bridge_->Port()), shot);
  ASSERT_EQ(run.status, 0) << run.out << kvtest::ReadFile(dir_ / "browser.log") << bridge_->Log();
  EXPECT_EQ(run.out, "client: client enrolled\nkmc: KMC enrolled\n");
  EXPECT_FALSE(kvtest::ReadFile(shot).empty());

  const std::string data = bridge_->DataDir();
  const auto my = kvtest::RunShell("'" KV_KORVANTA_BIN "' stores MY --data-dir '" + data + "'");
  EXPECT_NE(my.out.find("CN=Demo Enrolment User\n"), std::string::npos) << my.out;
  EXPECT_NE(my.out.find("CN=Demo Enrolment User (encryption)"), std::string::npos) << my.out;
  // The KMC's key pair went into an exchange slot; the signing key is ours.
  const auto containers =
      kvtest::RunShell("'" KV_KORVANTA_BIN "' containers --data-dir '" + data + "'");
  EXPECT_NE(containers.out.find("exchange:  2048 bits"), std::string::npos) << containers.out;

  // OpenSSL verifies both installed certificates against the installed chain.
  const auto verify = kvtest::RunShell(
      "cd '" + data +
      "/stores' && for f in ROOT/*.der; do openssl x509 -inform DER -in $f; done "
      "> /tmp/kvroot.$$ && for f in CA/*.der; do openssl x509 -inform DER -in $f; done > "
      "/tmp/kvca.$$ && for f in MY/*.der; do openssl x509 -inform DER -in $f | openssl verify "
      "-CAfile /tmp/kvroot.$$ -untrusted /tmp/kvca.$$ || exit 1; done; r=$?; rm -f /tmp/kv*.$$; "
      "exit $r");
  EXPECT_EQ(verify.status, 0) << verify.out;
  EXPECT_EQ(verify.out, "stdin: OK\nstdin: OK\n");
}

TEST_F(DemoTest, ConnectSaysWhyItFailed) {
  // Nothing listens on this port: the page is told the bridge is not running.
  const auto none = Browse("connect", page_ + "/?bridge=1");
  EXPECT_NE(none.out.find("The Korvanta bridge is not running"), std::string::npos) << none.out;
  // The same page under another origin is refused by the bridge.
  const std::string other = "http://localhost:" + std::to_string(ca_->Port());
  const auto refused = Browse("connect", other + "/?bridge=" + std::to_string(bridge_->Port()));
  EXPECT_NE(refused.out.find("refused this page (" + other + ")"), std::string::npos)
      << refused.out;
  EXPECT_NE(bridge_->Log().find("refused origin \"" + other + "\""), std::string::npos);
}

}  // namespace
