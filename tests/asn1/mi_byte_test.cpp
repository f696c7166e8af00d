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

TEST(MiByte, BlockCarriesATerminatorAndEmptyHasNoBlock) {
  MiByte empty;
  EXPECT_EQ(empty.GetChars(), nullptr);
  EXPECT_TRUE(empty.Empty());
  EXPECT_EQ(MiByte(0u).GetChars(), nullptr);
  EXPECT_EQ(MiByte(nullptr, 5).GetLength(), 0u);

  MiByte abc("abcdef", 1, 3);
  EXPECT_STREQ(abc.GetChars(), "bcd");
  MiByte zeros(4);
  EXPECT_EQ(zeros.GetLength(), 4u);
  EXPECT_EQ(zeros.CharAt(3), 0);
  MiByte filled(3, 0xAB);
  EXPECT_EQ(filled.CharAt(2), 0xAB);
  EXPECT_EQ(filled.GetChars()[3], 0);
}

TEST(MiByte, CopiesAreIndependentAndMovesLeaveAnEmptyValue) {
  MiByte a("xyz", 3);
  MiByte b(a);
  b.SetCharAt(0, 'Q');
  EXPECT_STREQ(a.GetChars(), "xyz");
  a = b;
  EXPECT_STREQ(a.GetChars(), "Qyz");
  MiByte& alias = a;
  a = alias;  // self-assignment keeps the content
  EXPECT_STREQ(a.GetChars(), "Qyz");
  MiByte c(std::move(a));
  EXPECT_TRUE(a.Empty());
  EXPECT_STREQ(c.GetChars(), "Qyz");
  c.Reset(nullptr);
  EXPECT_EQ(c.GetChars(), nullptr);
  c.Reset(&b);
  EXPECT_TRUE(c == b);
}

TEST(MiByte, SettersIgnoreNullAndZeroButCheckMiByteRanges) {
  MiByte b("keep", 4);
  b.SetByte(nullptr, 3);
  b.SetByte("new", 0u);
  EXPECT_STREQ(b.GetChars(), "keep");
  b.SetByte("0123456", 2, 3);
  EXPECT_STREQ(b.GetChars(), "234");

  MiByte src("abcdef", 6);
  b.SetByte(src, 2, 4);
  EXPECT_STREQ(b.GetChars(), "cdef");
  b.SetByte(src, 2);
  EXPECT_STREQ(b.GetChars(), "ab");
  EXPECT_THROW(b.SetByte(src, 3, 4), MiOutOfRangeExp);
  EXPECT_THROW(b.SetByte(src, 7), MiOutOfRangeExp);
  EXPECT_THROW(b.SetByte(src, 0xFFFFFFFFu, 2), MiOutOfRangeExp);  // no wrap-around
  EXPECT_STREQ(b.GetChars(), "ab");                               // unchanged after throwing

  // A range of the value itself.
  b.SetByte(b, 1, 1);
  EXPECT_STREQ(b.GetChars(), "b");
  b.Concat(b.GetChars(), 1);
  EXPECT_STREQ(b.GetChars(), "bb");
  b.Concat(nullptr, 4);
  b.Concat("x", 0);
  EXPECT_STREQ(b.GetChars(), "bb");
}

TEST(MiByte, SetLengthKeepsOrFillsAndZeroFrees) {
  MiByte b("abcd", 4);
  b.SetLength(6);
  EXPECT_EQ(b.GetLength(), 6u);
  EXPECT_EQ(b.CompareTo("abcd\0\0", 6), 0);
  b.SetLength(2);
  EXPECT_STREQ(b.GetChars(), "ab");
  b.SetLength(3, 'z');
  EXPECT_STREQ(b.GetChars(), "zzz");
  b.SetLength(3, 'y');
  EXPECT_STREQ(b.GetChars(), "yyy");
  b.SetLength(0, 'y');
  EXPECT_EQ(b.GetChars(), nullptr);
  b.SetLength(1);
  b.SetLength(0);
  EXPECT_EQ(b.GetChars(), nullptr);
}

TEST(MiByte, ComparisonIsLengthFirstWithSignedBytes) {
  EXPECT_LT(MiByte("b", 1).CompareTo(MiByte("aa", 2)), 0);
  EXPECT_LT(Bytes({0x80}).CompareTo(Bytes({0x7F})), 0);
  EXPECT_GT(Bytes({0x00}).CompareTo(Bytes({0xFF})), 0);
  EXPECT_EQ(MiByte().CompareTo(MiByte()), 0);
  EXPECT_EQ(MiByte().CompareTo(Bytes({0x00})), -1);
  EXPECT_EQ(Bytes({0x00}).CompareTo(MiByte()), 1);
  EXPECT_EQ(MiByte("xab", 3).CompareTo("zab", 1, 2), 1);  // length 3 against 2
  EXPECT_EQ(MiByte("ab", 2).CompareTo("zab", 1, 2), 0);
  EXPECT_EQ(MiByte("ab", 2).CompareTo(nullptr, 0), 1);

  // The operators follow the same signed order.
  EXPECT_TRUE(Bytes({0x80}) < Bytes({0x7F}));
  EXPECT_TRUE(Bytes({0x01, 0x02}) > Bytes({0x7F}));
  EXPECT_TRUE(Bytes({0x01, 0x02}) == Bytes({0x01, 0x02}));
  EXPECT_TRUE(Bytes({0x01, 0x02}) != Bytes({0x01, 0x03}));
  EXPECT_TRUE(Bytes({0xFF}) <= Bytes({0x00}));
  EXPECT_TRUE(MiByte() <= MiByte());
  EXPECT_TRUE(Bytes({0x00}) >= MiByte());
}

TEST(MiByte, NumericValuesReadTheLastFourBytes) {
  EXPECT_EQ(Bytes({1, 2, 3, 4, 5}).UInt32Value(), 0x02030405u);
  EXPECT_EQ(Bytes({0xFF, 0xFE}).Int32Value(), -2);
  EXPECT_EQ(Bytes({0x7F, 0xFE}).Int32Value(), 0x7FFE);
  EXPECT_EQ(Bytes({0x80}).Int32Value(), -128);
  EXPECT_EQ(Bytes({0x00, 0x80, 0x00, 0x00, 0x00}).Int32Value(), INT32_MIN);
  EXPECT_EQ(Bytes({0xFF, 0xFF, 0xFF, 0xFF}).UInt32Value(), 0xFFFFFFFFu);
  EXPECT_EQ(MiByte().Int32Value(), 0);
  EXPECT_EQ(MiByte().UInt32Value(), 0u);
}

TEST(MiByte, IndexChecks) {
  MiByte b("ab", 2);
  EXPECT_EQ(b[1], 'b');
  EXPECT_THROW(b.CharAt(2), MiOutOfRangeExp);
  EXPECT_THROW(b.SetCharAt(2, 'x'), MiOutOfRangeExp);
  EXPECT_THROW(MiByte().CharAt(0), MiOutOfRangeExp);
  EXPECT_EQ(&b.GetByte(), &b);
}

TEST(MiByte, StreamLayoutSixteenBytesALine) {
  EXPECT_EQ(Dump(MiByte(), 2), "");
  EXPECT_EQ(Dump(Bytes({0x0A, 0xFF}), 0), "0A FF ");
  std::string twenty;
  for (int i = 0; i < 20; ++i) twenty.push_back(static_cast<char>(i));
  MiByte b(twenty.data(), 20);
  EXPECT_EQ(Dump(b, 1),
            "    00 01 02 03 04 05 06 07  08 09 0A 0B 0C 0D 0E 0F  \n"
            "    10 11 12 13 ");
  // Exactly one line: no line end after the last byte.
  MiByte sixteen(twenty.data(), 16);
  EXPECT_EQ(Dump(sixteen, 0), "00 01 02 03 04 05 06 07  08 09 0A 0B 0C 0D 0E 0F  ");
  std::ostringstream os;
  os << Bytes({0xC3});
  EXPECT_EQ(os.str(), "C3 ");
}

}  // namespace
