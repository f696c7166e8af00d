#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "asn1/asn1.h"

namespace {

MiByte Bytes(std::initializer_list<int> values) {
  std::string s;
  for (int v : values) s.push_back(static_cast<char>(v));
  return MiByte(s.data(), static_cast<unsigned>(s.size()));
}

std::string Dump(const MiByte& b, unsigned indent) {
  std::ostringstream os;
  b.ToOstream(os, indent);
  return os.str();
}

TEST(MiByte, BlocksAreTerminatedAndEmptyHasNone) {
  EXPECT_EQ(MiByte().GetChars(), nullptr);
  EXPECT_EQ(MiByte(0u).GetChars(), nullptr);
  EXPECT_EQ(MiByte(nullptr, 5).GetLength(), 0u);
  EXPECT_STREQ(MiByte("abcdef", 1, 3).GetChars(), "bcd");
  MiByte filled(3, 0xAB);
  EXPECT_EQ(filled.CharAt(2), 0xAB);
  EXPECT_EQ(filled.GetChars()[3], 0);
  EXPECT_THROW(filled.CharAt(3), MiOutOfRangeExp);
  EXPECT_THROW(filled.SetCharAt(3, 0), MiOutOfRangeExp);

  MiByte a("xyz", 3);
  MiByte b(a);
  b.SetCharAt(0, 'Q');
  EXPECT_STREQ(a.GetChars(), "xyz");
  MiByte& alias = a;
  a = alias;
  EXPECT_STREQ(a.GetChars(), "xyz");
  a.Reset(nullptr);
  EXPECT_EQ(a.GetChars(), nullptr);
}

TEST(MiByte, SettersIgnoreNullAndZeroButCheckMiByteRanges) {
  MiByte b("keep", 4);
  b.SetByte(nullptr, 3);
  b.SetByte("new", 0u);
  b.Concat(nullptr, 4);
  EXPECT_STREQ(b.GetChars(), "keep");
  b.SetByte("0123456", 2, 3);
  EXPECT_STREQ(b.GetChars(), "234");

  MiByte src("abcdef", 6);
  b.SetByte(src, 2, 4);
  EXPECT_STREQ(b.GetChars(), "cdef");
  b.SetByte(src, 2);
  EXPECT_STREQ(b.GetChars(), "ab");
  EXPECT_THROW(b.SetByte(src, 3, 4), MiOutOfRangeExp);
  EXPECT_THROW(b.SetByte(src, 0xFFFFFFFFu, 2), MiOutOfRangeExp);  // no wrap-around
  EXPECT_STREQ(b.GetChars(), "ab");                               // unchanged after throwing
  // Ranges of the value itself.
  b.SetByte(b, 1, 1);
  b.Concat(b.GetChars(), 1);
  EXPECT_STREQ(b.GetChars(), "bb");
}

TEST(MiByte, SetLengthKeepsOrFillsAndZeroFrees) {
  MiByte b("abcd", 4);
  b.SetLength(6);
  EXPECT_EQ(b.CompareTo("abcd\0\0", 6), 0);
  EXPECT_EQ(b.GetChars()[6], 0);
  b.SetLength(2);
  EXPECT_STREQ(b.GetChars(), "ab");
  b.SetLength(3, 'z');
  EXPECT_STREQ(b.GetChars(), "zzz");
  b.SetLength(0, 'y');
  EXPECT_EQ(b.GetChars(), nullptr);
}

TEST(MiByte, ComparisonIsLengthFirstWithSignedBytes) {
  EXPECT_LT(MiByte("b", 1).CompareTo(MiByte("aa", 2)), 0);
  EXPECT_LT(Bytes({0x80}).CompareTo(Bytes({0x7F})), 0);
  EXPECT_GT(Bytes({0x00}).CompareTo(Bytes({0xFF})), 0);
  EXPECT_EQ(MiByte().CompareTo(MiByte()), 0);
  EXPECT_EQ(MiByte().CompareTo(Bytes({0x00})), -1);
  EXPECT_EQ(Bytes({0x00}).CompareTo(MiByte()), 1);
  EXPECT_EQ(MiByte("xab", 3).CompareTo("zab", 1, 2), 1);
  EXPECT_EQ(MiByte("ab", 2).CompareTo("zab", 1, 2), 0);
  // The operators follow the same signed order.
  EXPECT_TRUE(Bytes({0x80}) < Bytes({0x7F}));
  EXPECT_TRUE(Bytes({0x01, 0x02}) > Bytes({0x7F}));
  EXPECT_TRUE(Bytes({0xFF}) <= Bytes({0x00}));
  EXPECT_TRUE(Bytes({0x00}) >= MiByte());
  EXPECT_TRUE(Bytes({1, 2}) != Bytes({1, 3}));
}

TEST(MiByte, NumericValuesReadTheLastFourBytes) {
  EXPECT_EQ(Bytes({1, 2, 3, 4, 5}).UInt32Value(), 0x02030405u);
  EXPECT_EQ(Bytes({0xFF, 0xFE}).Int32Value(), -2);
  EXPECT_EQ(Bytes({0x7F, 0xFE}).Int32Value(), 0x7FFE);
  EXPECT_EQ(Bytes({0x00, 0x80, 0x00, 0x00, 0x00}).Int32Value(), INT32_MIN);
  EXPECT_EQ(Bytes({0x80, 0x7F, 0xFF, 0xFF, 0xFF}).Int32Value(), INT32_MAX);
  EXPECT_EQ(MiByte().Int32Value(), 0);
}

TEST(MiByte, StreamLayoutSixteenBytesALine) {
  EXPECT_EQ(Dump(MiByte(), 2), "");
  std::string twenty;
  for (int i = 0; i < 20; ++i) twenty.push_back(static_cast<char>(i + 0xA0));
  EXPECT_EQ(Dump(MiByte(twenty.data(), 20), 1),
            "    A0 A1 A2 A3 A4 A5 A6 A7  A8 A9 AA AB AC AD AE AF  \n"
            "    B0 B1 B2 B3 ");
  // Exactly one line: no line end after the last byte.
  EXPECT_EQ(Dump(MiByte(twenty.data(), 16), 0),
            "A0 A1 A2 A3 A4 A5 A6 A7  A8 A9 AA AB AC AD AE AF  ");
  std::ostringstream os;
  os << Bytes({0x0C});
  EXPECT_EQ(os.str(), "0C ");
}

}  // namespace
