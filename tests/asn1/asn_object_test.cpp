// The object model: base data, structures, choices, containers and lists.
#include <gtest/gtest.h>

#include "asn_test_types.h"
#include "asn_test_util.h"

using namespace asntest;

TEST(AsnObjectModel, NewObjectsAndBaseData) {
  AsnInteger i;
  EXPECT_TRUE(i.GetAsnName().Empty());
  EXPECT_EQ(i.GetAsnTag(), AsnTag(0, 0, 0, 2));
  EXPECT_EQ(i.GetAsnByteType(), ASN_BYTE_NONE);
  EXPECT_EQ(i.GetAsnState(), ASN_STATE_MANDATORY);
  EXPECT_FALSE(i.IsAsnPresent());
  EXPECT_FALSE(i.IsAsnAnyType());
  EXPECT_EQ(AsnSequence().GetAsnTag(), AsnTag(0, 0, 0x20, 16));
  EXPECT_EQ(AsnSet().GetAsnTag(), AsnTag(0, 0, 0x20, 17));
  EXPECT_EQ(AsnInstanceOf().GetAsnTagNumber(), 8u);
  EXPECT_TRUE(AsnAny().IsAsnAnyType());

  // The three-argument tag setter keeps the constructed form.
  AsnSequence s;
  s.SetAsnTag(0x80, 1, 3);
  EXPECT_EQ(s.GetAsnTag(), AsnTag(0x80, 1, 0x20, 3));

  // Saved encodings: set, typed getters, clearing; a null source only frees.
  MiByte enc = Bytes("020101");
  i.SetAsnByte(&enc);
  EXPECT_EQ(i.GetAsnByteType(), ASN_BYTE_WHOLE);
  EXPECT_TRUE(i.GetAsnByte());
  EXPECT_EQ(i.GetAsnContentByte(), nullptr);
  i.SetAsnContentByte("\x01", 0, 1);
  EXPECT_EQ(i.GetAsnByte(), nullptr);
  EXPECT_TRUE(i.GetAsnContentByte());
  i.SetAsnByte(static_cast<const MiByte*>(nullptr));
  EXPECT_EQ(i.GetSavedByte(), nullptr);

  // Copies carry the base data and a copy of the saved encoding.
  AsnInteger src(5);
  src.SetAsnName("n");
  src.SetAsnState(ASN_STATE_OPTIONAL);
  src.SetAsnPresent(true);
  src.SetAsnByte(&enc);
  AsnInteger copy(src);
  EXPECT_TRUE(copy.Equals(&src));
  EXPECT_NE(copy.GetAsnByte(), src.GetAsnByte());
  src.ClearByte();
  EXPECT_TRUE(copy.GetAsnByte());
}

TEST(AsnObjectModel, EqualsComparesNamesTagsStatesAndPresence) {
  AsnInteger a(1), b(1);
  a.SetAsnName("x");
  b.SetAsnName("y");
  EXPECT_FALSE(a.Equals(&b));
  EXPECT_TRUE(a.EqualsContent(&b));
  EXPECT_EQ(ThrownMessage([&] { a.Equals(nullptr); }), "invalid argument exp");
  b.SetAsnName("x");
  b.OnByte();
  EXPECT_TRUE(a.Equals(&b));  // byte type is not compared
  b.SetAsnPresent(true);
  EXPECT_FALSE(a.Equals(&b));
  EXPECT_FALSE(a.EqualsContent(&static_cast<const AsnObject&>(AsnBoolean(true))));
  EXPECT_FALSE(AsnSequence().EqualsContent(nullptr));
}

TEST(AsnStructure, ElementListOperations) {
  AsnSequence s;
  EXPECT_EQ(s.Find(0u), nullptr);  // no list yet
  AsnInteger unnamed;
  EXPECT_EQ(ThrownMessage([&] { s.AddElement(&unnamed); }), "invalid argument exp");
  EXPECT_EQ(ThrownMessage([&] { s.AddElement(nullptr); }), "invalid argument exp");
  AsnInteger a(1);
  a.SetAsnName("a");
  s.AddElement(&a);
  AsnBoolean b(true);
  b.SetAsnName("b");
  s.InsertElement(0, &b);
  EXPECT_EQ(s.Size(), 2u);
  EXPECT_STREQ(s.Get(0u)->GetAsnName(), "b");
  EXPECT_NE(s.Find("a"), &a);  // a clone is stored
  EXPECT_EQ(s.Find("zz"), nullptr);
  EXPECT_EQ(ThrownMessage([&] { s.Find(2u); }), "out of range exp");

  // Set copies the value in, keeps the element's name and tag, marks it present.
  AsnInteger v(42);
  s.Set("a", &v);
  EXPECT_STREQ(s.Get("a")->GetAsnName(), "a");
  EXPECT_TRUE(s.Get("a")->IsAsnPresent());
  EXPECT_EQ(dynamic_cast<const AsnInteger*>(s.Get("a"))->Int32Value(), 42);
  EXPECT_EQ(ThrownMessage([&] { s.Set("zz", &v); }), "invalid argument exp");
  EXPECT_EQ(ThrownMessage([&] { s.Set(nullptr, &v); }), "invalid argument exp");
  EXPECT_EQ(ThrownMessage([&] { s.Set("a", nullptr); }), "invalid argument exp");
  EXPECT_EQ(ThrownMessage([&] { s.Element("zz"); }), "asn data exception");

  s.ReplaceElement("b", &v);
  EXPECT_STREQ(s.Get(0u)->GetAsnName(), "");
  s.DelElement(0u);
  EXPECT_EQ(s.Size(), 1u);
  EXPECT_EQ(ThrownMessage([&] { s.DelElement("nope"); }), "asn data exception");
  s.AddCompleteData("c", &static_cast<const AsnObject&>(AsnNull()));
  EXPECT_TRUE(s.Get("c")->IsAsnPresent());
  s.ClearAllElements();
  EXPECT_TRUE(s.Empty());
}

TEST(AsnStructure, ClonesAndResetsAreDeep) {
  TestRecord r;
  AsnInteger serial(7);
  r.Set("serial", &serial);
  std::unique_ptr<AsnObject> c(r.Clone());
  TestRecord* clone = dynamic_cast<TestRecord*>(c.get());
  ASSERT_TRUE(clone);
  AsnInteger other(8);
  clone->Set("serial", &other);
  EXPECT_EQ(dynamic_cast<const AsnInteger*>(r.Get("serial"))->Int32Value(), 7);
  EXPECT_FALSE(clone->EqualsContent(&r));
  clone->Reset(&r);
  EXPECT_TRUE(clone->EqualsContent(&r));
  // Reset(null) clears every element's value and presence, the list stays.
  clone->Reset(nullptr);
  EXPECT_EQ(clone->Size(), r.Size());
  EXPECT_FALSE(clone->Get("serial")->IsAsnPresent());
  EXPECT_EQ(ThrownMessage([&] { clone->Reset(&serial); }), "invalid argument exp");

  AsnSequenceOf<AsnInteger> list;
  list.Add(AsnInteger(1));
  AsnSequenceOf<AsnInteger> copy(list);
  copy.Get(0)->SetInt64(2);
  EXPECT_EQ(list.Get(0)->Int32Value(), 1);
  copy.Insert(0, AsnInteger(0));
  copy.Remove(1);
  EXPECT_EQ(copy.Size(), 1u);
  EXPECT_EQ(copy[0].Int32Value(), 0);
  EXPECT_EQ(ThrownMessage([&] { copy.Insert(5, AsnInteger(0)); }), "out of range exp");
  EXPECT_FALSE(copy.EqualsContent(&list));
  copy.Reset(&list);
  EXPECT_TRUE(copy.EqualsContent(&list));
  // A SET OF is not a SEQUENCE OF.
  AsnSetOf<AsnInteger> set;
  EXPECT_EQ(ThrownMessage([&] { set.Reset(&list); }), "invalid argument exp");
}

TEST(AsnChoiceModel, SelectionRules) {
  TestTime t;
  EXPECT_EQ(t.Get(), nullptr);
  EXPECT_TRUE(t.IsAsnChoice());
  EXPECT_EQ(ThrownMessage([&] { t.Set(nullptr); }), "invalid argument exp");
  EXPECT_EQ(ThrownMessage([&] { t.Set("nope"); }), "asn data exception");
  t.Set("generalTime");
  EXPECT_EQ(t.Get(), t.Find("generalTime"));
  EXPECT_EQ(t.Get("utcTime"), nullptr);  // exists but is not the selection
  EXPECT_EQ(t.Get(0u), nullptr);
  EXPECT_EQ(ThrownMessage([&] { t.Get(2u); }), "out of range exp");
  EXPECT_EQ(ThrownMessage([&] { t.Find(2u); }), "out of range exp");
  AsnUTCTime u(MiTime(2001, 2, 3, 4, 5, 6));
  t.Set("utcTime", &u);
  EXPECT_STREQ(t.Get()->GetAsnName(), "utcTime");
  // Setting the alternative with itself is a plain selection.
  t.Set("generalTime", t.Find("generalTime"));
  EXPECT_STREQ(t.Get()->GetAsnName(), "generalTime");
  TestTime copy(t);
  EXPECT_TRUE(copy.EqualsContent(&t));
  copy.Set("utcTime");
  EXPECT_FALSE(copy.EqualsContent(&t));
  copy.DelElement("utcTime");
  EXPECT_EQ(copy.Get(), nullptr);
  EXPECT_EQ(copy.Size(), 1u);
}

TEST(AsnContainerModel, OwnsItsData) {
  AsnContainer c;
  EXPECT_EQ(c.GetData(), nullptr);
  AsnInteger i(3);
  c.SetData(&i);
  EXPECT_NE(c.GetData(), &i);
  AsnContainer copy(c);
  EXPECT_NE(copy.Data(), c.Data());
  EXPECT_TRUE(copy.EqualsContent(&c));
  c.SetDataSpace(new AsnBoolean(true));
  EXPECT_FALSE(copy.EqualsContent(&c));
  c.SetData(nullptr);
  EXPECT_FALSE(copy.EqualsContent(&c));
}

TEST(AsnInstanceOfModel, TypeIdAndExplicitValue) {
  AsnInstanceOf io;
  EXPECT_EQ(io.GetType_id(), nullptr);
  io.SetType_id(AsnOid("1.2.3"));
  io.SetValue(AsnOctetString(Bytes("ABCD")));
  EXPECT_EQ(Der(io),
            "280A"
            "06022A03"
            "A004"
            "0402ABCD");
  AsnInstanceOf back;
  back.DerDecode(Bytes(Der(io)), 0);
  ASSERT_TRUE(back.GetValue());
  EXPECT_EQ(Hex(back.GetValue()->GetData()), "ABCD");
  EXPECT_STREQ(back.GetType_id()->GetData(), "1.2.3");
}
