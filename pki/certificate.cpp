#include "pki/certificate.h"

#include <cstring>

#include "pki/internal/der.h"
#include "pki/internal/guard.h"
#include "pki/name.h"

namespace {

using kv::pki::Guard;

constexpr char kRsaEncryption[] = "1.2.840.113549.1.1.1";

int PublicKeyOf(const Certificate& cert, RSAPublicKey& key) {
  const TBSCertificate* tbs = cert.GetTBSCertificate();
  const SubjectPublicKeyInfo* spki = tbs ? tbs->GetSubjectPublicKeyInfo() : nullptr;
  const AlgorithmIdentifier* alg = spki ? spki->GetAlgorithm() : nullptr;
  if (alg == nullptr || alg->GetAlgorithm() == nullptr) return KV_ERR_MISSING_FIELD;
  if (!alg->GetAlgorithm()->GetData().Equals(kRsaEncryption)) return KV_ERR_UNSUPPORTED;
  const AsnBitString* bits = spki->GetSubjectPublicKey();
  if (bits == nullptr) return KV_ERR_MISSING_FIELD;
  RSAPublicKey decoded;
  if (!kv::pki::DecodeWhole(decoded, bits->GetData().GetByte())) return KV_ERR_DECODE;
  if (decoded.GetPkModulus() == nullptr || decoded.GetPublicExponent() == nullptr) {
    return KV_ERR_MISSING_FIELD;
  }
  key = decoded;
  return 0;
}

// Reads a bound as GeneralizedTime, or else as UTCTime.
int BoundOf(const X509Time* bound, MiTime& time) {
  if (bound == nullptr) return KV_ERR_MISSING_FIELD;
  if (const AsnGeneralizedTime* g = bound->GetGeneralizedTime()) {
    time = g->GetTime();
  } else if (const AsnUTCTime* u = bound->GetUtcTime()) {
    time = u->GetTime();
  } else {
    return KV_ERR_TIME_FORMAT;
  }
  return 0;
}

}  // namespace

KV_Certificate::KV_Certificate() = default;
KV_Certificate::KV_Certificate(const KV_Certificate& other) = default;
KV_Certificate& KV_Certificate::operator=(const KV_Certificate& other) = default;
KV_Certificate::~KV_Certificate() = default;

int KV_Certificate::setCertificate(const Certificate& cert) {
  return Guard([&]() -> int {
    cert_ = cert;
    held_ = true;
    return 0;
  });
}

int KV_Certificate::setCertificate(const MiByte& der) {
  return Guard([&]() -> int {
    Certificate decoded;
    if (!kv::pki::DecodeWhole(decoded, der)) return KV_ERR_DECODE;
    cert_ = decoded;
    held_ = true;
    return 0;
  });
}

int KV_Certificate::getCertificate(Certificate& cert) const {
  if (!held_) return KV_ERR_NOTHING_HELD;
  return Guard([&]() -> int {
    cert = cert_;
    return 0;
  });
}

int KV_Certificate::getCertificate(MiByte& der) const {
  if (!held_) return KV_ERR_NOTHING_HELD;
  return Guard([&]() -> int {
    der = kv::pki::Der(cert_);
    return 0;
  });
}

int KV_Certificate::setExtendedCertificate(const ExtendedCertificateOrCertificate& cert) {
  const Certificate* c = cert.GetCertificate();
  if (c == nullptr) return KV_ERR_UNSUPPORTED;
  return setCertificate(*c);
}

int KV_Certificate::getExtendedCertificate(ExtendedCertificateOrCertificate& cert) const {
  if (!held_) return KV_ERR_NOTHING_HELD;
  return Guard([&]() -> int {
    cert.SetCertificate(cert_);
    return 0;
  });
}

int KV_Certificate::getIssuerAndSerialNumber(IssuerAndSerialNumber& out) const {
  if (!held_) return KV_ERR_NOTHING_HELD;
  return Guard([&]() -> int {
    const TBSCertificate* tbs = cert_.GetTBSCertificate();
    if (tbs == nullptr || tbs->GetIssuer() == nullptr || tbs->GetSerialNumber() == nullptr) {
      return KV_ERR_MISSING_FIELD;
    }
    out.SetIssuer(*tbs->GetIssuer());
    out.SetSerialNumber(*tbs->GetSerialNumber());
    return 0;
  });
}

int KV_Certificate::getRSAPublicKey(RSAPublicKey& key) const {
  if (!held_) return KV_ERR_NOTHING_HELD;
  return Guard([&]() -> int { return PublicKeyOf(cert_, key); });
}

int KV_Certificate::getSubjectsTotal(int& total) const {
  if (!held_) return KV_ERR_NOTHING_HELD;
  return Guard([&]() -> int {
    const TBSCertificate* tbs = cert_.GetTBSCertificate();
    if (tbs == nullptr || tbs->GetSubject() == nullptr) return KV_ERR_MISSING_FIELD;
    return KV_Name(*tbs->GetSubject()).getNameNodeTotal(total);
  });
}

int KV_Certificate::getSubjectsByIndex(int index, MiByte& node) const {
  if (!held_) return KV_ERR_NOTHING_HELD;
  return Guard([&]() -> int {
    const TBSCertificate* tbs = cert_.GetTBSCertificate();
    if (tbs == nullptr || tbs->GetSubject() == nullptr) return KV_ERR_MISSING_FIELD;
    return KV_Name(*tbs->GetSubject()).getNameNodeByIndex(index, node);
  });
}

int KV_Certificate::VerifyValidityPeriod() const {
  return VerifyValidityPeriod(MiTime::Now());
}

int KV_Certificate::VerifyValidityPeriod(const MiTime& now) const {
  if (!held_) return KV_ERR_NOTHING_HELD;
  return Guard([&]() -> int {
    const TBSCertificate* tbs = cert_.GetTBSCertificate();
    const Validity* validity = tbs ? tbs->GetValidity() : nullptr;
    if (validity == nullptr || validity->GetNotBefore() == nullptr ||
        validity->GetNotAfter() == nullptr) {
      return KV_ERR_MISSING_FIELD;
    }
    MiTime notBefore, notAfter;
    int rv = BoundOf(validity->GetNotBefore(), notBefore);
    if (rv == 0) rv = BoundOf(validity->GetNotAfter(), notAfter);
    if (rv != 0) return rv;
    if (now < notBefore || now > notAfter) return KV_ERR_VALIDITY;
    return 0;
  });
}

int KV_Certificate_Tool::VerifyCertificateChain(KV_P11_OP& op, const Certificate* cert,
                                                const Certificate* issuer) {
  if (cert == nullptr) return KV_ERR_ARGUMENT;  // nothing to verify, with or without an issuer
  return Guard([&]() -> int {
    const TBSCertificate* tbs = cert->GetTBSCertificate();
    if (tbs == nullptr || tbs->GetIssuer() == nullptr) return KV_ERR_MISSING_FIELD;
    if (issuer != nullptr) {
      const TBSCertificate* itbs = issuer->GetTBSCertificate();
      if (itbs == nullptr || itbs->GetIssuer() == nullptr) return KV_ERR_MISSING_FIELD;
      if (kv::pki::Der(*tbs->GetIssuer()) != kv::pki::Der(*itbs->GetIssuer())) {
        return KV_ERR_ISSUER;
      }
    }

    RSAPublicKey rsa;
    int rv = PublicKeyOf(issuer ? *issuer : *cert, rsa);
    if (rv != 0) return rv;
    return VerifySignature(op, *cert, rsa);
  });
}

int KV_Certificate_Tool::VerifySignature(KV_P11_OP& op, const Certificate& cert,
                                         const RSAPublicKey& issuerKey) {
  return Guard([&]() -> int {
    const TBSCertificate* tbs = cert.GetTBSCertificate();
    if (tbs == nullptr) return KV_ERR_MISSING_FIELD;
    RSAPublicKey rsa(issuerKey);
    KV_P11_Key key;
    int rv = key.setRSAPublicKey(rsa);
    if (rv == 0) rv = key.setKeyType(KV_KEY_RSA_PUBLIC);
    if (rv != 0) return rv;

    const AlgorithmIdentifier* sigAlg = cert.GetAlgorithmIdentifier();
    const AsnBitString* sigBits = cert.GetEncrypted();
    if (sigAlg == nullptr || sigAlg->GetAlgorithm() == nullptr || sigBits == nullptr) {
      return KV_ERR_MISSING_FIELD;
    }
    const MiString& oid = sigAlg->GetAlgorithm()->GetData();
    int digestKind = 0;
    if (oid.Equals("1.2.840.113549.1.1.5")) {
      digestKind = KV_ALG_SHA1;
    } else if (oid.Equals("1.2.840.113549.1.1.4")) {
      digestKind = KV_ALG_MD5;
    } else if (oid.Equals("1.2.840.113549.1.1.2")) {
      digestKind = KV_ALG_MD2;
    } else if (!oid.Equals(kRsaEncryption)) {
      return KV_ERR_UNSUPPORTED;
    }

    MiByte tbsDer = kv::pki::Der(*tbs);
    MiByte expected;
    if (digestKind != 0) {
      KV_P11_Alg digest;
      rv = digest.setAlgType(digestKind);
      if (rv == 0) rv = op.Digest(digest, tbsDer, expected);
      if (rv != 0) return rv;
    } else {
      // A bare RSA signature carries the data itself, which must fit one
      // 1024-bit block with its padding.
      if (tbsDer.GetLength() >= 117) return KV_ERR_UNSUPPORTED;
      expected = tbsDer;
    }

    MiByte signature = sigBits->GetData().GetByte();
    MiByte opened;
    KV_P11_Alg rsaAlg;
    rv = rsaAlg.setAlgType(KV_ALG_RSA);
    if (rv == 0) rv = op.Decrypt(rsaAlg, key, signature, opened);
    if (rv != 0) return rv;
    DigestInfo info;
    if (!kv::pki::DecodeWhole(info, opened) || info.GetDigest() == nullptr) {
      return KV_ERR_SIGNATURE;
    }
    return info.GetDigest()->GetData() == expected ? 0 : KV_ERR_SIGNATURE;
  });
}

int KV_Certificate_Tool::VerifyCertificateChain(KV_P11_OP& op, const MiByte* cert,
                                                const MiByte* issuer) {
  // An empty buffer counts as an absent certificate.
  if (cert != nullptr && cert->Empty()) cert = nullptr;
  if (issuer != nullptr && issuer->Empty()) issuer = nullptr;
  if (cert == nullptr && issuer == nullptr) return KV_ERR_ARGUMENT;
  return Guard([&]() -> int {
    Certificate c, i;
    if (cert != nullptr && !kv::pki::DecodeWhole(c, *cert)) return KV_ERR_DECODE;
    if (issuer != nullptr && !kv::pki::DecodeWhole(i, *issuer)) return KV_ERR_DECODE;
    return VerifyCertificateChain(op, cert ? &c : nullptr, issuer ? &i : nullptr);
  });
}
