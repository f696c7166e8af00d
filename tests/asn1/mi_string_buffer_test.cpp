#include <gtest/gtest.h>

#include <climits>
#include <sstream>
#include <string>

#include "asn1/asn1.h"

namespace {

std::string Text(const MiStringBuffer& b) {
  return std::string(static_cast<const char*>(b));
}

TEST(MiStringBuffer, CapacityAlwaysKeepsRoomForTheTerminator) {
  EXPECT_EQ(MiStringBuffer().Capacity(), 1024u);
  EXPECT_EQ(MiStringBuffer(1024u).Capacity(), 2048u);
  EXPECT_EQ(MiStringBuffer(1023u).Capacity(), 1024u);
  EXPECT_EQ(MiStringBuffer(0).Capacity(), 1024u);
  EXPECT_TRUE(MiStringBuffer(100u).Empty());

  MiStringBuffer b;
  for (int i = 0; i < 1023; ++i) b.Append('x');
  EXPECT_EQ(b.Capacity(), 1024u);
  b.Append('y');  // length 1024 needs a capacity above it
  EXPECT_EQ(b.Capacity(), 2048u);
  EXPECT_EQ(b.GetChars()[1024], '\0');
  b.EnsureCapacity(2048);
  EXPECT_EQ(b.Capacity(), 4096u);
  b.EnsureCapacity(100);
  EXPECT_EQ(b.Capacity(), 4096u);

  MiStringBuffer big(std::string(5000, 'a').c_str());
  EXPECT_EQ(big.Capacity(), 8192u);
  big.SetChars("short");
  EXPECT_EQ(big.Capacity(), 2048u);
  EXPECT_EQ(Text(big), "short");
}

TEST(MiStringBuffer, AppendAndInsertForms) {
  MiStringBuffer b("ac");
  b.Append('d').Append("ef").Append("xgx", 1, 1).Append(MiString("h"));
  b.Insert(1, 'b');
  EXPECT_EQ(Text(b), "abcdefgh");
  b.Append(-42).Append(' ').Append(42u).Append(INT_MIN);
  EXPECT_EQ(Text(b), "abcdefgh-42 42-2147483648");
  b.SetChars("[]");
  b.Insert(1, 7).Insert(1, "x=").Insert(0, MiString(">")).Insert(4, "?!?", 1, 1).Insert(0, 0u);
  EXPECT_EQ(Text(b), "0>[x=!7]");
  EXPECT_THROW(b.Insert(9, 'x'), MiOutOfRangeExp);
  EXPECT_THROW(b.Insert(9, 1), MiOutOfRangeExp);
  EXPECT_THROW(b.Insert(9, "x"), MiOutOfRangeExp);
  b.Append(static_cast<const char*>(nullptr))
      .Append("")
      .Insert(0, static_cast<const char*>(nullptr));
  EXPECT_EQ(Text(b), "0>[x=!7]");
  b.Insert(0, static_cast<const char*>(b));  // a source inside the buffer
  EXPECT_EQ(Text(b), "0>[x=!7]0>[x=!7]");
}

TEST(MiStringBuffer, DeleteReplaceAndSubString) {
  MiStringBuffer b("0123456789");
  b.DeleteCharAt(0);
  EXPECT_THROW(b.DeleteCharAt(9), MiOutOfRangeExp);
  b.DeleteChars(2, 4);
  b.DeleteChars(4, 3);
  EXPECT_EQ(Text(b), "1256789");
  b.Replace(1, 3, MiString("--"));
  EXPECT_EQ(Text(b), "1--6789");
  b.Replace(0, 99, "all");
  EXPECT_EQ(Text(b), "all");
  b.Replace(3, 3, static_cast<const char*>(b));
  EXPECT_EQ(Text(b), "allall");
  EXPECT_THROW(b.Replace(7, 8, "x"), MiOutOfRangeExp);
  b.Replace('l', 'L');
  EXPECT_EQ(Text(b), "aLLaLL");
  EXPECT_EQ(b.SubString(3), "aLL");
  EXPECT_EQ(b.SubString(1, 3), "LL");
  EXPECT_THROW(b.SubString(7), MiOutOfRangeExp);
  EXPECT_THROW(b.SubString(2, 1), MiInvalidArgumentExp);
  EXPECT_THROW(b.SubString(2, 7), MiOutOfRangeExp);
  b.Reverse();
  EXPECT_EQ(Text(b), "LLaLLa");
  b.ToLowerCase();
  b.ToInitialUpper();
  EXPECT_EQ(Text(b), "Llalla");
  b.ToUpperCase();
  b.ToInitialLower();
  EXPECT_EQ(Text(b), "lLALLA");
}

TEST(MiStringBuffer, DeleteCharsShrinksByTheRemovedCount) {
  MiStringBuffer b(std::string(16000, 'a').c_str());
  ASSERT_EQ(b.Capacity(), 16384u);
  b.DeleteChars(1000, 16000);  // removing 15000 keeps 16384
  EXPECT_EQ(b.Capacity(), 16384u);
  b.DeleteChars(0, 10);  // removing 10 comes down to 2048, above the 990 left
  EXPECT_EQ(b.Capacity(), 2048u);
  EXPECT_EQ(b.GetLength(), 990u);
  EXPECT_EQ(b.GetChars()[990], '\0');
}

TEST(MiStringBuffer, ValueSemanticsComparisonAndStream) {
  MiStringBuffer a("abc");
  MiStringBuffer b(a);
  b.SetCharAt(0, 'x');
  EXPECT_EQ(Text(a), "abc");
  EXPECT_THROW(b.SetCharAt(3, 'x'), MiOutOfRangeExp);
  EXPECT_THROW(b.CharAt(3), MiOutOfRangeExp);
  EXPECT_EQ(b[0], 'x');
  EXPECT_THROW(b[3], MiOutOfRangeExp);
  EXPECT_TRUE(a != b);
  b = a;
  EXPECT_TRUE(a == b);
  EXPECT_TRUE(a == "abc");
  EXPECT_TRUE("abc" == a);
  EXPECT_TRUE(a != "abd");
  EXPECT_TRUE(MiStringBuffer() == "");
  EXPECT_EQ(MiStringBuffer().GetChars(), nullptr);

  MiString s = a.ToString();
  a.Append('!');
  EXPECT_EQ(s, "abc");
  MiStringBuffer fromString(s);
  EXPECT_EQ(Text(fromString), "abc");
  fromString.SetString(MiString("z"));
  fromString.SetString(MiString());
  EXPECT_EQ(Text(fromString), "z");
  fromString.SetChars("0123", 1, 2);
  EXPECT_EQ(Text(fromString), "12");
  MiStringBuffer moved(std::move(fromString));
  EXPECT_EQ(Text(moved), "12");
  fromString.Append("new");
  EXPECT_EQ(Text(fromString), "new");
  fromString.Reset(nullptr);
  EXPECT_TRUE(fromString.Empty());
  fromString.Reset(&moved);
  EXPECT_EQ(Text(fromString), "12");

  std::ostringstream os;
  moved.ToOstream(os, 1);
  os << '|' << MiStringBuffer() << '|' << moved;
  EXPECT_EQ(os.str(), "    12||12");
}

}  // namespace
