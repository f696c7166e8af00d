#include <gtest/gtest.h>

#include <climits>
#include <sstream>
#include <string>

#include "asn1/asn1.h"

namespace {

TEST(MiString, ConstructionAndEmptyValues) {
  MiString empty;
  EXPECT_EQ(empty.GetChars(), nullptr);
  EXPECT_STREQ(static_cast<const char*>(empty), "");  // the conversion never yields null
  EXPECT_EQ(MiString("").GetChars(), nullptr);
  EXPECT_EQ(MiString(static_cast<const char*>(nullptr)).GetLength(), 0u);
  EXPECT_STREQ(MiString("abcdef", 2, 3).GetChars(), "cde");
  EXPECT_STREQ(MiString(3u, '*').GetChars(), "***");
  EXPECT_EQ(MiString(0u, '*').GetChars(), nullptr);

  MiString a("text");
  MiString b(a);
  b[0] = 'n';
  EXPECT_EQ(a, "text");
  EXPECT_EQ(b, "next");
  a = std::move(b);
  EXPECT_EQ(a, "next");
  EXPECT_TRUE(b.Empty());
  EXPECT_EQ(&a.GetString(), &a);
}

TEST(MiString, SettersKeepContentOnNullOrEmptySource) {
  MiString s("keep");
  s.SetChars(nullptr);
  s.SetChars("");
  s.SetChars("abc", 1, 0);
  EXPECT_EQ(s, "keep");
  s.SetChars("0123456", 2, 3);
  EXPECT_EQ(s, "234");
  s.SetLength(2, 'z');
  EXPECT_EQ(s, "zz");
  s.SetLength(0, 'z');
  EXPECT_TRUE(s.Empty());
  s.Concat("ab");
  s.Concat(MiString("cd"));
  s.Concat(s);
  s.Concat(static_cast<const char*>(nullptr));
  EXPECT_EQ(s, "abcdabcd");
  s.Reset(nullptr);
  EXPECT_EQ(s.GetChars(), nullptr);
}

TEST(MiString, ComparisonLengthFirstSignedAndIgnoringCase) {
  EXPECT_LT(MiString("b").CompareTo("aa"), 0);
  EXPECT_LT(MiString("\x80").CompareTo("\x7f"), 0);
  EXPECT_EQ(MiString().CompareTo(""), 0);
  EXPECT_EQ(MiString().CompareTo(static_cast<const char*>(nullptr)), 0);
  EXPECT_EQ(MiString().CompareTo("a"), -1);
  EXPECT_EQ(MiString("a").CompareTo(MiString()), 1);
  EXPECT_EQ(MiString("abc").CompareToIgnoreCase("ABC"), 0);
  EXPECT_EQ(MiString("abd").CompareToIgnoreCase(MiString("ABC")), 1);
  // Upper-cased copies: '_' (0x5F) sorts above 'A' but below 'a'.
  EXPECT_EQ(MiString("_").CompareToIgnoreCase("a"), 1);
  EXPECT_TRUE(MiString("Hello").EqualsIgnoreCase("hELLO"));
  EXPECT_FALSE(MiString("Hello").Equals("hELLO"));
  EXPECT_TRUE(MiString("x") == MiString("x"));
  EXPECT_TRUE("x" == MiString("x"));
  EXPECT_TRUE(MiString("x") != "y");
  EXPECT_TRUE("y" != MiString("x"));
  EXPECT_TRUE(MiString() == "");
}

TEST(MiString, IndexOfUsesTheSimpleForwardScan) {
  EXPECT_EQ(MiString("aab").IndexOf("ab"), -1);
  EXPECT_EQ(MiString("xab").IndexOf("ab"), 1);
  EXPECT_EQ(MiString("ababc").IndexOf("abc"), -1);  // resumes behind the mismatch
  EXPECT_EQ(MiString("ab abc").IndexOf("abc"), 3);
  EXPECT_EQ(MiString("abcabc").IndexOf("abc", 1), 3);
  EXPECT_EQ(MiString("abcabc").IndexOf(MiString("bc"), 2), 4);
  EXPECT_EQ(MiString("ab").IndexOf("abc"), -1);  // runs off the end
  EXPECT_EQ(MiString("abc").IndexOf(""), -1);
  EXPECT_EQ(MiString("abc").IndexOf(static_cast<const char*>(nullptr)), -1);
  EXPECT_EQ(MiString("abc").IndexOf("c", 3), -1);
  EXPECT_EQ(MiString().IndexOf("a"), -1);
  EXPECT_EQ(MiString("a.b.c").IndexOf('.'), 1);
  EXPECT_EQ(MiString("a.b.c").IndexOf('.', 2), 3);
  EXPECT_EQ(MiString("a.b.c").IndexOf('.', 4), -1);
  EXPECT_EQ(MiString("a.b.c").IndexOf('.', 99), -1);
}

TEST(MiString, SubStrings) {
  MiString s("1.2.840");
  EXPECT_EQ(s.SubString(2), "2.840");
  EXPECT_TRUE(s.SubString(7).Empty());
  EXPECT_THROW(s.SubString(8), MiOutOfRangeExp);
  EXPECT_EQ(s.SubString(2, 3), "2");
  EXPECT_THROW(s.SubString(3, 2), MiInvalidArgumentExp);
  EXPECT_THROW(s.SubString(2, 8), MiOutOfRangeExp);
  EXPECT_EQ(s.SubString(0, '.'), "1");
  EXPECT_EQ(s.SubString(4, '.'), "840");
  EXPECT_EQ(s.SubString(1, '.'), "");
  EXPECT_TRUE(s.SubString(7, '.').Empty());
}

TEST(MiString, InPlaceAndStaticTransforms) {
  MiString s("hello World");
  s.ToUpperCase();
  EXPECT_EQ(s, "HELLO WORLD");
  s.ToLowerCase().ToInitialUpper();
  EXPECT_EQ(s, "Hello world");
  s.ToInitialLower().Replace('o', '0').Reverse();
  EXPECT_EQ(s, "dlr0w 0lleh");
  MiString digit("1abc");
  digit.ToInitialUpper();
  EXPECT_EQ(digit, "1abc");
  EXPECT_EQ(MiString::ToInitialUpper("serialNumber"), "SerialNumber");
  EXPECT_EQ(MiString::ToInitialLower("TBSCertificate"), "tBSCertificate");
  EXPECT_EQ(MiString::ToUpperCase("a-z"), "A-Z");
  EXPECT_EQ(MiString::ToLowerCase("A-Z"), "a-z");
  EXPECT_EQ(MiString::Reverse("abc"), "cba");
  EXPECT_TRUE(MiString::Reverse(nullptr).Empty());
  EXPECT_EQ(MiString::StringSize("four"), 4u);
  EXPECT_EQ(MiString::StringSize(nullptr), 0u);
  EXPECT_EQ(MiString::CopyOf("abc"), "abc");
  EXPECT_EQ(MiString::CopyOf("abc", 2), "ab");
  EXPECT_EQ(MiString::CopyOf("abcdef", 3, 2), "de");
}

TEST(MiString, IntToString) {
  EXPECT_EQ(MiString::IntToString(255, 16), "FF");
  EXPECT_EQ(MiString::IntToString(0, 10), "0");
  EXPECT_EQ(MiString::IntToString(-10, 10), "-10");
  EXPECT_EQ(MiString::IntToString(35, 36), "Z");
  EXPECT_EQ(MiString::IntToString(-5, 2), "-101");
  EXPECT_EQ(MiString::IntToString(INT_MAX, 10), "2147483647");
  EXPECT_EQ(MiString::IntToString(INT_MIN, 10), "-");  // its negation stays negative
  EXPECT_EQ(MiString::UIntToString(4294967295u, 16), "FFFFFFFF");
  EXPECT_EQ(MiString::UIntToString(0, 8), "0");
  EXPECT_THROW(MiString::IntToString(1, 0), MiInvalidArgumentExp);
  EXPECT_THROW(MiString::UIntToString(1, 1), MiInvalidArgumentExp);
  EXPECT_THROW(MiString::UIntToString(1, 37), MiInvalidArgumentExp);
}

TEST(MiString, StringToIntMultipliesByEleven) {
  EXPECT_EQ(MiString::StringToInt("12", 0), 13);
  EXPECT_EQ(MiString::StringToInt("-7", 0), -7);
  EXPECT_EQ(MiString::StringToInt("+123", 0), 1 * 121 + 2 * 11 + 3);
  EXPECT_EQ(MiString::StringToInt("0", 0), 0);
  EXPECT_EQ(MiString::StringToInt("+0", 0), 0);
  EXPECT_EQ(MiString::StringToInt("-0", 0), 0);
  EXPECT_EQ(MiString::StringToInt("9", 99), 9);  // the second argument is not used
  for (const char* bad : {"007", "0 ", "1a", "", "+", "-", "1-", " 1", "--1"}) {
    EXPECT_THROW(MiString::StringToInt(bad, 0), MiInvalidArgumentExp) << bad;
  }
  EXPECT_THROW(MiString::StringToInt(nullptr, 0), MiInvalidArgumentExp);
  EXPECT_EQ(MiString("21").ToInt(), 23);
  EXPECT_THROW(MiString().ToInt(), MiInvalidArgumentExp);
  // Long texts wrap around instead of overflowing.
  EXPECT_NO_THROW(MiString::StringToInt("99999999999999999999", 0));
}

TEST(MiString, IndexingAndStream) {
  MiString s("ab");
  EXPECT_EQ(s[1], 'b');
  EXPECT_EQ(s[1u], 'b');
  EXPECT_THROW(s[2], MiOutOfRangeExp);
  EXPECT_THROW(s[-1], MiOutOfRangeExp);
  EXPECT_THROW(s.CharAt(2), MiOutOfRangeExp);
  const MiString& cs = s;
  EXPECT_EQ(cs[0], 'a');
  std::ostringstream os;
  s.ToOstream(os, 2);
  os << "|" << MiString() << "|" << s;
  EXPECT_EQ(os.str(), "        ab||ab");
}

}  // namespace
