// Shared pieces of the PKCS #7 objects: BER input made DER, ContentInfo
// framing, certificate facts, and the cryptography run through a KV_P11_OP.
// Functions returning int give 0 or a status of pki/errors.h; the others may
// throw the ASN.1 runtime's exceptions, which the callers' guards turn into
// statuses.
#pragma once

#include <string>

#include "asn1/asn1.h"
#include "asn1/types/types.h"
#include "crypto/p11.h"
#include "pki/pkcs7.h"

namespace kv::pkcs7 {

extern const char kOidData[];
extern const char kOidSigned[];
extern const char kOidEnveloped[];
extern const char kOidSignedEnveloped[];
extern const char kOidDigested[];
extern const char kOidEncrypted[];
extern const char kOidRsa[];
extern const char kOidSha1Rsa[];
extern const char kOidMd5Rsa[];
extern const char kOidMd2Rsa[];
extern const char kOidContentTypeAttr[];
extern const char kOidMessageDigestAttr[];
extern const char kOidSigningTimeAttr[];

// The DER form of one BER structure at the start of in: indefinite lengths
// become definite, segmented OCTET STRINGs one string, long lengths minimal.
// Octets after the structure must all be zero (a zero-filled buffer longer
// than its message). False when the input is not such a structure.
bool BerToDer(const unsigned char* in, size_t n, MiByte& out);

// Decodes a ContentInfo from BER/DER: -1002 when it is not one, -1010 for
// empty input. type gets PKCS7_TYPE_* or 0 for an unknown content type.
int ReadContentInfo(const MiByte& der, ContentInfo& info, int& type);
const char* TypeOid(int type);

// The DER encoding of a value.
MiByte Der(const AsnObject& value);
// The contents octets (the encoding without identifier and length).
MiByte ContentsOctets(const MiByte& der);

// ContentInfo { type, [0] content } as DER.
MiByte WrapContentInfo(const char* oid, const AsnObject* content);
// The inner content of an embedded data ContentInfo (empty content when
// absent, detached set): -1012 when the type is not data.
int EmbeddedData(const ContentInfo& info, MiByte& content, bool& detached);
// The octets a signature over info's content covers: the value of a data
// OCTET STRING, else the contents octets of the content.
MiByte SignedOctets(const ContentInfo& info);

// Certificates.
int ParseCertificate(const MiByte& der, Certificate& cert);
IssuerAndSerialNumber IssuerAndSerialOf(const Certificate& cert);
bool Identifies(const IssuerAndSerialNumber& id, const Certificate& cert);
// The subject's RSA key as a kind-5 key: -1006 for another algorithm.
int PublicKeyOf(const Certificate& cert, KV_P11_Key& key);
// A kind-6 key from a record of crypto/keyconv.h.
int PrivateKeyFrom(const PKCS_PRIKEY* record, KV_P11_Key& key);

// Digests and signatures.
bool DigestSupported(int kind);
const char* DigestOid(int kind);
// Kind of a digest identifier, 0 when unknown.
int DigestKindOf(const AlgorithmIdentifier& alg);
AlgorithmIdentifier DigestAlgorithm(int kind);
AlgorithmIdentifier RsaAlgorithm();
int Digest(KV_P11_OP& op, int kind, const MiByte& in, MiByte& out);
// PKCS #1 v1.5 signature over a DigestInfo of digest.
int SignDigest(KV_P11_OP& op, KV_P11_Key& key, int kind, const MiByte& digest, MiByte& sig);
// -1009 when sig is not a signature by key over that digest.
int VerifyDigest(KV_P11_OP& op, KV_P11_Key& key, int kind, const MiByte& digest, const MiByte& sig);

// Key transport (PKCS #1 v1.5 encryption); -1013 when decryption fails.
int EncryptKey(KV_P11_OP& op, KV_P11_Key& pub, const MiByte& cek, MiByte& out);
int DecryptKey(KV_P11_OP& op, KV_P11_Key& priv, const MiByte& wrapped, MiByte& cek);
int Random(KV_P11_OP& op, unsigned n, MiByte& out);

// Content ciphers.
struct Cipher {
  int kind = 0;    // KV_ALG_DES_CBC .. KV_ALG_RC4
  int keyLen = 0;  // octets
  int bits = 0;    // RC2 effective bits
  int ivLen = 0;   // 0 for RC4
};
// The writer's choice for PKCS7_CIPHER_*: -1006 for an unknown one.
int CipherFor(int cipher, Cipher& c);
// The identifier with its IV (and RC2 version).
AlgorithmIdentifier CipherAlgorithm(const Cipher& c, const MiByte& iv);
// Reads an identifier: -1006 unknown algorithm or RC2 version, -1016 RC2
// without parameters, -1002 malformed parameters. keyLen is left 0 for the
// caller to take from the key at hand.
int CipherOf(const AlgorithmIdentifier& alg, Cipher& c, MiByte& iv);
// Key lengths the cipher takes.
bool KeyLengthFits(const Cipher& c, unsigned keyLen);
// CBC with PKCS #5 padding, or RC4. -1013 when decryption finds bad padding.
int EncryptContent(KV_P11_OP& op, const Cipher& c, const MiByte& key, const MiByte& iv,
                   const MiByte& in, MiByte& out);
int DecryptContent(KV_P11_OP& op, const Cipher& c, const MiByte& key, const MiByte& iv,
                   const MiByte& in, MiByte& out);

// EncryptedContentInfo of data: fresh IV from the token.
int SealContent(KV_P11_OP& op, const Cipher& c, const MiByte& key, const MiByte& content,
                EncryptedContentInfo& eci);
// Opens an EncryptedContentInfo; key length checked against the cipher.
int OpenContent(KV_P11_OP& op, const EncryptedContentInfo& eci, const MiByte& key, MiByte& content);

// A flat output: a T_malloc copy. -1031 when memory runs out.
int HandOut(const MiByte& data, unsigned char** out, unsigned int* outLen);

}  // namespace kv::pkcs7
