// Every certificate of the system roots read through the open-type holder
// re-encodes to exactly the octets it came from.
#include <gtest/gtest.h>

#include <vector>

#include "asn_test_util.h"
#include "support/support.h"

using namespace asntest;

TEST(SystemRoots, OpenTypeHolderReEncodesEveryCertificateExactly) {
  const std::vector<std::string> names = kvtest::SystemRootNames();
  if (names.empty()) GTEST_SKIP() << "no system roots installed";
  unsigned checked = 0;
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const std::vector<std::string> blocks = kvtest::PemBlocks(
        ReadFile(std::string(kvtest::kSystemRootsDir) + "/" + name), {"CERTIFICATE"});
    ASSERT_FALSE(blocks.empty());
    const std::string& der = blocks[0];
    ASSERT_FALSE(der.empty());
    MiByte in(der.data(), static_cast<unsigned>(der.size()));
    AsnAny any;
    ASSERT_EQ(any.DerDecode(in, 0), in.GetLength());
    EXPECT_EQ(Der(any), Hex(in));
    // The tree is a SEQUENCE of three: to-be-signed part, algorithm, signature.
    auto* top = dynamic_cast<AsnSequenceOf<AsnAny>*>(any.GetData());
    ASSERT_TRUE(top);
    ASSERT_EQ(top->Size(), 3u);
    EXPECT_TRUE(dynamic_cast<AsnBitString*>(top->Get(2)->GetData()));
    EXPECT_FALSE(Dump(any).empty());
    ++checked;
  }
  std::printf("system roots re-encoded: %u\n", checked);
  EXPECT_GT(checked, 100u);
}
