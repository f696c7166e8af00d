// The text dump layout.
#include <gtest/gtest.h>

#include "asn_test_types.h"
#include "asn_test_util.h"

using namespace asntest;

TEST(AsnDump, HeadNameTagAndLabels) {
  AsnBoolean b(true);
  b.SetAsnName("critical");
  EXPECT_EQ(Dump(b, 1), "    critical  BOOLEAN : true");
  AsnContainer ext;
  ext.SetAsnName("extensions");
  ext.SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_EXPLICIT, 3);
  ext.SetDataSpace(new AsnSequence());
  EXPECT_EQ(Dump(ext, 0), "extensions  [3]  EXPLICIT  SEQUENCE : {}");
  AsnInteger i(-5);
  i.SetAsnTag(ASN_TAG_CLASS_APPLICATION, ASN_TAG_MODE_IMPLICIT, 7);
  EXPECT_EQ(Dump(i), "[APPLICATION 7]  IMPLICIT  INTEGER : -5");
  i.SetAsnTag(ASN_TAG_CLASS_PRIVATE, ASN_TAG_MODE_NONE, 1);
  EXPECT_EQ(Dump(i), "[PRIVATE 1]  INTEGER : -5");
  EXPECT_EQ(Dump(AsnOid("2.5.4.3")), "OBJECT IDENTIFER : 2.5.4.3");
  EXPECT_EQ(Dump(AsnNull()), "NULL");
  EXPECT_EQ(Dump(AsnEnumerated(3)), "ENUMERATED : 3");
  EXPECT_EQ(Dump(AsnPrintableString()), "PrintableString : ( EMPTY )");
  EXPECT_EQ(Dump(AsnIA5String("a@b")), "IA5String : a@b");
  EXPECT_EQ(Dump(AsnUTCTime(MiTime(2014, 6, 4, 8, 9, 10))), "UTCTime : 140604080910Z");
  EXPECT_EQ(Dump(AsnGeneralizedTime("20140604080910.5Z")), "GeneralizedTime : 20140604080910.5Z");
  AsnUniversalString us;
  us.SetUtf8("A\xE4\xB8\xAD");
  EXPECT_EQ(Dump(us), "UniversalString : A\xE4\xB8\xAD");
  AsnInteger wide(MiBigInteger::FromString("0x0102030405060708090A"));
  EXPECT_EQ(Dump(wide), "INTEGER : 01 02 03 04 05 06 07 08 09 0A");
}

TEST(AsnDump, OctetAndBitStringsAreCut) {
  MiByte hundred(100, 0x11);
  std::string d = Dump(AsnOctetString(hundred));
  const std::string line = "11 11 11 11 11 11 11 11  11 11 11 11 11 11 11 11";
  // Each line as MiByte prints it (two spaces after every eighth byte).
  EXPECT_EQ(d, "OCTET STRING : \n    " + line + "  \n    " + line + "  \n    " + line + "  \n    " +
                   line + "  \n    ( more 36 bytes are absent here )");
  EXPECT_EQ(Dump(AsnOctetString()), "OCTET STRING : ( EMPTY )");
  EXPECT_EQ(Dump(AsnBitString()), "BIT STRING : ( EMPTY ) ");
  EXPECT_EQ(Dump(AsnBitString(MiBitSet("1011"))), "BIT STRING : \n    1011");
  MiBitSet many(130);
  std::string bits = Dump(AsnBitString(many));
  EXPECT_NE(bits.find("\n    ( more 2 bits are absent here )"), std::string::npos);
}

TEST(AsnDump, StructuresShowAbsentElements) {
  TestRecord r;
  AsnInteger serial(9);
  r.Set("serial", &serial);
  std::string d = Dump(r);
  EXPECT_EQ(d.substr(0, 31), "SEQUENCE : {\n    version  ( NOT");
  EXPECT_NE(d.find("\n    serial  INTEGER : 9\n"), std::string::npos);
  EXPECT_NE(d.find("\n    parameters  ( NOT SELECTED ) }"), std::string::npos);
  TestTime t;
  t.Set("utcTime", &static_cast<const AsnObject&>(AsnUTCTime(MiTime(2000, 1, 1, 0, 0, 0))));
  EXPECT_EQ(
      Dump(t),
      "CHOICE : {\n    utcTime  UTCTime : 000101000000Z\n    generalTime  ( NOT SELECTED ) }");
  AsnSet s;
  AsnInteger def;
  def.SetAsnName("d");
  def.SetAsnState(ASN_STATE_DEFAULT);
  s.AddElement(&def);
  EXPECT_EQ(Dump(s), "SET : {\n    d  ( DEFAULT ) }");
  EXPECT_EQ(Dump(AsnInstanceOf()), "INSTANCE OF :   ( EMPTY )");
  std::ostringstream os;
  os << AsnBoolean(false);
  EXPECT_EQ(os.str(), "BOOLEAN : false");
}
