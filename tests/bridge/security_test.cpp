// Who may reach the control: the origin allow-list, the Host check and the
// listening addresses.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "harness.h"

namespace {

using kvbtest::Bridge;
using kvbtest::Client;

const char kPage[] = "http://127.0.0.1:8765";

TEST(BridgeOrigin, OnlyListedOriginsAreUpgraded) {
  Bridge bridge({kPage});
  ASSERT_NE(bridge.Port(), 0);
  Client listed;
  ASSERT_EQ(listed.Open(bridge.Port(), kPage), 101);
  EXPECT_EQ(listed.Call(R"({"id":1,"method":"getVersion"})")["result"],
            "Version:2.5.26.1 Build:201406041650");
  // The comparison ignores case, as browsers' origins do.
  Client upper;
  EXPECT_EQ(upper.Open(bridge.Port(), "HTTP://127.0.0.1:8765"), 101);
  for (const char* other : {"http://127.0.0.1:8766", "https://127.0.0.1:8765",
                            "http://evil.example", "null", "http://127.0.0.1:8765/path", ""}) {
    Client c;
    EXPECT_EQ(c.Open(bridge.Port(), other), 403) << other;
  }
  EXPECT_NE(bridge.Log().find("refused origin \"http://evil.example\""), std::string::npos);
}

TEST(BridgeOrigin, AllowAndDenyTakeEffectWithoutRestart) {
  Bridge bridge({});
  const std::string other = "https://ca.example:8443";
  Client before;
  EXPECT_EQ(before.Open(bridge.Port(), other), 403);
  EXPECT_EQ(bridge.Manage("allow " + other).status, 0);
  EXPECT_EQ(bridge.Manage("allow HTTPS://CA.example:8443").status, 0);  // no duplicate
  EXPECT_EQ(bridge.Manage("list").out, other + "\n");
  Client allowed;
  EXPECT_EQ(allowed.Open(bridge.Port(), other), 101);
  EXPECT_EQ(bridge.Manage("deny " + other).status, 0);
  EXPECT_EQ(bridge.Manage("list").out, "");
  Client after;
  EXPECT_EQ(after.Open(bridge.Port(), other), 403);
  // An already open connection keeps working: the check is at the upgrade.
  EXPECT_EQ(allowed.Call(R"({"id":2,"method":"getVersion"})")["status"], 0);
  EXPECT_EQ(bridge.Manage("allow https://ca.example/path").status, 1);
  EXPECT_EQ(bridge.Manage("allow").status, 2);
}

TEST(BridgeHost, ForgedHostIsRefused) {
  Bridge bridge({kPage});
  const std::string port = std::to_string(bridge.Port());
  for (const std::string& host : std::vector<std::string>{"127.0.0.1:" + port, "localhost:" + port,
                                                          "LOCALHOST:" + port, "[::1]:" + port}) {
    Client c;
    EXPECT_EQ(c.Open(bridge.Port(), kPage, "127.0.0.1", host), 101) << host;
  }
  // A DNS-rebinding page arrives with its own name in Host.
  for (const std::string& host :
       std::vector<std::string>{"evil.example:" + port, "127.0.0.1", "127.0.0.1:1",
                                "127.0.0.2:" + port, "localhost.evil.example:" + port}) {
    Client c;
    EXPECT_EQ(c.Open(bridge.Port(), kPage, "127.0.0.1", host), 403) << host;
  }
  EXPECT_EQ(kvbtest::HttpGet(bridge.Port(), "/ping", "127.0.0.1:" + port), 204);
  EXPECT_EQ(kvbtest::HttpGet(bridge.Port(), "/ping", "evil.example:" + port), 403);
  EXPECT_EQ(kvbtest::HttpGet(bridge.Port(), "/", "127.0.0.1:" + port), 404);
}

// The kernel's socket tables, read independently of the bridge: every
// listening socket on the bridge's port is a loopback one.
TEST(BridgeListen, BindsLoopbackOnly) {
  Bridge bridge({kPage});
  ASSERT_NE(bridge.Port(), 0);
  char portHex[8];
  std::snprintf(portHex, sizeof portHex, "%04X", bridge.Port());
  int listening = 0;
  for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    std::ifstream in(table);
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line)) {
      std::istringstream f(line);
      std::string slot, local, remote, state;
      f >> slot >> local >> remote >> state;
      if (state != "0A" || local.substr(local.find(':') + 1) != portHex) continue;
      ++listening;
      const std::string addr = local.substr(0, local.find(':'));
      EXPECT_TRUE(addr == "0100007F" || addr == "00000000000000000000000001000000") << addr;
    }
  }
  EXPECT_GE(listening, 1);
  // And ::1 answers where the machine has it.
  Client v6;
  const int r = v6.Open(bridge.Port(), kPage, "::1");
  EXPECT_TRUE(r == 101 || r == 0) << r;
}

}  // namespace
