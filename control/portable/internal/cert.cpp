#include "control/portable/internal/cert.h"

#include <cstring>

#include "asn1/asn1.h"
#include "control/portable/internal/rsa_key.h"
#include "crypto/sha1.h"

namespace kv::control::portable {

namespace {

struct Label {
  const char* oid;
  const char* text;
};

const Label kLabels[] = {
    {"2.5.4.3", "CN"},
    {"2.5.4.4", "SN"},
    {"2.5.4.5", "SERIALNUMBER"},
    {"2.5.4.6", "C"},
    {"2.5.4.7", "L"},
    {"2.5.4.8", "S"},
    {"2.5.4.9", "STREET"},
    {"2.5.4.10", "O"},
    {"2.5.4.11", "OU"},
    {"2.5.4.12", "T"},
    {"2.5.4.42", "G"},
    {"1.2.840.113549.1.9.1", "E"},
    {"0.9.2342.19200300.100.1.25", "DC"},
    {"0.9.2342.19200300.100.1.1", "UID"},
};

Bytes Encoded(const AsnObject& obj) {
  MiByteBuffer out;
  unsigned n = obj.DerEncode(out, 0);
  return Bytes(out.GetBytes(), out.GetBytes() + n);
}

const AsnObject* Unwrap(const AsnObject* o) {
  if (auto* c = dynamic_cast<const AsnContainer*>(o)) return c->GetData();
  return o;
}

std::string ValueText(const AsnAny* value) {
  if (!value || !value->HasData()) return std::string();
  const AsnObject* v = Unwrap(value->GetData());
  if (auto* s = dynamic_cast<const AsnNarrowString*>(v)) {
    const MiString& t = s->GetData();
    return std::string(t.GetChars() ? t.GetChars() : "", t.GetLength());
  }
  if (auto* w = dynamic_cast<const AsnWideString*>(v)) {
    MiString t = w->GetUtf8();
    return std::string(t.GetChars() ? t.GetChars() : "", t.GetLength());
  }
  MiByte enc = value->GetEncoded();
  return "#" + Hex(enc.GetBytes(), enc.GetLength());
}

std::string NameText(const Name* name) {
  std::string out;
  if (!name || !name->GetRdnSequence()) return out;
  const auto& rdns = *name->GetRdnSequence();
  for (unsigned i = 0; i < rdns.Size(); ++i) {
    const auto& set = rdns[i];
    for (unsigned j = 0; j < set.Size(); ++j) {
      const AttributeTypeAndDistinguishedValue& atav = set[j];
      const char* oid = atav.GetType() ? static_cast<const char*>(atav.GetType()->GetData()) : "";
      std::string label = oid;
      for (const Label& l : kLabels)
        if (std::strcmp(l.oid, oid) == 0) label = l.text;
      if (!out.empty()) out += j ? " + " : ", ";
      out += label + "=" + ValueText(atav.GetValue());
    }
  }
  return out;
}

std::string TimeText(const X509Time* t) {
  if (!t) return std::string();
  const AsnObject* v = Unwrap(t->Get());
  const MiTime* time = nullptr;
  if (auto* u = dynamic_cast<const AsnUTCTime*>(v)) time = &u->GetTime();
  if (auto* g = dynamic_cast<const AsnGeneralizedTime*>(v)) time = &g->GetTime();
  if (!time) return std::string();
  MiString s = time->GetTimeString("YYYY-MM-DD hh:mm:ss UTC");
  return std::string(s.GetChars() ? s.GetChars() : "", s.GetLength());
}

}  // namespace

bool ParseCertificate(const uint8_t* der, size_t len, ParsedCertificate* out) {
  if (!der || len == 0 || len > 0x7FFFFFFF) return false;
  try {
    Certificate cert;
    MiByte in(reinterpret_cast<const char*>(der), static_cast<unsigned>(len));
    if (cert.DerDecode(in, 0) != len) return false;
    const TBSCertificate* tbs = cert.GetTBSCertificate();
    if (!tbs || !tbs->GetIssuer() || !tbs->GetSubject() || !tbs->GetSerialNumber() ||
        !tbs->GetSubjectPublicKeyInfo() || !tbs->GetValidity()) {
      return false;
    }
    ParsedCertificate p;
    p.issuerDer = Encoded(*tbs->GetIssuer());
    MiByte serial = tbs->GetSerialNumber()->GetData().GetOctets();
    p.serial.assign(serial.GetBytes(), serial.GetBytes() + serial.GetLength());
    p.spki = Encoded(*tbs->GetSubjectPublicKeyInfo());
    p.subject = NameText(tbs->GetSubject());
    p.issuer = NameText(tbs->GetIssuer());
    p.notAfter = TimeText(tbs->GetValidity()->GetNotAfter());
    p.sha1.resize(Sha1::kDigestSize);
    Sha1::Digest(der, len, p.sha1.data());
    p.thumbprint = Hex(p.sha1.data(), p.sha1.size());
    *out = std::move(p);
    return true;
  } catch (const MiException&) {
    return false;
  }
}

}  // namespace kv::control::portable
