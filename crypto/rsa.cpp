// RSA engine: key loading and its consistency check, the raw public and
// private operations (CRT, blinded, verified), PKCS#1 v1.5 blocks, v1.5
// signatures over digests and the message table.
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
// After windows.h, which it needs.
#include <bcrypt.h>
#elif defined(__linux__)
#include <errno.h>
#include <sys/random.h>
#endif

#include "crypto/internal/rsa_bn.h"
#include "crypto/internal/rsa_ifma.h"
#include "crypto/internal/rsa_internal.h"
#include "crypto/rsa.h"

using kv::rsabn::kMaxLimbs;
using kv::rsabn::Limb;
using kv::rsabn::Num;
namespace bn = kv::rsabn;

namespace {

constexpr int kErrMemory = -1;
constexpr int kErrArg = -2;
constexpr int kErrLength = -3;
constexpr int kErrConvert = -10;
constexpr int kErrResult = -12;
constexpr int kErrInconsistent = -14;
constexpr int kErrModulusTooLong = -103;
constexpr int kErrNotBelowModulus = -104;
constexpr int kErrFormat = -105;
constexpr int kErrModulusTooShort = -106;
constexpr int kErrBadSignature = -107;
constexpr int kErrSignatureTooLarge = -108;
constexpr int kErrUnknownDigest = -109;
constexpr int kErrEmsaEncode = -113;

const char* const kMessages[] = {
    "ok",
    "RSA key generation failed",
    "bad input argument(s)",
    "invalid MPI (length too large, etc.)",
    "bad input cipher text (not less than modulus n)",
    "incorrect format",
    "bad modulus (byte-length < 12)",
    "invalid signature string",
    "signature too large to be handled by this algorithm",
    "unsupported algorithm",
    "bad algorithm parameter(s)",
    "eme encode error",
    "eme decode error",
    "emsa encode error",
    "mgf1 error",
    "bad error code (FATAL ERROR)",
};
constexpr int kMessageCount = sizeof(kMessages) / sizeof(kMessages[0]);

KV_RSA_RANDOM_FN g_padding_fn = nullptr;
void* g_padding_arg = nullptr;

void WipeCtx(KV_RSA_CTX* ctx) {
  bn::Wipe(ctx, sizeof(*ctx));
}

struct CtxDeleter {
  void operator()(KV_RSA_CTX* ctx) const {
    WipeCtx(ctx);
    delete ctx;
  }
};

// Converts one component: -10 when it is absent or too long.
int Convert(const KV_RSA_COMPONENT& c, Num& out) {
  if (c.data == nullptr && c.len != 0) return kErrConvert;
  if (!bn::FromBytes(c.data, c.len, out)) return kErrConvert;
  return 0;
}

// a mod m into r (m.n limbs, normalised Num).
void Mod(const Limb* a, int an, const Num& m, Num& r) {
  bn::DivMod(a, an, m.d, m.n, nullptr, r.d);
  r.n = bn::Normalize(r.d, m.n);
}

bool IsOne(const Num& a) {
  return a.n == 1 && a.d[0] == 1;
}

// a - w for a >= w.
void SubWord(const Num& a, Limb w, Num& r) {
  bn::Copy(r, a);
  Limb borrow = w;
  for (int i = 0; i < r.n && borrow; ++i) {
    Limb old = r.d[i];
    r.d[i] = old - borrow;
    borrow = old < borrow;
  }
  r.n = bn::Normalize(r.d, r.n);
}

// The consistency check of a private key: n = p q, dP = d mod (p-1),
// dQ = d mod (q-1), e dP = 1 mod (p-1), e dQ = 1 mod (q-1), qInv q = 1 mod p.
int CheckPrivate(KV_RSA_CTX& c) {
  const Num* all[] = {&c.n, &c.e, &c.d, &c.p, &c.q, &c.dp, &c.dq, &c.qinv};
  for (const Num* x : all) {
    if (x->n < 1) return kErrInconsistent;
  }
  if (!bn::MontInit(c.mp, c.p) || !bn::MontInit(c.mq, c.q)) return kErrInconsistent;
  Limb prod[2 * kMaxLimbs + 1];
  bn::Mul(prod, c.p.d, c.p.n, c.q.d, c.q.n);
  if (bn::Cmp(prod, c.p.n + c.q.n, c.n.d, c.n.n) != 0) return kErrInconsistent;

  Num pm1, qm1, t;
  SubWord(c.p, 1, pm1);
  SubWord(c.q, 1, qm1);
  Mod(c.d.d, c.d.n, pm1, t);
  if (bn::Cmp(t, c.dp) != 0) return kErrInconsistent;
  Mod(c.d.d, c.d.n, qm1, t);
  if (bn::Cmp(t, c.dq) != 0) return kErrInconsistent;
  bn::Mul(prod, c.e.d, c.e.n, c.dp.d, c.dp.n);
  Mod(prod, c.e.n + c.dp.n, pm1, t);
  if (!IsOne(t)) return kErrInconsistent;
  bn::Mul(prod, c.e.d, c.e.n, c.dq.d, c.dq.n);
  Mod(prod, c.e.n + c.dq.n, qm1, t);
  if (!IsOne(t)) return kErrInconsistent;
  if (bn::Cmp(c.qinv, c.p) >= 0) return kErrInconsistent;
  bn::Mul(prod, c.qinv.d, c.qinv.n, c.q.d, c.q.n);
  Mod(prod, c.qinv.n + c.q.n, c.p, t);
  if (!IsOne(t)) return kErrInconsistent;

  Limb qi[kMaxLimbs];
  for (int i = 0; i < c.mp.n; ++i) qi[i] = i < c.qinv.n ? c.qinv.d[i] : 0;
  bn::ToMont(c.mp, c.qinv_mont, qi);
  bn::Wipe(prod, sizeof prod);
  bn::Wipe(&t, sizeof t);
  return 0;
}

// x^e mod n on n-limb numbers; 65537 takes sixteen squarings and one product.
void PublicExp(const KV_RSA_CTX& c, const Limb* x, Limb* r) {
  const bn::Mont& m = c.mn;
  if (c.e.n == 1 && c.e.d[0] == 65537) {
    Limb xm[kMaxLimbs], a[kMaxLimbs];
    bn::ToMont(m, xm, x);
    bn::MontSqr(m, a, xm);
    for (int i = 1; i < 16; ++i) bn::MontSqr(m, a, a);
    bn::MontMul(m, a, a, xm);
    bn::FromMont(m, r, a);
  } else {
    bn::ModExp(m, r, x, m.n, c.e.d, c.e.n, false);
  }
}

// x^d mod n by the Chinese Remainder Theorem (x of n limbs, r of n limbs).
void CrtExp(const KV_RSA_CTX& c, const Limb* x, Limb* r) {
  const int nn = c.mn.n, pn = c.mp.n, qn = c.mq.n;
  Limb xp[kMaxLimbs], xq[kMaxLimbs], m1[kMaxLimbs], m2[kMaxLimbs], t[kMaxLimbs];
  bn::DivMod(x, nn, c.p.d, pn, nullptr, xp);
  bn::DivMod(x, nn, c.q.d, qn, nullptr, xq);
  if (!bn::IfmaCrtExp(c.mp, m1, xp, c.dp.d, c.dp.n, c.mq, m2, xq, c.dq.d, c.dq.n)) {
    bn::ToMont(c.mp, t, xp);
    bn::MontExpSecret(c.mp, t, t, c.dp.d, c.dp.n);
    bn::FromMont(c.mp, m1, t);
    bn::ToMont(c.mq, t, xq);
    bn::MontExpSecret(c.mq, t, t, c.dq.d, c.dq.n);
    bn::FromMont(c.mq, m2, t);
  }
  // h = (m1 - m2) qInv mod p
  Limb m2p[kMaxLimbs];
  bn::DivMod(m2, qn, c.p.d, pn, nullptr, m2p);
  Limb diff[kMaxLimbs];
  if (bn::Sub(diff, m1, m2p, pn)) bn::Add(diff, diff, c.p.d, pn);
  Limb h[kMaxLimbs];
  bn::MontMul(c.mp, h, diff, c.qinv_mont);
  // r = m2 + h q
  Limb y[2 * kMaxLimbs + 1];
  bn::Mul(y, h, pn, c.q.d, qn);
  Limb carry = 0;
  for (int i = 0; i < pn + qn; ++i) {
    bn::DLimb s = static_cast<bn::DLimb>(y[i]) + (i < qn ? m2[i] : 0) + carry;
    y[i] = static_cast<Limb>(s);
    carry = static_cast<Limb>(s >> 64);
  }
  for (int i = 0; i < nn; ++i) r[i] = i < pn + qn ? y[i] : 0;
  bn::Wipe(xp, sizeof xp);
  bn::Wipe(xq, sizeof xq);
  bn::Wipe(m1, sizeof m1);
  bn::Wipe(m2, sizeof m2);
  bn::Wipe(m2p, sizeof m2p);
  bn::Wipe(t, sizeof t);
  bn::Wipe(diff, sizeof diff);
  bn::Wipe(h, sizeof h);
  bn::Wipe(y, sizeof y);
}

// Fresh blinding pair: r random below n, A = r^e, Ai = r^-1 (by Fermat modulo
// each prime, joined with the coefficient).
int InitBlinding(KV_RSA_CTX& c) {
  const int nn = c.mn.n, pn = c.mp.n, qn = c.mq.n;
  for (int attempt = 0; attempt < 8; ++attempt) {
    Limb r[kMaxLimbs], rnd[kMaxLimbs];
    if (KV_RSA_OsRandom(nullptr, reinterpret_cast<unsigned char*>(rnd),
                        static_cast<unsigned int>(sizeof(Limb) * nn)) != 0) {
      return kErrResult;
    }
    bn::DivMod(rnd, nn, c.n.d, nn, nullptr, r);
    if (bn::BitLength(r, nn) < 2) continue;
    Limb a[kMaxLimbs];
    PublicExp(c, r, a);
    // r^-1 mod p and mod q
    Num pm2, qm2;
    SubWord(c.p, 2, pm2);
    SubWord(c.q, 2, qm2);
    Limb ip[kMaxLimbs], iq[kMaxLimbs];
    bn::ModExp(c.mp, ip, r, nn, pm2.d, pm2.n, true);
    bn::ModExp(c.mq, iq, r, nn, qm2.d, qm2.n, true);
    Limb iqp[kMaxLimbs], diff[kMaxLimbs], h[kMaxLimbs];
    bn::DivMod(iq, qn, c.p.d, pn, nullptr, iqp);
    if (bn::Sub(diff, ip, iqp, pn)) bn::Add(diff, diff, c.p.d, pn);
    bn::MontMul(c.mp, h, diff, c.qinv_mont);
    Limb y[2 * kMaxLimbs + 1];
    bn::Mul(y, h, pn, c.q.d, qn);
    Limb carry = 0;
    for (int i = 0; i < pn + qn; ++i) {
      bn::DLimb s = static_cast<bn::DLimb>(y[i]) + (i < qn ? iq[i] : 0) + carry;
      y[i] = static_cast<Limb>(s);
      carry = static_cast<Limb>(s >> 64);
    }
    Limb ai[kMaxLimbs];
    for (int i = 0; i < nn; ++i) ai[i] = i < pn + qn ? y[i] : 0;
    // Check r * Ai = 1 mod n (fails only when r shares a factor with n).
    Limb aim[kMaxLimbs], prod[kMaxLimbs];
    bn::ToMont(c.mn, aim, ai);
    bn::MontMul(c.mn, prod, r, aim);
    Limb one[kMaxLimbs] = {1};
    bool ok = bn::Cmp(prod, nn, one, 1) == 0;
    if (ok) {
      bn::ToMont(c.mn, c.blind_a, a);
      for (int i = 0; i < nn; ++i) c.blind_ai[i] = aim[i];
      c.blind_ready = true;
    }
    bn::Wipe(r, sizeof r);
    bn::Wipe(ip, sizeof ip);
    bn::Wipe(iq, sizeof iq);
    bn::Wipe(y, sizeof y);
    bn::Wipe(ai, sizeof ai);
    bn::Wipe(aim, sizeof aim);
    if (ok) return 0;
  }
  return kErrResult;
}

int LoadBlock(const KV_RSA_CTX* ctx, const std::uint8_t* in, Limb* x) {
  Num v;
  bn::FromBytes(in, ctx->k, v);
  if (bn::Cmp(v, ctx->n) >= 0) return kErrNotBelowModulus;
  for (int i = 0; i < ctx->mn.n; ++i) x[i] = i < v.n ? v.d[i] : 0;
  bn::Wipe(&v, sizeof v);
  return 0;
}

// Nonzero random bytes for type-2 padding.
int NonzeroRandom(std::uint8_t* buf, unsigned int len) {
  if (int rc = kv::rsa_internal::PaddingRandom(buf, len)) return rc;
  for (unsigned int i = 0; i < len; ++i) {
    while (buf[i] == 0) {
      if (int rc = kv::rsa_internal::PaddingRandom(&buf[i], 1)) return rc;
    }
  }
  return 0;
}

struct DigestPrefix {
  int kind;
  unsigned int digest_len;
  unsigned int prefix_len;
  std::uint8_t prefix[19];
};

// DER of DigestInfo up to the digest octets, per digest kind.
const DigestPrefix kPrefixes[] = {
    {KV_RSA_MD2,
     16,
     18,
     {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x02, 0x02, 0x05,
      0x00, 0x04, 0x10}},
    {KV_RSA_MD5,
     16,
     18,
     {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x02, 0x05, 0x05,
      0x00, 0x04, 0x10}},
    {KV_RSA_SHA1,
     20,
     15,
     {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e, 0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14}},
    {KV_RSA_SHA256,
     32,
     19,
     {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01,
      0x05, 0x00, 0x04, 0x20}},
};

// EMSA-PKCS1-v1_5 encoding of a digest into k bytes.
int EmsaEncode(int kind, const std::uint8_t* digest, unsigned int digest_len, unsigned int k,
               std::uint8_t* em) {
  const DigestPrefix* pre = nullptr;
  for (const auto& p : kPrefixes) {
    if (p.kind == kind) pre = &p;
  }
  if (!pre) return kErrUnknownDigest;
  if (digest == nullptr || digest_len != pre->digest_len) return kErrArg;
  unsigned int t_len = pre->prefix_len + digest_len;
  if (k < t_len + 11) return kErrEmsaEncode;
  em[0] = 0;
  em[1] = 1;
  std::memset(em + 2, 0xff, k - t_len - 3);
  em[k - t_len - 1] = 0;
  std::memcpy(em + k - t_len, pre->prefix, pre->prefix_len);
  std::memcpy(em + k - digest_len, digest, digest_len);
  return 0;
}

}  // namespace

namespace kv {
namespace rsa_internal {

int CheckModulusLength(const KV_RSA_CTX* ctx) {
  if (ctx->k > KV_RSA_MAX_MODULUS_BYTES) return kErrModulusTooLong;
  if (ctx->k < 12) return kErrModulusTooShort;
  return 0;
}

int PublicOp(KV_RSA_CTX* ctx, const std::uint8_t* in, std::uint8_t* out) {
  Limb x[kMaxLimbs], r[kMaxLimbs];
  if (int rc = LoadBlock(ctx, in, x)) return rc;
  PublicExp(*ctx, x, r);
  bn::ToBytes(r, ctx->mn.n, out, ctx->k);
  return 0;
}

int PrivateOp(KV_RSA_CTX* ctx, const std::uint8_t* in, std::uint8_t* out) {
  if (!ctx->priv) return kErrArg;
  const int nn = ctx->mn.n;
  Limb x[kMaxLimbs];
  if (int rc = LoadBlock(ctx, in, x)) return rc;
  if (!ctx->blind_ready) {
    if (int rc = InitBlinding(*ctx)) return rc;
  } else {
    bn::MontSqr(ctx->mn, ctx->blind_a, ctx->blind_a);
    bn::MontSqr(ctx->mn, ctx->blind_ai, ctx->blind_ai);
  }
  Limb xb[kMaxLimbs], y[kMaxLimbs], check[kMaxLimbs];
  bn::MontMul(ctx->mn, xb, x, ctx->blind_a);  // x r^e
  CrtExp(*ctx, xb, y);                        // x^d r
  bn::MontMul(ctx->mn, y, y, ctx->blind_ai);  // x^d
  // A fault in the computation must not leak a value that factors n.
  PublicExp(*ctx, y, check);
  int rc = 0;
  if (bn::Cmp(check, nn, x, nn) != 0) {
    rc = kErrResult;
  } else {
    bn::ToBytes(y, nn, out, ctx->k);
  }
  bn::Wipe(xb, sizeof xb);
  bn::Wipe(y, sizeof y);
  bn::Wipe(x, sizeof x);
  return rc;
}

int PaddingRandom(std::uint8_t* buf, unsigned int len) {
  int rc =
      g_padding_fn ? g_padding_fn(g_padding_arg, buf, len) : KV_RSA_OsRandom(nullptr, buf, len);
  return rc == 0 ? 0 : kErrResult;
}

}  // namespace rsa_internal
}  // namespace kv

void KvRsaSetPaddingSourceForTesting(KV_RSA_RANDOM_FN fn, void* arg) {
  g_padding_fn = fn;
  g_padding_arg = arg;
}

extern "C" {

int KV_RSA_OsRandom(void*, unsigned char* buf, unsigned int len) {
  if (buf == nullptr && len != 0) return -2;
#if defined(_WIN32)
  // The system-preferred generator: no algorithm handle to open or close.
  if (len == 0) return 0;
  return BCryptGenRandom(nullptr, buf, len, BCRYPT_USE_SYSTEM_PREFERRED_RNG) == 0 ? 0 : -1;
#else
#if defined(__linux__)
  while (len > 0) {
    ssize_t got = getrandom(buf, len, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      break;  // fall back to the device
    }
    buf += got;
    len -= static_cast<unsigned int>(got);
  }
  if (len == 0) return 0;
#endif
  std::FILE* f = std::fopen("/dev/urandom", "rb");
  if (!f) return -1;
  std::size_t got = std::fread(buf, 1, len, f);
  std::fclose(f);
  return got == len ? 0 : -1;
#endif
}

int KV_RSA_LoadKey(const KV_RSA_COMPONENT* comps, unsigned int blockSize, KV_RSA_CTX** out) {
  if (comps == nullptr || out == nullptr) return kErrArg;
  *out = nullptr;
  if (blockSize < 16) return kErrArg;
  std::unique_ptr<KV_RSA_CTX, CtxDeleter> ctx(new (std::nothrow) KV_RSA_CTX);
  if (!ctx) return kErrMemory;
  ctx->priv = blockSize >= 64 ? 1 : 0;

  const KV_RSA_COMPONENT& mod = comps[KV_RSA_MODULUS];
  if (mod.data == nullptr) return kErrConvert;
  // Skip leading zero octets before applying the size limit.
  unsigned int sig = mod.len;
  const unsigned char* mp = mod.data;
  while (sig > 0 && *mp == 0) {
    ++mp;
    --sig;
  }
  if (sig > KV_RSA_MAX_MODULUS_BYTES) return kErrModulusTooLong;
  if (int rc = Convert(mod, ctx->n)) return rc;
  if (int rc = Convert(comps[KV_RSA_PUBLIC_EXPONENT], ctx->e)) return rc;
  if (ctx->n.n == 0 || ctx->e.n == 0) return kErrConvert;
  if (!bn::MontInit(ctx->mn, ctx->n)) return kErrConvert;
  ctx->k = static_cast<unsigned int>(bn::ByteLength(ctx->n));

  if (ctx->priv) {
    Num* dst[] = {&ctx->d, &ctx->p, &ctx->q, &ctx->dp, &ctx->dq, &ctx->qinv};
    for (int i = 0; i < 6; ++i) {
      if (int rc = Convert(comps[KV_RSA_PRIVATE_EXPONENT + i], *dst[i])) return rc;
    }
    if (int rc = CheckPrivate(*ctx)) return rc;
  }
  *out = ctx.release();
  return 0;
}

void KV_RSA_FreeCtx(KV_RSA_CTX* ctx) {
  if (ctx) CtxDeleter()(ctx);
}

int KV_RSA_IsPrivate(const KV_RSA_CTX* ctx) {
  return ctx ? ctx->priv : kErrArg;
}

unsigned int KV_RSA_ModulusLength(const KV_RSA_CTX* ctx) {
  return ctx ? ctx->k : 0;
}

int KV_RSA_Encrypt(KV_RSA_CTX* ctx, const unsigned char* in, unsigned char* out, unsigned int inLen,
                   unsigned int* outLen) {
  if (ctx == nullptr || in == nullptr || outLen == nullptr) return kErrArg;
  if (int rc = kv::rsa_internal::CheckModulusLength(ctx)) return rc;
  const unsigned int k = ctx->k;
  if (out == nullptr) {
    *outLen = k;
    return 0;
  }
  if (inLen > k - 11) return kErrLength;
  std::uint8_t em[KV_RSA_MAX_MODULUS_BYTES];
  unsigned int ps = k - 3 - inLen;
  em[0] = 0;
  if (ctx->priv) {
    em[1] = 1;
    std::memset(em + 2, 0xff, ps);
  } else {
    em[1] = 2;
    if (int rc = NonzeroRandom(em + 2, ps)) return rc;
  }
  em[2 + ps] = 0;
  std::memcpy(em + 3 + ps, in, inLen);
  int rc = ctx->priv ? kv::rsa_internal::PrivateOp(ctx, em, em)
                     : kv::rsa_internal::PublicOp(ctx, em, em);
  if (rc == 0) {
    std::memcpy(out, em, k);
    *outLen = k;
  } else if (rc == kErrResult) {
    std::memset(out, 0, k);  // a faulty private result must not reach the caller
  }
  bn::Wipe(em, k);
  return rc;
}

int KV_RSA_Decrypt(KV_RSA_CTX* ctx, const unsigned char* in, unsigned char* out, unsigned int inLen,
                   unsigned int* outLen) {
  if (ctx == nullptr || in == nullptr || outLen == nullptr) return kErrArg;
  if (int rc = kv::rsa_internal::CheckModulusLength(ctx)) return rc;
  const unsigned int k = ctx->k;
  if (inLen != k) return kErrLength;
  if (out == nullptr) {
    *outLen = k;
    return 0;
  }
  std::uint8_t em[KV_RSA_MAX_MODULUS_BYTES];
  int rc = ctx->priv ? kv::rsa_internal::PrivateOp(ctx, in, em)
                     : kv::rsa_internal::PublicOp(ctx, in, em);
  if (rc != 0) return rc;
  // 00 || BT || PS (at least 8 octets) || 00 || M
  const std::uint8_t bt = ctx->priv ? 2 : 1;
  unsigned int i = 2;
  if (em[0] != 0 || em[1] != bt) {
    rc = kErrFormat;
  } else {
    while (i < k && em[i] != 0) {
      if (bt == 1 && em[i] != 0xff) break;
      ++i;
    }
    if (i >= k || em[i] != 0 || i - 2 < 8) rc = kErrFormat;
  }
  if (rc == 0) {
    unsigned int mlen = k - i - 1;
    std::memcpy(out, em + i + 1, mlen);
    *outLen = mlen;
  }
  bn::Wipe(em, k);
  return rc;
}

int KV_RSA_PublicBlock(KV_RSA_CTX* ctx, const unsigned char* in, unsigned int inLen,
                       unsigned char* out, unsigned int* outLen) {
  if (ctx == nullptr || in == nullptr || outLen == nullptr) return kErrArg;
  if (inLen != ctx->k) return kErrLength;
  *outLen = ctx->k;
  if (out == nullptr) return 0;
  return kv::rsa_internal::PublicOp(ctx, in, out);
}

int KV_RSA_PrivateBlock(KV_RSA_CTX* ctx, const unsigned char* in, unsigned int inLen,
                        unsigned char* out, unsigned int* outLen) {
  if (ctx == nullptr || in == nullptr || outLen == nullptr || !ctx->priv) return kErrArg;
  if (inLen != ctx->k) return kErrLength;
  *outLen = ctx->k;
  if (out == nullptr) return 0;
  std::uint8_t tmp[KV_RSA_MAX_MODULUS_BYTES];
  int rc = kv::rsa_internal::PrivateOp(ctx, in, tmp);
  if (rc == 0) std::memcpy(out, tmp, ctx->k);
  if (rc == kErrResult) std::memset(out, 0, ctx->k);
  bn::Wipe(tmp, ctx->k);
  return rc;
}

int KV_RSA_SignDigest(KV_RSA_CTX* ctx, int digestKind, const unsigned char* digest,
                      unsigned int digestLen, unsigned char* sig, unsigned int* sigLen) {
  if (ctx == nullptr || sigLen == nullptr || !ctx->priv) return kErrArg;
  if (int rc = kv::rsa_internal::CheckModulusLength(ctx)) return rc;
  if (sig == nullptr) {
    *sigLen = ctx->k;
    return 0;
  }
  std::uint8_t em[KV_RSA_MAX_MODULUS_BYTES];
  if (int rc = EmsaEncode(digestKind, digest, digestLen, ctx->k, em)) return rc;
  int rc = kv::rsa_internal::PrivateOp(ctx, em, em);
  if (rc == 0) {
    std::memcpy(sig, em, ctx->k);
    *sigLen = ctx->k;
  } else if (rc == kErrResult) {
    std::memset(sig, 0, ctx->k);
  }
  bn::Wipe(em, ctx->k);
  return rc;
}

int KV_RSA_VerifyDigest(KV_RSA_CTX* ctx, int digestKind, const unsigned char* digest,
                        unsigned int digestLen, const unsigned char* sig, unsigned int sigLen) {
  if (ctx == nullptr || sig == nullptr) return kErrArg;
  if (int rc = kv::rsa_internal::CheckModulusLength(ctx)) return rc;
  const unsigned int k = ctx->k;
  if (sigLen != k) return kErrLength;
  std::uint8_t expect[KV_RSA_MAX_MODULUS_BYTES], em[KV_RSA_MAX_MODULUS_BYTES];
  if (int rc = EmsaEncode(digestKind, digest, digestLen, k, expect)) return rc;
  int rc = kv::rsa_internal::PublicOp(ctx, sig, em);
  if (rc == kErrNotBelowModulus) return kErrSignatureTooLarge;
  if (rc != 0) return rc;
  return std::memcmp(em, expect, k) == 0 ? 0 : kErrBadSignature;
}

const char* KV_RSA_ErrorText(int code) {
  if (code == 0) return kMessages[0];
  if (code <= -101 && code >= -115) return kMessages[-code - 100];
  return kMessages[kMessageCount - 1];
}

}  // extern "C"
