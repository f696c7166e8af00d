#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>

#include "asn1/asn1.h"

namespace {

std::string Bits(const MiBitSet& b) {
  MiString s = b.GetBitsString();
  return std::string(static_cast<const char*>(s));
}

std::string Hex(const MiByte& b) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned i = 0; i < b.GetLength(); ++i) {
    out += kHex[b.CharAt(i) >> 4];
    out += kHex[b.CharAt(i) & 15];
  }
  return out;
}

TEST(MiBitSet, TextPacksMostSignificantBitFirst) {
  MiBitSet b("1011");
  EXPECT_EQ(b.GetBitLength(), 4u);
  EXPECT_EQ(Hex(b.GetByte()), "B0");
  EXPECT_EQ(Bits(b), "1011");
  EXPECT_EQ(Hex(MiBitSet("100000001").GetByte()), "8080");
  EXPECT_THROW(b.SetBitsString("102"), MiInvalidArgumentExp);
  EXPECT_EQ(Bits(b), "1011");  // unchanged after the failure
  b.SetBitsString("");
  EXPECT_TRUE(b.Empty());
  EXPECT_TRUE(b.GetByte().Empty());
  EXPECT_TRUE(MiBitSet(static_cast<const char*>(nullptr)).Empty());
  EXPECT_EQ(Bits(MiBitSet(10u)), "0000000000");
  EXPECT_EQ(MiBitSet(10u).GetByte().GetLength(), 2u);
}

TEST(MiBitSet, GetSetAndLength) {
  MiBitSet b("0000");
  b.Set(1, true);
  b.Set(3, true);
  b.Set(3, false);
  EXPECT_EQ(Bits(b), "0100");
  EXPECT_TRUE(b.Get(1));
  EXPECT_TRUE(b[1]);
  EXPECT_THROW(b.Get(4), MiOutOfRangeExp);
  EXPECT_THROW(b.Set(4, true), MiOutOfRangeExp);
  b.SetLength(10);
  EXPECT_EQ(Bits(b), "0100000000");
  b.SetLength(2);
  EXPECT_EQ(Bits(b), "01");
  EXPECT_EQ(Hex(b.GetByte()), "40");
}

TEST(MiBitSet, SetBitsFromBytes) {
  MiByte bytes("\xFF\x0F", 2);
  MiBitSet b(bytes, 12);
  EXPECT_EQ(Bits(b), "111111110000");
  EXPECT_EQ(Hex(b.GetByte()), "FF00");  // unused low bits cleared
  EXPECT_THROW(b.SetBits(bytes, 17), MiOutOfRangeExp);
  b.SetBits(bytes, 0);
  EXPECT_TRUE(b.Empty());

  MiBitSet mid(bytes, 4, 8);
  EXPECT_EQ(Bits(mid), "11110000");
  MiBitSet tail(bytes, 13, 3);
  EXPECT_EQ(Bits(tail), "111");
  EXPECT_EQ(Hex(tail.GetByte()), "E0");
  EXPECT_THROW(MiBitSet(bytes, 16, 0 + 1), MiOutOfRangeExp);
  EXPECT_THROW(MiBitSet(bytes, 10, 7), MiOutOfRangeExp);
  EXPECT_THROW(MiBitSet(bytes, 0xFFFFFFF0u, 0x20), MiOutOfRangeExp);  // no wrap-around
  EXPECT_TRUE(MiBitSet(bytes, 3, 0).Empty());

  // Raw bytes are taken as they are, unused bits included.
  MiBitSet raw;
  raw.SetBitsByte("\x00\xFF", 1, 3);
  EXPECT_EQ(raw.GetBitLength(), 3u);
  EXPECT_EQ(Hex(raw.GetByte()), "FF");
  EXPECT_EQ(Bits(raw), "111");
  // ... but lengthening never brings them back as set bits.
  raw.ExpandRight(2, false);
  EXPECT_EQ(Bits(raw), "11100");
  raw.SetBitsByte(nullptr, 0, 8);
  EXPECT_TRUE(raw.Empty());
}

TEST(MiBitSet, CutAndExpand) {
  MiBitSet b("01");
  b.ExpandLeft(3, true);
  EXPECT_EQ(Bits(b), "11101");
  MiBitSet one("1");
  one.ExpandRight(2, false);
  EXPECT_EQ(Bits(one), "100");
  EXPECT_THROW(one.ExpandRight(2, true), MiOutOfRangeExp);  // fails by design
  EXPECT_EQ(Bits(one), "100");
  one.ExpandRight(0, true);  // nothing to do, nothing thrown
  one.ExpandLeft(0, true);
  EXPECT_EQ(Bits(one), "100");
  one.ExpandLeft(8, false);
  EXPECT_EQ(Bits(one), "00000000100");
  one.ExpandLeft(9, true);
  EXPECT_EQ(Bits(one), "11111111100000000100");

  MiBitSet c("110010111");
  c.CutLeft(2);
  EXPECT_EQ(Bits(c), "0010111");
  c.CutRight(3);
  EXPECT_EQ(Bits(c), "0010");
  c.CutRight(0);
  c.CutLeft(0);
  EXPECT_THROW(c.CutRight(5), MiOutOfRangeExp);
  EXPECT_THROW(c.CutLeft(5), MiOutOfRangeExp);
  EXPECT_EQ(Bits(c), "0010");
  c.CutLeft(4);
  EXPECT_TRUE(c.Empty());
  MiBitSet d("1111");
  d.CutRight(2);
  d.ExpandRight(2, false);
  EXPECT_EQ(Bits(d), "1100");
}

TEST(MiBitSet, ShiftsKeepTheLengthAndLogicOperators) {
  MiBitSet b("10110");
  EXPECT_EQ(Bits(b.ShiftLeft(2)), "11000");
  EXPECT_EQ(Bits(b << 1), "01100");
  EXPECT_EQ(Bits(b.ShiftLeft(0)), "10110");
  EXPECT_EQ(Bits(b.ShiftLeft(5)), "00000");
  EXPECT_EQ(Bits(b.ShiftLeft(99)), "00000");
  EXPECT_EQ(Bits(b.ShiftRight(2)), "00101");
  EXPECT_EQ(Bits(b >> 9), "00000");
  EXPECT_EQ(Bits(~b), "01001");
  EXPECT_EQ(Hex((~b).GetByte()), "48");  // padding bits stay clear
  MiBitSet m("11100");
  EXPECT_EQ(Bits(b & m), "10100");
  EXPECT_EQ(Bits(b | m), "11110");
  EXPECT_EQ(Bits(b.And(MiBitSet("11"))), "10000");
  EXPECT_EQ(Bits(MiBitSet("01").Or(b)), "11110");
  EXPECT_EQ(Bits(b), "10110");  // operands untouched
}

TEST(MiBitSet, ComparisonLengthFirst) {
  MiBitSet a("1");
  EXPECT_EQ(a.CompareTo(a), 0);
  EXPECT_EQ(MiBitSet().CompareTo(MiBitSet()), 0);
  EXPECT_EQ(MiBitSet().CompareTo(a), -1);
  EXPECT_EQ(a.CompareTo(MiBitSet()), 1);
  EXPECT_EQ(MiBitSet("1").CompareTo(MiBitSet("00")), -1);
  // Same length: bytes as signed values, so a leading 1 sorts first.
  EXPECT_EQ(MiBitSet("10").CompareTo(MiBitSet("01")), -1);
  EXPECT_TRUE(MiBitSet("101") == MiBitSet("101"));
  EXPECT_TRUE(MiBitSet("101") != MiBitSet("1010"));
  MiBitSet c(a);
  c.Set(0, false);
  EXPECT_TRUE(a.Get(0));
  c = a;
  EXPECT_TRUE(c.Equals(a));
  c.Reset(nullptr);
  EXPECT_TRUE(c.Empty());
  c.Reset(&a);
  EXPECT_TRUE(c == a);
  MiBitSet moved(std::move(c));
  EXPECT_TRUE(c.Empty());
  EXPECT_TRUE(moved == a);
}

TEST(MiBitSet, StreamLayout) {
  std::ostringstream os;
  MiBitSet("1011").ToOstream(os, 0);
  EXPECT_EQ(os.str(), "1011");
  std::string text;
  for (int i = 0; i < 40; ++i) text += (i % 3 == 0) ? '1' : '0';
  std::ostringstream two;
  MiBitSet(text.c_str()).ToOstream(two, 1);
  EXPECT_EQ(two.str(),
            "    10010010 01001001 00100100 10010010 \n"
            "    01001001 ");
  std::ostringstream exact;
  exact << MiBitSet(std::string(32, '1').c_str());
  EXPECT_EQ(exact.str(), "11111111 11111111 11111111 11111111 ");
  std::ostringstream empty;
  empty << MiBitSet();
  EXPECT_EQ(empty.str(), "");
}

// Random bit ranges against a string model of the bits.
TEST(MiBitSet, RandomRangesMatchAStringModel) {
  std::mt19937 rng(99);
  for (int round = 0; round < 300; ++round) {
    std::string bytes(1 + rng() % 9, '\0');
    for (char& c : bytes) c = static_cast<char>(rng());
    std::string model;
    for (unsigned char c : bytes) {
      for (int k = 7; k >= 0; --k) model += ((c >> k) & 1) ? '1' : '0';
    }
    MiByte src(bytes.data(), static_cast<unsigned>(bytes.size()));
    unsigned start = rng() % model.size();
    unsigned n = 1 + rng() % (model.size() - start);
    MiBitSet b(src, start, n);
    ASSERT_EQ(Bits(b), model.substr(start, n));
    unsigned cut = rng() % (n + 1);
    b.CutLeft(cut);
    ASSERT_EQ(Bits(b), model.substr(start + cut, n - cut));
    unsigned add = rng() % 12;
    b.ExpandLeft(add, round % 2 == 0);
    ASSERT_EQ(Bits(b),
              std::string(add, round % 2 == 0 ? '1' : '0') + model.substr(start + cut, n - cut));
    ASSERT_EQ(b.GetByte().GetLength(), (b.GetBitLength() + 7) / 8);
  }
}

}  // namespace
