// signedData: signing, verification, certificate bundles and their leaf.
#include <algorithm>

#include "pki/errors.h"
#include "pki/internal/context.h"
#include "pki/internal/pkcs7_signer.h"

namespace kv::pkcs7 {

const char kOidSha1Rsa[] = "1.2.840.113549.1.1.5";
const char kOidMd5Rsa[] = "1.2.840.113549.1.1.4";
const char kOidMd2Rsa[] = "1.2.840.113549.1.1.2";

namespace {

PKCS7Attribute MakeAttribute(const char* oid, const AsnObject& value) {
  PKCS7Attribute a;
  a.SetType(AsnOid(oid));
  AsnSetOf<AsnAny> values;
  values.Add(AsnAny(value));
  a.SetValues(values);
  return a;
}

const PKCS7Attribute* FindAttribute(const std::vector<const PKCS7Attribute*>& attrs,
                                    const char* oid) {
  for (const PKCS7Attribute* a : attrs)
    if (a->GetType() && a->GetType()->GetData().Equals(MiString(oid))) return a;
  return nullptr;
}

// The single value of an attribute, or null.
const AsnAny* SingleValue(const PKCS7Attribute* a) {
  if (!a || !a->GetValues() || a->GetValues()->Size() != 1) return nullptr;
  return a->GetValues()->Get(0);
}

}  // namespace

int MakeSignerInfo(KV_P11_OP& op, const KV_PKCS7_Signer& signer, const Certificate& cert,
                   const MiByte& octets, const char* contentType, time_t signingTime,
                   SignerInfo& info) {
  const int kind = signer.digest;
  if (!DigestSupported(kind)) return KV_ERR_UNSUPPORTED;
  MiByte md;
  int rv = Digest(op, kind, octets, md);
  if (rv != 0) return rv;
  info.SetVersion(AsnInteger(1));
  info.SetIssuerAndSerialNumber(IssuerAndSerialOf(cert));
  info.SetDigestAlgorithm(DigestAlgorithm(kind));
  MiByte covered = md;
  if (signer.attributes) {
    AsnSetOf<PKCS7Attribute> attrs;
    attrs.Add(MakeAttribute(kOidContentTypeAttr, AsnOid(contentType)));
    attrs.Add(MakeAttribute(kOidSigningTimeAttr,
                            AsnUTCTime(MiTime(signingTime ? signingTime : time(nullptr)))));
    attrs.Add(MakeAttribute(kOidMessageDigestAttr, AsnOctetString(md)));
    // The signature covers the attributes under their own SET tag.
    rv = Digest(op, kind, Der(attrs), covered);
    if (rv != 0) return rv;
    SignerInfoAuthenticatedAttributes aa;
    aa.SetAaSet(attrs);
    info.SetAuthenticatedAttributes(aa);
  }
  info.SetDigestEncryptionAlgorithm(RsaAlgorithm());
  KV_P11_Key key(signer.key);
  MiByte sig;
  rv = SignDigest(op, key, kind, covered, sig);
  if (rv != 0) return rv;
  info.SetEncryptedDigest(AsnOctetString(sig));
  return 0;
}

int CheckSignerInfo(KV_P11_OP& op, const SignerInfo& info, const std::vector<MiByte>& carried,
                    const MiByte* certDer, const MiByte& octets, const AsnOid& contentType,
                    const DigestUnwrap* unwrap, bool* usedCert) {
  const IssuerAndSerialNumber* id = info.GetIssuerAndSerialNumber();
  if (!id || !info.GetDigestAlgorithm() || !info.GetEncryptedDigest()) return KV_ERR_MISSING_FIELD;
  Certificate cert;
  bool found = false;
  if (certDer) {
    int rv = ParseCertificate(*certDer, cert);
    if (rv != 0) return rv;
    found = Identifies(*id, cert);
    if (usedCert) *usedCert = found;
  }
  if (!found) {
    for (const MiByte& c : carried) {
      if (ParseCertificate(c, cert) == 0 && Identifies(*id, cert)) {
        found = true;
        break;
      }
    }
  }
  if (!found) return KV_ERR_NOT_FOUND;

  const int kind = DigestKindOf(*info.GetDigestAlgorithm());
  if (kind == 0) return KV_ERR_UNSUPPORTED;
  const AlgorithmIdentifier* sigAlg = info.GetDigestEncryptionAlgorithm();
  if (!sigAlg || !sigAlg->GetAlgorithm()) return KV_ERR_MISSING_FIELD;
  const MiString& sigOid = sigAlg->GetAlgorithm()->GetData();
  if (!sigOid.Equals(MiString(kOidRsa)) && !sigOid.Equals(MiString(kOidSha1Rsa)) &&
      !sigOid.Equals(MiString(kOidMd5Rsa)) && !sigOid.Equals(MiString(kOidMd2Rsa)))
    return KV_ERR_UNSUPPORTED;

  MiByte md;
  int rv = Digest(op, kind, octets, md);
  if (rv != 0) return rv;
  MiByte covered = md;
  const SignerInfoAuthenticatedAttributes* aa = info.GetAuthenticatedAttributes();
  if (aa && aa->Get()) {
    std::vector<const PKCS7Attribute*> attrs;
    if (const auto* set = aa->GetAaSet()) {
      for (unsigned i = 0; i < set->Size(); ++i) attrs.push_back(set->Get(i));
    } else if (const auto* seq = aa->GetAaSequence()) {
      for (unsigned i = 0; i < seq->Size(); ++i) attrs.push_back(seq->Get(i));
    }
    const AsnAny* digestValue = SingleValue(FindAttribute(attrs, kOidMessageDigestAttr));
    if (!digestValue) return KV_ERR_MISSING_FIELD;
    AsnOctetString stated;
    digestValue->DecodeInto(stated);
    if (stated.GetData() != md) return KV_ERR_DIGEST;
    if (const PKCS7Attribute* ct = FindAttribute(attrs, kOidContentTypeAttr)) {
      const AsnAny* v = SingleValue(ct);
      if (!v) return KV_ERR_MISSING_FIELD;
      AsnOid type;
      v->DecodeInto(type);
      if (!type.GetData().Equals(contentType.GetData())) return KV_ERR_CONTENT_TYPE;
    }
    // The octets the signer digested: its attributes in the order it wrote
    // them, under the SET tag.
    AsnSequenceOf<PKCS7Attribute> inOrder;
    for (const PKCS7Attribute* a : attrs) inOrder.Add(*a);
    MiByte encoded = Der(inOrder);
    encoded.SetCharAt(0, 0x31);
    rv = Digest(op, kind, encoded, covered);
    if (rv != 0) return rv;
  }

  KV_P11_Key pub;
  rv = PublicKeyOf(cert, pub);
  if (rv != 0) return rv;
  MiByte sig = info.GetEncryptedDigest()->GetData();
  if (unwrap) {
    MiByte stored = sig;
    rv = (*unwrap)(stored, sig);
    if (rv != 0) return rv == KV_ERR_DECRYPT ? KV_ERR_SIGNATURE : rv;
  }
  return VerifyDigest(op, pub, kind, covered, sig);
}

int CheckSigners(KV_P11_OP& op, const std::vector<const SignerInfo*>& signers,
                 const std::vector<MiByte>& carried, const MiByte* cert, const MiByte& octets,
                 const AsnOid& contentType, const DigestUnwrap* unwrap) {
  if (signers.empty()) return KV_ERR_NOT_FOUND;
  bool certUsed = false;
  for (const SignerInfo* si : signers) {
    bool used = false;
    int rv = CheckSignerInfo(op, *si, carried, cert, octets, contentType, unwrap, &used);
    if (rv != 0) return rv;
    certUsed = certUsed || used;
  }
  return cert && !certUsed ? KV_ERR_NOT_FOUND : 0;
}

std::vector<const SignerInfo*> SignerList(const SignerInfos* infos) {
  std::vector<const SignerInfo*> out;
  if (!infos) return out;
  if (const auto* set = infos->GetSiSet()) {
    for (unsigned i = 0; i < set->Size(); ++i) out.push_back(set->Get(i));
  } else if (const auto* seq = infos->GetSiSequence()) {
    for (unsigned i = 0; i < seq->Size(); ++i) out.push_back(seq->Get(i));
  }
  return out;
}

std::vector<MiByte> CarriedCertificates(
    const AsnSetOf<ExtendedCertificateOrCertificate>* set,
    const AsnSequenceOf<ExtendedCertificateOrCertificate>* seq) {
  std::vector<MiByte> out;
  auto take = [&out](const ExtendedCertificateOrCertificate* e) {
    // PKCS #6 extended certificates are passed over.
    if (e && e->GetCertificate()) out.push_back(Der(*e->GetCertificate()));
  };
  if (set)
    for (unsigned i = 0; i < set->Size(); ++i) take(set->Get(i));
  if (seq)
    for (unsigned i = 0; i < seq->Size(); ++i) take(seq->Get(i));
  return out;
}

int CertificateSet(const std::vector<MiByte>& certs,
                   AsnSetOf<ExtendedCertificateOrCertificate>& set) {
  std::vector<MiByte> seen;
  for (const MiByte& der : certs) {
    if (std::find(seen.begin(), seen.end(), der) != seen.end()) continue;
    seen.push_back(der);
    Certificate cert;
    int rv = ParseCertificate(der, cert);
    if (rv != 0) return rv;
    // Keep the octets as given, so that a certificate whose encoding is not
    // quite DER still matches its issuer's signature.
    MiByte contents = ContentsOctets(der);
    cert.SetAsnContentByte(&contents);
    ExtendedCertificateOrCertificate e;
    e.SetCertificate(cert);
    set.Add(e);
  }
  return 0;
}

DigestAlgorithmIdentifiers DigestSet(const std::vector<int>& kinds) {
  AsnSetOf<AlgorithmIdentifier> set;
  std::vector<int> seen;
  for (int k : kinds) {
    if (std::find(seen.begin(), seen.end(), k) != seen.end()) continue;
    seen.push_back(k);
    set.Add(DigestAlgorithm(k));
  }
  DigestAlgorithmIdentifiers d;
  d.SetDaSet(set);
  return d;
}

}  // namespace kv::pkcs7

using namespace kv::pkcs7;

namespace {

int DecodeSignedData(const MiByte& sdDer, SignedData& sd) {
  if (sdDer.Empty()) return KV_ERR_NOTHING_HELD;
  sd.DerDecode(sdDer, 0);
  return 0;
}

}  // namespace

void KV_PKCS7_SignedData::setContent(const MiByte& content, bool detached) {
  content_ = content;
  detached_ = detached;
}

int KV_PKCS7_SignedData::addCertificate(const MiByte& der) {
  return kv::pki::Guard([&]() -> int {
    Certificate cert;
    int rv = ParseCertificate(der, cert);
    if (rv == 0) certs_.push_back(der);
    return rv;
  });
}

void KV_PKCS7_SignedData::addSigner(const KV_PKCS7_Signer& signer, bool carryCertificate) {
  signers_.push_back({signer, carryCertificate});
}

int KV_PKCS7_SignedData::encode(KV_P11_OP& op, MiByte& out) const {
  return kv::pki::Guard([&]() -> int {
    SignedData sd;
    sd.SetVersion(AsnInteger(1));
    ContentInfo inner;
    inner.SetContentType(AsnOid(kOidData));
    if (!detached_ && (!content_.Empty() || !signers_.empty()))
      inner.SetContent(AsnAny(AsnOctetString(content_)));
    sd.SetContentInfo(inner);

    std::vector<MiByte> carried;
    std::vector<int> kinds;
    AsnSetOf<SignerInfo> infos;
    for (const PendingSigner& p : signers_) {
      Certificate cert;
      int rv = ParseCertificate(p.signer.cert, cert);
      if (rv != 0) return rv;
      SignerInfo info;
      rv = MakeSignerInfo(op, p.signer, cert, content_, kOidData, signingTime_, info);
      if (rv != 0) return rv;
      infos.Add(info);
      kinds.push_back(p.signer.digest);
      if (p.carry) carried.push_back(p.signer.cert);
    }
    carried.insert(carried.end(), certs_.begin(), certs_.end());
    sd.SetDigestAlgorithms(DigestSet(kinds));
    if (!carried.empty()) {
      AsnSetOf<ExtendedCertificateOrCertificate> set;
      int rv = CertificateSet(carried, set);
      if (rv != 0) return rv;
      SignedDataCertificates certs;
      certs.SetCertSet(set);
      sd.SetCertificates(certs);
    }
    SignerInfos si;
    si.SetSiSet(infos);
    sd.SetSignerInfos(si);
    out = WrapContentInfo(kOidSigned, &sd);
    return 0;
  });
}

int KV_PKCS7_SignedData::decode(const MiByte& der) {
  content_ = MiByte();
  detached_ = false;
  certs_.clear();
  decoded_ = MiByte();
  return kv::pki::Guard([&]() -> int {
    ContentInfo info;
    int type = 0;
    int rv = ReadContentInfo(der, info, type);
    if (rv != 0) return rv;
    if (type != PKCS7_TYPE_SIGNED) return KV_ERR_CONTENT_TYPE;
    if (!info.GetContent() || !info.GetContent()->HasData()) return KV_ERR_DECODE;
    SignedData sd;
    info.GetContent()->DecodeInto(sd);
    if (!sd.GetContentInfo() || !sd.GetSignerInfos() || !sd.GetDigestAlgorithms())
      return KV_ERR_DECODE;
    const SignedDataCertificates* c = sd.GetCertificates();
    std::vector<MiByte> certs =
        c ? CarriedCertificates(c->GetCertSet(), c->GetCertSequence()) : std::vector<MiByte>();
    const AsnAny* inner = sd.GetContentInfo()->GetContent();
    MiByte content;
    bool detached = !inner || !inner->HasData();
    if (!detached) content = SignedOctets(*sd.GetContentInfo());
    MiByte keep = Der(sd);
    certs_.swap(certs);
    content_ = content;
    detached_ = detached;
    decoded_ = keep;
    return 0;
  });
}

unsigned KV_PKCS7_SignedData::signerCount() const {
  unsigned n = 0;
  kv::pki::Guard([&]() -> int {
    SignedData sd;
    if (DecodeSignedData(decoded_, sd) == 0) n = SignerList(sd.GetSignerInfos()).size();
    return 0;
  });
  return n;
}

int KV_PKCS7_SignedData::signerCertificate(unsigned i, MiByte& cert) const {
  return kv::pki::Guard([&]() -> int {
    SignedData sd;
    int rv = DecodeSignedData(decoded_, sd);
    if (rv != 0) return rv;
    std::vector<const SignerInfo*> signers = SignerList(sd.GetSignerInfos());
    if (i >= signers.size()) return KV_ERR_INDEX;
    const IssuerAndSerialNumber* id = signers[i]->GetIssuerAndSerialNumber();
    for (const MiByte& der : certs_) {
      Certificate c;
      if (id && ParseCertificate(der, c) == 0 && Identifies(*id, c)) {
        cert = der;
        return 0;
      }
    }
    return KV_ERR_NOT_FOUND;
  });
}

int KV_PKCS7_SignedData::verifySigner(KV_P11_OP& op, unsigned i, const MiByte* detachedContent,
                                      const MiByte* cert) const {
  return kv::pki::Guard([&]() -> int {
    SignedData sd;
    int rv = DecodeSignedData(decoded_, sd);
    if (rv != 0) return rv;
    std::vector<const SignerInfo*> signers = SignerList(sd.GetSignerInfos());
    if (i >= signers.size()) return KV_ERR_INDEX;
    if (detached_ && !detachedContent) return KV_ERR_ARGUMENT;
    const MiByte& octets = detachedContent ? *detachedContent : content_;
    return CheckSignerInfo(op, *signers[i], certs_, cert, octets,
                           *sd.GetContentInfo()->GetContentType(), nullptr);
  });
}

int KV_PKCS7_SignedData::verify(KV_P11_OP& op, const MiByte* detachedContent,
                                const MiByte* cert) const {
  return kv::pki::Guard([&]() -> int {
    SignedData sd;
    int rv = DecodeSignedData(decoded_, sd);
    if (rv != 0) return rv;
    if (detached_ && !detachedContent) return KV_ERR_ARGUMENT;
    const MiByte& octets = detachedContent ? *detachedContent : content_;
    return CheckSigners(op, SignerList(sd.GetSignerInfos()), certs_, cert, octets,
                        *sd.GetContentInfo()->GetContentType(), nullptr);
  });
}

namespace {

// The first element of an encoding's contents (a certificate's
// TBSCertificate as sent).
MiByte FirstElement(const MiByte& der) {
  MiByte contents = ContentsOctets(der);
  const unsigned char* p = contents.GetBytes();
  const unsigned n = contents.GetLength();
  if (n < 2) throw AsnDecodeExp();
  unsigned header = 2, len = p[1];
  if (len & 0x80) {
    const unsigned k = len & 0x7f;
    if (k > 4 || 2 + k > n) throw AsnDecodeExp();
    len = 0;
    for (unsigned i = 0; i < k; ++i) len = (len << 8) | p[2 + i];
    header += k;
  }
  if (len > n - header) throw AsnDecodeExp();
  return MiByte(contents.GetChars(), 0, header + len);
}

int CertificateDigestKind(const Certificate& cert) {
  const AlgorithmIdentifier* alg = cert.GetAlgorithmIdentifier();
  if (!alg || !alg->GetAlgorithm()) return 0;
  const MiString& oid = alg->GetAlgorithm()->GetData();
  if (oid.Equals(MiString(kOidSha1Rsa))) return KV_ALG_SHA1;
  if (oid.Equals(MiString(kOidMd5Rsa))) return KV_ALG_MD5;
  if (oid.Equals(MiString(kOidMd2Rsa))) return KV_ALG_MD2;
  return 0;
}

// Whether issuer's key made the signature of cert (certDer its octets).
int CheckIssuedBy(KV_P11_OP& op, const MiByte& certDer, const Certificate& cert,
                  const Certificate& issuer) {
  const int kind = CertificateDigestKind(cert);
  if (kind == 0) return KV_ERR_UNSUPPORTED;
  if (!cert.GetEncrypted()) return KV_ERR_MISSING_FIELD;
  MiByte md;
  int rv = Digest(op, kind, FirstElement(certDer), md);
  KV_P11_Key pub;
  if (rv == 0) rv = PublicKeyOf(issuer, pub);
  if (rv != 0) return rv;
  return VerifyDigest(op, pub, kind, md, cert.GetEncrypted()->GetData().GetByte());
}

bool Contains(const std::vector<MiByte>& list, const MiByte& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

}  // namespace

int KV_PKCS7_SignedData::verifyChain(KV_P11_OP& op, const std::vector<MiByte>& trusted,
                                     const MiByte* cert) const {
  return kv::pki::Guard([&]() -> int {
    SignedData sd;
    int rv = DecodeSignedData(decoded_, sd);
    if (rv != 0) return rv;
    std::vector<const SignerInfo*> signers = SignerList(sd.GetSignerInfos());
    if (signers.empty()) return KV_ERR_NOT_FOUND;
    std::vector<MiByte> pool = certs_;
    pool.insert(pool.end(), trusted.begin(), trusted.end());
    for (const SignerInfo* si : signers) {
      const IssuerAndSerialNumber* id = si->GetIssuerAndSerialNumber();
      if (!id) return KV_ERR_MISSING_FIELD;
      MiByte current;
      Certificate c;
      if (cert && ParseCertificate(*cert, c) == 0 && Identifies(*id, c)) current = *cert;
      for (const MiByte& der : certs_)
        if (current.Empty() && ParseCertificate(der, c) == 0 && Identifies(*id, c)) current = der;
      if (current.Empty()) return KV_ERR_NOT_FOUND;
      // Up the chain until a trusted certificate; a chain longer than the
      // pool has a loop.
      bool anchored = false;
      for (size_t depth = 0; depth <= pool.size() && !anchored; ++depth) {
        if (Contains(trusted, current)) {
          anchored = true;
          break;
        }
        Certificate cur;
        rv = ParseCertificate(current, cur);
        if (rv != 0) return rv;
        const MiByte issuerName = Der(*cur.GetTBSCertificate()->GetIssuer());
        const MiByte* next = nullptr;
        Certificate issuer;
        for (const MiByte& der : pool) {
          if (der == current || ParseCertificate(der, issuer) != 0) continue;
          if (Der(*issuer.GetTBSCertificate()->GetSubject()) == issuerName) {
            next = &der;
            break;
          }
        }
        if (!next) return KV_ERR_CHAIN;
        rv = CheckIssuedBy(op, current, cur, issuer);
        if (rv != 0) return rv;
        current = *next;
      }
      if (!anchored) return KV_ERR_CHAIN;
    }
    return 0;
  });
}

// ---- flat functions -------------------------------------------------------

namespace {

int SignerFrom(const PKCS7_SIGNER& s, int flags, KV_PKCS7_Signer& out) {
  if (s.cert == nullptr || s.certLen == 0 || s.key == nullptr) return KV_ERR_ARGUMENT;
  out.cert = MiByte(reinterpret_cast<const char*>(s.cert), s.certLen);
  out.digest = s.digest;
  out.attributes = (flags & PKCS7_NOATTR) == 0;
  return PrivateKeyFrom(s.key, out.key);
}

std::vector<MiByte> ListItems(const KV_LIST* list) {
  std::vector<MiByte> out;
  unsigned n = 0;
  if (list == nullptr || KV_ListCount(list, &n) != 0) return out;
  for (unsigned i = 0; i < n; ++i) {
    const unsigned char* p = nullptr;
    unsigned len = 0;
    if (KV_ListGet(list, i, &p, &len) == 0) out.emplace_back(reinterpret_cast<const char*>(p), len);
  }
  return out;
}

MiByte Bytes(const unsigned char* p, unsigned n) {
  return p && n ? MiByte(reinterpret_cast<const char*>(p), n) : MiByte();
}

void ClearOut(unsigned char** out, unsigned int* outLen) {
  if (out) *out = nullptr;
  if (outLen) *outLen = 0;
}

}  // namespace

namespace kv::pkcs7 {

int SignerFromFlat(const PKCS7_SIGNER& s, int flags, KV_PKCS7_Signer& out) {
  return SignerFrom(s, flags, out);
}

std::vector<MiByte> ListBytes(const KV_LIST* list) {
  return ListItems(list);
}

}  // namespace kv::pkcs7

extern "C" {

int PKCS7_WriteSignedDataMsg(PKCS_CTX ctx, const unsigned char* data, unsigned int len,
                             const PKCS7_SIGNER* signers, unsigned int signerCount,
                             const KV_LIST* extraCerts, int flags, unsigned char** out,
                             unsigned int* outLen) {
  ClearOut(out, outLen);
  if (out == nullptr || outLen == nullptr || (data == nullptr && len != 0) ||
      (signers == nullptr && signerCount != 0))
    return KV_ERR_ARGUMENT;
  KV_P11_OP* op = kv::pki::ContextOp(ctx);
  if (op == nullptr) return KV_ERR_BAD_CONTEXT;
  return kv::pki::Guard([&]() -> int {
    KV_PKCS7_SignedData sd;
    sd.setContent(Bytes(data, len), (flags & PKCS7_DETACHED) != 0);
    for (unsigned i = 0; i < signerCount; ++i) {
      KV_PKCS7_Signer s;
      int rv = SignerFrom(signers[i], flags, s);
      if (rv != 0) return rv;
      sd.addSigner(s, (flags & PKCS7_NOCERTS) == 0);
    }
    for (const MiByte& c : ListItems(extraCerts)) {
      int rv = sd.addCertificate(c);
      if (rv != 0) return rv;
    }
    MiByte der;
    int rv = sd.encode(*op, der);
    return rv != 0 ? rv : HandOut(der, out, outLen);
  });
}

int PKCS7_WriteCertsMsg(PKCS_CTX ctx, const KV_LIST* certs, unsigned char** out,
                        unsigned int* outLen) {
  (void)ctx;
  ClearOut(out, outLen);
  if (certs == nullptr || out == nullptr || outLen == nullptr) return KV_ERR_ARGUMENT;
  return kv::pki::Guard([&]() -> int {
    KV_PKCS7_SignedData sd;
    std::vector<MiByte> items = ListItems(certs);
    if (items.empty()) return KV_ERR_ARGUMENT;
    for (const MiByte& c : items) {
      int rv = sd.addCertificate(c);
      if (rv != 0) return rv;
    }
    // No signer: nothing runs on a token.
    KV_P11_OP unused;
    MiByte der;
    int rv = sd.encode(unused, der);
    return rv != 0 ? rv : HandOut(der, out, outLen);
  });
}

int PKCS7_ReadSignedDataMsg(PKCS_CTX ctx, const unsigned char* der, unsigned int len,
                            KV_LIST* certs) {
  (void)ctx;
  if (der == nullptr || len == 0 || certs == nullptr) return KV_ERR_ARGUMENT;
  return kv::pki::Guard([&]() -> int {
    KV_PKCS7_SignedData sd;
    int rv = sd.decode(Bytes(der, len));
    if (rv != 0) return rv;
    unsigned before = 0;
    KV_ListCount(certs, &before);
    for (const MiByte& c : sd.certificates()) {
      rv = KV_ListAppend(certs, c.GetBytes(), c.GetLength());
      if (rv != 0) {
        // Leave the caller's list as it was.
        unsigned now = 0;
        KV_ListCount(certs, &now);
        while (now > before) KV_ListRemove(certs, --now);
        return rv;
      }
    }
    return 0;
  });
}

int PKCS7_GetLeafCert(PKCS_CTX ctx, const KV_LIST* certs, unsigned char* out,
                      unsigned int* outLen) {
  (void)ctx;
  if (certs == nullptr || outLen == nullptr) return KV_ERR_ARGUMENT;
  return kv::pki::Guard([&]() -> int {
    std::vector<MiByte> items;
    for (const MiByte& c : ListItems(certs))
      if (std::find(items.begin(), items.end(), c) == items.end()) items.push_back(c);
    std::vector<MiByte> subjects, issuers;
    for (const MiByte& c : items) {
      Certificate cert;
      int rv = ParseCertificate(c, cert);
      if (rv != 0) return rv;
      subjects.push_back(Der(*cert.GetTBSCertificate()->GetSubject()));
      issuers.push_back(Der(*cert.GetTBSCertificate()->GetIssuer()));
    }
    std::vector<size_t> leaves;
    for (size_t i = 0; i < items.size(); ++i) {
      bool issuedOne = false;
      for (size_t j = 0; j < items.size() && !issuedOne; ++j)
        issuedOne = j != i && issuers[j] == subjects[i];
      if (!issuedOne) leaves.push_back(i);
    }
    // A self-signed certificate that issued nothing here (an unrelated root)
    // yields to a single end-entity certificate.
    if (leaves.size() > 1) {
      std::vector<size_t> issued;
      for (size_t i : leaves)
        if (subjects[i] != issuers[i]) issued.push_back(i);
      leaves.swap(issued);
    }
    if (leaves.size() != 1) return KV_ERR_NO_LEAF;
    const MiByte& leaf = items[leaves[0]];
    if (out == nullptr) {
      *outLen = leaf.GetLength();
      return 0;
    }
    if (*outLen < leaf.GetLength()) return KV_ERR_BUFFER;
    std::copy(leaf.GetBytes(), leaf.GetBytes() + leaf.GetLength(), out);
    *outLen = leaf.GetLength();
    return 0;
  });
}

int PKCS7_VerifySignedDataMsg(PKCS_CTX ctx, const unsigned char* der, unsigned int len,
                              const unsigned char* content, unsigned int contentLen,
                              const unsigned char* signerCert, unsigned int signerCertLen,
                              unsigned char** out, unsigned int* outLen) {
  ClearOut(out, outLen);
  if (der == nullptr || len == 0 || (out != nullptr && outLen == nullptr)) return KV_ERR_ARGUMENT;
  KV_P11_OP* op = kv::pki::ContextOp(ctx);
  if (op == nullptr) return KV_ERR_BAD_CONTEXT;
  return kv::pki::Guard([&]() -> int {
    KV_PKCS7_SignedData sd;
    int rv = sd.decode(Bytes(der, len));
    if (rv != 0) return rv;
    MiByte detached = Bytes(content, contentLen);
    MiByte cert = Bytes(signerCert, signerCertLen);
    const bool haveContent = content != nullptr;
    rv = sd.verify(*op, haveContent ? &detached : nullptr, signerCert ? &cert : nullptr);
    if (rv != 0) return rv;
    if (out == nullptr) return 0;
    return HandOut(haveContent ? detached : sd.content(), out, outLen);
  });
}

}  // extern "C"
