// KV_Certificate: one X.509 certificate with the accessors the kit needs.
// KV_Certificate_Tool: checks a certificate's signature against its issuer.
//
// Statuses: 0, or -1001 a required field is missing, -1002 DER that is not a
// certificate, -1003 no certificate held, -1006 unsupported public key or
// signature algorithm, -1009 the signature does not verify, -1010 no
// certificate given, -1017 index out of range, -1023 issuer mismatch, -1024
// a validity bound of another type, -1025 outside the validity period; the
// token layer's statuses pass through.
#pragma once

#include "asn1/asn1.h"
#include "crypto/p11.h"
#include "pki/errors.h"

class KV_Certificate {
 public:
  KV_Certificate();
  KV_Certificate(const KV_Certificate& other);
  KV_Certificate& operator=(const KV_Certificate& other);
  ~KV_Certificate();

  int setCertificate(const Certificate& cert);
  // Exactly one DER certificate (-1002 otherwise).
  int setCertificate(const MiByte& der);
  int getCertificate(Certificate& cert) const;
  int getCertificate(MiByte& der) const;
  // Only the certificate alternative is held: an extended certificate gives
  // -1006.
  int setExtendedCertificate(const ExtendedCertificateOrCertificate& cert);
  int getExtendedCertificate(ExtendedCertificateOrCertificate& cert) const;

  // The issuer name and serial number, as PKCS#7 names a signer's certificate.
  int getIssuerAndSerialNumber(IssuerAndSerialNumber& out) const;
  // The subject's key; -1006 unless the algorithm is rsaEncryption.
  int getRSAPublicKey(RSAPublicKey& key) const;
  // The subject's RDNs, and one of them as DN node text (see pki/name.h).
  int getSubjectsTotal(int& total) const;
  int getSubjectsByIndex(int index, MiByte& node) const;

  // Whether the system clock (UTC) lies within notBefore .. notAfter, both
  // bounds included.
  int VerifyValidityPeriod() const;
  // The same against a given time (UTC).
  int VerifyValidityPeriod(const MiTime& now) const;

  // Null when no certificate is held.
  const Certificate* certificate() const { return held_ ? &cert_ : nullptr; }

 private:
  Certificate cert_;
  bool held_ = false;
};

class KV_Certificate_Tool {
 public:
  // Verifies cert's signature with issuer's public key, or with its own when
  // issuer is null (a self-signed certificate). The issuer NAMES of both must
  // be equal: the check is meant for a certificate issued directly by a
  // self-signed root, whose issuer and subject coincide. Signatures
  // md2/md5/sha1WithRSAEncryption, and rsaEncryption over data shorter than
  // 117 octets; any other algorithm gives -1006. Runs on op.
  static int VerifyCertificateChain(KV_P11_OP& op, const Certificate* cert,
                                    const Certificate* issuer);
  // The same on DER certificates.
  static int VerifyCertificateChain(KV_P11_OP& op, const MiByte* cert, const MiByte* issuer);
  // Only the signature check of VerifyCertificateChain, with a given key and
  // no comparison of names: for callers that link a chain themselves.
  static int VerifySignature(KV_P11_OP& op, const Certificate& cert, const RSAPublicKey& issuerKey);
};
