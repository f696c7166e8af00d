// The password-based pieces of PKCS #12 (RFC 7292 appendix B and C): the
// BMPString password, the SHA-1 key derivation, HMAC-SHA-1 and the six PBE
// schemes, all run through a KV_P11_OP.
#pragma once

#include "asn1/mi_byte.h"
#include "crypto/p11.h"

namespace kv::pki::p12 {

// The password as a BMPString (UTF-16 big-endian, surrogate pairs beyond the
// basic plane) with two zero octets at the end. Null gives the same as "".
// False for text that is not UTF-8.
bool PasswordToBmp(const char* utf8, MiByte& out);

// Key material purposes of appendix B.3.
enum { kIdKey = 1, kIdIv = 2, kIdMac = 3 };

// Appendix B.2 with SHA-1: n octets for purpose id from the BMP password and
// salt, with `iterations` rounds of the digest. 0 or a token status.
int DeriveKey(KV_P11_OP& op, const MiByte& password, const MiByte& salt, int iterations, int id,
              unsigned n, MiByte& out);

// HMAC-SHA-1 (RFC 2104) built on the operation's SHA-1 digest.
int HmacSha1(KV_P11_OP& op, const MiByte& key, const MiByte& data, MiByte& mac);

// A pbeWithSHAAnd... scheme of appendix C.
struct PbeScheme {
  const char* oid;
  const char* name;
  int algKind;        // KV_ALG_*
  int keyKind;        // KV_KEY_*
  unsigned keyLen;    // octets
  unsigned ivLen;     // 0 for RC4
  int effectiveBits;  // RC2 only
};

// The scheme with that object identifier, or null.
const PbeScheme* FindPbe(const char* oid);

// Scheme names of the build options.
extern const char kPbeSha3Des[];    // pbeWithSHAAnd3-KeyTripleDES-CBC
extern const char kPbeShaRc2_40[];  // pbeWithSHAAnd40BitRC2-CBC

// Encrypts or decrypts in with the scheme's key and IV derived from the
// password and salt. Decryption failures (bad padding) give -1013; other
// token statuses pass through.
int PbeCrypt(KV_P11_OP& op, const PbeScheme& scheme, const MiByte& password, const MiByte& salt,
             int iterations, bool encrypt, const MiByte& in, MiByte& out);

// Overwrites the octets of b (secrets held in MiByte values).
void Wipe(MiByte& b);

}  // namespace kv::pki::p12
