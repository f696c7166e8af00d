// The generated classes: their tagging and presence rules, accessors, copies,
// and that the committed sources are what the generator writes.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "asn1/asn1.h"
#include "real_data.h"

using kvtest::DerOf;
using kvtest::Encode;
using kvtest::Hex;
using kvtest::ReadFile;
using kvtest::RoundTrip;
using kvtest::ToMiByte;

namespace {

std::string Vector(const std::string& rel) {
  return std::string(KV_VECTORS_DIR) + "/" + rel;
}

std::string FirstCert(const std::string& rel) {
  return DerOf(Vector(rel), "pem", {"CERTIFICATE"}).at(0);
}

TEST(Generator, CommittedSourcesAreUpToDate) {
  kvtest::TempDir tmp;
  ASSERT_FALSE(tmp.Path().empty());
  const std::string& dir = tmp.Path();
  std::string src = std::string(KV_SOURCE_DIR) + "/asn1/types/";
  std::string cmd = "/usr/bin/python3 " + src + "generate.py " + dir + " > /dev/null";
  ASSERT_EQ(std::system(cmd.c_str()), 0);
  for (const char* f : {"types.h", "types_1.cpp", "types_2.cpp", "types_3.cpp", "types_4.cpp",
                        "types_registry.cpp"}) {
    std::string fresh = ReadFile(dir + "/" + f);
    EXPECT_FALSE(fresh.empty()) << f;
    EXPECT_TRUE(fresh == ReadFile(src + f)) << f << " differs from the generator's output";
  }
}

TEST(Generator, RefusesAMalformedTable) {
  kvtest::TempDir tmp;
  ASSERT_FALSE(tmp.Path().empty());
  std::string src = std::string(KV_SOURCE_DIR) + "/asn1/types/";
  // A copy of the generator next to a table whose element has a bad tag.
  const std::string& d = tmp.Path();
  std::string cmd =
      "cp " + src + "generate.py " + d + "/ && printf 'X SEQUENCE\\n  a AsnInteger [0]xx M\\n' > " +
      d + "/catalog.tab && /usr/bin/python3 " + d + "/generate.py " + d + "/out > /dev/null 2>&1";
  EXPECT_NE(std::system(cmd.c_str()), 0);
}

// ---- tags and presence

TEST(Tagging, ImplicitExplicitAndApplicationTagsAreWrittenAsDeclared) {
  AuthorityKeyIdentifier aki;
  aki.SetKeyIdentifier(AsnOctetString("\x01\x02", 2));
  aki.SetAuthorityCertSerialNumber(AsnInteger(5));
  // [0] IMPLICIT OCTET STRING, [2] IMPLICIT INTEGER.
  EXPECT_EQ(Hex(Encode(aki)),
            "3007800201028201"
            "05");

  BuiltInStandardAttributes attrs;
  TBTCountryName country;
  country.SetIso_3166_alpha2_code(AsnPrintableString("US"));
  attrs.SetCountry_name(country);
  attrs.SetOrganization_name(AsnPrintableString("Acme"));
  // [APPLICATION 1] around the CHOICE, [3] IMPLICIT PrintableString.
  EXPECT_EQ(Hex(Encode(attrs)),
            "300C6104130255538304"
            "41636D65");

  SignerInfoAuthenticatedAttributes aa;
  AsnSequenceOf<PKCS7Attribute> seq;
  aa.SetAaSequence(seq);
  // The SEQUENCE OF form sits inside an explicit [2].
  EXPECT_EQ(Hex(Encode(aa)), "A2023000");
  aa.SetAaSet(AsnSetOf<PKCS7Attribute>());
  EXPECT_EQ(Hex(Encode(aa)), "A000");
}

TEST(Tagging, SettingAValueKeepsTheElementsImplicitTagAndName) {
  GeneralName gn;
  AsnIA5String dns("example.com");
  gn.SetDNSName(dns);
  const AsnIA5String* got = gn.GetDNSName();
  ASSERT_NE(got, nullptr);
  EXPECT_EQ(got->GetAsnTagClass(), ASN_TAG_CLASS_CONTEXT);
  EXPECT_EQ(got->GetAsnTagNumber(), 2u);
  EXPECT_STREQ(got->GetAsnName(), "dNSName");
  EXPECT_EQ(Encode(gn).substr(0, 2), std::string("\x82\x0B", 2));
}

TEST(Tagging, VersionAbsentInAV1CertificateAndPresentInAV3One) {
  std::string v1 = FirstCert("x509/v1_cert.pem");
  Certificate c1;
  EXPECT_EQ(RoundTrip(c1, v1), "");
  EXPECT_EQ(c1.GetTBSCertificate()->GetVersion(), nullptr);

  std::string v3 = FirstCert("x509/cryptography.io.pem");
  Certificate c3;
  EXPECT_EQ(RoundTrip(c3, v3), "");
  const AsnInteger* version = c3.GetTBSCertificate()->GetVersion();
  ASSERT_NE(version, nullptr);
  EXPECT_EQ(version->Int32Value(), 2);

  // A DEFAULT element that is present is written, even with the default value.
  TBSCertificate tbs = *c1.GetTBSCertificate();
  tbs.SetVersion(AsnInteger(0));
  std::string enc = Encode(tbs);
  EXPECT_EQ(Hex(enc.substr(4, 5)), "A003020100");
}

TEST(Presence, FreshCertificateEncodesOnlyOnceItsMandatoryPartsAreSet) {
  Certificate fresh;
  MiByteBuffer out;
  EXPECT_THROW(fresh.DerEncode(out, 0), AsnEncodeExp);
  EXPECT_EQ(fresh.GetTBSCertificate(), nullptr);

  std::string der = FirstCert("x509/cryptography.io.pem");
  Certificate real;
  real.DerDecode(ToMiByte(der), 0);
  fresh.SetTBSCertificate(*real.GetTBSCertificate());
  fresh.SetAlgorithmIdentifier(*real.GetAlgorithmIdentifier());
  EXPECT_THROW(fresh.DerEncode(out, 0), AsnEncodeExp);
  fresh.SetEncrypted(*real.GetEncrypted());
  EXPECT_EQ(Encode(fresh), der);
}

TEST(Presence, SavedWholeEncodingIsWrittenUnchanged) {
  std::string der = FirstCert("x509/cryptography.io.pem");
  Certificate cert;
  cert.DerDecode(ToMiByte(der), 0);
  // Keep the to-be-signed part as its octets, then change the decoded value:
  // the saved octets win.
  TBSCertificate* tbs = cert.GetTBSCertificate();
  std::string tbsDer = Encode(*tbs);
  MiByte saved = ToMiByte(tbsDer);
  tbs->SetAsnByte(&saved);
  tbs->SetSerialNumber(AsnInteger(1));
  EXPECT_EQ(Encode(cert), der);
}

// ---- CHOICE alternatives

TEST(Choice, SettingAnAlternativeSelectsIt) {
  X509Time t;
  EXPECT_EQ(t.GetUtcTime(), nullptr);
  t.SetUtcTime(AsnUTCTime("140604080910Z"));
  ASSERT_NE(t.GetUtcTime(), nullptr);
  EXPECT_EQ(t.GetGeneralizedTime(), nullptr);
  EXPECT_EQ(Encode(t), std::string("\x17\x0D"
                                   "140604080910Z",
                                   15));
  t.SetGeneralizedTime(AsnGeneralizedTime("20500101000000Z"));
  EXPECT_EQ(t.GetUtcTime(), nullptr);
  EXPECT_EQ(Encode(t).substr(0, 2), std::string("\x18\x0F", 2));
}

TEST(Choice, SignedDataCertificatesAsSequenceOfStayASequenceOf) {
  std::string der = ReadFile(Vector("pkcs7/amazon-roots.der"));
  ContentInfo ci;
  ASSERT_EQ(RoundTrip(ci, der), "");
  SignedData sd;
  ci.GetContent()->DecodeInto(sd);
  const AsnSetOf<ExtendedCertificateOrCertificate>* set = sd.GetCertificates()->GetCertSet();
  ASSERT_NE(set, nullptr);
  const unsigned count = set->Size();
  ASSERT_GT(count, 1u);

  AsnSequenceOf<ExtendedCertificateOrCertificate> seq;
  // Reversed: a SEQUENCE OF keeps the order it is given, a SET OF would sort.
  for (unsigned i = count; i-- > 0;) seq.Add(*set->Get(i));
  const std::string firstGiven = Encode(*seq.Get(0));
  SignedDataCertificates certs;
  certs.SetCertSequence(seq);
  sd.SetCertificates(certs);
  std::string enc = Encode(sd);

  SignedData back;
  EXPECT_EQ(RoundTrip(back, enc), "");
  ASSERT_NE(back.GetCertificates(), nullptr);
  EXPECT_EQ(back.GetCertificates()->GetCertSet(), nullptr);
  ASSERT_NE(back.GetCertificates()->GetCertSequence(), nullptr);
  EXPECT_EQ(back.GetCertificates()->GetCertSequence()->Size(), count);
  EXPECT_EQ(Encode(*back.GetCertificates()->GetCertSequence()->Get(0)), firstGiven);
}

// ---- the system's own coding rules, seen through the catalogue

TEST(Rules, ABooleanTrueReadAs01IsWrittenAsFF) {
  std::string der = FirstCert("x509/cryptography.io.pem");
  // The first critical flag of the extensions, patched to the non-DER 01.
  size_t at = der.find(std::string("\x01\x01\xFF", 3));
  ASSERT_NE(at, std::string::npos);
  std::string patched = der;
  patched[at + 2] = '\x01';
  Certificate cert;
  EXPECT_NE(RoundTrip(cert, patched), "");
  EXPECT_EQ(Encode(cert), der);
}

TEST(Rules, AUtcTimeWithoutSecondsIsWrittenWithThem) {
  X509Time t;
  EXPECT_NE(RoundTrip(t, std::string("\x17\x0B"
                                     "1406040809Z",
                                     13)),
            "");
  EXPECT_EQ(Encode(t), std::string("\x17\x0D"
                                   "140604080900Z",
                                   15));
  ASSERT_NE(t.GetUtcTime(), nullptr);
  EXPECT_EQ(t.GetUtcTime()->GetTime().GetMinute(), 9);
}

TEST(Rules, APrintableStringOutsideTheSystemsSetIsRefused) {
  // EDIPartyName: partyName [1] DirectoryString, here a PrintableString
  // "it's": the apostrophe is not in the system's printable set.
  EDIPartyName edi;
  std::string ok(
      "\x30\x08\xA1\x06\x13\x04"
      "it`s",
      10);
  EXPECT_EQ(RoundTrip(edi, ok), "");
  std::string bad(
      "\x30\x08\xA1\x06\x13\x04"
      "it's",
      10);
  EXPECT_THROW(edi.DerDecode(ToMiByte(bad), 0), MiInvalidArgumentExp);
}

// ---- values

TEST(Values, CopiesAndClonesAreDeep) {
  std::string der = FirstCert("x509/cryptography.io.pem");
  Certificate a;
  a.DerDecode(ToMiByte(der), 0);
  Certificate b(a);
  std::unique_ptr<Certificate> c(a.Clone());
  Certificate d;
  d = a;
  b.GetTBSCertificate()->SetSerialNumber(AsnInteger(7));
  c->GetTBSCertificate()->SetSerialNumber(AsnInteger(8));
  d.GetTBSCertificate()->SetSerialNumber(AsnInteger(9));
  EXPECT_EQ(Encode(a), der);
  EXPECT_NE(Encode(b), der);  // encoded from the tree, not from kept octets
  EXPECT_EQ(b.GetTBSCertificate()->GetSerialNumber()->Int32Value(), 7);
  EXPECT_EQ(c->GetTBSCertificate()->GetSerialNumber()->Int32Value(), 8);
  EXPECT_EQ(d.GetTBSCertificate()->GetSerialNumber()->Int32Value(), 9);
  EXPECT_TRUE(a.Equals(&a));
  EXPECT_FALSE(a.EqualsContent(&b));
}

TEST(Values, EveryTruncationOfACertificateFailsWithADocumentedException) {
  std::string der = FirstCert("x509/cryptography.io.pem");
  for (size_t n = 1; n < der.size(); n += (n < 64 ? 1 : 37)) {
    Certificate c;
    try {
      unsigned used = c.DerDecode(ToMiByte(der.substr(0, n)), 0);
      EXPECT_LE(used, n);
    } catch (const MiException&) {
    } catch (...) {
      ADD_FAILURE() << "truncated at " << n << ": an exception outside the MiException family";
    }
  }
}

}  // namespace
