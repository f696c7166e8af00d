// Many pages at once: each connection has its own control, calls never mix,
// and misbehaving clients in between do not disturb the others.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "harness.h"

namespace {

using kvbtest::Bridge;
using kvbtest::Client;
using kvbtest::json;

const char kPage[] = "http://127.0.0.1:8765";

// One enrolment-like sequence; returns an empty string or what went wrong.
std::string Enrol(unsigned short port, int n) {
  Client c;
  if (c.Open(port, kPage) != 101) return "no upgrade";
  const json csp = c.Call(R"({"id":0,"method":"listCSP","args":[0]})");
  if (csp["status"] != 0 || !csp["result"].is_string()) return "listCSP " + csp.dump();
  const json set = c.CallJson(json{{"id", n}, {"method", "setCSP"}, {"args", {csp["result"]}}});
  if (set["id"] != n || set["status"] != 0) return "setCSP " + set.dump();
  const json key = c.CallJson(json{{"id", n + 1}, {"method", "genKeyPair"}, {"args", {1024}}});
  if (key["id"] != n + 1 || key["status"] != 0 || !key["result"].is_string())
    return "genKeyPair " + key.dump();
  const std::string ref = "REF" + std::to_string(n);
  const json mac = c.CallJson(json{{"id", n + 2},
                                   {"method", "genEEDownCertRequestData_Client"},
                                   {"args", {ref, "auth" + std::to_string(n), key["result"]}}});
  if (mac["id"] != n + 2 || mac["status"] != 0) return "MAC " + mac.dump();
  // This connection's own reference and key, nobody else's.
  const std::string xml = mac["result"].get<std::string>();
  if (xml.find("value=\"" + ref + "\"") == std::string::npos ||
      xml.find("value=\"" + key["result"].get<std::string>() + "\"") == std::string::npos)
    return "cross-talk in " + xml.substr(0, 200);
  const json again = c.CallJson(json{{"id", n + 3}, {"method", "listCSP"}, {"args", {0}}});
  if (again["id"] != n + 3 || again["result"] != csp["result"]) return "listCSP again";
  return std::string();
}

// A client that misbehaves in one of several ways, then vanishes.
void Misbehave(unsigned short port, int kind) {
  Client c;
  if (c.Open(port, kPage) != 101) return;
  switch (kind % 4) {
    case 0:
      for (int i = 0; i < 6; ++i) c.Call("{\"id\":");
      break;
    case 1:
      c.Call(std::string(2 << 20, 'x'));
      break;
    case 2:
      c.SendBinary(std::string(100, '\0'));
      c.Abort();
      break;
    default: {
      // Gone in the middle of a slow call.
      c.Call(R"({"id":1,"method":"setCSP","args":["x"]})");
      c.Abort();
      break;
    }
  }
}

TEST(BridgeLoad, HundredConnectionsWithMisbehavioursBetween) {
  Bridge bridge({kPage});
  ASSERT_NE(bridge.Port(), 0);
  std::vector<std::string> failures(100);
  std::vector<std::thread> threads;
  for (int i = 0; i < 100; ++i) {
    threads.emplace_back([&, i] { failures[i] = Enrol(bridge.Port(), i * 10); });
    if (i % 5 == 0) threads.emplace_back([&, i] { Misbehave(bridge.Port(), i / 5); });
  }
  for (auto& t : threads) t.join();
  for (int i = 0; i < 100; ++i) EXPECT_EQ(failures[i], "") << "connection " << i;
  ASSERT_TRUE(bridge.Running());
  Client after;
  ASSERT_EQ(after.Open(bridge.Port(), kPage), 101);
  EXPECT_EQ(after.Call(R"({"id":1,"method":"getVersion"})")["status"], 0);
  // Each genKeyPair made its own container.
  EXPECT_EQ(kvtest::RunShell("ls '" + bridge.DataDir() + "'/containers | wc -l").out, "100\n");
}

}  // namespace
