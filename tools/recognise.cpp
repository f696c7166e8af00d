#include "recognise.h"

#include <vector>

#include "asn1/asn1.h"

namespace kvtool {

namespace {

// The identifiers of a decoded tree, enough to tell structures apart.
struct Node {
  ASN_TAG_CLASS cls = 0;
  bool constructed = false;
  uint32_t number = 0;
  std::string oid;  // for OBJECT IDENTIFIER nodes
  std::vector<Node> kids;

  bool Is(uint32_t universal) const {
    return cls == ASN_TAG_CLASS_UNIVERSAL && number == universal;
  }
  bool IsSeq() const { return Is(ASN_TAG_SEQUENCE) && constructed; }
  bool IsContext(uint32_t n) const { return cls == ASN_TAG_CLASS_CONTEXT && number == n; }
  bool IsTime() const { return Is(ASN_TAG_UTC_TIME) || Is(ASN_TAG_GENERALIZED_TIME); }
  // The kind at position i, or a node that matches nothing.
  const Node& At(size_t i) const {
    static const Node none{0xFFFFFFFF, false, 0xFFFFFFFF, std::string(), {}};
    return i < kids.size() ? kids[i] : none;
  }
};

Node Walk(const AsnObject* o) {
  Node n;
  if (const auto* any = dynamic_cast<const AsnAny*>(o)) o = any->GetData();
  if (!o) return n;
  n.cls = o->GetAsnTagClass();
  n.constructed = o->GetAsnTagForm() == ASN_TAG_FORM_CONSTRUCTED;
  n.number = o->GetAsnTagNumber();
  if (const auto* oid = dynamic_cast<const AsnOid*>(o)) {
    const MiString& text = oid->GetData();
    n.oid.assign(text.GetChars() ? text.GetChars() : "", text.GetLength());
  }
  if (const auto* list = dynamic_cast<const AsnSequenceOf<AsnAny>*>(o)) {
    for (unsigned i = 0; i < list->Size(); ++i) n.kids.push_back(Walk(list->Get(i)));
  }
  return n;
}

bool AllIntegers(const Node& n) {
  for (const Node& k : n.kids)
    if (!k.Is(ASN_TAG_INTEGER)) return false;
  return true;
}

bool IsAlgorithmIdentifier(const Node& n) {
  return n.IsSeq() && n.At(0).Is(ASN_TAG_OID);
}

// Certificate, CRL and request share the shape { tbs, algorithm, signature };
// the to-be-signed part tells them apart.
std::string SignedKind(const Node& tbs) {
  if (tbs.At(0).IsContext(0) && tbs.At(0).constructed) return "Certificate";
  if (tbs.At(0).Is(ASN_TAG_INTEGER)) {
    if (tbs.At(1).IsSeq() && tbs.At(2).IsSeq() && tbs.At(3).IsContext(0)) {
      return "CertificationRequest";
    }
    if (IsAlgorithmIdentifier(tbs.At(1)) && tbs.At(2).IsSeq() && tbs.At(3).IsTime()) {
      return "CertificateList";
    }
    if (IsAlgorithmIdentifier(tbs.At(1)) && tbs.At(2).IsSeq() && tbs.At(3).IsSeq()) {
      return "Certificate";
    }
  }
  if (IsAlgorithmIdentifier(tbs.At(0)) && tbs.At(1).IsSeq() && tbs.At(2).IsTime()) {
    return "CertificateList";
  }
  return std::string();
}

}  // namespace

std::string RecogniseLabel(const std::string& label) {
  if (label == "CERTIFICATE" || label == "X509 CERTIFICATE") return "Certificate";
  if (label == "X509 CRL") return "CertificateList";
  if (label == "CERTIFICATE REQUEST" || label == "NEW CERTIFICATE REQUEST") {
    return "CertificationRequest";
  }
  if (label == "PKCS7" || label == "PKCS #7 SIGNED DATA" || label == "CMS") return "ContentInfo";
  if (label == "RSA PUBLIC KEY") return "RSAPublicKey";
  if (label == "RSA PRIVATE KEY") return "RSAPrivateKey";
  if (label == "PUBLIC KEY") return "SubjectPublicKeyInfo";
  if (label == "PRIVATE KEY") return "PrivateKeyInfo";
  if (label == "ENCRYPTED PRIVATE KEY") return "EncryptedPrivateKeyInfo";
  return std::string();
}

std::string RecogniseDer(const std::string& der) {
  if (der.empty()) return std::string();
  AsnAny any;
  try {
    MiByte in(der.data(), static_cast<unsigned>(der.size()));
    any.DerDecode(in, 0);
  } catch (const MiException&) {
    return std::string();
  }
  Node top = Walk(&any);
  if (!top.IsSeq() || top.kids.empty()) return std::string();
  const auto& k = top.kids;

  if (AllIntegers(top) && k.size() == 2) return "RSAPublicKey";
  if (AllIntegers(top) && k.size() == 9) return "RSAPrivateKey";
  if (k[0].Is(ASN_TAG_OID) && (k.size() == 1 || (k.size() == 2 && top.At(1).IsContext(0)))) {
    return "ContentInfo";
  }
  if (k[0].Is(ASN_TAG_INTEGER) && (k.size() == 2 || k.size() == 3) && top.At(1).IsSeq() &&
      top.At(1).At(0).oid.rfind("1.2.840.113549.1.7.", 0) == 0) {
    return "PFX";
  }
  if (k.size() == 2 && IsAlgorithmIdentifier(k[0]) && k[1].Is(ASN_TAG_BIT_STRING)) {
    return "SubjectPublicKeyInfo";
  }
  if (k.size() >= 3 && k[0].Is(ASN_TAG_INTEGER) && IsAlgorithmIdentifier(k[1]) &&
      k[2].Is(ASN_TAG_OCTET_STRING)) {
    return "PrivateKeyInfo";
  }
  if (k.size() == 2 && IsAlgorithmIdentifier(k[0]) && k[1].Is(ASN_TAG_OCTET_STRING)) {
    return "EncryptedPrivateKeyInfo";
  }
  if (k.size() == 3 && k[0].IsSeq() && IsAlgorithmIdentifier(k[1]) && k[2].Is(ASN_TAG_BIT_STRING)) {
    return SignedKind(k[0]);
  }
  return std::string();
}

std::string Pkcs7ContentClass(const std::string& oid) {
  if (oid == "1.2.840.113549.1.7.2") return "SignedData";
  if (oid == "1.2.840.113549.1.7.3") return "EnvelopedData";
  if (oid == "1.2.840.113549.1.7.4") return "SignedAndEnvelopedData";
  if (oid == "1.2.840.113549.1.7.5") return "DigestedData";
  if (oid == "1.2.840.113549.1.7.6") return "EncryptedData";
  return std::string();
}

}  // namespace kvtool
