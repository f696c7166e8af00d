// PKCS#10 certification requests: building one for an RSA key (subject,
// rsaEncryption public key, attributes, signed sha1WithRSAEncryption), taking
// one apart, and checking its signature.
//
// Statuses: 0, or -1001 a required field is missing, -1002 DER that is not a
// request (or an attribute item that is not an Attribute), -1003 no request
// built or read yet, -1004 library not initialised, -1005 bad context, -1006
// a key or signature algorithm other than RSA with MD2/MD5/SHA-1, -1009 the
// signature does not verify, -1010 null argument, -1020 / -1006 subject text
// (pki/dn.h), -1031 memory; the token layer's statuses and a signer's own
// negative status pass through.
#pragma once

#include "crypto/keyconv.h"
#include "pki/flat.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Signs for the builder: info is the DER CertificationRequestInfo; the
 * callback writes the sha1WithRSAEncryption (PKCS#1 v1.5) signature over it,
 * big-endian, into sig, whose room *sigLen is the modulus length, and sets
 * *sigLen to the length written (a shorter value is read as having leading
 * zero octets). Returns 0, or a nonzero status that the builder hands back
 * (positive values become -1009). */
typedef int (*KV_PKCS10_SIGN_FN)(void* arg, const unsigned char* info, unsigned int infoLen,
                                 unsigned char* sig, unsigned int* sigLen);

/* Builds a DER request: subject from DN text (UTF-8, pki/dn.h; null or "" for
 * the empty name), the public key, the attributes (a list of DER Attribute
 * items, or null for none: the request then carries an empty SET), signed by
 * the callback. *der receives a T_malloc block of *derLen octets. */
int KVPKCS_GenPKCS10(PKCS_CTX ctx, const char* subject, const PKCS_PUBKEY* key,
                     const KV_LIST* attributes, KV_PKCS10_SIGN_FN sign, void* arg,
                     unsigned char** der, unsigned int* derLen);

/* The same, signed with a private key record through the context's token. */
int KVPKCS_GenPKCS10WithKey(PKCS_CTX ctx, const char* subject, const PKCS_PRIKEY* key,
                            const KV_LIST* attributes, unsigned char** der, unsigned int* derLen);

/* Takes a DER request apart WITHOUT checking its signature. The key record is
 * released (PKCS_FreePubKey) and refilled with the request's RSA key. When
 * parts is not null it is cleared and receives, in this order: item 0 the DER
 * of the subject Name, then items 1..n the DER of each Attribute as the
 * request carries them. -1006 for a key other than rsaEncryption. */
int KVPKCS_DecomposePKCS10(PKCS_CTX ctx, const unsigned char* der, unsigned int len, KV_LIST* parts,
                           PKCS_PUBKEY* key);

/* Checks a DER request's signature with the key it carries: 0 or -1009
 * (md2/md5/sha1WithRSAEncryption; -1006 for any other algorithm). */
int KVPKCS_VerifyPKCS10(PKCS_CTX ctx, const unsigned char* der, unsigned int len);

#ifdef __cplusplus
}  // extern "C"

#include <functional>

#include "asn1/asn1.h"
#include "crypto/p11.h"
#include "pki/name.h"

class KV_PKCS10 {
 public:
  // Writes the signature (big-endian) over the DER CertificationRequestInfo.
  using Signer = std::function<int(const MiByte& info, MiByte& signature)>;

  KV_PKCS10();

  // The request being built; each setter drops a signature made before.
  int setSubject(const KV_Name& subject);
  int setSubject(const char* dnText);
  int setPublicKey(const RSAPublicKey& key);
  // One DER Attribute, appended (-1002 when it is not one).
  int addAttribute(const MiByte& der);
  int clearAttributes();
  // The DER CertificationRequestInfo that is signed.
  int getCertificationRequestInfo(MiByte& der) const;

  // sha1WithRSAEncryption by a signer, or by a private key (kind 6) on op.
  int sign(const Signer& signer);
  int sign(KV_P11_OP& op, KV_P11_Key& privateKey);

  // The signed request (-1003 before sign or setRequest).
  int getRequest(MiByte& der) const;
  // Reads a DER request (its signature unchecked) in place of the one held.
  int setRequest(const MiByte& der);

  int getSubject(KV_Name& subject) const;
  int getRSAPublicKey(RSAPublicKey& key) const;
  int getAttributeTotal(int& total) const;
  int getAttribute(int index, MiByte& der) const;

  // Checks the held request's signature with its own key, on op.
  int verify(KV_P11_OP& op) const;

 private:
  CertificationRequestInfo info_;
  MiByte infoDer_;  // the signed octets: as read, or as encoded when signed
  MiByte signature_;
  AlgorithmIdentifier signatureAlgorithm_;
  bool signed_ = false;
};
#endif
