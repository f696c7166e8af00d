// Character rules, wide strings and time texts of the primitive types.
#include <gtest/gtest.h>

#include "asn_test_util.h"

using namespace asntest;

TEST(AsnCharacterRules, NarrowStringSets) {
  EXPECT_TRUE(AsnPrintableString::TestData("a`b"));  // the grave accent is in the set
  EXPECT_FALSE(AsnPrintableString::TestData("it's"));
  EXPECT_TRUE(AsnPrintableString::TestData("@"));
  EXPECT_FALSE(AsnPrintableString::TestData(""));
  EXPECT_FALSE(AsnPrintableString::TestData(static_cast<const char*>(nullptr)));
  EXPECT_TRUE(AsnPrintableString::TestData("Az09 ()+,-./:=?"));
  EXPECT_FALSE(AsnPrintableString::TestData("a_b"));
  EXPECT_TRUE(AsnNumericString::TestData("12 34"));
  EXPECT_FALSE(AsnNumericString::TestData("12-34"));
  EXPECT_FALSE(AsnVisibleString::TestData("caf\xE9"));
  EXPECT_FALSE(AsnVisibleString::TestData("a\tb"));
  EXPECT_TRUE(AsnVisibleString::TestData("~ !"));
  EXPECT_TRUE(AsnIA5String::TestData("\x01\x7F"));
  EXPECT_TRUE(AsnTeletexString::TestData("\xE9"));
  // The offset form tests n characters from the offset.
  EXPECT_TRUE(AsnNumericString::TestData("ab12cd", 2, 2));
  EXPECT_FALSE(AsnNumericString::TestData("ab12cd", 1, 2));

  // SetData refuses bad text and keeps the old value; empty text empties.
  AsnPrintableString ps("ok");
  EXPECT_EQ(ThrownMessage([&] { ps.SetData("n*"); }), "invalid argument exp");
  EXPECT_STREQ(ps.GetData(), "ok");
  ps.SetData("");
  EXPECT_TRUE(ps.GetData().Empty());
  ps.SetData("xx12yy", 2, 2);
  EXPECT_STREQ(ps.GetData(), "12");
  // Different string classes never hold equal contents.
  EXPECT_FALSE(
      AsnIA5String("a").EqualsContent(&static_cast<const AsnObject&>(AsnTeletexString("a"))));
  AsnIA5String ia;
  EXPECT_EQ(ThrownMessage([&] { ia.Reset(&static_cast<const AsnObject&>(AsnTeletexString("a"))); }),
            "invalid argument exp");
}

TEST(AsnCharacterRules, WideStringLayouts) {
  EXPECT_TRUE(AsnBMPString::TestData(Bytes("00000041")));
  EXPECT_FALSE(AsnBMPString::TestData(Bytes("00010041")));
  EXPECT_FALSE(AsnBMPString::TestData(Bytes("000041")));
  EXPECT_FALSE(AsnBMPString::TestData(MiByte()));
  EXPECT_TRUE(AsnUniversalString::TestData(Bytes("0010FFFF7FFFFFFF")));
  EXPECT_FALSE(AsnUniversalString::TestData(Bytes("80000000")));
  AsnQuadruple q[] = {AsnQuadruple(0x41), AsnQuadruple(0x80000000u)};
  EXPECT_TRUE(AsnUTF8String::TestData(q, 1));
  EXPECT_FALSE(AsnUTF8String::TestData(q, 2));

  AsnQuadruple codes[] = {AsnQuadruple(0x41), AsnQuadruple(0x4E2D), AsnQuadruple(0x42)};
  AsnUniversalString us(codes, 3);
  EXPECT_STREQ(us.GetVisibleString(), "AB");
  EXPECT_EQ(Hex(us.GetByte()), "0000004100004E2D00000042");
  EXPECT_EQ(us.GetCode(1), 0x4E2Du);
  EXPECT_EQ(ThrownMessage([&] { us.GetCode(3); }), "out of range exp");
  EXPECT_EQ(Der(us), "1C0C0000004100004E2D00000042");
  AsnBMPString bmp(codes, 3);
  EXPECT_EQ(Der(bmp), "1E0600414E2D0042");
  AsnUTF8String u8(codes, 3);
  EXPECT_EQ(Der(u8), "0C0541E4B8AD42");
  EXPECT_STREQ(u8.GetUtf8(),
               "A\xE4\xB8\xAD"
               "B");
  // A character outside the class's range is refused by SetData.
  AsnQuadruple astral[] = {AsnQuadruple(0x1F600)};
  EXPECT_EQ(ThrownMessage([&] { bmp.SetData(astral, 1); }), "invalid argument exp");
  EXPECT_EQ(bmp.GetCount(), 3u);
  EXPECT_EQ(ThrownMessage([&] { u8.SetUtf8("\xC3"); }), "invalid argument exp");
}

TEST(AsnTimeTexts, UtcAndGeneralizedForms) {
  AsnUTCTime u;
  u.SetTime("1406040809Z");
  EXPECT_STREQ(u.GetTimeString(), "140604080900Z");
  u.SetTime("491231235959Z");
  EXPECT_EQ(u.GetTime().GetYear(), 2049);
  u.SetTime("500101000000Z");
  EXPECT_EQ(u.GetTime().GetYear(), 1950);
  // The offset is applied to reach UTC, across a year end.
  u.SetTime("0001010030+0100");
  EXPECT_EQ(u.GetTime(), MiTime(1999, 12, 31, 23, 30, 0));
  for (const char* bad :
       {"140604080", "1406040809", "140604080910", "1406040809+01", "140604080910+2400",
        "140604080910+0060", "1406040809Z0", "14060408091Z"}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(ThrownMessage([&] { u.SetTime(bad); }), "asn data exception");
    EXPECT_TRUE(u.GetTime().IsEmpty());  // cleared first
  }
  EXPECT_EQ(ThrownMessage([&] { u.SetTime(static_cast<const char*>(nullptr)); }),
            "asn data exception");
  // Years a two-digit text cannot carry are not encoded.
  AsnUTCTime far(MiTime(2050, 1, 1, 0, 0, 0));
  EXPECT_EQ(ThrownMessage([&] { Der(far); }), "asn encode exception");
  EXPECT_EQ(ThrownMessage([&] { Der(AsnUTCTime()); }), "asn encode exception");

  AsnGeneralizedTime g("20140604080910.123-0230");
  EXPECT_EQ(g.GetTime(), MiTime(2014, 6, 4, 10, 39, 10));
  EXPECT_STREQ(g.GetFracSecond(), "123");
  EXPECT_STREQ(g.GetTimeString(), "20140604103910.123Z");
  g.SetFracSecond("");
  EXPECT_STREQ(g.GetTimeString(), "20140604103910Z");
  EXPECT_EQ(ThrownMessage([&] { g.SetFracSecond("1a"); }), "asn data exception");
  g.SetTime("20140604080910");  // no zone: taken as UTC
  EXPECT_EQ(g.GetTime(), MiTime(2014, 6, 4, 8, 9, 10));
  for (const char* bad : {"2014060408091", "20140604080910.", "20140604080910,5Z",
                          "20140604080910+01", "20140631080910Z", "20140604080910Zx"}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(ThrownMessage([&] { g.SetTime(bad); }), "asn data exception");
  }
  g.SetCurrentTime();
  EXPECT_FALSE(g.GetTime().IsEmpty());
  EXPECT_TRUE(g.GetFracSecond().Empty());
  EXPECT_EQ(ThrownMessage([&] { Der(AsnGeneralizedTime()); }), "asn encode exception");
}
