// AsnAny: open-type values decoded by identifier and re-encoded exactly.
#include <gtest/gtest.h>

#include "asn_test_types.h"
#include "asn_test_util.h"

using namespace asntest;

TEST(AsnAnyHolder, ReEncodesWhatItDecoded) {
  const char* samples[] = {
      "0500",  // NULL
      "0101FF",
      "010101",  // BOOLEAN, also the non-DER true
      "02020001",
      "0201FF",  // INTEGER, non-minimal kept
      "0A0100",
      "0A020001",  // ENUMERATED, non-minimal falls back
      "030204B0",
      "030204BF",  // BIT STRING, padding bits kept
      "06032A0304",
      "06032A8003",  // OID, non-minimal arc kept
      "130161",
      "13012A",  // PrintableString, bad character kept
      "0C02C380",
      "0C01FF",                              // UTF8String, malformed kept
      "170B313430363034303830395A",          // UTCTime without seconds
      "180F32303134303630343038303931305A",  // GeneralizedTime
      "1E020041",
      "1E0100",        // BMPString, odd length kept
      "1F2203ABCDEF",  // unknown universal high tag
      "8001FF",
      "5F81000100",
      "C000",  // context, application, private
      "3000",
      "3100",  // empty constructed
      "3009"
      "0201"
      "05"
      "3004"
      "A0020500",              // nested, with explicit tag
      "A1083006020101020102",  // constructed context tag
  };
  for (const char* hex : samples) {
    SCOPED_TRACE(hex);
    AsnAny any;
    MiByte in = Bytes(hex);
    EXPECT_EQ(any.DerDecode(in, 0), in.GetLength());
    ASSERT_TRUE(any.HasData());
    EXPECT_EQ(Der(any), Hex(in));
    AsnAny copy(any);
    EXPECT_EQ(Der(copy), Hex(in));
    EXPECT_TRUE(copy.EqualsContent(&any));
  }
}

TEST(AsnAnyHolder, PicksTypedObjectsWhenClean) {
  AsnAny any;
  any.DerDecode(Bytes("06032A0304"), 0);
  auto* oid = dynamic_cast<AsnOid*>(any.GetData());
  ASSERT_TRUE(oid);
  EXPECT_STREQ(oid->GetData(), "1.2.3.4");
  any.DerDecode(Bytes("010101"), 0);  // re-encoding would give FF: kept raw
  auto* raw = dynamic_cast<AsnOctetString*>(any.GetData());
  ASSERT_TRUE(raw);
  EXPECT_EQ(raw->GetAsnTagNumber(), 1u);
  any.DerDecode(Bytes("3006020101020102"), 0);
  auto* list = dynamic_cast<AsnSequenceOf<AsnAny>*>(any.GetData());
  ASSERT_TRUE(list);
  EXPECT_EQ(list->Size(), 2u);
  EXPECT_TRUE(dynamic_cast<AsnInteger*>(list->Get(1)->GetData()));
}

TEST(AsnAnyHolder, EmptyHolderAndTypedDecoding) {
  AsnAny empty;
  EXPECT_EQ(ThrownMessage([&] { Der(empty); }), "asn encode exception");
  EXPECT_EQ(ThrownMessage([&] { empty.GetEncoded(); }), "asn encode exception");

  // Decode the held value into a typed object.
  AsnAny any;
  any.DerDecode(Bytes("170D3134303630343038303931305A"), 0);
  TestTime t;
  any.DecodeInto(t);
  ASSERT_TRUE(t.Get("utcTime"));
  AsnInteger wrong;
  EXPECT_NO_THROW(any.DecodeInto(wrong));  // mandatory types are not checked
  AsnNull null;
  EXPECT_EQ(ThrownMessage([&] { any.DecodeInto(null); }), "invalid argument exp");

  // SetData clones; Reset from a plain object holds a clone of it.
  AsnInteger five(5);
  any.SetData(five);
  five.SetInt64(6);
  EXPECT_EQ(Der(any), "020105");
  any.SetAsnName("parameters");
  any.Reset(&five);
  EXPECT_EQ(Der(any), "020106");
  EXPECT_STREQ(any.GetAsnName(), "parameters");
  EXPECT_EQ(Dump(any), "parameters  INTEGER : 6");
  EXPECT_STREQ(any.GetData()->GetAsnName(), "");
  EXPECT_EQ(Dump(empty), "ANY : ( EMPTY )");
}

TEST(AsnAnyHolder, OpenTypeElementInsideAStructure) {
  // parameters is optional and any-type: absent at the end, any value otherwise.
  TestRecord r;
  const std::string base =
      "020101"
      "0603550403"
      "170D3134303630343038303931305A";
  r.DerDecode(Bytes("3017" + base), 0);
  EXPECT_FALSE(r.Get("parameters")->IsAsnPresent());
  const std::string withParams = "301D" + base +
                                 "3004"
                                 "0402ABCD";
  r.DerDecode(Bytes(withParams), 0);
  EXPECT_TRUE(r.Get("parameters")->IsAsnPresent());
  EXPECT_EQ(Der(r), withParams);
}
