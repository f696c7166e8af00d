// MiTime: calendar rules, field tests, formatting and time_t conversion.
#include <gtest/gtest.h>

#include "asn_test_util.h"

using namespace asntest;

TEST(MiTimeValue, CalendarRules) {
  EXPECT_NO_THROW(MiTime(2000, 2, 29, 0, 0, 0));
  EXPECT_NO_THROW(MiTime(2024, 2, 29, 23, 59, 59));
  EXPECT_EQ(ThrownMessage([] { MiTime(1900, 2, 29, 0, 0, 0); }), "invalid argument exp");
  EXPECT_EQ(ThrownMessage([] { MiTime(2023, 2, 29, 0, 0, 0); }), "invalid argument exp");
  EXPECT_EQ(ThrownMessage([] { MiTime(2023, 4, 31, 0, 0, 0); }), "invalid argument exp");
  EXPECT_EQ(ThrownMessage([] { MiTime(2023, 13, 1, 0, 0, 0); }), "invalid argument exp");
  EXPECT_EQ(ThrownMessage([] { MiTime(0, 1, 1, 0, 0, 0); }), "invalid argument exp");
  EXPECT_EQ(ThrownMessage([] { MiTime(2023, 1, 1, 24, 0, 0); }), "invalid argument exp");
  EXPECT_EQ(ThrownMessage([] { MiTime(2023, 1, 1, 0, 60, 0); }), "invalid argument exp");
  EXPECT_TRUE(MiTime().IsEmpty());

  EXPECT_TRUE(MiTime::TestYearString("99", 2));
  EXPECT_TRUE(MiTime::TestYearString("0001", 4));
  EXPECT_FALSE(MiTime::TestYearString("0000", 4));
  EXPECT_FALSE(MiTime::TestYearString("199", 3));
  EXPECT_FALSE(MiTime::TestMonthString("00", 2));
  EXPECT_FALSE(MiTime::TestMonthString("1a", 2));
  EXPECT_TRUE(MiTime::TestDayString("29", 2, 2016, 2));
  EXPECT_FALSE(MiTime::TestDayString("29", 2, 2100, 2));
  EXPECT_FALSE(MiTime::TestDayString("31", 2, 2016, 6));
  EXPECT_FALSE(MiTime::TestHourString("24", 2));
  EXPECT_TRUE(MiTime::TestMinuteOrSecondString("59", 2));
  EXPECT_FALSE(MiTime::TestMinuteOrSecondString("60", 2));
}

TEST(MiTimeValue, FormattingAndConversion) {
  MiTime t(2014, 6, 4, 8, 9, 10);
  EXPECT_STREQ(t.GetTimeString(), "20140604080910");
  EXPECT_STREQ(t.GetTimeString("YYMMDDhhmmssZ"), "140604080910Z");
  EXPECT_STREQ(t.GetTimeString("YYYY-MM-DD hh:mm:ss"), "2014-06-04 08:09:10");
  EXPECT_STREQ(MiTime(7, 1, 2, 3, 4, 5).GetTimeString(), "00070102030405");

  // Known epoch seconds (date -u -d @1401869350).
  EXPECT_EQ(t.ToTimeT(), 1401869350);
  EXPECT_EQ(MiTime(static_cast<time_t>(1401869350)), t);
  EXPECT_EQ(MiTime(static_cast<time_t>(0)), MiTime(1970, 1, 1, 0, 0, 0));
  EXPECT_EQ(MiTime(static_cast<time_t>(-1)), MiTime(1969, 12, 31, 23, 59, 59));
  EXPECT_EQ(MiTime(static_cast<time_t>(951782400)), MiTime(2000, 2, 29, 0, 0, 0));
  EXPECT_EQ(MiTime(9999, 12, 31, 23, 59, 59).ToTimeT(), 253402300799);

  MiTime u = t;
  u.AddSeconds(16 * 3600 + 51 * 60);  // past midnight
  EXPECT_EQ(u, MiTime(2014, 6, 5, 1, 0, 10));
  MiTime end(9999, 12, 31, 23, 59, 59);
  EXPECT_EQ(ThrownMessage([&] { end.AddSeconds(1); }), "out of range exp");
  EXPECT_LT(t, u);
  EXPECT_GT(u, t);
  EXPECT_NE(t, u);
  MiTime now = MiTime::Now();
  EXPECT_GE(now.GetYear(), 2024);
}
