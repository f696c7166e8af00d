// The RSA engine: key-pair generation, raw public and private operations,
// PKCS#1 v1.5 encryption and signature blocks, EME-OAEP with MGF1-SHA-1 and the
// engine's message table. A C interface so that the token layer and flat
// functions can call it directly; RAII holders for C++ callers at the end.
//
// Status codes. Calls on keys and blocks use the key-object family:
//   0 success, -1 out of memory, -2 bad argument, -3 bad data length,
//   -10 a component could not be converted into a number, -11 key generation
//   failed, -12 the operation produced a wrong result or length, -14 the private
//   key components are inconsistent;
// the engine's own codes (-101 .. -115, see KV_RSA_ErrorText) report size limits
// and encoding failures: -102 key size out of range, -103 modulus longer than
// 1024 bytes, -104 input not below the modulus, -105 bad v1.5 block,
// -106 modulus shorter than 12 bytes, -107 signature does not verify,
// -108 signature not below the modulus, -109 unknown digest,
// -111/-112 EME-OAEP encoding/decoding failure, -113 EMSA encoding failure.
//
// A context is used by one thread at a time (private operations update the
// context's blinding values).
#pragma once

#ifdef __cplusplus
#include <memory>
extern "C" {
#endif

/* One key component: an unsigned big-endian integer. The layout (a pointer and
 * an unsigned int) makes two components at least 16 and less than 64 bytes,
 * and eight components at least 64 bytes, on 32- and 64-bit targets alike; the
 * byte size handed to KV_RSA_LoadKey selects the key kind by that rule. */
typedef struct KV_RSA_COMPONENT {
  unsigned char* data;
  unsigned int len;
} KV_RSA_COMPONENT;

/* Component order of a key block. */
enum {
  KV_RSA_MODULUS = 0,
  KV_RSA_PUBLIC_EXPONENT = 1,
  KV_RSA_PRIVATE_EXPONENT = 2,
  KV_RSA_PRIME1 = 3,
  KV_RSA_PRIME2 = 4,
  KV_RSA_EXPONENT1 = 5,
  KV_RSA_EXPONENT2 = 6,
  KV_RSA_COEFFICIENT = 7,
  KV_RSA_COMPONENT_COUNT = 8
};

/* Block sizes for KV_RSA_LoadKey. */
#define KV_RSA_PUBLIC_BLOCK_SIZE ((unsigned int)(2 * sizeof(KV_RSA_COMPONENT)))
#define KV_RSA_PRIVATE_BLOCK_SIZE ((unsigned int)(8 * sizeof(KV_RSA_COMPONENT)))

#define KV_RSA_MAX_MODULUS_BYTES 1024u

/* Digest kinds of the DigestInfo in v1.5 signatures. */
enum { KV_RSA_MD2 = 1, KV_RSA_MD5 = 2, KV_RSA_SHA1 = 3, KV_RSA_SHA256 = 4 };

typedef struct KV_RSA_CTX KV_RSA_CTX;

/* A random source: fills len bytes, returns 0 on success. */
typedef int (*KV_RSA_RANDOM_FN)(void* arg, unsigned char* buf, unsigned int len);

/* The operating system's random source (getrandom and kin); usable as a
 * KV_RSA_RANDOM_FN with any arg. */
int KV_RSA_OsRandom(void* arg, unsigned char* buf, unsigned int len);

/* Generates a key pair of `bits` (512 to 8192) with public exponent 65537 from
 * the C library's rand (seeded once per process from the OS random source).
 * *out receives a malloc'ed block of KV_RSA_COMPONENT_COUNT components, each
 * buffer malloc'ed; release it with KV_RSA_FreeKeyPair. `cancel` may be null;
 * when it becomes nonzero generation stops. Returns 0, -2, -102 (size out of
 * range), -11 (generation failed or was cancelled) or -1. */
int KV_RSA_GenerateKeyPair(int bits, KV_RSA_COMPONENT** out, volatile int* cancel);
/* The same with another random source, e.g. KV_RSA_OsRandom. */
int KV_RSA_GenerateKeyPairEx(int bits, KV_RSA_COMPONENT** out, volatile int* cancel,
                             KV_RSA_RANDOM_FN random, void* randomArg);
/* Wipes and frees every component buffer and the block; null is ignored. */
void KV_RSA_FreeKeyPair(KV_RSA_COMPONENT* block);

/* Loads a key: blockSize < 16 gives -2; 16 to 63 loads the first two
 * components as a public key; 64 or more loads all eight as a private key,
 * which must be consistent (else -14). Returns -10 for a component that does
 * not convert (null, empty, zero where not allowed, longer than 256 words, or
 * an even modulus), -103 for a modulus longer than 1024 bytes, -1 when out of
 * memory. */
int KV_RSA_LoadKey(const KV_RSA_COMPONENT* components, unsigned int blockSize, KV_RSA_CTX** ctx);
void KV_RSA_FreeCtx(KV_RSA_CTX* ctx);
/* 1 for a private-key context, 0 for a public one, -2 for null. */
int KV_RSA_IsPrivate(const KV_RSA_CTX* ctx);
/* Modulus length in bytes (0 for null). */
unsigned int KV_RSA_ModulusLength(const KV_RSA_CTX* ctx);

/* PKCS#1 v1.5. Encrypt formats block type 2 with random nonzero padding and runs
 * the public operation when ctx holds a public key; with a private key it
 * formats block type 1 (0xFF padding) and runs the private operation (a raw
 * signature). Decrypt reverses the matching operation. Output buffers hold at
 * least KV_RSA_ModulusLength bytes; with out == null only *outLen is set to
 * that length. inLen is at most k - 11 for Encrypt and exactly k for Decrypt. */
int KV_RSA_Encrypt(KV_RSA_CTX* ctx, const unsigned char* in, unsigned char* out, unsigned int inLen,
                   unsigned int* outLen);
int KV_RSA_Decrypt(KV_RSA_CTX* ctx, const unsigned char* in, unsigned char* out, unsigned int inLen,
                   unsigned int* outLen);

/* The bare operations on k-byte blocks (input below the modulus, else -104). */
int KV_RSA_PublicBlock(KV_RSA_CTX* ctx, const unsigned char* in, unsigned int inLen,
                       unsigned char* out, unsigned int* outLen);
int KV_RSA_PrivateBlock(KV_RSA_CTX* ctx, const unsigned char* in, unsigned int inLen,
                        unsigned char* out, unsigned int* outLen);

/* EME-OAEP with SHA-1 and MGF1-SHA-1; param (may be null with paramLen 0) is the
 * encoding parameter, empty by default. Encrypt needs any key, Decrypt a private
 * key. Messages of at most k - 42 bytes. out == null asks for the size (k). */
int KV_RSA_OaepEncrypt(KV_RSA_CTX* ctx, const unsigned char* in, unsigned int inLen,
                       const unsigned char* param, unsigned int paramLen, unsigned char* out,
                       unsigned int* outLen);
int KV_RSA_OaepDecrypt(KV_RSA_CTX* ctx, const unsigned char* in, unsigned int inLen,
                       const unsigned char* param, unsigned int paramLen, unsigned char* out,
                       unsigned int* outLen);

/* EMSA-PKCS1-v1_5 signature over a digest of the given kind (a private key),
 * and its verification (0 when the signature holds, -107 when it does not). */
int KV_RSA_SignDigest(KV_RSA_CTX* ctx, int digestKind, const unsigned char* digest,
                      unsigned int digestLen, unsigned char* sig, unsigned int* sigLen);
int KV_RSA_VerifyDigest(KV_RSA_CTX* ctx, int digestKind, const unsigned char* digest,
                        unsigned int digestLen, const unsigned char* sig, unsigned int sigLen);

/* The engine's message for a code: "ok" for 0, the table entry -code - 100 for
 * -101 .. -115, and the last message for any other code. */
const char* KV_RSA_ErrorText(int code);

#ifdef __cplusplus
}  // extern "C"

namespace kv {
struct RsaCtxDeleter {
  void operator()(KV_RSA_CTX* ctx) const { KV_RSA_FreeCtx(ctx); }
};
struct RsaKeyPairDeleter {
  void operator()(KV_RSA_COMPONENT* block) const { KV_RSA_FreeKeyPair(block); }
};
// Owning holders for a loaded key and for a generated component block.
using RsaCtxPtr = std::unique_ptr<KV_RSA_CTX, RsaCtxDeleter>;
using RsaKeyPairPtr = std::unique_ptr<KV_RSA_COMPONENT, RsaKeyPairDeleter>;
}  // namespace kv
#endif
