// Key format conversions: the platform's PUBLICKEYBLOB / PRIVATEKEYBLOB, the
// toolkit's RSA key records and PKCS#1 DER. KV_RSABigEncrypt/Decrypt live with
// the token layer.
#include "crypto/keyconv.h"

#include <cstring>
#include <new>

#include "asn1/asn_primitives.h"
#include "asn1/mi_biginteger.h"
#include "asn1/mi_byte.h"
#include "asn1/mi_byte_buffer.h"
#include "asn1/mi_exception.h"
#include "asn1/types/types.h"
#include "crypto/internal/bytes.h"
#include "crypto/internal/keyblob.h"
#include "crypto/internal/wipe.h"

namespace {

using kv::internal::LoadLe32;
using kv::internal::StoreLe32;
using kv::internal::Wipe;
namespace blob = kv::internal::keyblob;

// One record component as a view: the pair of fields of PKCS_PUBKEY / PKCS_PRIKEY.
struct Part {
  unsigned char** data;
  unsigned int* len;
};

// The components of a private record in record order.
void PrivateParts(PKCS_PRIKEY* k, Part (&out)[8]) {
  out[0] = {&k->modulus, &k->modulusLen};
  out[1] = {&k->publicExponent, &k->publicExponentLen};
  out[2] = {&k->privateExponent, &k->privateExponentLen};
  out[3] = {&k->prime1, &k->prime1Len};
  out[4] = {&k->prime2, &k->prime2Len};
  out[5] = {&k->exponent1, &k->exponent1Len};
  out[6] = {&k->exponent2, &k->exponent2Len};
  out[7] = {&k->coefficient, &k->coefficientLen};
}

void FreeBuffer(unsigned char*& p, unsigned int& n, bool secret) {
  if (p) {
    if (secret) Wipe(p, n);
    T_free(p);
  }
  p = nullptr;
  n = 0;
}

// A copy of n octets in a T_malloc buffer with one spare (zero) octet after
// them, so that a caller may treat the value as a terminated string.
unsigned char* NewBuffer(const unsigned char* src, unsigned n) {
  unsigned char* p = static_cast<unsigned char*>(T_malloc(size_t(n) + 1));
  if (!p) return nullptr;
  if (n) std::memcpy(p, src, n);
  p[n] = 0;
  return p;
}

// The same octets in reverse order (little-endian blob <-> big-endian record).
unsigned char* NewReversed(const unsigned char* src, unsigned n) {
  unsigned char* p = static_cast<unsigned char*>(T_malloc(size_t(n) + 1));
  if (!p) return nullptr;
  for (unsigned i = 0; i < n; ++i) p[i] = src[n - 1 - i];
  p[n] = 0;
  return p;
}

bool Set(Part part, unsigned char* p, unsigned n) {
  if (!p) return false;
  *part.data = p;
  *part.len = n;
  return true;
}

// Every status a function may return is decided inside it; this keeps any
// exception that slips through from crossing the C boundary.
template <typename F>
int Guard(F&& body, int on_other) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return KV_CONV_ERR_MEMORY;
  } catch (...) {
    return on_other;
  }
}

// A big-endian component without its leading zero octets.
struct Value {
  const unsigned char* p = nullptr;
  unsigned n = 0;
};

// Null data with a non-zero length is a caller's fault (-1010).
bool Significant(const unsigned char* p, unsigned n, Value& v) {
  if (!p && n) return false;
  while (n && *p == 0) {
    ++p;
    --n;
  }
  v.p = p;
  v.n = n;
  return true;
}

// The exponent word of a blob: at most four significant octets.
int ExponentWord(const unsigned char* p, unsigned n, uint32_t& word) {
  Value v;
  if (!Significant(p, n, v)) return KV_CONV_ERR_ARGUMENT;
  if (v.n > 4) return KV_CONV_ERR_SHAPE;
  word = 0;
  for (unsigned i = 0; i < v.n; ++i) word = (word << 8) | v.p[i];
  return 0;
}

void WriteHeader(unsigned char* out, unsigned char type, uint32_t alg, uint32_t magic,
                 uint32_t bits, uint32_t exponent) {
  out[0] = type;
  out[1] = blob::kVersion;
  out[2] = 0;  // reserved
  out[3] = 0;
  StoreLe32(out + 4, alg);
  StoreLe32(out + 8, magic);
  StoreLe32(out + 12, bits);
  StoreLe32(out + 16, exponent);
}

// Copies a big-endian value reversed to the start of a little-endian slot,
// leaving the rest of the slot as it is. -1006 when it does not fit.
int PutReversed(unsigned char* slot, unsigned slot_len, const unsigned char* p, unsigned n) {
  Value v;
  if (!Significant(p, n, v)) return KV_CONV_ERR_ARGUMENT;
  if (v.n > slot_len) return KV_CONV_ERR_SHAPE;
  for (unsigned i = 0; i < v.n; ++i) slot[i] = v.p[v.n - 1 - i];
  return 0;
}

// The size query and the short-buffer check shared by every writer.
// Returns 1 when the caller should go on and write `size` octets.
int CheckOutput(const unsigned char* out, unsigned int* length, unsigned size) {
  if (!length) return KV_CONV_ERR_ARGUMENT;
  if (!out) {
    *length = size;
    return 0;
  }
  if (*length < size) return KV_CONV_ERR_BUFFER;
  return 1;
}

bool BitLengthAccepted(uint32_t bits) {
  return bits == 512 || bits == 1024 || bits == 2048;
}

// Reads a blob into a fresh record; the caller's record is only replaced on
// success, so a failure leaves it as it was.
int ReadPublicBlob(const unsigned char* in, PKCS_PUBKEY* key) {
  const uint32_t bits = LoadLe32(in + blob::kBitLenOffset);
  if (!BitLengthAccepted(bits)) return KV_CONV_ERR_BITLEN;
  const unsigned k = bits / 8;
  const MiByte e = MiBigInteger::FromUInt64(LoadLe32(in + blob::kExponentOffset)).GetMagnitude();
  PKCS_PUBKEY fresh = {};
  const bool ok =
      Set({&fresh.exponent, &fresh.exponentLen}, NewBuffer(e.GetBytes(), e.GetLength()),
          e.GetLength()) &&
      Set({&fresh.modulus, &fresh.modulusLen}, NewReversed(in + blob::kHeaderSize, k), k);
  if (!ok) {
    PKCS_FreePubKey(nullptr, &fresh);
    return KV_CONV_ERR_MEMORY;
  }
  PKCS_FreePubKey(nullptr, key);
  *key = fresh;
  return 0;
}

int ReadPrivateBlob(const unsigned char* in, PKCS_PRIKEY* key) {
  const uint32_t bits = LoadLe32(in + blob::kBitLenOffset);
  if (!BitLengthAccepted(bits)) return KV_CONV_ERR_BITLEN;
  const unsigned k = bits / 8;
  const MiByte e = MiBigInteger::FromUInt64(LoadLe32(in + blob::kExponentOffset)).GetMagnitude();
  PKCS_PRIKEY fresh = {};
  Part parts[8];
  PrivateParts(&fresh, parts);
  bool ok = Set(parts[1], NewBuffer(e.GetBytes(), e.GetLength()), e.GetLength());
  // The blob's order: n, p, q, dP, dQ, qInv (half size), then d.
  static const int kRecordIndex[7] = {0, 3, 4, 5, 6, 7, 2};
  const unsigned char* at = in + blob::kHeaderSize;
  for (int i = 0; i < 7 && ok; ++i) {
    const unsigned n = blob::PrivateSlotSize(k, i);
    ok = Set(parts[kRecordIndex[i]], NewReversed(at, n), n);
    at += n;
  }
  if (!ok) {
    PKCS_FreePriKey(nullptr, &fresh);
    return KV_CONV_ERR_MEMORY;
  }
  PKCS_FreePriKey(nullptr, key);
  *key = fresh;
  return 0;
}

// Writes a PRIVATEKEYBLOB of `bits` into out (at least its size), the
// components copied over whatever out held.
int WritePrivateBlob(const PKCS_PRIKEY* key, uint32_t bits, unsigned char* out) {
  uint32_t e = 0;
  int rc = ExponentWord(key->publicExponent, key->publicExponentLen, e);
  if (rc) return rc;
  const unsigned k = bits / 8;
  const unsigned char* data[7] = {key->modulus,        key->prime1,    key->prime2,
                                  key->exponent1,      key->exponent2, key->coefficient,
                                  key->privateExponent};
  const unsigned len[7] = {key->modulusLen,        key->prime1Len,    key->prime2Len,
                           key->exponent1Len,      key->exponent2Len, key->coefficientLen,
                           key->privateExponentLen};
  // Check every component before writing anything.
  for (int i = 0; i < 7; ++i) {
    Value v;
    if (!Significant(data[i], len[i], v)) return KV_CONV_ERR_ARGUMENT;
    if (v.n > blob::PrivateSlotSize(k, i)) return KV_CONV_ERR_SHAPE;
  }
  WriteHeader(out, blob::kPrivateKeyBlob, blob::kCalgRsaKeyx, blob::kMagicRsa2, bits, e);
  unsigned char* at = out + blob::kHeaderSize;
  for (int i = 0; i < 7; ++i) {
    const unsigned n = blob::PrivateSlotSize(k, i);
    PutReversed(at, n, data[i], len[i]);
    at += n;
  }
  return 0;
}

int WritePrivateFixed(const PKCS_PRIKEY* key, uint32_t bits, unsigned char* out,
                      unsigned int* length) {
  if (!key) return KV_CONV_ERR_ARGUMENT;
  const unsigned size = blob::PrivateBlobSize(bits);
  int rc = CheckOutput(out, length, size);
  if (rc != 1) return rc;
  rc = WritePrivateBlob(key, bits, out);
  if (rc) return rc;
  *length = size;
  return 0;
}

// Hands a finished encoding to the caller under the buffer rule.
int Deliver(const unsigned char* src, unsigned n, unsigned char* out, unsigned int* length) {
  int rc = CheckOutput(out, length, n);
  if (rc != 1) return rc;
  std::memcpy(out, src, n);
  *length = n;
  return 0;
}

// --- PKCS#1 DER ---------------------------------------------------------

AsnInteger Integer(const unsigned char* p, unsigned n) {
  return AsnInteger(MiBigInteger::FromMagnitude(p, n));
}

// Present and non-empty, or the record lacks it.
bool Has(const unsigned char* p, unsigned n) {
  return p && n;
}

// The runtime's decoder reads mandatory elements without checking their tags
// and accepts non-minimal lengths and integers, so a key decoder first checks
// that the input is strictly DER: one SEQUENCE covering the whole input, of
// INTEGERs only, each with minimal length and minimal non-negative content.
// Returns the number of INTEGERs, or a negative status.
int ReadLength(const unsigned char* p, unsigned n, unsigned& pos, unsigned& len) {
  if (pos >= n) return KV_CONV_ERR_DECODE;
  const unsigned char first = p[pos++];
  if (first < 0x80) {
    len = first;
    return 0;
  }
  const unsigned count = first & 0x7F;
  if (count == 0 || count > 4 || count > n - pos) return KV_CONV_ERR_DECODE;
  if (p[pos] == 0) return KV_CONV_ERR_DECODE;  // leading zero: not minimal
  len = 0;
  for (unsigned i = 0; i < count; ++i) len = (len << 8) | p[pos++];
  if (len < 0x80) return KV_CONV_ERR_DECODE;  // long form for a short length
  return 0;
}

int CountDerIntegers(const unsigned char* p, unsigned n) {
  unsigned pos = 0;
  unsigned len = 0;
  if (n == 0 || p[pos++] != 0x30) return KV_CONV_ERR_DECODE;
  if (ReadLength(p, n, pos, len) || len != n - pos) return KV_CONV_ERR_DECODE;
  int count = 0;
  while (pos < n) {
    if (p[pos++] != 0x02) return KV_CONV_ERR_DECODE;
    if (ReadLength(p, n, pos, len) || len > n - pos || len == 0) return KV_CONV_ERR_DECODE;
    const unsigned char* c = p + pos;
    if (c[0] & 0x80) return KV_CONV_ERR_DECODE;                             // negative
    if (len > 1 && c[0] == 0 && !(c[1] & 0x80)) return KV_CONV_ERR_DECODE;  // not minimal
    pos += len;
    ++count;
  }
  return count;
}

// Checks the shape, then decodes through the catalogue type.
int DecodeStrict(const unsigned char* der, unsigned derLen, int fields, AsnObject& obj) {
  if (!der) return KV_CONV_ERR_ARGUMENT;
  const int count = CountDerIntegers(der, derLen);
  if (count < 0) return count;
  if (count < fields) return KV_CONV_ERR_MISSING;
  if (count > fields) return KV_CONV_ERR_DECODE;
  try {
    MiByte in(reinterpret_cast<const char*>(der), derLen);
    if (obj.DerDecode(in, 0) != derLen) return KV_CONV_ERR_DECODE;
  } catch (const MiException&) {
    return KV_CONV_ERR_DECODE;
  }
  return 0;
}

// The strict check let through only minimal non-negative integers, so the
// magnitude is the octets without a sign octet (zero stays one 00 octet).
bool Take(const AsnInteger* i, Part part) {
  const MiBigInteger& v = i->GetData();
  const unsigned char* p = v.Data();
  unsigned n = v.Size();
  if (n > 1 && p[0] == 0) {
    ++p;
    --n;
  }
  return Set(part, NewBuffer(p, n), n);
}

int EncodeToCaller(const AsnObject& obj, unsigned char* der, unsigned int* length, bool secret) {
  MiByteBuffer out;
  obj.DerEncode(out, 0);
  const int rc = Deliver(out.GetBytes(), out.GetLength(), der, length);
  if (secret && out.GetLength()) Wipe(out.GetChars(), out.GetLength());
  return rc;
}

}  // namespace

extern "C" {

int PKCS_InitPubKey(PKCS_CTX, PKCS_PUBKEY* key) {
  if (key) *key = PKCS_PUBKEY{};
  return 0;
}

int PKCS_FreePubKey(PKCS_CTX, PKCS_PUBKEY* key) {
  if (!key) return 0;
  FreeBuffer(key->modulus, key->modulusLen, false);
  FreeBuffer(key->exponent, key->exponentLen, false);
  return 0;
}

int PKCS_InitPriKey(PKCS_CTX, PKCS_PRIKEY* key) {
  if (key) *key = PKCS_PRIKEY{};
  return 0;
}

int PKCS_FreePriKey(PKCS_CTX, PKCS_PRIKEY* key) {
  if (!key) return 0;
  Part parts[8];
  PrivateParts(key, parts);
  for (int i = 0; i < 8; ++i) FreeBuffer(*parts[i].data, *parts[i].len, i >= 2);
  return 0;
}

int KV_MSPubKeyToIPK(PKCS_CTX, const unsigned char* blob, PKCS_PUBKEY* key) {
  if (!blob || !key) return KV_CONV_ERR_ARGUMENT;
  return Guard([&]() -> int { return ReadPublicBlob(blob, key); }, KV_CONV_ERR_MEMORY);
}

int KV_MSPubKeyToIPKEx(PKCS_CTX, const unsigned char* blob, unsigned int blobLen,
                       PKCS_PUBKEY* key) {
  if (!blob || !key || blobLen < blob::kHeaderSize) return KV_CONV_ERR_ARGUMENT;
  const uint32_t bits = LoadLe32(blob + blob::kBitLenOffset);
  if (!BitLengthAccepted(bits)) return KV_CONV_ERR_BITLEN;
  if (blobLen < blob::PublicBlobSize(bits)) return KV_CONV_ERR_ARGUMENT;
  return Guard([&]() -> int { return ReadPublicBlob(blob, key); }, KV_CONV_ERR_MEMORY);
}

int KV_MSPriKeyToIPK(PKCS_CTX, const unsigned char* blob, PKCS_PRIKEY* key) {
  if (!blob || !key) return KV_CONV_ERR_ARGUMENT;
  return Guard([&]() -> int { return ReadPrivateBlob(blob, key); }, KV_CONV_ERR_MEMORY);
}

int KV_MSPriKeyToIPKEx(PKCS_CTX, const unsigned char* blob, unsigned int blobLen,
                       PKCS_PRIKEY* key) {
  if (!blob || !key || blobLen < blob::kHeaderSize) return KV_CONV_ERR_ARGUMENT;
  const uint32_t bits = LoadLe32(blob + blob::kBitLenOffset);
  if (!BitLengthAccepted(bits)) return KV_CONV_ERR_BITLEN;
  if (blobLen < blob::PrivateBlobSize(bits)) return KV_CONV_ERR_ARGUMENT;
  return Guard([&]() -> int { return ReadPrivateBlob(blob, key); }, KV_CONV_ERR_MEMORY);
}

int KV_IPKToMSPubKey(PKCS_CTX, const PKCS_PUBKEY* key, unsigned char* blob, unsigned int* length) {
  if (!key) return KV_CONV_ERR_ARGUMENT;
  const unsigned size = blob::PublicBlobSize(2048);
  int rc = CheckOutput(blob, length, size);
  if (rc != 1) return rc;
  // Only 2048-bit keys with a three-octet exponent, a limit the callers rely on.
  if (key->exponentLen != 3 || key->modulusLen != 256) return KV_CONV_ERR_SHAPE;
  if (!key->exponent || !key->modulus) return KV_CONV_ERR_ARGUMENT;
  const uint32_t e =
      (uint32_t(key->exponent[0]) << 16) | (uint32_t(key->exponent[1]) << 8) | key->exponent[2];
  WriteHeader(blob, blob::kPublicKeyBlob, blob::kCalgRsaSign, blob::kMagicRsa1, 2048, e);
  for (unsigned i = 0; i < 256; ++i) blob[blob::kHeaderSize + i] = key->modulus[255 - i];
  *length = size;
  return 0;
}

int KV_IPKToMSPriKey(PKCS_CTX, const PKCS_PRIKEY* key, unsigned char* blob, unsigned int* length) {
  return WritePrivateFixed(key, 2048, blob, length);
}

int KV_IPKToMSPriKey1024(PKCS_CTX, const PKCS_PRIKEY* key, unsigned char* blob,
                         unsigned int* length) {
  return WritePrivateFixed(key, 1024, blob, length);
}

int KV_PKCS1PubKeyEncode(PKCS_CTX, const PKCS_PUBKEY* key, unsigned char* der,
                         unsigned int* length) {
  if (!key || !length) return KV_CONV_ERR_ARGUMENT;
  if (!Has(key->modulus, key->modulusLen) || !Has(key->exponent, key->exponentLen))
    return KV_CONV_ERR_ARGUMENT;
  return Guard(
      [&]() -> int {
        RSAPublicKey rsa;
        rsa.SetPkModulus(Integer(key->modulus, key->modulusLen));
        rsa.SetPublicExponent(Integer(key->exponent, key->exponentLen));
        return EncodeToCaller(rsa, der, length, false);
      },
      KV_CONV_ERR_MEMORY);
}

int KV_PKCS1PubKeyDecode(PKCS_CTX, const unsigned char* der, unsigned int derLen,
                         PKCS_PUBKEY* key) {
  if (!key) return KV_CONV_ERR_ARGUMENT;
  return Guard(
      [&]() -> int {
        RSAPublicKey rsa;
        int rc = DecodeStrict(der, derLen, 2, rsa);
        if (rc) return rc;
        const AsnInteger* n = rsa.GetPkModulus();
        const AsnInteger* e = rsa.GetPublicExponent();
        if (!n || !e) return KV_CONV_ERR_MISSING;
        PKCS_PUBKEY fresh = {};
        if (!Take(n, {&fresh.modulus, &fresh.modulusLen}) ||
            !Take(e, {&fresh.exponent, &fresh.exponentLen})) {
          PKCS_FreePubKey(nullptr, &fresh);
          return KV_CONV_ERR_MEMORY;
        }
        PKCS_FreePubKey(nullptr, key);
        *key = fresh;
        return 0;
      },
      KV_CONV_ERR_DECODE);
}

int KV_PKCS1PriKeyEncode(PKCS_CTX, const PKCS_PRIKEY* key, unsigned char* der,
                         unsigned int* length) {
  if (!key || !length) return KV_CONV_ERR_ARGUMENT;
  PKCS_PRIKEY copy = *key;  // a view only, for the uniform field walk
  Part parts[8];
  PrivateParts(&copy, parts);
  for (const Part& p : parts) {
    if (!Has(*p.data, *p.len)) return KV_CONV_ERR_ARGUMENT;
  }
  return Guard(
      [&]() -> int {
        RSAPrivateKey rsa;
        rsa.SetVersion(AsnInteger(int64_t{0}));
        rsa.SetPkModulus(Integer(key->modulus, key->modulusLen));
        rsa.SetPublicExponent(Integer(key->publicExponent, key->publicExponentLen));
        rsa.SetPrivateExponent(Integer(key->privateExponent, key->privateExponentLen));
        rsa.SetPrime1(Integer(key->prime1, key->prime1Len));
        rsa.SetPrime2(Integer(key->prime2, key->prime2Len));
        rsa.SetExponent1(Integer(key->exponent1, key->exponent1Len));
        rsa.SetExponent2(Integer(key->exponent2, key->exponent2Len));
        rsa.SetCoefficient(Integer(key->coefficient, key->coefficientLen));
        return EncodeToCaller(rsa, der, length, true);
      },
      KV_CONV_ERR_MEMORY);
}

int KV_PKCS1PriKeyDecode(PKCS_CTX, const unsigned char* der, unsigned int derLen,
                         PKCS_PRIKEY* key) {
  if (!key) return KV_CONV_ERR_ARGUMENT;
  return Guard(
      [&]() -> int {
        RSAPrivateKey rsa;
        int rc = DecodeStrict(der, derLen, 9, rsa);
        if (rc) return rc;
        const AsnInteger* version = rsa.GetVersion();
        const AsnInteger* values[8] = {rsa.GetPkModulus(),       rsa.GetPublicExponent(),
                                       rsa.GetPrivateExponent(), rsa.GetPrime1(),
                                       rsa.GetPrime2(),          rsa.GetExponent1(),
                                       rsa.GetExponent2(),       rsa.GetCoefficient()};
        if (!version) return KV_CONV_ERR_MISSING;
        for (const AsnInteger* v : values) {
          if (!v) return KV_CONV_ERR_MISSING;
        }
        // Two-prime keys only: version 1 announces further primes the record
        // has no room for.
        if (!version->GetData().IsZero()) return KV_CONV_ERR_DECODE;
        PKCS_PRIKEY fresh = {};
        Part parts[8];
        PrivateParts(&fresh, parts);
        for (int i = 0; i < 8; ++i) {
          if (!Take(values[i], parts[i])) {
            PKCS_FreePriKey(nullptr, &fresh);
            return KV_CONV_ERR_MEMORY;
          }
        }
        PKCS_FreePriKey(nullptr, key);
        *key = fresh;
        return 0;
      },
      KV_CONV_ERR_DECODE);
}

int KV_MSPubKeyToP1Der(const unsigned char* blob, unsigned char* der, unsigned int* length) {
  if (!blob || !length) return KV_CONV_ERR_ARGUMENT;
  PKCS_PUBKEY key = {};
  int rc = KV_MSPubKeyToIPK(nullptr, blob, &key);
  if (rc == 0) rc = KV_PKCS1PubKeyEncode(nullptr, &key, der, length);
  PKCS_FreePubKey(nullptr, &key);
  return rc;
}

int KV_P1DerToMSPubKey(const unsigned char* der, unsigned int derLen, unsigned char* blob,
                       unsigned int* length) {
  if (!der || !length) return KV_CONV_ERR_ARGUMENT;
  PKCS_PUBKEY key = {};
  int rc = KV_PKCS1PubKeyDecode(nullptr, der, derLen, &key);
  if (rc) return rc;
  uint32_t e = 0;
  Value n;
  Significant(key.modulus, key.modulusLen, n);
  const uint32_t bits = n.n * 8;
  if (!BitLengthAccepted(bits)) {
    rc = KV_CONV_ERR_BITLEN;
  } else if ((rc = ExponentWord(key.exponent, key.exponentLen, e)) == 0 &&
             (rc = CheckOutput(blob, length, blob::PublicBlobSize(bits))) == 1) {
    WriteHeader(blob, blob::kPublicKeyBlob, blob::kCalgRsaSign, blob::kMagicRsa1, bits, e);
    for (unsigned i = 0; i < n.n; ++i) blob[blob::kHeaderSize + i] = n.p[n.n - 1 - i];
    *length = blob::PublicBlobSize(bits);
    rc = 0;
  }
  PKCS_FreePubKey(nullptr, &key);
  return rc;
}

int KV_MSPriKeyToP1Der(const unsigned char* blob, unsigned char* der, unsigned int* length) {
  if (!blob || !length) return KV_CONV_ERR_ARGUMENT;
  PKCS_PRIKEY key = {};
  int rc = KV_MSPriKeyToIPK(nullptr, blob, &key);
  if (rc == 0) rc = KV_PKCS1PriKeyEncode(nullptr, &key, der, length);
  PKCS_FreePriKey(nullptr, &key);
  return rc;
}

int KV_P1DerToMSPriKey(const unsigned char* der, unsigned int derLen, unsigned char* blob,
                       unsigned int* length) {
  if (!der || !length) return KV_CONV_ERR_ARGUMENT;
  PKCS_PRIKEY key = {};
  int rc = KV_PKCS1PriKeyDecode(nullptr, der, derLen, &key);
  if (rc) return rc;
  // The decoded modulus is minimal, so its octets give the key size.
  const uint32_t bits = key.modulusLen * 8;
  if (!BitLengthAccepted(bits)) {
    rc = KV_CONV_ERR_BITLEN;
  } else if ((rc = CheckOutput(blob, length, blob::PrivateBlobSize(bits))) == 1) {
    // Unlike KV_IPKToMSPriKey the whole blob is ours to write: short
    // components must not leave the caller's octets behind them.
    std::memset(blob, 0, blob::PrivateBlobSize(bits));
    rc = WritePrivateBlob(&key, bits, blob);
    if (rc == 0) *length = blob::PrivateBlobSize(bits);
  }
  PKCS_FreePriKey(nullptr, &key);
  return rc;
}

}  // extern "C"
