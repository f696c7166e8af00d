#include "pki/pkcs10.h"

#include <cstring>
#include <vector>

#include "pki/internal/context.h"
#include "pki/internal/der.h"
#include "pki/internal/dn.h"

namespace {

using kv::pki::Guard;

constexpr char kRsaEncryption[] = "1.2.840.113549.1.1.1";
constexpr char kSha1WithRsa[] = "1.2.840.113549.1.1.5";

AlgorithmIdentifier AlgorithmWithNull(const char* oid) {
  AlgorithmIdentifier alg;
  alg.SetAlgorithm(AsnOid(oid));
  alg.SetParameters(AsnAny(AsnNull()));
  return alg;
}

AsnInteger Unsigned(const unsigned char* p, unsigned n) {
  return AsnInteger(MiBigInteger::FromMagnitude(p, n));
}

// The octets of the first element inside the SEQUENCE that fills p[0..n).
bool FirstElement(const unsigned char* p, unsigned n, MiByte& out) {
  unsigned header = 0, content = 0;
  if (!kv::pki::SplitTlv(p, n, header, content) || content < 2) return false;
  const unsigned char* q = p + header;
  // Find the inner element's extent from its own header.
  unsigned i = 1;
  if ((q[0] & 0x1f) == 0x1f) {
    while (i < content && (q[i] & 0x80)) ++i;
    ++i;
  }
  if (i >= content) return false;
  unsigned long long len = q[i] & 0x7f;
  if (q[i++] & 0x80) {
    unsigned count = static_cast<unsigned>(len);
    if (count == 0 || count > 4 || i + count > content) return false;
    len = 0;
    for (unsigned k = 0; k < count; ++k) len = (len << 8) | q[i++];
  }
  if (len > content - i) return false;
  out = MiByte(reinterpret_cast<const char*>(q), static_cast<unsigned>(i + len));
  return true;
}

int RsaKeyOf(const CertificationRequestInfo& info, RSAPublicKey& key) {
  const SubjectPublicKeyInfo* spki = info.GetSubjectPKInfo();
  const AlgorithmIdentifier* alg = spki ? spki->GetAlgorithm() : nullptr;
  if (alg == nullptr || alg->GetAlgorithm() == nullptr || spki->GetSubjectPublicKey() == nullptr) {
    return KV_ERR_MISSING_FIELD;
  }
  if (!alg->GetAlgorithm()->GetData().Equals(kRsaEncryption)) return KV_ERR_UNSUPPORTED;
  RSAPublicKey decoded;
  if (!kv::pki::DecodeWhole(decoded, spki->GetSubjectPublicKey()->GetData().GetByte())) {
    return KV_ERR_DECODE;
  }
  key = decoded;
  return 0;
}

}  // namespace

KV_PKCS10::KV_PKCS10() {
  info_.SetVersion(AsnInteger(int64_t(0)));
  Name empty;
  kv::pki::Rdns(empty);
  info_.SetSubject(empty);
  info_.SetAttributes(AsnSetOf<Attribute>());
}

int KV_PKCS10::setSubject(const KV_Name& subject) {
  return Guard([&]() -> int {
    info_.SetSubject(subject.name());
    signed_ = false;
    return 0;
  });
}

int KV_PKCS10::setSubject(const char* dnText) {
  KV_Name name;
  int rv = name.setText(dnText ? dnText : "");
  return rv != 0 ? rv : setSubject(name);
}

int KV_PKCS10::setPublicKey(const RSAPublicKey& key) {
  return Guard([&]() -> int {
    if (key.GetPkModulus() == nullptr || key.GetPublicExponent() == nullptr) {
      return KV_ERR_MISSING_FIELD;
    }
    MiByte der = kv::pki::Der(key);
    SubjectPublicKeyInfo spki;
    spki.SetAlgorithm(AlgorithmWithNull(kRsaEncryption));
    spki.SetSubjectPublicKey(AsnBitString(MiBitSet(der, der.GetLength() * 8)));
    info_.SetSubjectPKInfo(spki);
    signed_ = false;
    return 0;
  });
}

int KV_PKCS10::addAttribute(const MiByte& der) {
  return Guard([&]() -> int {
    Attribute attribute;
    if (!kv::pki::DecodeWhole(attribute, der)) return KV_ERR_DECODE;
    info_.GetAttributes()->Add(attribute);
    signed_ = false;
    return 0;
  });
}

int KV_PKCS10::clearAttributes() {
  info_.GetAttributes()->Clear();
  signed_ = false;
  return 0;
}

int KV_PKCS10::getCertificationRequestInfo(MiByte& der) const {
  return Guard([&]() -> int {
    if (info_.GetSubjectPKInfo() == nullptr) return KV_ERR_MISSING_FIELD;
    der = signed_ ? infoDer_ : kv::pki::Der(info_);
    return 0;
  });
}

int KV_PKCS10::sign(const Signer& signer) {
  if (!signer) return KV_ERR_ARGUMENT;
  return Guard([&]() -> int {
    if (info_.GetSubjectPKInfo() == nullptr) return KV_ERR_MISSING_FIELD;
    MiByte der = kv::pki::Der(info_);
    MiByte signature;
    int rv = signer(der, signature);
    if (rv != 0) return rv < 0 ? rv : KV_ERR_SIGNATURE;
    if (signature.Empty()) return KV_ERR_SIGNATURE;
    infoDer_ = der;
    signature_ = signature;
    signatureAlgorithm_ = AlgorithmWithNull(kSha1WithRsa);
    signed_ = true;
    return 0;
  });
}

int KV_PKCS10::sign(KV_P11_OP& op, KV_P11_Key& privateKey) {
  return sign([&](const MiByte& info, MiByte& signature) {
    KV_P11_Alg alg;
    int rv = alg.setAlgType(KV_ALG_SHA1_RSA);
    MiByte in(info);
    return rv != 0 ? rv : op.Sign(alg, privateKey, in, signature);
  });
}

int KV_PKCS10::getRequest(MiByte& der) const {
  if (!signed_) return KV_ERR_NOTHING_HELD;
  return Guard([&]() -> int {
    // Built around the signed octets themselves, so a request that was read
    // comes out exactly as it came in.
    MiByte content(infoDer_);
    MiByte algDer = kv::pki::Der(signatureAlgorithm_);
    MiByte sigDer = kv::pki::Der(AsnBitString(MiBitSet(signature_, signature_.GetLength() * 8)));
    content.Concat(algDer.GetChars(), algDer.GetLength());
    content.Concat(sigDer.GetChars(), sigDer.GetLength());
    const unsigned len = content.GetLength();
    unsigned char h[6];
    unsigned hn = 0;
    h[hn++] = 0x30;  // SEQUENCE
    if (len < 0x80) {
      h[hn++] = static_cast<unsigned char>(len);
    } else {
      unsigned bytes = len > 0xFFFFFF ? 4 : len > 0xFFFF ? 3 : len > 0xFF ? 2 : 1;
      h[hn++] = static_cast<unsigned char>(0x80 | bytes);
      for (unsigned k = bytes; k-- > 0;) h[hn++] = static_cast<unsigned char>(len >> (8 * k));
    }
    MiByte out(reinterpret_cast<const char*>(h), hn);
    out.Concat(content.GetChars(), content.GetLength());
    der = out;
    return 0;
  });
}

int KV_PKCS10::setRequest(const MiByte& der) {
  return Guard([&]() -> int {
    CertificationRequest request;
    if (!kv::pki::DecodeWhole(request, der)) return KV_ERR_DECODE;
    const CertificationRequestInfo* info = request.GetCertificationRequestInfo();
    if (info == nullptr || request.GetSignatureAlgorithm() == nullptr ||
        request.GetSignature() == nullptr || info->GetSubject() == nullptr) {
      return KV_ERR_MISSING_FIELD;
    }
    MiByte infoDer;
    if (!FirstElement(der.GetBytes(), der.GetLength(), infoDer)) return KV_ERR_DECODE;
    info_ = *info;
    infoDer_ = infoDer;
    signature_ = request.GetSignature()->GetData().GetByte();
    signatureAlgorithm_ = *request.GetSignatureAlgorithm();
    signed_ = true;
    return 0;
  });
}

int KV_PKCS10::getSubject(KV_Name& subject) const {
  if (info_.GetSubject() == nullptr) return KV_ERR_MISSING_FIELD;
  return subject.setName(*info_.GetSubject());
}

int KV_PKCS10::getRSAPublicKey(RSAPublicKey& key) const {
  return Guard([&]() -> int { return RsaKeyOf(info_, key); });
}

int KV_PKCS10::getAttributeTotal(int& total) const {
  const AsnSetOf<Attribute>* attributes = info_.GetAttributes();
  total = attributes ? static_cast<int>(attributes->Size()) : 0;
  return 0;
}

int KV_PKCS10::getAttribute(int index, MiByte& der) const {
  return Guard([&]() -> int {
    const AsnSetOf<Attribute>* attributes = info_.GetAttributes();
    if (attributes == nullptr || index < 0 || static_cast<unsigned>(index) >= attributes->Size()) {
      return KV_ERR_INDEX;
    }
    der = kv::pki::Der((*attributes)[index]);
    return 0;
  });
}

int KV_PKCS10::verify(KV_P11_OP& op) const {
  if (!signed_) return KV_ERR_NOTHING_HELD;
  return Guard([&]() -> int {
    const AsnOid* oid = signatureAlgorithm_.GetAlgorithm();
    if (oid == nullptr) return KV_ERR_MISSING_FIELD;
    int kind;
    if (oid->GetData().Equals(kSha1WithRsa)) {
      kind = KV_ALG_SHA1_RSA;
    } else if (oid->GetData().Equals("1.2.840.113549.1.1.4")) {
      kind = KV_ALG_MD5_RSA;
    } else if (oid->GetData().Equals("1.2.840.113549.1.1.2")) {
      kind = KV_ALG_MD2_RSA;
    } else {
      return KV_ERR_UNSUPPORTED;
    }
    RSAPublicKey rsa;
    int rv = RsaKeyOf(info_, rsa);
    if (rv != 0) return rv;
    KV_P11_Key key;
    KV_P11_Alg alg;
    rv = key.setRSAPublicKey(rsa);
    if (rv == 0) rv = key.setKeyType(KV_KEY_RSA_PUBLIC);
    if (rv == 0) rv = alg.setAlgType(kind);
    if (rv != 0) return rv;
    MiByte data(infoDer_), signature(signature_);
    // The token reports a signature that does not hold as -13; any failure
    // to open the signature means the same to a caller here.
    return op.Verify(alg, key, data, signature) == 0 ? 0 : KV_ERR_SIGNATURE;
  });
}

// ---- Flat functions --------------------------------------------------------

namespace {

int CheckContext(PKCS_CTX ctx) {
  if (!kv::pki::LibraryInitialized()) return KV_ERR_NOT_INITIALIZED;
  if (kv::pki::ContextOp(ctx) == nullptr) return KV_ERR_BAD_CONTEXT;
  return 0;
}

int Prepare(KV_PKCS10& req, const char* subject, const unsigned char* n, unsigned nLen,
            const unsigned char* e, unsigned eLen, const KV_LIST* attributes) {
  if (n == nullptr || nLen == 0 || e == nullptr || eLen == 0) return KV_ERR_ARGUMENT;
  int rv = req.setSubject(subject);
  if (rv != 0) return rv;
  RSAPublicKey key;
  key.SetPkModulus(Unsigned(n, nLen));
  key.SetPublicExponent(Unsigned(e, eLen));
  rv = req.setPublicKey(key);
  unsigned count = 0;
  if (rv == 0 && attributes != nullptr) rv = KV_ListCount(attributes, &count);
  for (unsigned i = 0; rv == 0 && i < count; ++i) {
    const unsigned char* p = nullptr;
    unsigned len = 0;
    rv = KV_ListGet(attributes, i, &p, &len);
    if (rv == 0) rv = req.addAttribute(MiByte(reinterpret_cast<const char*>(p), len));
  }
  return rv;
}

int Output(const KV_PKCS10& req, unsigned char** der, unsigned* derLen) {
  MiByte out;
  int rv = req.getRequest(out);
  if (rv != 0) return rv;
  auto* block = static_cast<unsigned char*>(T_malloc(out.GetLength()));
  if (block == nullptr) return KV_ERR_MEMORY;
  std::memcpy(block, out.GetBytes(), out.GetLength());
  *der = block;
  *derLen = out.GetLength();
  return 0;
}

unsigned char* CopyOut(const MiByte& b, unsigned& len) {
  // One spare octet, as the key conversions allocate.
  auto* p = static_cast<unsigned char*>(T_malloc(b.GetLength() + 1));
  if (p == nullptr) throw std::bad_alloc();
  std::memcpy(p, b.GetBytes(), b.GetLength());
  p[b.GetLength()] = 0;
  len = b.GetLength();
  return p;
}

}  // namespace

extern "C" {

int KVPKCS_GenPKCS10(PKCS_CTX ctx, const char* subject, const PKCS_PUBKEY* key,
                     const KV_LIST* attributes, KV_PKCS10_SIGN_FN sign, void* arg,
                     unsigned char** der, unsigned int* derLen) {
  int rv = CheckContext(ctx);
  if (rv != 0) return rv;
  if (key == nullptr || sign == nullptr || der == nullptr || derLen == nullptr) {
    return KV_ERR_ARGUMENT;
  }
  *der = nullptr;
  *derLen = 0;
  return Guard([&]() -> int {
    KV_PKCS10 req;
    int status = Prepare(req, subject, key->modulus, key->modulusLen, key->exponent,
                         key->exponentLen, attributes);
    if (status != 0) return status;
    unsigned k = 0;
    for (unsigned i = 0; i < key->modulusLen && key->modulus[i] == 0; ++i) ++k;
    const unsigned modLen = key->modulusLen - k;
    status = req.sign([&](const MiByte& info, MiByte& signature) -> int {
      std::vector<unsigned char> sig(modLen);
      unsigned sigLen = modLen;
      int r = sign(arg, info.GetBytes(), info.GetLength(), sig.data(), &sigLen);
      if (r != 0) return r;
      if (sigLen == 0 || sigLen > modLen) return KV_ERR_SIGNATURE;
      // Leading zero octets the signer left out are put back.
      MiByte full(modLen - sigLen, 0);
      full.Concat(reinterpret_cast<const char*>(sig.data()), sigLen);
      signature = full;
      return 0;
    });
    if (status != 0) return status;
    return Output(req, der, derLen);
  });
}

int KVPKCS_GenPKCS10WithKey(PKCS_CTX ctx, const char* subject, const PKCS_PRIKEY* key,
                            const KV_LIST* attributes, unsigned char** der, unsigned int* derLen) {
  int rv = CheckContext(ctx);
  if (rv != 0) return rv;
  if (key == nullptr || der == nullptr || derLen == nullptr) return KV_ERR_ARGUMENT;
  *der = nullptr;
  *derLen = 0;
  return Guard([&]() -> int {
    const unsigned char* parts[8] = {key->modulus,   key->publicExponent, key->privateExponent,
                                     key->prime1,    key->prime2,         key->exponent1,
                                     key->exponent2, key->coefficient};
    const unsigned lens[8] = {key->modulusLen,   key->publicExponentLen, key->privateExponentLen,
                              key->prime1Len,    key->prime2Len,         key->exponent1Len,
                              key->exponent2Len, key->coefficientLen};
    for (int i = 0; i < 8; ++i)
      if (parts[i] == nullptr || lens[i] == 0) return KV_ERR_ARGUMENT;
    KV_PKCS10 req;
    int status = Prepare(req, subject, parts[0], lens[0], parts[1], lens[1], attributes);
    if (status != 0) return status;
    RSAPrivateKey rsa;
    rsa.SetVersion(AsnInteger(int64_t(0)));
    rsa.SetPkModulus(Unsigned(parts[0], lens[0]));
    rsa.SetPublicExponent(Unsigned(parts[1], lens[1]));
    rsa.SetPrivateExponent(Unsigned(parts[2], lens[2]));
    rsa.SetPrime1(Unsigned(parts[3], lens[3]));
    rsa.SetPrime2(Unsigned(parts[4], lens[4]));
    rsa.SetExponent1(Unsigned(parts[5], lens[5]));
    rsa.SetExponent2(Unsigned(parts[6], lens[6]));
    rsa.SetCoefficient(Unsigned(parts[7], lens[7]));
    KV_P11_Key privateKey;
    status = privateKey.setRSAPrivateKey(rsa);
    if (status == 0) status = privateKey.setKeyType(KV_KEY_RSA_PRIVATE);
    if (status == 0) status = req.sign(*kv::pki::ContextOp(ctx), privateKey);
    if (status != 0) return status;
    return Output(req, der, derLen);
  });
}

int KVPKCS_DecomposePKCS10(PKCS_CTX ctx, const unsigned char* der, unsigned int len, KV_LIST* parts,
                           PKCS_PUBKEY* key) {
  int rv = CheckContext(ctx);
  if (rv != 0) return rv;
  if (der == nullptr || len == 0 || key == nullptr) return KV_ERR_ARGUMENT;
  return Guard([&]() -> int {
    KV_PKCS10 req;
    int status = req.setRequest(MiByte(reinterpret_cast<const char*>(der), len));
    RSAPublicKey rsa;
    if (status == 0) status = req.getRSAPublicKey(rsa);
    if (status != 0) return status;
    if (parts != nullptr) {
      KV_ListClear(parts);
      KV_Name subject;
      MiByte item;
      status = req.getSubject(subject);
      if (status == 0) status = subject.getName(item);
      if (status == 0) status = KV_ListAppend(parts, item.GetBytes(), item.GetLength());
      int total = 0;
      req.getAttributeTotal(total);
      for (int i = 0; status == 0 && i < total; ++i) {
        status = req.getAttribute(i, item);
        if (status == 0) status = KV_ListAppend(parts, item.GetBytes(), item.GetLength());
      }
      if (status != 0) {
        KV_ListClear(parts);
        return status;
      }
    }
    PKCS_FreePubKey(ctx, key);
    key->modulus = CopyOut(rsa.GetPkModulus()->GetData().GetMagnitude(), key->modulusLen);
    try {
      key->exponent = CopyOut(rsa.GetPublicExponent()->GetData().GetMagnitude(), key->exponentLen);
    } catch (...) {
      PKCS_FreePubKey(ctx, key);
      throw;
    }
    return 0;
  });
}

int KVPKCS_VerifyPKCS10(PKCS_CTX ctx, const unsigned char* der, unsigned int len) {
  int rv = CheckContext(ctx);
  if (rv != 0) return rv;
  if (der == nullptr || len == 0) return KV_ERR_ARGUMENT;
  return Guard([&]() -> int {
    KV_PKCS10 req;
    int status = req.setRequest(MiByte(reinterpret_cast<const char*>(der), len));
    return status != 0 ? status : req.verify(*kv::pki::ContextOp(ctx));
  });
}

}  // extern "C"
