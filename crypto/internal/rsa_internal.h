// Internals shared by the RSA engine's source files, and the test-only hook
// that makes padding reproducible for known-answer tests.
#pragma once

#include <cstdint>

#include "crypto/internal/rsa_bn.h"
#include "crypto/rsa.h"

struct KV_RSA_CTX {
  int priv = 0;
  unsigned int k = 0;  // modulus length in bytes
  kv::rsabn::Num n, e, d, p, q, dp, dq, qinv;
  kv::rsabn::Mont mn, mp, mq;
  kv::rsabn::Limb qinv_mont[kv::rsabn::kMaxLimbs];  // qinv * R mod p
  // Blinding pair in Montgomery form modulo n: A = r^e and Ai = r^-1, squared
  // after each use so that no two operations share a factor.
  bool blind_ready = false;
  kv::rsabn::Limb blind_a[kv::rsabn::kMaxLimbs];
  kv::rsabn::Limb blind_ai[kv::rsabn::kMaxLimbs];
};

namespace kv {
namespace rsa_internal {

// Raw operations on k-byte big-endian blocks (in == out allowed).
int PublicOp(KV_RSA_CTX* ctx, const std::uint8_t* in, std::uint8_t* out);
int PrivateOp(KV_RSA_CTX* ctx, const std::uint8_t* in, std::uint8_t* out);
// Checks the modulus length limits shared by every padded operation.
int CheckModulusLength(const KV_RSA_CTX* ctx);
// Random bytes for padding and OAEP seeds.
int PaddingRandom(std::uint8_t* buf, unsigned int len);

}  // namespace rsa_internal
}  // namespace kv

// Test-only: replaces the source of v1.5 padding bytes and OAEP seeds (null
// restores the OS source). Not thread-safe; never used by the library itself.
void KvRsaSetPaddingSourceForTesting(KV_RSA_RANDOM_FN fn, void* arg);
