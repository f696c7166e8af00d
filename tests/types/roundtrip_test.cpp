// Real data through the generated types: every file decodes into its type and
// encodes again, from the object tree, to the very same octets. Nested open
// contents (SignedData in a ContentInfo, the bags of a PFX, certificate
// extensions) are decoded into their own types and checked the same way.
// Files listed in tests/data/types/vectors.lst with another expectation are
// held to that expectation instead.

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>

#include "asn1/asn1.h"
#include "real_data.h"

using kvtest::DerOf;
using kvtest::Encode;
using kvtest::Hex;
using kvtest::RoundTrip;
using kvtest::ToMiByte;
using kvtest::ToString;

namespace {

struct Entry {
  std::string path;    // under the vectors folder, or "mozilla/NAME"
  std::string type;    // generated class the file decodes into
  std::string form;    // "pem" or "der"
  std::string expect;  // "exact", "malformed", "differs:REASON", "refused:REASON"
};

std::vector<Entry> LoadList() {
  std::ifstream in(std::string(KV_TEST_DATA_DIR) + "/types/vectors.lst");
  std::vector<Entry> list;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    Entry e;
    fields >> e.path >> e.type >> e.form >> e.expect;
    if (!e.expect.empty()) list.push_back(e);
  }
  return list;
}

const std::vector<std::string>& LabelsOf(const std::string& type) {
  static const std::map<std::string, std::vector<std::string>> labels = {
      {"Certificate", {"CERTIFICATE", "X509 CERTIFICATE"}},
      {"CertificateList", {"X509 CRL"}},
      {"CertificationRequest", {"CERTIFICATE REQUEST", "NEW CERTIFICATE REQUEST"}},
      {"ContentInfo", {"PKCS7"}},
      {"RSAPrivateKey", {"RSA PRIVATE KEY"}},
      {"RSAPublicKey", {"RSA PUBLIC KEY"}},
      {"PrivateKeyInfo", {"PRIVATE KEY"}},
      {"EncryptedPrivateKeyInfo", {"ENCRYPTED PRIVATE KEY"}},
      {"SubjectPublicKeyInfo", {"PUBLIC KEY"}},
  };
  static const std::vector<std::string> none;
  auto it = labels.find(type);
  return it == labels.end() ? none : it->second;
}

std::unique_ptr<AsnObject> Make(const std::string& type) {
  if (type == "Certificate") return std::make_unique<Certificate>();
  if (type == "CertificateList") return std::make_unique<CertificateList>();
  if (type == "CertificationRequest") return std::make_unique<CertificationRequest>();
  if (type == "CertificatePair") return std::make_unique<CertificatePair>();
  if (type == "ContentInfo") return std::make_unique<ContentInfo>();
  if (type == "PFX") return std::make_unique<PFX>();
  if (type == "RSAPrivateKey") return std::make_unique<RSAPrivateKey>();
  if (type == "RSAPublicKey") return std::make_unique<RSAPublicKey>();
  if (type == "PrivateKeyInfo") return std::make_unique<PrivateKeyInfo>();
  if (type == "EncryptedPrivateKeyInfo") return std::make_unique<EncryptedPrivateKeyInfo>();
  if (type == "SubjectPublicKeyInfo") return std::make_unique<SubjectPublicKeyInfo>();
  return nullptr;
}

// How many nested structures of each kind were decoded and compared.
std::map<std::string, int> g_nested;

std::string OidOf(const AsnOid* oid) {
  return oid ? std::string(oid->GetData()) : "";
}

// The octets of an OCTET STRING held by an open type, or "" when it holds
// something else.
bool OctetsOf(const AsnAny* any, std::string* out) {
  const AsnOctetString* os = any ? dynamic_cast<const AsnOctetString*>(any->GetData()) : nullptr;
  if (!os) return false;
  *out = ToString(os->GetData());
  return true;
}

// Checks nested structures: each returns "" when exact, else what differed.
using Check = std::function<std::string(const std::string&)>;

template <class T>
std::string Exact(const std::string& der) {
  T obj;
  return RoundTrip(obj, der);
}

std::string CheckExtensions(const AsnSequenceOf<Extension>* list);

// Certificate and CRL extensions whose syntax the catalogue has a class for.
std::string CheckExtension(const std::string& oid, const std::string& der) {
  static const std::map<std::string, Check> known = {
      {"2.5.29.9", Exact<AsnSequenceOf<Attribute>>},
      {"2.5.29.14", Exact<AsnOctetString>},
      {"2.5.29.15", Exact<AsnBitString>},
      {"2.5.29.16", Exact<PrivateKeyUsagePeriod>},
      {"2.5.29.17", Exact<AsnSequenceOf<GeneralName>>},
      {"2.5.29.18", Exact<AsnSequenceOf<GeneralName>>},
      {"2.5.29.19", Exact<BasicConstraintsSyntax>},
      {"2.5.29.20", Exact<AsnInteger>},
      {"2.5.29.21", Exact<AsnEnumerated>},
      {"2.5.29.24", Exact<AsnGeneralizedTime>},
      {"2.5.29.27", Exact<AsnInteger>},
      {"2.5.29.28", Exact<IssuingDistPointSyntax>},
      {"2.5.29.29", Exact<AsnSequenceOf<GeneralName>>},
      {"2.5.29.30", Exact<NameConstraintsSyntax>},
      {"2.5.29.31", Exact<AsnSequenceOf<DistributionPoint>>},
      {"2.5.29.32", Exact<AsnSequenceOf<PolicyInformation>>},
      {"2.5.29.33", Exact<AsnSequenceOf<PolicyMappingsSyntaxComponent>>},
      {"2.5.29.35", Exact<AuthorityKeyIdentifier>},
      {"2.5.29.36", Exact<PolicyConstraintsSyntax>},
      {"2.5.29.37", Exact<AsnSequenceOf<AsnOid>>},
      {"2.5.29.46", Exact<AsnSequenceOf<DistributionPoint>>},
      {"2.5.29.54", Exact<AsnInteger>},
  };
  auto it = known.find(oid);
  if (it == known.end()) return "";
  ++g_nested["extension " + oid];
  std::string msg = it->second(der);
  return msg.empty() ? "" : "extension " + oid + ": " + msg;
}

std::string CheckExtensions(const AsnSequenceOf<Extension>* list) {
  if (!list) return "";
  for (unsigned i = 0; i < list->Size(); ++i) {
    const Extension* ext = list->Get(i);
    std::string msg =
        CheckExtension(OidOf(ext->GetExtnId()), ToString(ext->GetExtnValue()->GetData()));
    if (!msg.empty()) return msg;
  }
  return "";
}

std::string CheckCertificate(const Certificate& cert) {
  return CheckExtensions(cert.GetTBSCertificate()->GetExtensions());
}

std::string CheckCrl(const CertificateList& crl) {
  const TBSCertificateList* tbs = crl.GetTBSCertificateList();
  std::string msg = CheckExtensions(tbs->GetCrlExtensions());
  if (const auto* revoked = tbs->GetRevokedCertificates()) {
    for (unsigned i = 0; i < revoked->Size() && msg.empty(); ++i)
      msg = CheckExtensions(revoked->Get(i)->GetCrlEntryExtensions());
  }
  return msg;
}

std::string CheckRequest(const CertificationRequest& req) {
  const auto* attrs = req.GetCertificationRequestInfo()->GetAttributes();
  for (unsigned i = 0; attrs && i < attrs->Size(); ++i) {
    const Attribute* a = attrs->Get(i);
    if (OidOf(a->GetType()) != "1.2.840.113549.1.9.14") continue;  // extensionRequest
    for (unsigned v = 0; v < a->GetValues()->Size(); ++v) {
      AsnSequenceOf<Extension> exts;
      std::string der = ToString(a->GetValues()->Get(v)->GetEncoded());
      std::string msg = RoundTrip(exts, der);
      if (msg.empty()) msg = CheckExtensions(&exts);
      if (!msg.empty()) return "extension request: " + msg;
    }
  }
  return "";
}

std::string CheckSignedData(const std::string& der) {
  SignedData sd;
  std::string msg = RoundTrip(sd, der);
  if (!msg.empty()) return "SignedData: " + msg;
  if (const SignedDataCertificates* certs = sd.GetCertificates()) {
    const auto* list = certs->GetCertSet();
    for (unsigned i = 0; list && i < list->Size() && msg.empty(); ++i) {
      if (const Certificate* c = list->Get(i)->GetCertificate()) msg = CheckCertificate(*c);
    }
  }
  return msg;
}

std::string CheckContentInfo(const ContentInfo& ci) {
  std::string type = OidOf(ci.GetContentType());
  const AsnAny* content = ci.GetContent();
  if (!content) return "";
  std::string der = ToString(content->GetEncoded());
  ++g_nested["content " + type];
  if (type == "1.2.840.113549.1.7.2") return CheckSignedData(der);
  if (type == "1.2.840.113549.1.7.3") {
    std::string msg = Exact<EnvelopedData>(der);
    return msg.empty() ? "" : "EnvelopedData: " + msg;
  }
  if (type == "1.2.840.113549.1.7.6") {
    std::string msg = Exact<EncryptedData>(der);
    return msg.empty() ? "" : "EncryptedData: " + msg;
  }
  return "";
}

std::string CheckSafeContents(const std::string& der, int depth);

std::string CheckPrivateKeyInfo(const PrivateKeyInfo& pki) {
  if (OidOf(pki.GetPrivateKeyAlgorithm()->GetAlgorithm()) != "1.2.840.113549.1.1.1") return "";
  ++g_nested["key RSAPrivateKey"];
  std::string msg = Exact<RSAPrivateKey>(ToString(pki.GetPrivateKey()->GetData()));
  return msg.empty() ? "" : "RSAPrivateKey: " + msg;
}

// PKCS #12 password-based encryption carries PKCS12PbeParams.
std::string CheckEncryptedKey(const EncryptedPrivateKeyInfo& epki) {
  const AlgorithmIdentifier* alg = epki.GetEncryptionAlgorithm();
  if (OidOf(alg->GetAlgorithm()).rfind("1.2.840.113549.1.12.1.", 0) != 0) return "";
  ++g_nested["pbe PKCS12PbeParams"];
  std::string msg = Exact<PKCS12PbeParams>(ToString(alg->GetParameters()->GetEncoded()));
  return msg.empty() ? "" : "PKCS12PbeParams: " + msg;
}

std::string CheckBag(const SafeBag& bag, int depth) {
  std::string id = OidOf(bag.GetBagId());
  std::string value = ToString(bag.GetBagValue()->GetEncoded());
  const std::string p12 = "1.2.840.113549.1.12.10.1.";
  std::string msg;
  ++g_nested["bag " + id];
  if (id == p12 + "1") {
    msg = Exact<PrivateKeyInfo>(value);
  } else if (id == p12 + "2") {
    EncryptedPrivateKeyInfo epki;
    msg = RoundTrip(epki, value);
    if (msg.empty() &&
        OidOf(epki.GetEncryptionAlgorithm()->GetAlgorithm()).rfind("1.2.840.113549.1.12.1.", 0) ==
            0) {
      msg = Exact<PKCS12PbeParams>(
          ToString(epki.GetEncryptionAlgorithm()->GetParameters()->GetEncoded()));
    }
  } else if (id == p12 + "3") {
    CertBag cb;
    msg = RoundTrip(cb, value);
    std::string cert;
    if (msg.empty() && OidOf(cb.GetCertId()) == "1.2.840.113549.1.9.22.1" &&
        OctetsOf(cb.GetCertValue(), &cert)) {
      Certificate c;
      msg = RoundTrip(c, cert);
      if (msg.empty()) msg = CheckCertificate(c);
    }
  } else if (id == p12 + "4") {
    msg = Exact<CRLBag>(value);
  } else if (id == p12 + "5") {
    msg = Exact<SecretBag>(value);
  } else if (id == p12 + "6" && depth < 4) {
    msg = CheckSafeContents(value, depth + 1);
  }
  return msg.empty() ? "" : "bag " + id + ": " + msg;
}

std::string CheckSafeContents(const std::string& der, int depth) {
  AsnSequenceOf<SafeBag> bags;
  std::string msg = RoundTrip(bags, der);
  for (unsigned i = 0; msg.empty() && i < bags.Size(); ++i) msg = CheckBag(*bags.Get(i), depth);
  return msg;
}

std::string CheckPfx(const PFX& pfx) {
  std::string authSafe;
  if (!OctetsOf(pfx.GetAuthSafe()->GetContent(), &authSafe)) return "";
  AsnSequenceOf<ContentInfo> safes;
  std::string msg = RoundTrip(safes, authSafe);
  if (!msg.empty()) return "AuthenticatedSafe: " + msg;
  for (unsigned i = 0; i < safes.Size() && msg.empty(); ++i) {
    const ContentInfo* ci = safes.Get(i);
    std::string inner;
    if (OidOf(ci->GetContentType()) == "1.2.840.113549.1.7.1" &&
        OctetsOf(ci->GetContent(), &inner)) {
      msg = CheckSafeContents(inner, 0);
    } else {
      msg = CheckContentInfo(*ci);
    }
  }
  return msg;
}

// Decodes der into type, re-encodes it and checks its nested contents.
std::string CheckStructure(const std::string& type, const std::string& der) {
  std::unique_ptr<AsnObject> obj = Make(type);
  if (!obj) return "no such type " + type;
  std::string msg = RoundTrip(*obj, der);
  if (!msg.empty()) return msg;
  if (type == "Certificate") return CheckCertificate(static_cast<Certificate&>(*obj));
  if (type == "CertificateList") return CheckCrl(static_cast<CertificateList&>(*obj));
  if (type == "CertificationRequest") return CheckRequest(static_cast<CertificationRequest&>(*obj));
  if (type == "ContentInfo") return CheckContentInfo(static_cast<ContentInfo&>(*obj));
  if (type == "PFX") return CheckPfx(static_cast<PFX&>(*obj));
  if (type == "PrivateKeyInfo") return CheckPrivateKeyInfo(static_cast<PrivateKeyInfo&>(*obj));
  if (type == "EncryptedPrivateKeyInfo")
    return CheckEncryptedKey(static_cast<EncryptedPrivateKeyInfo&>(*obj));
  return "";
}

// What happened to one file, against what was expected of it.
struct Tally {
  std::map<std::string, std::map<std::string, int>> byType;  // type -> outcome -> files
  void Count(const std::string& type, const std::string& outcome) { ++byType[type][outcome]; }
  void Print(const char* title) const {
    for (const auto& t : byType) {
      std::printf("[ %s ] %-22s", title, t.first.c_str());
      for (const auto& o : t.second) std::printf(" %s=%d", o.first.c_str(), o.second);
      std::printf("\n");
    }
  }
};

void CheckFile(const Entry& e, const std::string& fullPath, Tally& tally) {
  SCOPED_TRACE(e.path + " (" + e.type + ", " + e.expect + ")");
  std::vector<std::string> ders = DerOf(fullPath, e.form, LabelsOf(e.type));
  ASSERT_FALSE(ders.empty()) << "no " << e.type << " in the file";
  const std::string kind = e.expect.substr(0, e.expect.find(':'));
  for (const std::string& der : ders) {
    if (kind == "malformed") {
      // Whatever the octets, only a documented exception may come out.
      try {
        CheckStructure(e.type, der);
      } catch (const MiException&) {
      } catch (...) {
        ADD_FAILURE() << "an exception outside the MiException family";
      }
      continue;
    }
    if (kind == "refused") {
      EXPECT_THROW(CheckStructure(e.type, der), MiException);
      continue;
    }
    std::string msg;
    try {
      msg = CheckStructure(e.type, der);
    } catch (const MiException& ex) {
      ADD_FAILURE() << "decoding raised " << ex.GetMessage();
      continue;
    }
    if (kind == "exact") {
      EXPECT_EQ(msg, "");
    } else if (kind == "differs") {
      // The system's own rules give another encoding; that encoding is then
      // a fixed point: decoding it gives it back exactly.
      EXPECT_NE(msg, "") << "expected to differ";
      std::unique_ptr<AsnObject> obj = Make(e.type);
      obj->DerDecode(ToMiByte(der), 0);
      std::string ours = Encode(*obj);
      std::unique_ptr<AsnObject> again = Make(e.type);
      EXPECT_EQ(RoundTrip(*again, ours), "");
    } else {
      ADD_FAILURE() << "unknown expectation " << e.expect;
    }
  }
  tally.Count(e.type, kind);
}

TEST(RealData, VectorFilesRoundTripExactly) {
  std::vector<Entry> list = LoadList();
  ASSERT_GT(list.size(), 1000u);
  Tally tally;
  for (const Entry& e : list) {
    if (e.path.rfind("mozilla/", 0) == 0) continue;
    CheckFile(e, std::string(KV_VECTORS_DIR) + "/" + e.path, tally);
  }
  tally.Print("vectors");
  for (const auto& n : g_nested) std::printf("[ nested ] %-40s %d\n", n.first.c_str(), n.second);
}

TEST(RealData, SystemRootsRoundTripExactly) {
  std::map<std::string, Entry> listed;
  for (const Entry& e : LoadList())
    if (e.path.rfind("mozilla/", 0) == 0) listed[e.path.substr(8)] = e;
  std::vector<std::string> names = kvtest::SystemRootNames();
  ASSERT_GT(names.size(), 100u);
  Tally tally;
  for (const std::string& n : names) {
    Entry e{"mozilla/" + n, "Certificate", "pem", "exact"};
    if (listed.count(n)) e = listed[n];
    CheckFile(e, std::string(kvtest::kSystemRootsDir) + "/" + n, tally);
  }
  tally.Print("roots");
}

// ---- the fields read through the accessors, against OpenSSL's reading

std::string TimeText(const X509Time* t) {
  if (!t) return "(absent)";
  const MiTime* time = nullptr;
  if (const AsnUTCTime* u = t->GetUtcTime()) time = &u->GetTime();
  if (const AsnGeneralizedTime* g = t->GetGeneralizedTime()) time = &g->GetTime();
  if (!time) return "(none selected)";
  static const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char buf[64];
  int m = time->GetMonth();
  std::snprintf(buf, sizeof buf, "%s %2d %02d:%02d:%02d %d GMT",
                m >= 1 && m <= 12 ? months[m - 1] : "???", time->GetDay(), time->GetHour(),
                time->GetMinute(), time->GetSecond(), time->GetYear());
  return buf;
}

// OpenSSL's -nameopt sep_comma_plus,oid,dump_all,dump_der layout.
std::string NameText(const Name* name) {
  if (!name || !name->GetRdnSequence()) return "(absent)";
  const auto& rdns = *name->GetRdnSequence();
  std::string out;
  for (unsigned i = 0; i < rdns.Size(); ++i) {
    if (i) out += ",";
    const auto& rdn = *rdns.Get(i);
    for (unsigned j = 0; j < rdn.Size(); ++j) {
      if (j) out += "+";
      const AttributeTypeAndDistinguishedValue& atv = *rdn.Get(j);
      out += OidOf(atv.GetType()) + "=#" + Hex(ToString(atv.GetValue()->GetEncoded()));
    }
  }
  return out;
}

TEST(RealData, SystemRootFieldsMatchOpenSsl) {
  int compared = 0;
  for (const std::string& n : kvtest::SystemRootNames()) {
    SCOPED_TRACE(n);
    std::string path = std::string(kvtest::kSystemRootsDir) + "/" + n;
    std::vector<std::string> ders = DerOf(path, "pem", {"CERTIFICATE"});
    ASSERT_EQ(ders.size(), 1u);
    Certificate cert;
    cert.DerDecode(ToMiByte(ders[0]), 0);
    const TBSCertificate* tbs = cert.GetTBSCertificate();
    ASSERT_NE(tbs, nullptr);
    std::string ours = "serial=" + Hex(ToString(tbs->GetSerialNumber()->GetData().GetMagnitude())) +
                       "\nnotBefore=" + TimeText(tbs->GetValidity()->GetNotBefore()) +
                       "\nnotAfter=" + TimeText(tbs->GetValidity()->GetNotAfter()) +
                       "\nsubject=" + NameText(tbs->GetSubject()) +
                       "\nissuer=" + NameText(tbs->GetIssuer()) + "\n";
    kvtest::ShellResult theirs = kvtest::RunShell(
        "openssl x509 -noout -serial -dates -subject -issuer "
        "-nameopt sep_comma_plus,oid,dump_all,dump_der -in '" +
        path + "'");
    ASSERT_EQ(theirs.status, 0);
    EXPECT_EQ(ours, theirs.out);
    ++compared;
  }
  std::printf("[ roots ] fields compared with openssl: %d certificates\n", compared);
}

}  // namespace
