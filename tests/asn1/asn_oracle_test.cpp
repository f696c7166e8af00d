// OpenSSL as an independent oracle: the structure of tests/data/asn1/oracle.cnf
// built with our classes must encode to the octets `openssl asn1parse -genconf`
// produces, OpenSSL must parse our octets to the same values, and our decoders
// must read OpenSSL's octets back to the values of the configuration.
#include <gtest/gtest.h>

#include <cstdlib>

#include "asn_test_util.h"

using namespace asntest;

namespace {

using kvtest::TempDir;

bool Shell(const std::string& cmd, const std::string& out = "/dev/null") {
  return std::system((cmd + " >'" + out + "' 2>/dev/null").c_str()) == 0;
}

void WriteFile(const std::string& path, const MiByteBuffer& b) {
  std::ofstream f(path, std::ios::binary);
  f.write(b.GetChars(), b.GetLength());
}

template <class T>
void Add(AsnSequence& s, const char* name, T value) {
  value.SetAsnName(name);
  value.SetAsnPresent(true);
  s.AddElement(&value);
}

AsnSequence Build() {
  AsnSequence s;
  Add(s, "b", AsnBoolean(true));
  Add(s, "i", AsnInteger(-129));
  Add(s, "big", AsnInteger(MiBigInteger::FromString("0x0102030405060708090A")));
  Add(s, "e", AsnEnumerated(5));
  Add(s, "bits", AsnBitString(MiBitSet("1011")));
  Add(s, "oct", AsnOctetString(Bytes("00FF10")));
  Add(s, "n", AsnNull());
  Add(s, "oid", AsnOid("1.2.840.113549.1.1.11"));
  Add(s, "ps", AsnPrintableString("A-z"));
  Add(s, "ns", AsnNumericString("12 34"));
  Add(s, "ts", AsnTeletexString("abc"));
  Add(s, "ia", AsnIA5String("x@y"));
  Add(s, "vs", AsnVisibleString("a b"));
  AsnUTF8String u8;
  u8.SetUtf8("h\xC3\xA9llo");
  Add(s, "u8", u8);
  AsnBMPString bmp;
  bmp.SetUtf8(
      "\xE4\xB8\xAD"
      "A");
  Add(s, "bmp", bmp);
  AsnUniversalString us;
  us.SetUtf8("AB");
  Add(s, "us", us);
  Add(s, "ut", AsnUTCTime(MiTime(2014, 6, 4, 8, 9, 10)));
  Add(s, "gt", AsnGeneralizedTime(MiTime(2014, 6, 4, 8, 9, 10)));
  AsnInteger imp(7);
  imp.SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_IMPLICIT, 5);
  Add(s, "imp", imp);
  AsnContainer exp(static_cast<const AsnObject&>(AsnInteger(7)));
  exp.SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_EXPLICIT, 3);
  Add(s, "exp", exp);
  AsnInteger hi(1);
  hi.SetAsnTag(ASN_TAG_CLASS_PRIVATE, ASN_TAG_MODE_IMPLICIT, 4000);
  Add(s, "hi", hi);
  AsnSet set;
  AsnInteger a(2);
  a.SetAsnName("a");
  a.SetAsnPresent(true);
  AsnBoolean b(true);
  b.SetAsnName("b");
  b.SetAsnPresent(true);
  b.SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_IMPLICIT, 0);
  set.AddElement(&a);
  set.AddElement(&b);
  Add(s, "set", set);
  Add(s, "long", AsnOctetString(MiByte(300, 0)));
  return s;
}

}  // namespace

class OpenSslOracle : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!Shell("openssl version")) GTEST_SKIP() << "openssl not found";
    const std::string cnf = std::string(KV_TEST_DATA_DIR) + "/asn1/oracle.cnf";
    ASSERT_TRUE(
        Shell("openssl asn1parse -noout -genconf '" + cnf + "' -out '" + dir / "ref.der" + "'"));
    std::string raw = ReadFile(dir / "ref.der");
    ASSERT_FALSE(raw.empty());
    ref = MiByte(raw.data(), static_cast<unsigned>(raw.size()));
  }
  TempDir dir;
  MiByte ref;
};

TEST_F(OpenSslOracle, OurEncodingEqualsOpenSslsAndParses) {
  AsnSequence s = Build();
  MiByteBuffer ours;
  s.DerEncode(ours, 0);
  EXPECT_EQ(Hex(ours), Hex(ref));

  WriteFile(dir / "ours.der", ours);
  const std::string out = dir / "parse.txt";
  ASSERT_TRUE(Shell("openssl asn1parse -inform DER -in '" + dir / "ours.der" + "'", out));
  const std::string text = ReadFile(out);
  for (const char* expected :
       {"hl=4 l= 452 cons: SEQUENCE", "prim: BOOLEAN           :255",
        "prim: INTEGER           :-81", ":0102030405060708090A", "prim: ENUMERATED        :05",
        "[HEX DUMP]:00FF10", "prim: OBJECT            :sha256WithRSAEncryption", ":A-z", ":12 34",
        ":x@y", ":a b", ":h\xC3\xA9llo", "prim: UTCTIME           :140604080910Z",
        "prim: GENERALIZEDTIME   :20140604080910Z", "prim: cont [ 5 ]", "cons: cont [ 3 ]",
        "d=2  hl=2 l=   1 prim: INTEGER           :07", "hl=4 l=   1 prim: priv [ 4000 ]",
        "hl=4 l= 300 prim: OCTET STRING"}) {
    EXPECT_NE(text.find(expected), std::string::npos) << expected << "\n" << text;
  }
}

TEST_F(OpenSslOracle, OpenSslsEncodingDecodesToTheSameValues) {
  AsnSequence shape = Build();
  AsnSequence s(shape);
  s.Reset(nullptr);
  EXPECT_EQ(s.DerDecode(ref, 0), ref.GetLength());
  EXPECT_TRUE(s.EqualsContent(&shape));
  for (unsigned i = 0; i < s.Size(); ++i) {
    SCOPED_TRACE(s.Get(i)->GetAsnName().GetChars());
    EXPECT_TRUE(s.Get(i)->IsAsnPresent());
    EXPECT_TRUE(s.Get(i)->EqualsContent(shape.Get(i)));
  }
  EXPECT_EQ(dynamic_cast<const AsnBMPString*>(s.Get("bmp"))->GetCode(0), 0x4E2Du);
  EXPECT_EQ(Der(s), Hex(ref));

  // The open-type holder gives back the very same octets.
  AsnAny any;
  any.DerDecode(ref, 0);
  EXPECT_EQ(Der(any), Hex(ref));
}

TEST_F(OpenSslOracle, GenstrValuesOfEveryPrimitiveDecode) {
  struct {
    const char* genstr;
    AsnObject* obj;
    const char* der;  // our encoding of the value, compared with OpenSSL's
  } cases[] = {
      {"INTEGER:-9223372036854775808", new AsnInteger(INT64_MIN), nullptr},
      {"INTEGER:0", new AsnInteger(0), nullptr},
      {"OID:2.999.1234567890123", new AsnOid("2.999.1234567890123"), nullptr},
      {"UTCTIME:491231235959Z", new AsnUTCTime(MiTime(2049, 12, 31, 23, 59, 59)), nullptr},
      {"UTCTIME:500101000000Z", new AsnUTCTime(MiTime(1950, 1, 1, 0, 0, 0)), nullptr},
      {"GENTIME:99991231235959Z", new AsnGeneralizedTime(MiTime(9999, 12, 31, 23, 59, 59)),
       nullptr},
      {"BOOLEAN:FALSE", new AsnBoolean(false), nullptr},
      {"FORMAT:BITLIST,BITSTRING:7", new AsnBitString(MiBitSet("00000001")), nullptr},
  };
  for (auto& c : cases) {
    std::unique_ptr<AsnObject> expected(c.obj);
    SCOPED_TRACE(c.genstr);
    ASSERT_TRUE(Shell(std::string("openssl asn1parse -noout -genstr '") + c.genstr + "' -out '" +
                      dir / "v.der" + "'"));
    std::string raw = ReadFile(dir / "v.der");
    MiByte in(raw.data(), static_cast<unsigned>(raw.size()));
    std::unique_ptr<AsnObject> got(expected->Clone());
    got->Reset(nullptr);
    got->DerDecode(in, 0);
    EXPECT_TRUE(got->EqualsContent(expected.get()));
    EXPECT_EQ(Der(*expected), Hex(in));
  }
}
