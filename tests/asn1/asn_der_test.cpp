// The DER visitors: identifiers, lengths, structures and the failure table.
#include <gtest/gtest.h>

#include "asn_test_types.h"
#include "asn_test_util.h"

using namespace asntest;

namespace {

const char* kInvalidArgument = "invalid argument exp";
const char* kOutOfRange = "out of range exp";
const char* kRange = "range exp";
const char* kData = "asn data exception";
const char* kDecode = "asn decode exception";
const char* kEncode = "asn encode exception";

template <class T>
T Named(T obj, const char* name, ASN_STATE state = ASN_STATE_MANDATORY) {
  obj.SetAsnName(name);
  obj.SetAsnState(state);
  obj.SetAsnPresent(true);
  return obj;
}

TestRecord SampleRecord() {
  TestRecord r;
  r.Set("serial", &static_cast<const AsnObject&>(AsnInteger(MiBigInteger::FromString("-77"))));
  AsnOid alg("1.2.840.113549.1.1.11");
  r.Set("algorithm", &alg);
  AsnUTCTime when(MiTime(2014, 6, 4, 8, 9, 10));
  static_cast<AsnChoice*>(r.Find("when"))->Set("utcTime", &when);
  r.Find("when")->SetAsnPresent(true);
  AsnBitString flags(MiBitSet("101"));
  r.Set("flags", &flags);
  AsnNull null;
  r.Set("parameters", &null);
  return r;
}

}  // namespace

TEST(DerIdentifier, ExplicitAndLongTagsEncodeAsTheToolkitReadsThem) {
  AsnInteger i(1);
  i.SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_EXPLICIT, 5);
  EXPECT_EQ(Der(i).substr(0, 2), "A5");
  i.SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_IMPLICIT, 31);
  EXPECT_EQ(Der(i), "9F1F0101");
  i.SetAsnTag(ASN_TAG_CLASS_PRIVATE, ASN_TAG_MODE_IMPLICIT, 0x4000);
  EXPECT_EQ(Der(i), "DF8180000101");
  i.SetAsnTag(ASN_TAG_CLASS_APPLICATION, ASN_TAG_MODE_EXPLICIT, 200);
  EXPECT_EQ(Der(i).substr(0, 6), "7F8148");

  AsnDerDecode dec;
  AsnTag tag;
  EXPECT_EQ(dec.DecodeTag(tag, Bytes("DF818000"), 0), 4u);
  EXPECT_EQ(tag, AsnTag(ASN_TAG_CLASS_PRIVATE, ASN_TAG_MODE_NONE, ASN_TAG_FORM_PRIMITIVE, 0x4000));
  EXPECT_EQ(dec.DecodeTag(tag, Bytes("3F8F8F8F7F"), 0), 5u);  // four continuation octets
  EXPECT_EQ(tag.tagForm, ASN_TAG_FORM_CONSTRUCTED);
  EXPECT_EQ(ThrownMessage([&] { dec.DecodeTag(tag, Bytes("1F8F8F8F8F8F01"), 0); }), kRange);
  EXPECT_EQ(ThrownMessage([&] { dec.DecodeTag(tag, Bytes("1F81"), 0); }), kRange);
  EXPECT_EQ(dec.DecodeTag(tag, Bytes("1F8F8F8F8F01"), 0), 6u);
  EXPECT_EQ(ThrownMessage([&] { dec.DecodeTag(tag, MiByte(), 0); }), kInvalidArgument);
  EXPECT_EQ(ThrownMessage([&] { dec.DecodeTag(tag, Bytes("02"), 1); }), kOutOfRange);
}

TEST(DerLength, ShortLongAndIndefiniteForms) {
  AsnDerEncode enc;
  EXPECT_EQ(Hex(enc.EncodeLength(0x7F)), "7F");
  EXPECT_EQ(Hex(enc.EncodeLength(200)), "81C8");
  EXPECT_EQ(Hex(enc.EncodeLength(0x100)), "820100");
  EXPECT_EQ(Hex(enc.EncodeLength(0x10000)), "83010000");
  EXPECT_EQ(Hex(enc.EncodeLength(0x1000000)), "8401000000");
  EXPECT_EQ(Hex(enc.EncodeLength(0xFFFFFFFFu)), "84FFFFFFFF");

  AsnDerDecode dec;
  unsigned length = 99;
  EXPECT_EQ(dec.DecodeLength(length, Bytes("80"), 0), 1u);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(dec.DecodeLength(length, Bytes("8401000000FF"), 0), 5u);
  EXPECT_EQ(length, 0x1000000u);
  EXPECT_EQ(ThrownMessage([&] { dec.DecodeLength(length, Bytes("850000000001FF"), 0); }), kRange);
  // Length octets may not run to the end of the input.
  EXPECT_EQ(ThrownMessage([&] { dec.DecodeLength(length, Bytes("820100"), 0); }), kRange);
  EXPECT_EQ(ThrownMessage([&] { dec.DecodeLength(length, Bytes("8201"), 0); }), kRange);
  EXPECT_EQ(dec.DecodeLength(length, Bytes("82010000"), 0), 3u);

  // A length near four billion is refused before anything is allocated.
  AsnOctetString os;
  EXPECT_EQ(ThrownMessage([&] { os.DerDecode(Bytes("0484FFFFFFFF0102"), 0); }), kOutOfRange);
  AsnAny any;
  EXPECT_EQ(ThrownMessage([&] { any.DerDecode(Bytes("3084FFFFFFF00000"), 0); }), kOutOfRange);

  // Long content gets long lengths.
  MiByte big(300, 0xAB);
  EXPECT_EQ(Der(AsnOctetString(big)).substr(0, 8), "0482012C");
}

TEST(DerEncoding, CutsTheBufferBackToThePosition) {
  MiByteBuffer out(Bytes("AABBCCDD"));
  EXPECT_EQ(AsnBoolean(true).DerEncode(out, 2), 3u);
  EXPECT_EQ(Hex(out), "AABB0101FF");
  AsnBoolean b;
  EXPECT_EQ(b.DerDecode(Bytes("AABB0101FF"), 2), 3u);
  EXPECT_TRUE(b.GetData());
}

TEST(DerSequence, MandatoryTagsAreNotCheckedAndOptionalsAreSkipped) {
  AsnSequence s;
  AsnInteger n;
  n.SetAsnName("n");
  s.AddElement(&n);
  AsnBoolean opt;
  opt.SetAsnName("opt");
  opt.SetAsnState(ASN_STATE_OPTIONAL);
  s.AddElement(&opt);
  AsnOctetString last;
  last.SetAsnName("last");
  s.AddElement(&last);

  // The INTEGER element reads the OCTET STRING and takes over its tag.
  EXPECT_EQ(s.DerDecode(Bytes("3007 0402 0102 0401 09"), 0), 9u);
  const AsnInteger* got = dynamic_cast<const AsnInteger*>(s.Get("n"));
  ASSERT_TRUE(got);
  EXPECT_EQ(got->GetData().ToStdString(16), "0102");
  EXPECT_EQ(got->GetAsnTagNumber(), 4u);
  EXPECT_FALSE(s.Get("opt")->IsAsnPresent());
  EXPECT_TRUE(s.Get("last")->IsAsnPresent());

  // Content left over is not an error; a missing mandatory element is.
  EXPECT_NO_THROW(s.DerDecode(Bytes("3009 020105 0101FF 040100 0500"), 0));
  EXPECT_TRUE(s.Get("opt")->IsAsnPresent());
  EXPECT_EQ(ThrownMessage([&] { s.DerDecode(Bytes("3003 020105"), 0); }), kDecode);
  // Zero length decodes nothing.
  EXPECT_EQ(s.DerDecodeContent(Bytes("3000"), 2, 0), 0u);

  AsnSequence empty;
  EXPECT_EQ(ThrownMessage([&] { empty.DerDecode(Bytes("3003020101"), 0); }), kDecode);
  EXPECT_EQ(Der(empty), "3000");
  // An element running past the structure's end is refused.
  EXPECT_EQ(ThrownMessage([&] { s.DerDecode(Bytes("3003 0203 010203 0400"), 0); }), kDecode);
}

TEST(DerSequence, AbsentMandatoryElementCannotBeEncoded) {
  TestRecord r;
  EXPECT_EQ(ThrownMessage([&] { Der(r); }), kEncode);
  TestRecord full = SampleRecord();
  EXPECT_NO_THROW(Der(full));
  full.Find("serial")->SetAsnPresent(false);
  EXPECT_EQ(ThrownMessage([&] { Der(full); }), kEncode);
}

TEST(DerSequence, GeneratedStyleStructureRoundTrips) {
  TestRecord r = SampleRecord();
  AsnInteger v(2);
  static_cast<AsnContainer*>(r.Find("version"))->GetData()->SetAsnValue(&v);
  r.Find("version")->SetAsnPresent(true);
  const std::string der = Der(r);
  EXPECT_EQ(der,
            "3028"
            "A003020102"                      // version [0] EXPLICIT
            "0201B3"                          // serial -77
            "06092A864886F70D01010B"          // algorithm
            "170D3134303630343038303931305A"  // when: utcTime
            "810205A0"                        // flags [1] IMPLICIT, 3 bits
            "0500");                          // parameters
  TestRecord back;
  EXPECT_EQ(back.DerDecode(Bytes(der), 0), der.size() / 2);
  EXPECT_EQ(Der(back), der);
  EXPECT_TRUE(back.Get("version")->IsAsnPresent());
  EXPECT_FALSE(back.Get("names")->IsAsnPresent());
  EXPECT_FALSE(back.Get("extra")->IsAsnPresent());
  const AsnChoice* when = dynamic_cast<const AsnChoice*>(back.Get("when"));
  ASSERT_TRUE(when && when->Get("utcTime"));
  EXPECT_EQ(dynamic_cast<const AsnUTCTime*>(when->Get())->GetTime(), MiTime(2014, 6, 4, 8, 9, 10));
  EXPECT_TRUE(back.EqualsContent(&r));

  // Without the DEFAULT element and with the optional lists.
  TestRecord r2 = SampleRecord();
  AsnSequenceOf<AsnIA5String> names;
  names.Add(AsnIA5String("a"));
  names.Add(AsnIA5String("bc"));
  r2.Set("names", &names);
  AsnSetOf<AsnOctetString> extra;
  extra.Add(AsnOctetString(Bytes("0102")));
  extra.Add(AsnOctetString(Bytes("03")));
  static_cast<AsnContainer*>(r2.Find("extra"))->GetData()->SetAsnValue(&extra);
  r2.Find("extra")->SetAsnPresent(true);
  const std::string der2 = Der(r2);
  EXPECT_NE(der2.find("A2071601611602"
                      "6263"),
            std::string::npos);  // [2] keeps list order
  EXPECT_NE(der2.find("A30931070401030402"
                      "0102"),
            std::string::npos);  // SET OF sorted
  TestRecord back2;
  back2.DerDecode(Bytes(der2), 0);
  EXPECT_EQ(Der(back2), der2);
  EXPECT_FALSE(back2.Get("version")->IsAsnPresent());
  auto* list = dynamic_cast<const AsnSequenceOf<AsnIA5String>*>(back2.Get("names"));
  ASSERT_TRUE(list);
  ASSERT_EQ(list->Size(), 2u);
  EXPECT_STREQ(list->Get(1)->GetData(), "bc");
}

TEST(DerSet, PairwiseOrderOnEncoding) {
  AsnSet s;
  AsnInteger two(2), one(1);
  two.SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_IMPLICIT, 2);
  one.SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_IMPLICIT, 1);
  AsnObject* a = Named(two, "two").Clone();
  AsnObject* b = Named(one, "one").Clone();
  s.AddElement(a);
  s.AddElement(b);
  delete a;
  delete b;
  s.Find("two")->SetAsnPresent(true);
  s.Find("one")->SetAsnPresent(true);
  EXPECT_EQ(Der(s),
            "3106"
            "810101"
            "820102");

  // A universal INTEGER after a context-specific [0] stays after it: its class
  // is below but its number is not.
  AsnSet t;
  AsnBoolean zero(true);
  zero.SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_IMPLICIT, 0);
  AsnBoolean tz = Named(zero, "zero");
  AsnInteger ti = Named(AsnInteger(7), "int");
  t.AddElement(&tz);
  t.AddElement(&ti);
  EXPECT_EQ(Der(t),
            "3106"
            "8001FF"
            "020107");

  // Decoding finds each element by tag; unknown tags and overruns fail.
  AsnSet back;
  AsnBoolean bz;
  bz.SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_IMPLICIT, 0);
  bz.SetAsnName("zero");
  back.AddElement(&bz);
  AsnInteger bi;
  bi.SetAsnName("int");
  back.AddElement(&bi);
  EXPECT_NO_THROW(back.DerDecode(Bytes("3106"
                                       "020107"
                                       "8001FF"),
                                 0));
  EXPECT_TRUE(back.Get("zero")->IsAsnPresent());
  EXPECT_EQ(ThrownMessage([&] {
              back.DerDecode(Bytes("3103"
                                   "040100"),
                             0);
            }),
            kDecode);
  EXPECT_EQ(ThrownMessage([&] {
              back.DerDecode(Bytes("3103"
                                   "020207"
                                   "00"),
                             0);
            }),
            kDecode);
}

TEST(DerSetOf, ShorterEncodingsFirstThenUnsignedOctets) {
  AsnSetOf<AsnAny> set;
  set.Add(AsnAny(AsnInteger(5)));
  set.Add(AsnAny(AsnOctetString()));
  EXPECT_EQ(Der(set),
            "3105"
            "0400"
            "020105");
  AsnSetOf<AsnInteger> ints;
  ints.Add(AsnInteger(-1));
  ints.Add(AsnInteger(5));
  ints.Add(AsnInteger(0x80));
  EXPECT_EQ(Der(ints),
            "310A"
            "020105"
            "0201FF"
            "02020080");
  // One value per contained encoding, in the order read.
  AsnSetOf<AsnInteger> back;
  back.DerDecode(Bytes("3106 0201FF 020105"), 0);
  ASSERT_EQ(back.Size(), 2u);
  EXPECT_EQ(back.Get(0)->Int32Value(), -1);
  EXPECT_EQ(ThrownMessage([&] { back.Get(2); }), kOutOfRange);
  EXPECT_EQ(ThrownMessage([&] { back.DerDecode(Bytes("3104 0201FF 02"), 0); }), kOutOfRange);
  EXPECT_EQ(ThrownMessage([&] { back.DerDecode(Bytes("3103 020201 00"), 0); }), kDecode);
}

TEST(DerChoice, SelectionDecidesTheIdentifier) {
  TestTime t;
  EXPECT_EQ(ThrownMessage([&] { Der(t); }), kEncode);
  AsnGeneralizedTime g(MiTime(2051, 1, 2, 3, 4, 5));
  t.Set("generalTime", &g);
  EXPECT_EQ(Der(t), "180F32303531303130323033303430355A");
  TestTime back;
  back.DerDecode(Bytes("170D3134303630343038303931305A"), 0);
  EXPECT_TRUE(back.Get("utcTime"));
  EXPECT_EQ(back.Get("generalTime"), nullptr);  // exists, but not selected
  EXPECT_EQ(ThrownMessage([&] { back.DerDecode(Bytes("020101"), 0); }), kDecode);
  AsnChoice bare;
  EXPECT_EQ(ThrownMessage([&] { bare.DerDecode(Bytes("020101"), 0); }), kDecode);
}

TEST(DerContainer, DataMustExistAndFillTheContent) {
  AsnContainer c;
  c.SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_EXPLICIT, 0);
  EXPECT_EQ(ThrownMessage([&] { Der(c); }), kData);
  EXPECT_EQ(ThrownMessage([&] { c.DerDecode(Bytes("A003020101"), 0); }), kData);
  c.SetData(&static_cast<const AsnObject&>(AsnInteger(1)));
  EXPECT_EQ(Der(c), "A003020101");
  EXPECT_EQ(ThrownMessage([&] {
              c.DerDecode(Bytes("A004020101"
                                "00"),
                          0);
            }),
            kDecode);
  EXPECT_NO_THROW(c.DerDecode(Bytes("A003020109"), 0));
  EXPECT_EQ(dynamic_cast<AsnInteger*>(c.GetData())->Int32Value(), 9);
}

TEST(DerSavedEncodings, WholeAndContentBytesAreKeptAndWrittenBack) {
  // Byte type 2: decoding keeps the whole encoding, encoding copies it.
  AsnInteger i;
  i.OnByte();
  i.DerDecode(Bytes("02020001"), 0);
  ASSERT_TRUE(i.GetAsnByte());
  EXPECT_EQ(Hex(*i.GetAsnByte()), "02020001");
  EXPECT_EQ(Der(i), "02020001");
  // Byte type 1: only the content; identifier and length are still produced.
  AsnOctetString os;
  os.OnContentByte();
  os.DerDecode(Bytes("04020A0B"), 0);
  ASSERT_TRUE(os.GetAsnContentByte());
  EXPECT_EQ(os.GetAsnByte(), nullptr);
  EXPECT_EQ(Der(os), "04020A0B");
  os.SetAsnContentByte(Bytes("FFFFFF").GetChars(), 0, 3);
  EXPECT_EQ(Der(os), "0403FFFFFF");

  // The component byte type is pushed down to every element.
  TestRecord r = SampleRecord();
  const std::string der = Der(r);
  TestRecord back;
  back.OnComponentByte();
  back.DerDecode(Bytes(der), 0);
  ASSERT_TRUE(back.Get("algorithm")->GetAsnByte());
  EXPECT_EQ(Hex(*back.Get("algorithm")->GetAsnByte()), "06092A864886F70D01010B");
  EXPECT_EQ(Der(back), der);
}

TEST(DerRobustness, EmptyInputPositionsAndDeepNesting) {
  AsnInteger i;
  EXPECT_EQ(ThrownMessage([&] { i.DerDecode(MiByte(), 0); }), kInvalidArgument);
  EXPECT_EQ(ThrownMessage([&] { i.DerDecode(Bytes("020101"), 3); }), kOutOfRange);
  EXPECT_EQ(ThrownMessage([&] { i.DerDecodeContent(Bytes("020101"), 2, 5); }), kOutOfRange);

  // 100 nested SEQUENCEs: refused, not a stack overflow.
  std::string nested;
  for (int k = 0; k < 100; ++k)
    nested = "30" + Hex(AsnDerEncode().EncodeLength(nested.size() / 2)) + nested;
  AsnAny any;
  EXPECT_EQ(ThrownMessage([&] { any.DerDecode(Bytes(nested), 0); }), kDecode);
  // 30 levels are fine and re-encode exactly.
  std::string ok;
  for (int k = 0; k < 30; ++k) ok = "30" + Hex(AsnDerEncode().EncodeLength(ok.size() / 2)) + ok;
  EXPECT_NO_THROW(any.DerDecode(Bytes(ok), 0));
  EXPECT_EQ(Der(any), ok);
}
