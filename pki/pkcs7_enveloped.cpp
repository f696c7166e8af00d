// envelopedData, signedAndEnvelopedData, encryptedData, digestedData and
// data.
#include "pki/errors.h"
#include "pki/internal/context.h"
#include "pki/internal/pkcs7_signer.h"

using namespace kv::pkcs7;

namespace {

std::vector<const RecipientInfo*> RecipientList(const RecipientInfos* infos) {
  std::vector<const RecipientInfo*> out;
  if (!infos) return out;
  if (const auto* set = infos->GetRiSet()) {
    for (unsigned i = 0; i < set->Size(); ++i) out.push_back(set->Get(i));
  } else if (const auto* seq = infos->GetRiSequence()) {
    for (unsigned i = 0; i < seq->Size(); ++i) out.push_back(seq->Get(i));
  }
  return out;
}

// One RecipientInfo per certificate, each carrying cek under its key.
int MakeRecipients(KV_P11_OP& op, const std::vector<MiByte>& certs, const MiByte& cek,
                   RecipientInfos& infos) {
  if (certs.empty()) return KV_ERR_ARGUMENT;
  AsnSetOf<RecipientInfo> set;
  for (const MiByte& der : certs) {
    Certificate cert;
    KV_P11_Key pub;
    int rv = ParseCertificate(der, cert);
    if (rv == 0) rv = PublicKeyOf(cert, pub);
    MiByte wrapped;
    if (rv == 0) rv = EncryptKey(op, pub, cek, wrapped);
    if (rv != 0) return rv;
    RecipientInfo ri;
    ri.SetVersion(AsnInteger(0));
    ri.SetIssuerAndSerialNumber(IssuerAndSerialOf(cert));
    ri.SetKeyEncryptionAlgorithm(RsaAlgorithm());
    ri.SetEncryptedKey(AsnOctetString(wrapped));
    set.Add(ri);
  }
  infos.SetRiSet(set);
  return 0;
}

// The content key that the recipient certDer can take out with key.
int RecoverKey(KV_P11_OP& op, const RecipientInfos* infos, const MiByte& certDer, KV_P11_Key& key,
               MiByte& cek) {
  Certificate cert;
  int rv = ParseCertificate(certDer, cert);
  if (rv != 0) return rv;
  for (const RecipientInfo* ri : RecipientList(infos)) {
    if (!ri->GetIssuerAndSerialNumber() || !Identifies(*ri->GetIssuerAndSerialNumber(), cert))
      continue;
    const AlgorithmIdentifier* alg = ri->GetKeyEncryptionAlgorithm();
    if (!alg || !alg->GetAlgorithm() || !alg->GetAlgorithm()->GetData().Equals(MiString(kOidRsa)))
      return KV_ERR_UNSUPPORTED;
    if (!ri->GetEncryptedKey()) return KV_ERR_MISSING_FIELD;
    return DecryptKey(op, key, ri->GetEncryptedKey()->GetData(), cek);
  }
  return KV_ERR_NOT_FOUND;
}

int FreshKey(KV_P11_OP& op, int cipher, Cipher& c, MiByte& cek) {
  int rv = CipherFor(cipher, c);
  return rv != 0 ? rv : Random(op, c.keyLen, cek);
}

// The outer content of a ContentInfo of the given type, decoded into value.
template <class T>
int ReadOuter(const MiByte& der, int wanted, T& value) {
  ContentInfo info;
  int type = 0;
  int rv = ReadContentInfo(der, info, type);
  if (rv != 0) return rv;
  if (type != wanted) return KV_ERR_CONTENT_TYPE;
  if (!info.GetContent() || !info.GetContent()->HasData()) return KV_ERR_DECODE;
  info.GetContent()->DecodeInto(value);
  return 0;
}

}  // namespace

// ---- envelopedData ----------------------------------------------------------

int KV_PKCS7_EnvelopedData::addRecipient(const MiByte& certDer) {
  return kv::pki::Guard([&]() -> int {
    Certificate cert;
    KV_P11_Key pub;
    int rv = ParseCertificate(certDer, cert);
    if (rv == 0) rv = PublicKeyOf(cert, pub);
    if (rv == 0) recipients_.push_back(certDer);
    return rv;
  });
}

int KV_PKCS7_EnvelopedData::encode(KV_P11_OP& op, MiByte& out) const {
  return kv::pki::Guard([&]() -> int {
    Cipher c;
    MiByte cek;
    int rv = FreshKey(op, cipher_, c, cek);
    RecipientInfos infos;
    if (rv == 0) rv = MakeRecipients(op, recipients_, cek, infos);
    EncryptedContentInfo eci;
    if (rv == 0) rv = SealContent(op, c, cek, content_, eci);
    if (rv != 0) return rv;
    EnvelopedData ed;
    ed.SetVersion(AsnInteger(0));
    ed.SetRecipientInfos(infos);
    ed.SetEncryptedContentInfo(eci);
    out = WrapContentInfo(kOidEnveloped, &ed);
    return 0;
  });
}

int KV_PKCS7_EnvelopedData::decode(const MiByte& der) {
  decoded_ = MiByte();
  return kv::pki::Guard([&]() -> int {
    EnvelopedData ed;
    int rv = ReadOuter(der, PKCS7_TYPE_ENVELOPED, ed);
    if (rv != 0) return rv;
    if (!ed.GetRecipientInfos() || !ed.GetEncryptedContentInfo()) return KV_ERR_DECODE;
    decoded_ = Der(ed);
    return 0;
  });
}

unsigned KV_PKCS7_EnvelopedData::recipientCount() const {
  unsigned n = 0;
  kv::pki::Guard([&]() -> int {
    if (decoded_.Empty()) return 0;
    EnvelopedData ed;
    ed.DerDecode(decoded_, 0);
    n = RecipientList(ed.GetRecipientInfos()).size();
    return 0;
  });
  return n;
}

int KV_PKCS7_EnvelopedData::decrypt(KV_P11_OP& op, const MiByte& certDer, KV_P11_Key& key,
                                    MiByte& content) const {
  return kv::pki::Guard([&]() -> int {
    if (decoded_.Empty()) return KV_ERR_NOTHING_HELD;
    EnvelopedData ed;
    ed.DerDecode(decoded_, 0);
    MiByte cek, plain;
    int rv = RecoverKey(op, ed.GetRecipientInfos(), certDer, key, cek);
    if (rv == 0) rv = OpenContent(op, *ed.GetEncryptedContentInfo(), cek, plain);
    if (rv == 0) content = plain;
    return rv;
  });
}

// ---- signedAndEnvelopedData -------------------------------------------------

int KV_PKCS7_SignedAndEnvelopedData::addRecipient(const MiByte& certDer) {
  return kv::pki::Guard([&]() -> int {
    Certificate cert;
    KV_P11_Key pub;
    int rv = ParseCertificate(certDer, cert);
    if (rv == 0) rv = PublicKeyOf(cert, pub);
    if (rv == 0) recipients_.push_back(certDer);
    return rv;
  });
}

int KV_PKCS7_SignedAndEnvelopedData::addCertificate(const MiByte& der) {
  return kv::pki::Guard([&]() -> int {
    Certificate cert;
    int rv = ParseCertificate(der, cert);
    if (rv == 0) certs_.push_back(der);
    return rv;
  });
}

void KV_PKCS7_SignedAndEnvelopedData::setSigner(const KV_PKCS7_Signer& signer,
                                                bool carryCertificate) {
  signer_ = signer;
  haveSigner_ = true;
  carry_ = carryCertificate;
}

// RFC 2315, 11: the signer's encrypted digest is enciphered once more under
// the content-encryption key, with the content's algorithm and IV.
int KV_PKCS7_SignedAndEnvelopedData::encode(KV_P11_OP& op, MiByte& out) const {
  return kv::pki::Guard([&]() -> int {
    if (!haveSigner_) return KV_ERR_ARGUMENT;
    Certificate signerCert;
    int rv = ParseCertificate(signer_.cert, signerCert);
    if (rv != 0) return rv;
    Cipher c;
    MiByte cek;
    rv = FreshKey(op, cipher_, c, cek);
    RecipientInfos infos;
    if (rv == 0) rv = MakeRecipients(op, recipients_, cek, infos);
    EncryptedContentInfo eci;
    if (rv == 0) rv = SealContent(op, c, cek, content_, eci);
    SignerInfo si;
    if (rv == 0) rv = MakeSignerInfo(op, signer_, signerCert, content_, kOidData, signingTime_, si);
    if (rv != 0) return rv;
    Cipher used;
    MiByte iv, sealedDigest;
    rv = CipherOf(*eci.GetContentEncryptionAlgorithm(), used, iv);
    if (rv == 0)
      rv = EncryptContent(op, c, cek, iv, si.GetEncryptedDigest()->GetData(), sealedDigest);
    if (rv != 0) return rv;
    si.SetEncryptedDigest(AsnOctetString(sealedDigest));

    SignedAndEnvelopedData sed;
    sed.SetVersion(AsnInteger(1));
    sed.SetRecipientInfos(infos);
    sed.SetDigestAlgorithms(DigestSet({signer_.digest}));
    sed.SetEncryptedContentInfo(eci);
    std::vector<MiByte> carried;
    if (carry_) carried.push_back(signer_.cert);
    carried.insert(carried.end(), certs_.begin(), certs_.end());
    if (!carried.empty()) {
      AsnSetOf<ExtendedCertificateOrCertificate> set;
      rv = CertificateSet(carried, set);
      if (rv != 0) return rv;
      SignedAndEnvelopedDataCertificates certs;
      certs.SetCertSet(set);
      sed.SetCertificates(certs);
    }
    AsnSetOf<SignerInfo> signers;
    signers.Add(si);
    SignerInfos sis;
    sis.SetSiSet(signers);
    sed.SetSignerInfos(sis);
    out = WrapContentInfo(kOidSignedEnveloped, &sed);
    return 0;
  });
}

int KV_PKCS7_SignedAndEnvelopedData::decode(const MiByte& der) {
  decoded_ = MiByte();
  certs_.clear();
  return kv::pki::Guard([&]() -> int {
    SignedAndEnvelopedData sed;
    int rv = ReadOuter(der, PKCS7_TYPE_SIGNED_ENVELOPED, sed);
    if (rv != 0) return rv;
    if (!sed.GetRecipientInfos() || !sed.GetEncryptedContentInfo() || !sed.GetSignerInfos())
      return KV_ERR_DECODE;
    const SignedAndEnvelopedDataCertificates* c = sed.GetCertificates();
    if (c) certs_ = CarriedCertificates(c->GetCertSet(), c->GetCertSequence());
    decoded_ = Der(sed);
    return 0;
  });
}

int KV_PKCS7_SignedAndEnvelopedData::open(KV_P11_OP& op, const MiByte& certDer, KV_P11_Key& key,
                                          const MiByte* signerCert, MiByte& content) const {
  return kv::pki::Guard([&]() -> int {
    if (decoded_.Empty()) return KV_ERR_NOTHING_HELD;
    SignedAndEnvelopedData sed;
    sed.DerDecode(decoded_, 0);
    const EncryptedContentInfo& eci = *sed.GetEncryptedContentInfo();
    MiByte cek, plain;
    int rv = RecoverKey(op, sed.GetRecipientInfos(), certDer, key, cek);
    if (rv == 0) rv = OpenContent(op, eci, cek, plain);
    if (rv != 0) return rv;
    Cipher c;
    MiByte iv;
    rv = CipherOf(*eci.GetContentEncryptionAlgorithm(), c, iv);
    if (rv != 0) return rv;
    DigestUnwrap unwrap = [&](const MiByte& stored, MiByte& sig) {
      return DecryptContent(op, c, cek, iv, stored, sig);
    };
    rv = CheckSigners(op, SignerList(sed.GetSignerInfos()), certs_, signerCert, plain,
                      *eci.GetContentType(), &unwrap);
    if (rv == 0) content = plain;
    return rv;
  });
}

// ---- digestedData -----------------------------------------------------------

int KV_PKCS7_DigestedData::Encode(KV_P11_OP& op, int digest, const MiByte& content, MiByte& out) {
  return kv::pki::Guard([&]() -> int {
    MiByte md;
    int rv = Digest(op, digest, content, md);
    if (rv != 0) return rv;
    DigestedData dd;
    dd.SetVersion(AsnInteger(0));
    dd.SetDigestAlgorithm(DigestAlgorithm(digest));
    ContentInfo inner;
    inner.SetContentType(AsnOid(kOidData));
    inner.SetContent(AsnAny(AsnOctetString(content)));
    dd.SetContentInfo(inner);
    dd.SetDigest(AsnOctetString(md));
    out = WrapContentInfo(kOidDigested, &dd);
    return 0;
  });
}

int KV_PKCS7_DigestedData::Decode(KV_P11_OP& op, const MiByte& der, MiByte& content) {
  return kv::pki::Guard([&]() -> int {
    DigestedData dd;
    int rv = ReadOuter(der, PKCS7_TYPE_DIGESTED, dd);
    if (rv != 0) return rv;
    if (!dd.GetDigestAlgorithm() || !dd.GetContentInfo() || !dd.GetDigest()) return KV_ERR_DECODE;
    const int kind = DigestKindOf(*dd.GetDigestAlgorithm());
    if (kind == 0) return KV_ERR_UNSUPPORTED;
    MiByte inner, md;
    bool detached = false;
    rv = EmbeddedData(*dd.GetContentInfo(), inner, detached);
    if (rv == 0 && detached) rv = KV_ERR_MISSING_FIELD;
    if (rv == 0) rv = Digest(op, kind, inner, md);
    if (rv != 0) return rv;
    if (md != dd.GetDigest()->GetData()) return KV_ERR_DIGEST;
    content = inner;
    return 0;
  });
}

// ---- encryptedData ----------------------------------------------------------

int KV_PKCS7_EncryptedData::Encode(KV_P11_OP& op, int cipher, const MiByte& key,
                                   const MiByte& content, MiByte& out) {
  return kv::pki::Guard([&]() -> int {
    Cipher c;
    int rv = CipherFor(cipher, c);
    if (rv != 0) return rv;
    // A reader takes an RC2 key as long as the effective bits say.
    const bool fits = c.kind == KV_ALG_RC2_CBC ? key.GetLength() * 8 == unsigned(c.bits)
                                               : KeyLengthFits(c, key.GetLength());
    if (!fits) return KV_ERR_ARGUMENT;
    EncryptedContentInfo eci;
    rv = SealContent(op, c, key, content, eci);
    if (rv != 0) return rv;
    EncryptedData ed;
    ed.SetVersion(AsnInteger(0));
    ed.SetEncryptedContentInfo(eci);
    out = WrapContentInfo(kOidEncrypted, &ed);
    return 0;
  });
}

int KV_PKCS7_EncryptedData::Decode(KV_P11_OP& op, const MiByte& der, const MiByte& key,
                                   MiByte& content) {
  return kv::pki::Guard([&]() -> int {
    EncryptedData ed;
    int rv = ReadOuter(der, PKCS7_TYPE_ENCRYPTED, ed);
    if (rv != 0) return rv;
    if (!ed.GetEncryptedContentInfo()) return KV_ERR_DECODE;
    MiByte plain;
    rv = OpenContent(op, *ed.GetEncryptedContentInfo(), key, plain);
    if (rv == 0) content = plain;
    return rv;
  });
}

// ---- data -------------------------------------------------------------------

int KV_PKCS7_Data::Encode(const MiByte& content, MiByte& out) {
  return kv::pki::Guard([&]() -> int {
    AsnOctetString s(content);
    out = WrapContentInfo(kOidData, &s);
    return 0;
  });
}

int KV_PKCS7_Data::Decode(const MiByte& der, MiByte& content) {
  return kv::pki::Guard([&]() -> int {
    ContentInfo info;
    int type = 0;
    int rv = ReadContentInfo(der, info, type);
    if (rv != 0) return rv;
    if (type != PKCS7_TYPE_DATA) return KV_ERR_CONTENT_TYPE;
    MiByte inner;
    bool detached = false;
    rv = EmbeddedData(info, inner, detached);
    if (rv == 0) content = inner;
    return rv;
  });
}

// ---- flat functions ---------------------------------------------------------

namespace {

MiByte Bytes(const unsigned char* p, unsigned n) {
  return p && n ? MiByte(reinterpret_cast<const char*>(p), n) : MiByte();
}

// Checks the common arguments and clears the output. Null for a bad context.
KV_P11_OP* Begin(PKCS_CTX ctx, const unsigned char* in, unsigned len, unsigned char** out,
                 unsigned int* outLen, int& status) {
  if (out) *out = nullptr;
  if (outLen) *outLen = 0;
  status = 0;
  if (out == nullptr || outLen == nullptr || (in == nullptr && len != 0)) {
    status = KV_ERR_ARGUMENT;
    return nullptr;
  }
  KV_P11_OP* op = kv::pki::ContextOp(ctx);
  if (op == nullptr) status = KV_ERR_BAD_CONTEXT;
  return op;
}

// Readers need a message.
KV_P11_OP* BeginRead(PKCS_CTX ctx, const unsigned char* der, unsigned len, unsigned char** out,
                     unsigned int* outLen, int& status) {
  KV_P11_OP* op = Begin(ctx, der, len, out, outLen, status);
  if (op && len == 0) {
    status = KV_ERR_ARGUMENT;
    return nullptr;
  }
  return op;
}

int Finish(int rv, const MiByte& result, unsigned char** out, unsigned int* outLen) {
  return rv != 0 ? rv : HandOut(result, out, outLen);
}

}  // namespace

extern "C" {

int PKCS7_GetContentType(const unsigned char* der, unsigned int len, int* type) {
  if (der == nullptr || len == 0 || type == nullptr) return KV_ERR_ARGUMENT;
  *type = 0;
  return kv::pki::Guard([&]() -> int {
    ContentInfo info;
    int t = 0;
    int rv = ReadContentInfo(Bytes(der, len), info, t);
    if (rv != 0) return rv;
    if (t == 0) return KV_ERR_CONTENT_TYPE;
    *type = t;
    return 0;
  });
}

int PKCS7_WriteDataMsg(PKCS_CTX ctx, const unsigned char* data, unsigned int len,
                       unsigned char** out, unsigned int* outLen) {
  int status;
  if (!Begin(ctx, data, len, out, outLen, status) && status == KV_ERR_ARGUMENT) return status;
  return kv::pki::Guard([&]() -> int {
    MiByte der;
    return Finish(KV_PKCS7_Data::Encode(Bytes(data, len), der), der, out, outLen);
  });
}

int PKCS7_ReadDataMsg(PKCS_CTX ctx, const unsigned char* der, unsigned int len, unsigned char** out,
                      unsigned int* outLen) {
  int status;
  if (!BeginRead(ctx, der, len, out, outLen, status) && status == KV_ERR_ARGUMENT) return status;
  return kv::pki::Guard([&]() -> int {
    MiByte content;
    return Finish(KV_PKCS7_Data::Decode(Bytes(der, len), content), content, out, outLen);
  });
}

int PKCS7_WriteEnvelopedDataMsg(PKCS_CTX ctx, const unsigned char* data, unsigned int len,
                                const KV_LIST* recipients, int cipher, unsigned char** out,
                                unsigned int* outLen) {
  int status;
  KV_P11_OP* op = Begin(ctx, data, len, out, outLen, status);
  if (!op) return status;
  if (recipients == nullptr) return KV_ERR_ARGUMENT;
  return kv::pki::Guard([&]() -> int {
    KV_PKCS7_EnvelopedData ed;
    ed.setContent(Bytes(data, len));
    ed.setCipher(cipher);
    for (const MiByte& c : ListBytes(recipients)) {
      int rv = ed.addRecipient(c);
      if (rv != 0) return rv;
    }
    MiByte der;
    return Finish(ed.encode(*op, der), der, out, outLen);
  });
}

int PKCS7_ReadEnvelopedDataMsg(PKCS_CTX ctx, const unsigned char* der, unsigned int len,
                               const unsigned char* cert, unsigned int certLen,
                               const PKCS_PRIKEY* key, unsigned char** out, unsigned int* outLen) {
  int status;
  KV_P11_OP* op = BeginRead(ctx, der, len, out, outLen, status);
  if (!op) return status;
  if (cert == nullptr || certLen == 0 || key == nullptr) return KV_ERR_ARGUMENT;
  return kv::pki::Guard([&]() -> int {
    KV_P11_Key k;
    int rv = PrivateKeyFrom(key, k);
    KV_PKCS7_EnvelopedData ed;
    if (rv == 0) rv = ed.decode(Bytes(der, len));
    MiByte content;
    if (rv == 0) rv = ed.decrypt(*op, Bytes(cert, certLen), k, content);
    return Finish(rv, content, out, outLen);
  });
}

int PKCS7_WriteSignedAndEnvelopedDataMsg(PKCS_CTX ctx, const unsigned char* data, unsigned int len,
                                         const PKCS7_SIGNER* signer, const KV_LIST* recipients,
                                         int cipher, int flags, unsigned char** out,
                                         unsigned int* outLen) {
  int status;
  KV_P11_OP* op = Begin(ctx, data, len, out, outLen, status);
  if (!op) return status;
  if (signer == nullptr || recipients == nullptr) return KV_ERR_ARGUMENT;
  return kv::pki::Guard([&]() -> int {
    KV_PKCS7_SignedAndEnvelopedData sed;
    KV_PKCS7_Signer s;
    int rv = SignerFromFlat(*signer, flags, s);
    if (rv != 0) return rv;
    sed.setSigner(s, (flags & PKCS7_NOCERTS) == 0);
    sed.setContent(Bytes(data, len));
    sed.setCipher(cipher);
    for (const MiByte& c : ListBytes(recipients)) {
      rv = sed.addRecipient(c);
      if (rv != 0) return rv;
    }
    MiByte der;
    return Finish(sed.encode(*op, der), der, out, outLen);
  });
}

int PKCS7_ReadSignedAndEnvelopedDataMsg(PKCS_CTX ctx, const unsigned char* der, unsigned int len,
                                        const unsigned char* cert, unsigned int certLen,
                                        const PKCS_PRIKEY* key, const unsigned char* signerCert,
                                        unsigned int signerCertLen, unsigned char** out,
                                        unsigned int* outLen) {
  int status;
  KV_P11_OP* op = BeginRead(ctx, der, len, out, outLen, status);
  if (!op) return status;
  if (cert == nullptr || certLen == 0 || key == nullptr) return KV_ERR_ARGUMENT;
  return kv::pki::Guard([&]() -> int {
    KV_P11_Key k;
    int rv = PrivateKeyFrom(key, k);
    KV_PKCS7_SignedAndEnvelopedData sed;
    if (rv == 0) rv = sed.decode(Bytes(der, len));
    MiByte content, sc = Bytes(signerCert, signerCertLen);
    if (rv == 0) rv = sed.open(*op, Bytes(cert, certLen), k, signerCert ? &sc : nullptr, content);
    return Finish(rv, content, out, outLen);
  });
}

int PKCS7_WriteDigestedDataMsg(PKCS_CTX ctx, const unsigned char* data, unsigned int len,
                               int digest, unsigned char** out, unsigned int* outLen) {
  int status;
  KV_P11_OP* op = Begin(ctx, data, len, out, outLen, status);
  if (!op) return status;
  return kv::pki::Guard([&]() -> int {
    MiByte der;
    return Finish(KV_PKCS7_DigestedData::Encode(*op, digest, Bytes(data, len), der), der, out,
                  outLen);
  });
}

int PKCS7_ReadDigestedDataMsg(PKCS_CTX ctx, const unsigned char* der, unsigned int len,
                              unsigned char** out, unsigned int* outLen) {
  int status;
  KV_P11_OP* op = BeginRead(ctx, der, len, out, outLen, status);
  if (!op) return status;
  return kv::pki::Guard([&]() -> int {
    MiByte content;
    return Finish(KV_PKCS7_DigestedData::Decode(*op, Bytes(der, len), content), content, out,
                  outLen);
  });
}

int PKCS7_WriteEncryptedDataMsg(PKCS_CTX ctx, const unsigned char* data, unsigned int len,
                                int cipher, const unsigned char* key, unsigned int keyLen,
                                unsigned char** out, unsigned int* outLen) {
  int status;
  KV_P11_OP* op = Begin(ctx, data, len, out, outLen, status);
  if (!op) return status;
  if (key == nullptr || keyLen == 0) return KV_ERR_ARGUMENT;
  return kv::pki::Guard([&]() -> int {
    MiByte der;
    return Finish(
        KV_PKCS7_EncryptedData::Encode(*op, cipher, Bytes(key, keyLen), Bytes(data, len), der), der,
        out, outLen);
  });
}

int PKCS7_ReadEncryptedDataMsg(PKCS_CTX ctx, const unsigned char* der, unsigned int len,
                               const unsigned char* key, unsigned int keyLen, unsigned char** out,
                               unsigned int* outLen) {
  int status;
  KV_P11_OP* op = BeginRead(ctx, der, len, out, outLen, status);
  if (!op) return status;
  if (key == nullptr || keyLen == 0) return KV_ERR_ARGUMENT;
  return kv::pki::Guard([&]() -> int {
    MiByte content;
    return Finish(KV_PKCS7_EncryptedData::Decode(*op, Bytes(der, len), Bytes(key, keyLen), content),
                  content, out, outLen);
  });
}

}  // extern "C"
