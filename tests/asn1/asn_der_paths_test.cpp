// The DER encoder writes identifier and length octets in place and takes a
// shortcut past its own virtual slots; these tests hold the octets to a plain
// model of the encoding (identifier, minimal length, content) at every length
// form, at a position inside a used buffer, and check that a visitor derived
// from the DER one still has its overrides called.
#include <gtest/gtest.h>

#include <string>

#include "asn_test_util.h"

using namespace asntest;

namespace {

// Minimal DER length octets, as hex: the model the encoder must agree with.
std::string LengthHex(size_t n) {
  static const char digits[] = "0123456789ABCDEF";
  std::string octets;
  for (size_t v = n; v || octets.empty(); v >>= 8) {
    octets.insert(octets.begin(), digits[v & 15]);
    octets.insert(octets.begin(), digits[(v >> 4) & 15]);
  }
  if (n < 0x80) return octets;
  const size_t k = octets.size() / 2;
  return std::string(1, digits[8]) + digits[k] + octets;
}

std::string Tlv(const std::string& identifier, const std::string& contentHex) {
  return identifier + LengthHex(contentHex.size() / 2) + contentHex;
}

// Encodes obj at position 3 of a buffer that holds other octets before and
// after: the first three stay, the rest is replaced by the encoding.
std::string EncodeInside(const AsnObject& obj, AsnEncode& enc, unsigned* written = nullptr) {
  MiByteBuffer out(Bytes("AABBCCDDEEFF"));
  unsigned n = obj.Encode(enc, out, 3);
  if (written) *written = n;
  std::string hex = Hex(out);
  EXPECT_EQ(hex.substr(0, 6), "AABBCC");
  EXPECT_EQ(out.GetLength(), 3 + n);
  return hex.substr(6);
}

// SEQUENCE { [1] EXPLICIT SET OF OCTET STRING, CHOICE { [2] IMPLICIT OCTET
// STRING }, OCTET STRING } with contents of the given sizes.
struct Nest {
  AsnSequence seq;
  std::string expected;
  explicit Nest(unsigned size) {
    const MiByte big(size, 0x5A);
    const std::string bigHex = Hex(big);
    AsnSetOf<AsnOctetString> set;
    set.Add(AsnOctetString(big));
    set.Add(AsnOctetString(Bytes("01")));
    AsnContainer box;
    box.SetAsnName("box");
    box.SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_EXPLICIT, 1);
    box.SetData(&set);
    AsnChoice pick;
    pick.SetAsnName("pick");
    AsnOctetString alt(big);
    alt.SetAsnName("alt");
    alt.SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_IMPLICIT, 2);
    pick.AddElement(&alt);
    pick.Set("alt");
    AsnOctetString plain(Bytes("0102"));
    plain.SetAsnName("plain");
    seq.AddElement(&box);
    seq.AddElement(&pick);
    seq.AddElement(&plain);
    for (unsigned i = 0; i < seq.Size(); ++i) seq.Find(i)->SetAsnPresent(true);

    // SET OF order: shorter first, then by octets (5A sorts after 01).
    const std::string one = Tlv("04", "01"), other = Tlv("04", bigHex);
    const std::string setHex = Tlv("31", size == 0 ? other + one : one + other);
    expected = Tlv("30", Tlv("A1", setHex) + Tlv("82", bigHex) + Tlv("04", "0102"));
  }
};

// Counts the slots it is asked for and can stretch one-octet lengths.
class WatchingEncode : public AsnDerEncode {
 public:
  unsigned tags = 0, lengths = 0;
  bool longLengths = false;
  unsigned EncodeTag(const AsnTag& tag, MiByteBuffer& out, unsigned pos) override {
    ++tags;
    return AsnDerEncode::EncodeTag(tag, out, pos);
  }
  MiByte EncodeLength(unsigned length) override {
    ++lengths;
    if (longLengths && length < 0x80) {
      const char octets[] = {static_cast<char>(0x81), static_cast<char>(length)};
      return MiByte(octets, 2);
    }
    return AsnDerEncode::EncodeLength(length);
  }
};

}  // namespace

TEST(DerInPlaceLengths, EveryLengthFormThroughEveryConstructedPath) {
  for (unsigned size :
       {0u, 1u, 0x7Eu, 0x7Fu, 0x80u, 0xFFu, 0x100u, 0xFFFFu, 0x10000u, 0x1000000u}) {
    SCOPED_TRACE(size);
    Nest n(size);
    AsnDerEncode der;
    unsigned written = 0;
    const std::string got = EncodeInside(n.seq, der, &written);
    EXPECT_EQ(written, n.expected.size() / 2);
    EXPECT_TRUE(got == n.expected);  // not printed: up to 32 MB of hex
    // The same octets come back from a decode and re-encode.
    MiByteBuffer out;
    n.seq.DerEncode(out, 0);
    AsnAny any;
    any.DerDecode(out.GetByte(), 0);
    EXPECT_TRUE(Der(any) == n.expected);
  }
}

TEST(DerInPlaceLengths, DerivedVisitorsKeepTheirOverrides) {
  Nest n(300);
  WatchingEncode watch;
  EXPECT_TRUE(EncodeInside(n.seq, watch) == n.expected);
  // One identifier and one length per value written: SEQUENCE, container,
  // SET OF and its two values, the choice's alternative, the last string.
  EXPECT_EQ(watch.tags, 7u);
  EXPECT_EQ(watch.lengths, 7u);

  WatchingEncode stretch;
  stretch.longLengths = true;
  AsnSequence seq;
  AsnInteger one(MiBigInteger::FromString("1"));
  one.SetAsnName("one");
  seq.AddElement(&one);
  seq.Find(0u)->SetAsnPresent(true);
  EXPECT_EQ(EncodeInside(seq, stretch), "30810402810101");
}

TEST(DerInPlaceLengths, BufferAppendsFromItselfWithoutReallocating) {
  MiByteBuffer b(Bytes("010203"));
  b.Append(b.GetChars() + 1, 2);
  b.Append(b);
  EXPECT_EQ(Hex(b), "01020302030102030203");
}

TEST(DerOidOctets, KeptOctetsFollowTheTextAndOnlyMinimalFormsAreKept) {
  // A non-minimal subidentifier (leading 80 group) reads as the same arcs and
  // is written in minimal form, also through a copy.
  AsnOid oid;
  oid.DerDecode(Bytes("0604 2A 80 80 01"), 0);
  EXPECT_EQ(std::string(oid.GetData()), "1.2.1");
  EXPECT_EQ(Der(oid), "06022A01");
  EXPECT_EQ(Der(AsnOid(oid)), "06022A01");
  oid.DerDecode(Bytes("0603 80 2A 05"), 0);
  EXPECT_EQ(Der(oid), "06022A05");

  // Every way of changing the text changes the octets written.
  oid.DerDecode(Bytes("0603 55 04 03"), 0);
  oid.SetData("2.5.4.10");
  EXPECT_EQ(Der(oid), "060355040A");
  oid.SetData(MiString("1.2.840.113549.1.1.11"));
  EXPECT_EQ(Der(oid), "06092A864886F70D01010B");
  AsnOid other("2.5.29.15");
  oid.Reset(&other);
  EXPECT_EQ(Der(oid), "0603551D0F");
  oid.Reset(nullptr);
  EXPECT_EQ(ThrownMessage([&] { Der(oid); }), "asn data exception");
  oid.SetData("1.2.3");
  oid.SetData("1.x");
  EXPECT_EQ(ThrownMessage([&] { Der(oid); }), "asn data exception");

  // The open-type holder still gives back a non-minimal identifier as read.
  AsnAny any;
  any.DerDecode(Bytes("0603802A05"), 0);
  EXPECT_EQ(Der(any), "0603802A05");
}

TEST(DerTextContent, TimesAndUtf8MatchTheirTextForms) {
  // UTCTime content is the time text, across the years two digits can carry.
  for (int year : {1950, 1999, 2000, 2009, 2049}) {
    AsnUTCTime t(MiTime(year, 12, 31, 23, 59, 58));
    SCOPED_TRACE(year);
    std::string text(t.GetTimeString());
    EXPECT_EQ(text.size(), 13u);
    EXPECT_EQ(Der(t), "170D" + Hex(reinterpret_cast<const unsigned char*>(text.data()), 13));
  }
  AsnUTCTime early(MiTime(2001, 2, 3, 4, 5, 6));
  EXPECT_EQ(Der(early), "170D3031303230333034303530365A");  // "010203040506Z"

  // UTF-8 content is the text itself, also when it is long and multi-octet
  // characters fall on every alignment.
  for (size_t n : {1u, 85u, 86u, 200u, 700u}) {
    std::string text;
    for (size_t i = 0; i < n; ++i)
      text += (i % 3 == 0) ? "\xE4\xB8\xAD" : (i % 3 == 1 ? "a" : "\xF0\x9F\x98\x80");
    AsnUTF8String s;
    s.SetUtf8(text.c_str());
    SCOPED_TRACE(n);
    EXPECT_EQ(Der(s), "0C" + LengthHex(text.size()) +
                          Hex(reinterpret_cast<const unsigned char*>(text.data()),
                              static_cast<unsigned>(text.size())));
  }
}

TEST(DerListDecoding, MalformedValuesInsideAListFailAsDocumented) {
  // The list content is counted before it is decoded; a count that runs into
  // broken encodings must neither read past the content nor change the error.
  const struct {
    const char* hex;
    const char* message;
  } cases[] = {
      {"3003 1F8181", "range exp"},              // tag number running to the end
      {"3004 0284FFFF", "range exp"},            // length octets beyond the end
      {"3004 02050101", "out of range exp"},     // content beyond the end
      {"3005 020101 0201", "out of range exp"},  // second value cut short
      {"3000", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.hex);
    AsnSequenceOf<AsnInteger> ints;
    EXPECT_EQ(ThrownMessage([&] { ints.DerDecode(Bytes(c.hex), 0); }), c.message);
    AsnAny any;
    EXPECT_EQ(ThrownMessage([&] { any.DerDecode(Bytes(c.hex), 0); }), c.message);
  }
  AsnSequenceOf<AsnInteger> ints;
  ints.DerDecode(Bytes("3009 020101 020102 020103"), 0);
  EXPECT_EQ(ints.Size(), 3u);
  EXPECT_EQ(Der(ints), "3009020101020102020103");
}
