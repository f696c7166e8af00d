// What a connection may send: every bad message gets a JSON error and never
// reaches the control; repeated misbehaviour closes the connection.
#include <gtest/gtest.h>

#include "harness.h"

namespace {

using kvbtest::Bridge;
using kvbtest::Client;
using kvbtest::json;

const char kPage[] = "http://localhost:9000";

TEST(BridgeMessages, BadMessagesGetErrorsAndReachNothing) {
  Bridge bridge({kPage});
  Client c;
  ASSERT_EQ(c.Open(bridge.Port(), kPage), 101);
  struct Case {
    std::string message;
    json id;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"{not json", nullptr, "not a JSON object"},
      {R"([1,2])", nullptr, "not a JSON object"},
      {R"({"id":7,"method":"formatDisk"})", 7, "no such method"},
      {R"({"id":"a","method":"genKeyPair","args":["2048"]})", "a",
       "genKeyPair: argument 1 is an integer"},
  };
  for (const Case& k : cases) {
    const json a = c.Call(k.message);
    EXPECT_EQ(a["id"], k.id) << k.message;
    EXPECT_EQ(a["error"], k.error) << k.message;
    EXPECT_FALSE(a.contains("status")) << k.message;
  }
  // A valid call still works, and the bad ones created no container.
  EXPECT_EQ(c.Call(R"({"id":8,"method":"getVersion"})")["status"], 0);
  EXPECT_EQ(kvtest::RunShell("ls -A '" + bridge.DataDir() + "' | wc -l").out, "0\n");
}

TEST(BridgeMessages, OversizedAndBinaryMessagesAreRefused) {
  Bridge bridge({kPage}, {"--max-message", "4096"});
  Client c;
  ASSERT_EQ(c.Open(bridge.Port(), kPage), 101);
  const std::string big =
      R"({"id":1,"method":"setCSP","args":[")" + std::string(5000, 'x') + "\"]}";
  EXPECT_EQ(c.Call(big)["error"], "message too large");
  c.SendBinary(R"({"id":2,"method":"getVersion"})");
  EXPECT_EQ(c.Call(R"({"id":3,"method":"getVersion"})")["id"], nullptr)
      << "the binary frame is answered first";
  EXPECT_EQ(c.Call(R"({"id":4,"method":"getVersion"})")["id"], 3);
  // Far beyond the limit the connection is simply dropped.
  Client d;
  ASSERT_EQ(d.Open(bridge.Port(), kPage), 101);
  EXPECT_TRUE(d.Call(std::string(64 * 1024, ' ')).is_null());
  EXPECT_TRUE(bridge.Running());
}

TEST(BridgeMessages, RepeatedMisbehaviourClosesTheConnection) {
  Bridge bridge({kPage});
  Client c;
  ASSERT_EQ(c.Open(bridge.Port(), kPage), 101);
  // Valid calls in between do not forgive earlier strikes.
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(c.Call("junk")["error"], "not a JSON object");
    EXPECT_EQ(c.Call(R"({"method":"getVersion"})")["status"], 0);
  }
  EXPECT_EQ(c.Call("junk")["error"], "not a JSON object");
  EXPECT_TRUE(c.ReadClosed());
  // Other connections are unaffected.
  Client d;
  ASSERT_EQ(d.Open(bridge.Port(), kPage), 101);
  EXPECT_EQ(d.Call(R"({"id":1,"method":"getVersion"})")["status"], 0);
}

TEST(BridgeMessages, StatusesPassThroughUnchanged) {
  Bridge bridge({kPage});
  Client c;
  ASSERT_EQ(c.Open(bridge.Port(), kPage), 101);
  const json neg = c.Call(R"({"id":1,"method":"listCSP","args":[-1]})");
  EXPECT_EQ(neg["status"], 22018102);
  EXPECT_EQ(neg["result"], "");
  EXPECT_EQ(c.Call(R"({"id":2,"method":"listCSP","args":[1000]})")["result"], nullptr);
  EXPECT_EQ(c.Call(R"({"id":3,"method":"setCSP","args":[""]})")["status"], 22028201);
  // The signing dialog of the bridge, here told to cancel, is what a "DS"
  // request meets; the page has no say in it.
  const json ds = c.Call(R"({"id":4,"method":"genEERevokeCertRequestData"})");
  EXPECT_NE(ds["status"], 0);
  EXPECT_EQ(ds["result"], nullptr);
}

}  // namespace
