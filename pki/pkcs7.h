// PKCS #7 cryptographic messages (RFC 2315) in their six content types:
// data, signedData, envelopedData, signedAndEnvelopedData, digestedData and
// encryptedData, written and read as DER ContentInfo values. The readers also
// take BER (indefinite lengths, strings in segments), as other toolkits write
// it when they stream.
//
// Algorithms: SHA-1, MD5 and MD2 digests; RSA (PKCS #1 v1.5) signatures and
// key transport; DES-CBC, DES-EDE3-CBC, RC2-CBC with 40, 64 or 128 effective
// bits, and RC4 for the content. Signers and recipients are identified by
// issuer and serial number. Every digest, cipher, signature and random draw
// runs through a KV_P11_OP.
//
// Statuses (pki/errors.h): -1002 not DER of the expected structure, -1006
// unsupported algorithm or version, -1009 a signature does not verify, -1010
// null or empty argument, -1011 no matching signer or recipient certificate,
// -1012 wrong content type, -1013 decryption failed (wrong key or corrupted
// ciphertext), -1018 the message digest attribute or the digest of a
// digestedData does not match its content, -1019 output buffer too small,
// -1021 no single leaf certificate; statuses of the token layer pass through.
// A failing reader hands out no content.
#pragma once

#include "crypto/keyconv.h"
#include "pki/flat.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Content types (PKCS7_GetContentType). */
enum {
  PKCS7_TYPE_DATA = 1,
  PKCS7_TYPE_SIGNED = 2,
  PKCS7_TYPE_ENVELOPED = 3,
  PKCS7_TYPE_SIGNED_ENVELOPED = 4,
  PKCS7_TYPE_DIGESTED = 5,
  PKCS7_TYPE_ENCRYPTED = 6
};

/* Content-encryption ciphers. */
enum {
  PKCS7_CIPHER_DES = 1,     /* DES-CBC, 8-octet key */
  PKCS7_CIPHER_DES3 = 2,    /* DES-EDE3-CBC, 24-octet key */
  PKCS7_CIPHER_RC2_40 = 3,  /* RC2-CBC, 5-octet key, 40 effective bits */
  PKCS7_CIPHER_RC2_64 = 4,  /* RC2-CBC, 8-octet key, 64 effective bits */
  PKCS7_CIPHER_RC2_128 = 5, /* RC2-CBC, 16-octet key, 128 effective bits */
  PKCS7_CIPHER_RC4 = 6      /* RC4, 16-octet key */
};

/* Digests are named by the token layer's kinds: KV_ALG_SHA1 (1), KV_ALG_MD5
 * (2), KV_ALG_MD2 (3). */

/* Flags of the signed writers. */
enum {
  PKCS7_DETACHED = 1, /* leave the content out of the message */
  PKCS7_NOATTR = 2,   /* sign the content itself, without authenticated attributes */
  PKCS7_NOCERTS = 4   /* do not carry the signer's certificate */
};

/* One signer: its certificate (DER), its RSA private key and its digest. */
typedef struct PKCS7_SIGNER {
  const unsigned char* cert;
  unsigned int certLen;
  const PKCS_PRIKEY* key;
  int digest;
} PKCS7_SIGNER;

/* Every writer and reader below hands its result out in a buffer of T_malloc
 * (*out, *outLen), which the caller releases with T_free; on failure *out is
 * null and *outLen 0. The context carries the token the cryptography runs on;
 * -1005 for a null or destroyed one where cryptography is needed. */

/* The content type of a ContentInfo (one of PKCS7_TYPE_*): -1012 for a type
 * other than the six, -1002 for input that is not a ContentInfo. */
int PKCS7_GetContentType(const unsigned char* der, unsigned int len, int* type);

int PKCS7_WriteDataMsg(PKCS_CTX ctx, const unsigned char* data, unsigned int len,
                       unsigned char** out, unsigned int* outLen);
int PKCS7_ReadDataMsg(PKCS_CTX ctx, const unsigned char* der, unsigned int len, unsigned char** out,
                      unsigned int* outLen);

/* signedData over data content, one or more signers; extraCerts (may be null)
 * are carried beside the signers' certificates. */
int PKCS7_WriteSignedDataMsg(PKCS_CTX ctx, const unsigned char* data, unsigned int len,
                             const PKCS7_SIGNER* signers, unsigned int signerCount,
                             const KV_LIST* extraCerts, int flags, unsigned char** out,
                             unsigned int* outLen);

/* The certificates-only bundle (signedData without content or signers) that
 * certification authorities return. */
int PKCS7_WriteCertsMsg(PKCS_CTX ctx, const KV_LIST* certs, unsigned char** out,
                        unsigned int* outLen);

/* The certificates a signedData carries, each as DER, appended to certs (a
 * list of KV_CreateList) in message order. Signatures are not checked. The
 * context is not used (null is fine). A signedData without certificates
 * succeeds and appends nothing. */
int PKCS7_ReadSignedDataMsg(PKCS_CTX ctx, const unsigned char* der, unsigned int len,
                            KV_LIST* certs);

/* The certificate of the list that issued no other certificate of it (names
 * compared as DER values), with the output-buffer rule of crypto/keyconv.h.
 * Certificates that occur twice count once. When several qualify, the one
 * that is not self-signed is taken if it is the only such; a list of one
 * self-signed certificate gives that certificate. No candidate, or more than
 * one, gives -1021; a list item that is not a certificate -1002. The context
 * is not used. */
int PKCS7_GetLeafCert(PKCS_CTX ctx, const KV_LIST* certs, unsigned char* out, unsigned int* outLen);

/* Verifies every signer of a signedData. content (may be null) is the
 * detached content. Each signer's certificate is looked up by its issuer and
 * serial number: signerCert (may be null) when it is the one, else among
 * those carried (-1011 when absent); a signerCert that names no signer gives
 * -1011 too. On success the signed content
 * is handed out when out is not null. -1009 bad signature, -1018 message
 * digest attribute mismatch, -1011 no signer. */
int PKCS7_VerifySignedDataMsg(PKCS_CTX ctx, const unsigned char* der, unsigned int len,
                              const unsigned char* content, unsigned int contentLen,
                              const unsigned char* signerCert, unsigned int signerCertLen,
                              unsigned char** out, unsigned int* outLen);

/* envelopedData for every certificate of recipients (RSA keys). */
int PKCS7_WriteEnvelopedDataMsg(PKCS_CTX ctx, const unsigned char* data, unsigned int len,
                                const KV_LIST* recipients, int cipher, unsigned char** out,
                                unsigned int* outLen);
/* Opens an envelopedData with the recipient's certificate (to find its
 * recipient information) and private key. */
int PKCS7_ReadEnvelopedDataMsg(PKCS_CTX ctx, const unsigned char* der, unsigned int len,
                               const unsigned char* cert, unsigned int certLen,
                               const PKCS_PRIKEY* key, unsigned char** out, unsigned int* outLen);

/* signedAndEnvelopedData: one signer, any number of recipients. */
int PKCS7_WriteSignedAndEnvelopedDataMsg(PKCS_CTX ctx, const unsigned char* data, unsigned int len,
                                         const PKCS7_SIGNER* signer, const KV_LIST* recipients,
                                         int cipher, int flags, unsigned char** out,
                                         unsigned int* outLen);
/* Decrypts with the recipient's certificate and key, then verifies every
 * signer (with signerCert when given, else with the carried certificates). */
int PKCS7_ReadSignedAndEnvelopedDataMsg(PKCS_CTX ctx, const unsigned char* der, unsigned int len,
                                        const unsigned char* cert, unsigned int certLen,
                                        const PKCS_PRIKEY* key, const unsigned char* signerCert,
                                        unsigned int signerCertLen, unsigned char** out,
                                        unsigned int* outLen);

int PKCS7_WriteDigestedDataMsg(PKCS_CTX ctx, const unsigned char* data, unsigned int len,
                               int digest, unsigned char** out, unsigned int* outLen);
/* Checks the digest (-1018 on mismatch) and hands out the content. */
int PKCS7_ReadDigestedDataMsg(PKCS_CTX ctx, const unsigned char* der, unsigned int len,
                              unsigned char** out, unsigned int* outLen);

/* encryptedData under a key the parties share; the key length must fit the
 * cipher (8 DES, 16 or 24 DES-EDE3, 1..128 RC2, 1..256 RC4). */
int PKCS7_WriteEncryptedDataMsg(PKCS_CTX ctx, const unsigned char* data, unsigned int len,
                                int cipher, const unsigned char* key, unsigned int keyLen,
                                unsigned char** out, unsigned int* outLen);
int PKCS7_ReadEncryptedDataMsg(PKCS_CTX ctx, const unsigned char* der, unsigned int len,
                               const unsigned char* key, unsigned int keyLen, unsigned char** out,
                               unsigned int* outLen);

#ifdef __cplusplus
}  // extern "C"

#include <ctime>
#include <vector>

#include "asn1/mi_byte.h"
#include "crypto/p11.h"

// The object interface. Every method returns 0 or a status as above and
// throws nothing. Certificates and keys are copied in; readers keep the
// decoded message until the next decode.

// A signer for the writers: certificate DER, private key (kind 6 or a token
// key reference), digest kind, whether to sign authenticated attributes.
struct KV_PKCS7_Signer {
  MiByte cert;
  KV_P11_Key key;
  int digest = KV_ALG_SHA1;
  bool attributes = true;
};

class KV_PKCS7_Data {
 public:
  static int Encode(const MiByte& content, MiByte& out);
  static int Decode(const MiByte& der, MiByte& content);
};

class KV_PKCS7_SignedData {
 public:
  // Writing. Without a signer the message is a certificates-only bundle.
  void setContent(const MiByte& content, bool detached = false);
  int addCertificate(const MiByte& der);
  void addSigner(const KV_PKCS7_Signer& signer, bool carryCertificate = true);
  // The signing-time attribute; the current time unless set.
  void setSigningTime(time_t t) { signingTime_ = t; }
  int encode(KV_P11_OP& op, MiByte& out) const;

  // Reading.
  int decode(const MiByte& der);
  const std::vector<MiByte>& certificates() const { return certs_; }
  // The embedded content (empty when detached).
  const MiByte& content() const { return content_; }
  bool detached() const { return detached_; }
  unsigned signerCount() const;
  // The carried certificate of signer i: -1011 when not carried.
  int signerCertificate(unsigned i, MiByte& cert) const;
  // Verifies signer i, or every signer (at least one is needed: -1011). A
  // null detachedContent uses the embedded content. A signer's certificate is
  // cert when cert names it, else the carried one; a cert that names no
  // signer gives -1011.
  int verifySigner(KV_P11_OP& op, unsigned i, const MiByte* detachedContent,
                   const MiByte* cert) const;
  int verify(KV_P11_OP& op, const MiByte* detachedContent = nullptr,
             const MiByte* cert = nullptr) const;
  // Checks that every signer's certificate chains to one of trusted through
  // the carried certificates and trusted, each certificate signed (SHA-1,
  // MD5 or MD2 with RSA) by the next: -1022 no chain, -1009 a certificate
  // signature that does not hold, -1006 another signature algorithm. The
  // signatures of the message itself are checked by verify.
  int verifyChain(KV_P11_OP& op, const std::vector<MiByte>& trusted,
                  const MiByte* cert = nullptr) const;

 private:
  struct PendingSigner {
    KV_PKCS7_Signer signer;
    bool carry;
  };
  MiByte content_;
  bool detached_ = false;
  std::vector<MiByte> certs_;
  std::vector<PendingSigner> signers_;
  time_t signingTime_ = 0;
  MiByte decoded_;  // the SignedData DER read by decode
};

class KV_PKCS7_EnvelopedData {
 public:
  void setContent(const MiByte& content) { content_ = content; }
  int addRecipient(const MiByte& certDer);
  void setCipher(int cipher) { cipher_ = cipher; }
  int encode(KV_P11_OP& op, MiByte& out) const;

  int decode(const MiByte& der);
  unsigned recipientCount() const;
  // Finds the recipient information of certDer and opens the content with
  // key: -1011 not a recipient, -1013 wrong key or corrupted message.
  int decrypt(KV_P11_OP& op, const MiByte& certDer, KV_P11_Key& key, MiByte& content) const;

 private:
  MiByte content_;
  std::vector<MiByte> recipients_;
  int cipher_ = PKCS7_CIPHER_DES3;
  MiByte decoded_;
};

class KV_PKCS7_SignedAndEnvelopedData {
 public:
  void setContent(const MiByte& content) { content_ = content; }
  int addRecipient(const MiByte& certDer);
  int addCertificate(const MiByte& der);
  void setSigner(const KV_PKCS7_Signer& signer, bool carryCertificate = true);
  void setCipher(int cipher) { cipher_ = cipher; }
  void setSigningTime(time_t t) { signingTime_ = t; }
  int encode(KV_P11_OP& op, MiByte& out) const;

  int decode(const MiByte& der);
  const std::vector<MiByte>& certificates() const { return certs_; }
  // Decrypts as the recipient certDer, then verifies every signer with
  // signerCert or the carried certificates. No content on failure.
  int open(KV_P11_OP& op, const MiByte& certDer, KV_P11_Key& key, const MiByte* signerCert,
           MiByte& content) const;

 private:
  MiByte content_;
  std::vector<MiByte> recipients_;
  std::vector<MiByte> certs_;
  KV_PKCS7_Signer signer_;
  bool haveSigner_ = false;
  bool carry_ = true;
  int cipher_ = PKCS7_CIPHER_DES3;
  time_t signingTime_ = 0;
  MiByte decoded_;
};

class KV_PKCS7_DigestedData {
 public:
  static int Encode(KV_P11_OP& op, int digest, const MiByte& content, MiByte& out);
  // Checks the digest: -1018 when it does not match the content.
  static int Decode(KV_P11_OP& op, const MiByte& der, MiByte& content);
};

class KV_PKCS7_EncryptedData {
 public:
  static int Encode(KV_P11_OP& op, int cipher, const MiByte& key, const MiByte& content,
                    MiByte& out);
  static int Decode(KV_P11_OP& op, const MiByte& der, const MiByte& key, MiByte& content);
};

#endif
