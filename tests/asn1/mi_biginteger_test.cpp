// MiBigInteger: two's-complement octets, conversions and text.
#include <gtest/gtest.h>

#include <climits>

#include "asn_test_util.h"

using namespace asntest;

TEST(MiBigIntegerValue, NativeValuesAreMinimal) {
  struct {
    int64_t v;
    const char* hex;
  } cases[] = {{0, "00"},
               {1, "01"},
               {127, "7F"},
               {128, "0080"},
               {-1, "FF"},
               {-128, "80"},
               {-129, "FF7F"},
               {65535, "00FFFF"},
               {INT64_MAX, "7FFFFFFFFFFFFFFF"},
               {INT64_MIN, "8000000000000000"}};
  for (const auto& c : cases) {
    MiBigInteger b = MiBigInteger::FromInt64(c.v);
    EXPECT_EQ(Hex(b.GetOctets()), c.hex) << c.v;
    EXPECT_TRUE(b.IsMinimal());
    bool ok = false;
    EXPECT_EQ(b.ToInt64(ok), c.v);
    EXPECT_TRUE(ok);
  }
  EXPECT_EQ(Hex(MiBigInteger::FromUInt64(UINT64_MAX).GetOctets()), "00FFFFFFFFFFFFFFFF");
  bool ok;
  EXPECT_EQ(MiBigInteger::FromUInt64(UINT64_MAX).ToUInt64(ok), UINT64_MAX);
  EXPECT_TRUE(ok);
  MiBigInteger::FromUInt64(UINT64_MAX).ToInt64(ok);
  EXPECT_FALSE(ok);
  MiBigInteger::FromInt64(-1).ToUInt64(ok);
  EXPECT_FALSE(ok);
  MiBigInteger::FromInt64(int64_t(1) << 40).ToInt32(ok);
  EXPECT_FALSE(ok);
}

TEST(MiBigIntegerValue, MagnitudesAndTwosComplement) {
  unsigned char mag[] = {0x00, 0x00, 0x80, 0x01};
  EXPECT_EQ(Hex(MiBigInteger::FromMagnitude(mag, 4).GetOctets()), "008001");
  EXPECT_EQ(Hex(MiBigInteger::FromMagnitude(mag, 4, true).GetOctets()), "FF7FFF");
  unsigned char m80[] = {0x80};
  EXPECT_EQ(Hex(MiBigInteger::FromMagnitude(m80, 1, true).GetOctets()), "80");  // -128
  EXPECT_EQ(Hex(MiBigInteger::FromMagnitude(nullptr, 0).GetOctets()), "00");

  // Decoded octets are kept exactly, even when not minimal.
  unsigned char loose[] = {0xFF, 0xFF, 0x85};
  MiBigInteger b = MiBigInteger::FromTwosComplement(loose, 3);
  EXPECT_EQ(Hex(b.GetOctets()), "FFFF85");
  EXPECT_FALSE(b.IsMinimal());
  EXPECT_TRUE(b.IsNegative());
  EXPECT_EQ(Hex(b.GetMagnitude()), "7B");
  EXPECT_EQ(b.Int32Value(), -123);
  EXPECT_EQ(b, MiBigInteger::FromInt64(-123));            // same number
  EXPECT_FALSE(b.Equals(MiBigInteger::FromInt64(-123)));  // different octets
  EXPECT_EQ(Hex(MiBigInteger().GetMagnitude()), "00");
  EXPECT_TRUE(MiBigInteger().IsZero());
}

TEST(MiBigIntegerValue, TextAndComparison) {
  const char* big = "340282366920938463463374607431768211457";  // 2^128 + 1
  MiBigInteger b = MiBigInteger::FromString(big);
  EXPECT_EQ(b.ToStdString(10), big);
  EXPECT_EQ(b.ToStdString(16), "0100000000000000000000000000000001");
  MiBigInteger n = MiBigInteger::FromString("-1000000000000000000000");
  EXPECT_EQ(n.ToStdString(10), "-1000000000000000000000");
  EXPECT_EQ(std::string(MiBigInteger::FromString("0x00FF").ToString(16)), "FF");
  EXPECT_EQ(std::string(MiBigInteger::FromInt64(-255).ToString(16)), "-FF");
  EXPECT_EQ(ThrownMessage([] { MiBigInteger::FromString("12a"); }), "invalid argument exp");
  EXPECT_EQ(ThrownMessage([] { MiBigInteger::FromString(""); }), "invalid argument exp");
  EXPECT_EQ(ThrownMessage([] { MiBigInteger::FromString("0x"); }), "invalid argument exp");
  EXPECT_EQ(ThrownMessage([&] { b.ToString(8); }), "invalid argument exp");
  EXPECT_LT(n, MiBigInteger::FromInt64(-1));
  EXPECT_LT(MiBigInteger::FromInt64(-1), MiBigInteger());
  EXPECT_LT(MiBigInteger::FromInt64(255), b);
  EXPECT_EQ(MiBigInteger().CompareTo(MiBigInteger::FromInt64(0)), 0);
}
