// RSA keys of the software containers: the eight components, their platform
// key blobs (BLOBHEADER, RSAPUBKEY, little-endian integers), PKCS#1 DER and
// SubjectPublicKeyInfo, and SHA-1 signing through the RSA engine.
#pragma once

#include <cstdint>
#include <string>

#include "control/platform.h"

namespace kv::control::portable {

// Unsigned big-endian integers without leading zero octets.
struct RsaKey {
  Bytes n, e, d, p, q, dp, dq, qinv;

  unsigned Bits() const;
  bool HasPrivate() const { return !d.empty(); }
  void Wipe();
};

// Generates a key of `bits` from the OS random source; false when the engine
// cannot make that size or fails.
bool GenerateRsaKey(unsigned bits, RsaKey* key);

// Blob layouts: PUBLICKEYBLOB with `algid` in the header; PRIVATEKEYBLOB
// likewise. Integers take (bits + 7) / 8 octets, the CRT halves (bits + 15) / 16.
Bytes PublicKeyBlob(const RsaKey& key, uint32_t algid);
// False when a component does not fit its slot.
bool PrivateKeyBlob(const RsaKey& key, uint32_t algid, Bytes* blob);
// Reads a PRIVATEKEYBLOB; its key algorithm goes to *algid. Returns 0 or the
// platform error (NTE_BAD_TYPE, NTE_BAD_DATA, NTE_BAD_LEN).
uint32_t ReadPrivateKeyBlob(const uint8_t* data, uint32_t len, RsaKey* key, uint32_t* algid);

// PKCS#1 RSAPrivateKey DER; false for anything else.
Bytes EncodeRsaPrivateKey(const RsaKey& key);
bool DecodeRsaPrivateKey(const uint8_t* der, size_t len, RsaKey* key);

// SubjectPublicKeyInfo DER: rsaEncryption with NULL parameters.
Bytes EncodeRsaSpki(const RsaKey& key);
// The modulus and exponent of an rsaEncryption SubjectPublicKeyInfo.
bool DecodeRsaSpki(const uint8_t* der, size_t len, RsaKey* key);

// Whether the private components make a consistent key the engine accepts.
bool CheckPrivateKey(const RsaKey& key);

// PKCS#1 v1.5 signature over a SHA-1 digest, big-endian; false on failure.
bool SignSha1(const RsaKey& key, const uint8_t digest[20], Bytes* signature);

// Upper-case hexadecimal.
std::string Hex(const uint8_t* data, size_t len);

}  // namespace kv::control::portable
