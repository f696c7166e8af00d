// EME-OAEP (PKCS#1 v2.0) with SHA-1 and MGF1-SHA-1. The encoded message is
// k - 1 octets, maskedSeed || maskedDB, so the block handed to the RSA
// operation is 00 || maskedSeed || maskedDB.
#include <cstdint>
#include <cstring>

#include "crypto/internal/rsa_bn.h"
#include "crypto/internal/rsa_internal.h"
#include "crypto/rsa.h"
#include "crypto/sha1.h"

namespace {

constexpr int kErrArg = -2;
constexpr int kErrLength = -3;
constexpr int kErrEmeEncode = -111;
constexpr int kErrEmeDecode = -112;
constexpr int kErrMgf = -114;
constexpr unsigned int kHashLen = kv::Sha1::kDigestSize;

// out ^= MGF1-SHA-1(seed, len).
int Mgf1Xor(const std::uint8_t* seed, unsigned int seed_len, std::uint8_t* out, unsigned int len) {
  // The mask may not exceed 2^32 hash lengths; only reachable on wide size types.
  if (static_cast<std::uint64_t>(len) > (static_cast<std::uint64_t>(1) << 32) * kHashLen)
    return kErrMgf;
  std::uint8_t digest[kHashLen];
  kv::Sha1 h;
  for (std::uint32_t counter = 0, done = 0; done < len; ++counter) {
    std::uint8_t c[4] = {
        static_cast<std::uint8_t>(counter >> 24), static_cast<std::uint8_t>(counter >> 16),
        static_cast<std::uint8_t>(counter >> 8), static_cast<std::uint8_t>(counter)};
    h.Update(seed, seed_len);
    h.Update(c, 4);
    h.Final(digest);
    unsigned int take = len - done < kHashLen ? len - done : kHashLen;
    for (unsigned int i = 0; i < take; ++i) out[done + i] ^= digest[i];
    done += take;
  }
  kv::rsabn::Wipe(digest, sizeof digest);
  return 0;
}

}  // namespace

extern "C" {

int KV_RSA_OaepEncrypt(KV_RSA_CTX* ctx, const unsigned char* in, unsigned int inLen,
                       const unsigned char* param, unsigned int paramLen, unsigned char* out,
                       unsigned int* outLen) {
  if (ctx == nullptr || outLen == nullptr || (in == nullptr && inLen != 0) ||
      (param == nullptr && paramLen != 0)) {
    return kErrArg;
  }
  if (int rc = kv::rsa_internal::CheckModulusLength(ctx)) return rc;
  const unsigned int k = ctx->k;
  if (out == nullptr) {
    *outLen = k;
    return 0;
  }
  const unsigned int em_len = k - 1;
  if (em_len < 2 * kHashLen + 1 || inLen > em_len - 2 * kHashLen - 1) return kErrEmeEncode;
  std::uint8_t block[KV_RSA_MAX_MODULUS_BYTES];
  std::uint8_t* seed = block + 1;
  std::uint8_t* db = block + 1 + kHashLen;
  const unsigned int db_len = em_len - kHashLen;
  block[0] = 0;
  // DB = pHash || PS (zeros) || 01 || M
  kv::Sha1::Digest(param, paramLen, db);
  std::memset(db + kHashLen, 0, db_len - kHashLen - inLen - 1);
  db[db_len - inLen - 1] = 0x01;
  if (inLen) std::memcpy(db + db_len - inLen, in, inLen);
  int rc = kv::rsa_internal::PaddingRandom(seed, kHashLen);
  if (rc == 0) rc = Mgf1Xor(seed, kHashLen, db, db_len);
  if (rc == 0) rc = Mgf1Xor(db, db_len, seed, kHashLen);
  if (rc == 0) rc = kv::rsa_internal::PublicOp(ctx, block, block);
  if (rc == 0) {
    std::memcpy(out, block, k);
    *outLen = k;
  }
  kv::rsabn::Wipe(block, k);
  return rc;
}

int KV_RSA_OaepDecrypt(KV_RSA_CTX* ctx, const unsigned char* in, unsigned int inLen,
                       const unsigned char* param, unsigned int paramLen, unsigned char* out,
                       unsigned int* outLen) {
  if (ctx == nullptr || in == nullptr || outLen == nullptr || !ctx->priv ||
      (param == nullptr && paramLen != 0)) {
    return kErrArg;
  }
  if (int rc = kv::rsa_internal::CheckModulusLength(ctx)) return rc;
  const unsigned int k = ctx->k;
  if (inLen != k) return kErrLength;
  if (out == nullptr) {
    *outLen = k;
    return 0;
  }
  const unsigned int em_len = k - 1;
  if (em_len < 2 * kHashLen + 1) return kErrEmeDecode;
  std::uint8_t block[KV_RSA_MAX_MODULUS_BYTES];
  int rc = kv::rsa_internal::PrivateOp(ctx, in, block);
  if (rc != 0) return rc;
  std::uint8_t* seed = block + 1;
  std::uint8_t* db = block + 1 + kHashLen;
  const unsigned int db_len = em_len - kHashLen;
  rc = Mgf1Xor(db, db_len, seed, kHashLen);
  if (rc == 0) rc = Mgf1Xor(seed, kHashLen, db, db_len);
  std::uint8_t phash[kHashLen];
  kv::Sha1::Digest(param, paramLen, phash);
  // Every check is evaluated before deciding, so the failure does not tell
  // which part was wrong.
  unsigned int bad = block[0];
  bad |= static_cast<unsigned int>(std::memcmp(db, phash, kHashLen) != 0);
  unsigned int i = kHashLen;
  while (i < db_len && db[i] == 0) ++i;
  bad |= static_cast<unsigned int>(i >= db_len || db[i] != 0x01);
  if (rc == 0 && bad) rc = kErrEmeDecode;
  if (rc == 0) {
    unsigned int mlen = db_len - i - 1;
    std::memcpy(out, db + i + 1, mlen);
    *outLen = mlen;
  }
  kv::rsabn::Wipe(block, k);
  return rc;
}

}  // extern "C"
