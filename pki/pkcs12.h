// PKCS #12 (PFX) files: building one from a certificate and an RSA private
// key, and reading one back, with the password-based protection of RFC 7292.
//
// What a built file holds (the layout every common PFX reader and the
// platform's PFX import accept):
//   - the private key as PKCS #8 PrivateKeyInfo (rsaEncryption, PKCS #1
//     RSAPrivateKey) in a pkcs8ShroudedKeyBag under
//     pbeWithSHAAnd3-KeyTripleDES-CBC, in an unencrypted SafeContents;
//   - the certificate, then any CA certificates, in certBags inside an
//     EncryptedData SafeContents (pbeWithSHAAnd40BitRC2-CBC by default);
//   - friendlyName (BMPString) and localKeyId attributes on the key bag and
//     the leaf certificate's bag;
//   - MacData: HMAC-SHA-1 with an 8-octet salt and the same iteration count.
// Keys are derived as in RFC 7292 appendix B from the password as a BMPString
// with two zero octets at the end. Passwords are UTF-8 text.
//
// Every digest, cipher and random octet runs through the context's KV_P11_OP.
//
// Statuses (pki/errors.h): -1002 not a PFX / not DER, -1003 nothing usable in
// the file (no key and no certificate), -1004 before PKCS_Initialize, -1005
// null or destroyed context, -1006 a protection scheme we do not implement
// (PBES2 with AES or SHA-2, public-key integrity, more than 1,000,000
// iterations), -1010 a null or empty
// argument, or a password that is not UTF-8, -1013 a bag that does not
// decrypt, -1014 the MAC does not verify (wrong password), -1015 encoding
// failed, -1031 memory; token statuses pass through.
#pragma once

#include "crypto/keyconv.h"
#include "pki/flat.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Encryption of the certificates' SafeContents. */
enum {
  KV_PFX_CERT_RC2_40 = 0, /* pbeWithSHAAnd40BitRC2-CBC: what most readers expect */
  KV_PFX_CERT_3DES = 1,   /* pbeWithSHAAnd3-KeyTripleDES-CBC */
  KV_PFX_CERT_NONE = 2    /* certificates in a plain data SafeContents */
};

/* Build options; a zeroed structure (or a null pointer) means the defaults. */
typedef struct KV_PFX_OPTIONS {
  int iterations;                  /* key derivation and MAC; 0: 2048 */
  int certCipher;                  /* KV_PFX_CERT_*; 0: 40-bit RC2 */
  const char* friendlyName;        /* UTF-8; null or "": no friendlyName */
  const unsigned char* localKeyId; /* null: SHA-1 of the certificate's DER */
  unsigned int localKeyIdLen;
  const KV_LIST* caCerts; /* further certificates (DER); null: none */
} KV_PFX_OPTIONS;

/* Builds a PFX from a certificate (DER), an RSA private key record and a
 * password, with the default options. The DER PFX is returned in *pfx, a
 * buffer of T_malloc the caller releases with T_free, its length in *pfxLen.
 * The certificate must decode as X.509 (-1002) and the key must hold all
 * eight components (-1003). */
int KV_GenPFX(PKCS_CTX ctx, const unsigned char* cert, unsigned int certLen, const PKCS_PRIKEY* key,
              const char* password, unsigned char** pfx, unsigned int* pfxLen);

/* The same with options (null: defaults). -1010 for an unknown certCipher,
 * an iteration count below 1, or a CA certificate that is not DER. */
int KV_GenPFXEx(PKCS_CTX ctx, const unsigned char* cert, unsigned int certLen,
                const PKCS_PRIKEY* key, const char* password, const KV_PFX_OPTIONS* options,
                unsigned char** pfx, unsigned int* pfxLen);

/* What KV_ParsePFX returns. Fill with KV_InitPFXContents before use; release
 * with KV_FreePFXContents. Buffers are of T_malloc. */
typedef struct KV_PFX_CONTENTS {
  int hasKey;           /* 1 when key holds the file's RSA private key */
  PKCS_PRIKEY key;      /* the first RSA key of the file */
  unsigned char* cert;  /* the leaf: the certificate of the key, else the first */
  unsigned int certLen; /* 0 when the file holds no certificate */
  KV_LIST* others;      /* every other certificate, in file order */
  char* friendlyName;   /* UTF-8 of the key's (else the leaf's) friendlyName; null */
} KV_PFX_CONTENTS;

int KV_InitPFXContents(KV_PFX_CONTENTS* contents);
/* Wipes and releases everything; the structure is left initialised. */
int KV_FreePFXContents(KV_PFX_CONTENTS* contents);

/* Reads a DER PFX. The MAC is checked first: a wrong password gives -1014
 * and nothing is returned. Reads the PKCS #12 PBE schemes (40- and 128-bit
 * RC2, 2- and 3-key triple DES, 40- and 128-bit RC4 with SHA-1), plain and
 * shrouded key bags, certBags of X.509 certificates; other bags are skipped.
 * A file without MacData is read as it is. The leaf is the certificate whose
 * localKeyId or public key matches the key. `contents` is released and
 * refilled; on failure it is left empty. */
int KV_ParsePFX(PKCS_CTX ctx, const unsigned char* pfx, unsigned int pfxLen, const char* password,
                KV_PFX_CONTENTS* contents);

#ifdef __cplusplus
}  // extern "C"

#include <string>
#include <vector>

#include "asn1/mi_byte.h"

class KV_P11_OP;

// One bag of a PFX as read, for tools that show what a file holds.
struct KV_PFX_BAG {
  enum Kind { KEY = 1, SHROUDED_KEY = 2, CERT = 3, CRL = 4, SECRET = 5, OTHER = 6 };
  Kind kind = OTHER;
  std::string bagId;         // the bag type's object identifier
  std::string friendlyName;  // UTF-8; empty when absent
  MiByte localKeyId;         // empty when absent
  // KEY and SHROUDED_KEY: the PrivateKeyInfo DER (decrypted); CERT: the
  // certificate DER (x509Certificate only); otherwise the bag value's DER.
  MiByte value;
  // How the bag is protected: "none", or the scheme's name and iterations.
  std::string protection;
};

// A PFX file read into its bags. Plain value.
class KV_PFX {
 public:
  // Reads der with the password (UTF-8; null is the empty password). Returns
  // a status of the table above; on failure the object is empty.
  int Read(KV_P11_OP& op, const MiByte& der, const char* password);

  const std::vector<KV_PFX_BAG>& Bags() const { return bags_; }
  // "none" when the file has no MacData; else e.g. "HMAC-SHA-1, 2048 iterations".
  const std::string& Integrity() const { return integrity_; }

 private:
  std::vector<KV_PFX_BAG> bags_;
  std::string integrity_;
};
#endif
