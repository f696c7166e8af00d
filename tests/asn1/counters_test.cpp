#include <gtest/gtest.h>

#include "asn1/asn1.h"

TEST(Counters, TerminalPrintsBothCountersAtZero) {
  testing::internal::CaptureStdout();
  terminal();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "new number : 0\ndelete number : 0\n");
  EXPECT_EQ(newnumber, 0);
  EXPECT_EQ(delnumber, 0);
}
