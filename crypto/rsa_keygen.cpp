// RSA key-pair generation: random odd candidates of the prime sizes, a sieve
// by small primes over a window after each candidate, Miller-Rabin on the
// survivors, then the private exponent and CRT values.
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "crypto/internal/rsa_bn.h"
#include "crypto/internal/rsa_internal.h"
#include "crypto/rsa.h"

using kv::rsabn::kMaxLimbs;
using kv::rsabn::Limb;
using kv::rsabn::Num;
namespace bn = kv::rsabn;

namespace {

constexpr int kGenFailed = -101;  // engine code; reported to callers as -11
constexpr int kSearchFailed = 1;
constexpr int kAttempts = 10;
constexpr std::uint32_t kPublicExponent = 65537;
constexpr int kSmallPrimeCount = 2048;

struct SmallPrimes {
  std::uint16_t p[kSmallPrimeCount];
  SmallPrimes() {
    // Odd primes from 3 by a sieve of Eratosthenes; the 2048th is below 18000.
    constexpr int kLimit = 18000;
    static bool composite[kLimit];
    int count = 0;
    for (int i = 3; i < kLimit && count < kSmallPrimeCount; i += 2) {
      if (composite[i]) continue;
      p[count++] = static_cast<std::uint16_t>(i);
      for (int j = i * i; j < kLimit; j += 2 * i) composite[j] = true;
    }
  }
};

const SmallPrimes& Primes() {
  static const SmallPrimes primes;
  return primes;
}

// The C library's generator, 15 bits per call, seeded once per process.
int RandSource(void*, unsigned char* buf, unsigned int len) {
  static std::once_flag seeded;
  std::call_once(seeded, [] {
    unsigned int seed = 0;
    if (KV_RSA_OsRandom(nullptr, reinterpret_cast<unsigned char*>(&seed), sizeof seed) != 0) {
      seed = static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(&seed));
    }
    std::srand(seed);
  });
  while (len > 0) {
    std::uint32_t w = 0;
    for (int got = 0; got < 32; got += 15)
      w = (w << 15) | (static_cast<std::uint32_t>(std::rand()) & 0x7fff);
    unsigned int take = len < 4 ? len : 4;
    std::memcpy(buf, &w, take);
    buf += take;
    len -= take;
  }
  return 0;
}

struct Source {
  KV_RSA_RANDOM_FN fn;
  void* arg;
  int Fill(void* buf, std::size_t len) const {
    return fn(arg, static_cast<unsigned char*>(buf), static_cast<unsigned int>(len)) == 0
               ? 0
               : kGenFailed;
  }
};

bool Cancelled(volatile int* cancel) {
  return cancel != nullptr && *cancel != 0;
}

// Miller-Rabin rounds for an error probability of 2^-100 (FIPS 186-4, C.3).
int MillerRabinRounds(int bits) {
  if (bits >= 1536) return 3;
  if (bits >= 1024) return 4;
  if (bits >= 512) return 7;
  return 10;
}

// 1 probable prime, 0 composite, kGenFailed when the random source fails.
int MillerRabin(const Num& w, int rounds, const Source& src) {
  bn::Mont m;
  if (!bn::MontInit(m, w)) return 0;
  const int n = m.n;
  Limb wm1[kMaxLimbs];
  for (int i = 0; i < n; ++i) wm1[i] = w.d[i];
  wm1[0] -= 1;  // w is odd
  int a = 0;
  while (((wm1[a / 64] >> (a % 64)) & 1) == 0) ++a;
  Limb odd[kMaxLimbs];
  for (int i = 0; i < n; ++i) {
    int src_bit = i * 64 + a;
    Limb lo = src_bit / 64 < n ? wm1[src_bit / 64] >> (src_bit % 64) : 0;
    Limb hi =
        (src_bit % 64) && src_bit / 64 + 1 < n ? wm1[src_bit / 64 + 1] << (64 - src_bit % 64) : 0;
    odd[i] = lo | hi;
  }
  Limb minus_one[kMaxLimbs];
  bn::Sub(minus_one, m.m, m.one, n);
  for (int round = 0; round < rounds; ++round) {
    Limb b[kMaxLimbs], rnd[kMaxLimbs];
    int tries = 0;
    do {
      if (src.Fill(rnd, sizeof(Limb) * n)) return kGenFailed;
      bn::DivMod(rnd, n, m.m, n, nullptr, b);
      if (++tries > 20) return kGenFailed;
    } while (bn::BitLength(b, n) < 2 || bn::Cmp(b, n, wm1, n) == 0);
    Limb z[kMaxLimbs];
    bn::ToMont(m, z, b);
    bn::MontExp(m, z, z, odd, n);
    if (bn::Cmp(z, n, m.one, n) == 0 || bn::Cmp(z, n, minus_one, n) == 0) continue;
    bool passed = false;
    for (int k = 1; k < a; ++k) {
      bn::MontSqr(m, z, z);
      if (bn::Cmp(z, n, minus_one, n) == 0) {
        passed = true;
        break;
      }
      if (bn::Cmp(z, n, m.one, n) == 0) break;
    }
    if (!passed) return 0;
  }
  return 1;
}

// Searches a prime of exactly `bits` bits with the two top bits set and
// gcd(p - 1, 65537) = 1, different from `other`.
int GeneratePrime(int bits, const Source& src, volatile int* cancel, const Num* other, Num& out) {
  const int limbs = (bits + 63) / 64;
  Num cand;
  if (src.Fill(cand.d, sizeof(Limb) * limbs)) return kGenFailed;
  cand.n = limbs;
  int top = (bits - 1) % 64;  // index of the top bit in the last limb
  Limb mask = top == 63 ? ~static_cast<Limb>(0) : ((static_cast<Limb>(1) << (top + 1)) - 1);
  cand.d[limbs - 1] &= mask;
  cand.d[limbs - 1] |= static_cast<Limb>(1) << top;
  if (top > 0) {
    cand.d[limbs - 1] |= static_cast<Limb>(1) << (top - 1);
  } else {
    cand.d[limbs - 2] |= static_cast<Limb>(1) << 63;
  }
  cand.d[0] |= 1;

  // Window of odd offsets cand + 2j, j < window, sieved by the small primes
  // and by p = 1 mod 65537.
  constexpr int kMaxWindow = 4 * 4096;
  const int window = bits * 4 < 4096 ? 4096 : (bits * 4 > kMaxWindow ? kMaxWindow : bits * 4);
  static thread_local std::uint8_t sieve[kMaxWindow];
  std::memset(sieve, 0, window);
  const SmallPrimes& sp = Primes();
  for (int i = 0; i < kSmallPrimeCount; ++i) {
    std::uint32_t p = sp.p[i];
    std::uint32_t r = bn::ModSmall(cand.d, limbs, p);
    std::uint32_t j0 =
        static_cast<std::uint32_t>((static_cast<std::uint64_t>((p - r) % p) * ((p + 1) / 2)) % p);
    for (std::uint32_t j = j0; j < static_cast<std::uint32_t>(window); j += p) sieve[j] = 1;
  }
  {
    std::uint32_t e = kPublicExponent;
    std::uint32_t r = bn::ModSmall(cand.d, limbs, e);
    std::uint32_t j0 = static_cast<std::uint32_t>(
        (static_cast<std::uint64_t>((1 + e - r) % e) * ((e + 1) / 2)) % e);
    for (std::uint32_t j = j0; j < static_cast<std::uint32_t>(window); j += e) sieve[j] = 1;
  }
  const int rounds = MillerRabinRounds(bits);
  for (int j = 0; j < window; ++j) {
    if (sieve[j]) continue;
    if (Cancelled(cancel)) return kGenFailed;
    Num c;
    c.n = limbs;
    Limb add = static_cast<Limb>(2) * j;
    for (int i = 0; i < limbs; ++i) {
      Limb s = cand.d[i] + add;
      add = s < add ? 1 : 0;
      c.d[i] = s;
    }
    if (add != 0 || bn::BitLength(c.d, limbs) != bits) return kSearchFailed;
    if (other != nullptr && bn::Cmp(c, *other) == 0) continue;
    int rc = MillerRabin(c, rounds, src);
    if (rc < 0) return rc;
    if (rc == 1) {
      bn::Copy(out, c);
      bn::Wipe(&c, sizeof c);
      bn::Wipe(&cand, sizeof cand);
      return 0;
    }
  }
  bn::Wipe(&cand, sizeof cand);
  return kSearchFailed;
}

std::uint32_t PowMod32(std::uint32_t b, std::uint32_t e, std::uint32_t m) {
  std::uint64_t r = 1, x = b % m;
  while (e) {
    if (e & 1) r = r * x % m;
    x = x * x % m;
    e >>= 1;
  }
  return static_cast<std::uint32_t>(r);
}

void SubOne(const Num& a, Num& r) {
  bn::Copy(r, a);
  for (int i = 0; i < r.n; ++i) {
    if (r.d[i]-- != 0) break;
  }
  r.n = bn::Normalize(r.d, r.n);
}

struct KeyNums {
  Num n, e, d, p, q, dp, dq, qinv;
  ~KeyNums() { bn::Wipe(this, sizeof *this); }
};

// d = e^-1 mod (p-1)(q-1) and the CRT values. For e = 65537,
// d = (1 + k phi) / e with k = -phi^-1 mod e.
bool Derive(KeyNums& key) {
  Num pm1, qm1;
  SubOne(key.p, pm1);
  SubOne(key.q, qm1);
  Limb phi[2 * kMaxLimbs + 2];
  bn::Mul(phi, pm1.d, pm1.n, qm1.d, qm1.n);
  int phin = bn::Normalize(phi, pm1.n + qm1.n);
  std::uint32_t f = bn::ModSmall(phi, phin, kPublicExponent);
  if (f == 0) return false;
  std::uint32_t inv = PowMod32(f, kPublicExponent - 2, kPublicExponent);
  std::uint64_t k = (kPublicExponent - inv) % kPublicExponent;
  Limb t[2 * kMaxLimbs + 2];
  Limb carry = 1;  // the "1 +"
  for (int i = 0; i < phin; ++i) {
    bn::DLimb s = static_cast<bn::DLimb>(phi[i]) * k + carry;
    t[i] = static_cast<Limb>(s);
    carry = static_cast<Limb>(s >> 64);
  }
  t[phin] = carry;
  Limb ediv[1] = {kPublicExponent};
  Limb quot[2 * kMaxLimbs + 2], rem[1];
  bn::DivMod(t, phin + 1, ediv, 1, quot, rem);
  if (rem[0] != 0) return false;
  int dn = bn::Normalize(quot, phin + 1);
  if (dn > kMaxLimbs) return false;
  key.d.n = dn;
  for (int i = 0; i < dn; ++i) key.d.d[i] = quot[i];
  bn::DivMod(key.d.d, dn, pm1.d, pm1.n, nullptr, key.dp.d);
  key.dp.n = bn::Normalize(key.dp.d, pm1.n);
  bn::DivMod(key.d.d, dn, qm1.d, qm1.n, nullptr, key.dq.d);
  key.dq.n = bn::Normalize(key.dq.d, qm1.n);
  // qInv = q^(p-2) mod p, p being prime.
  bn::Mont mp;
  if (!bn::MontInit(mp, key.p)) return false;
  Num pm2;
  SubOne(pm1, pm2);
  bn::ModExp(mp, key.qinv.d, key.q.d, key.q.n, pm2.d, pm2.n, true);
  key.qinv.n = bn::Normalize(key.qinv.d, mp.n);
  bn::Wipe(phi, sizeof phi);
  bn::Wipe(t, sizeof t);
  bn::Wipe(quot, sizeof quot);
  bn::Wipe(&pm1, sizeof pm1);
  bn::Wipe(&qm1, sizeof qm1);
  return key.qinv.n > 0 && key.dp.n > 0 && key.dq.n > 0;
}

int Generate(int bits, KV_RSA_COMPONENT** out, volatile int* cancel, const Source& src) {
  if (out == nullptr) return -2;
  *out = nullptr;
  if (bits < 512 || bits > 8192) return -102;
  const int bits1 = (bits + 1) / 2;
  const int bits2 = bits - bits1;
  KeyNums key;
  bool done = false;
  for (int attempt = 0; attempt < kAttempts && !done; ++attempt) {
    if (Cancelled(cancel)) return -11;
    int rc = GeneratePrime(bits1, src, cancel, nullptr, key.p);
    if (rc == kGenFailed) return -11;
    if (rc == kSearchFailed) continue;
    if (Cancelled(cancel)) return -11;
    rc = GeneratePrime(bits2, src, cancel, &key.p, key.q);
    if (rc == kGenFailed) return -11;
    if (rc == kSearchFailed) continue;
    if (bn::Cmp(key.p, key.q) < 0) {
      Num t;
      bn::Copy(t, key.p);
      bn::Copy(key.p, key.q);
      bn::Copy(key.q, t);
      bn::Wipe(&t, sizeof t);
    }
    Limb prod[2 * kMaxLimbs + 1];
    bn::Mul(prod, key.p.d, key.p.n, key.q.d, key.q.n);
    int nn = bn::Normalize(prod, key.p.n + key.q.n);
    if (bn::BitLength(prod, nn) != bits) continue;
    key.n.n = nn;
    for (int i = 0; i < nn; ++i) key.n.d[i] = prod[i];
    bn::SetWord(key.e, kPublicExponent);
    if (Cancelled(cancel)) return -11;
    done = Derive(key);
  }
  if (!done) return -11;

  KV_RSA_COMPONENT* block =
      static_cast<KV_RSA_COMPONENT*>(std::calloc(KV_RSA_COMPONENT_COUNT, sizeof(KV_RSA_COMPONENT)));
  if (block == nullptr) return -1;
  const Num* parts[KV_RSA_COMPONENT_COUNT] = {&key.n, &key.e,  &key.d,  &key.p,
                                              &key.q, &key.dp, &key.dq, &key.qinv};
  for (int i = 0; i < KV_RSA_COMPONENT_COUNT; ++i) {
    std::size_t len =
        i == KV_RSA_MODULUS ? static_cast<std::size_t>(bits + 7) / 8 : bn::ByteLength(*parts[i]);
    block[i].data = static_cast<unsigned char*>(std::malloc(len));
    if (block[i].data == nullptr) {
      KV_RSA_FreeKeyPair(block);
      return -1;
    }
    block[i].len = static_cast<unsigned int>(len);
    bn::ToBytes(parts[i]->d, parts[i]->n, block[i].data, len);
  }
  *out = block;
  return 0;
}

}  // namespace

extern "C" {

int KV_RSA_GenerateKeyPair(int bits, KV_RSA_COMPONENT** out, volatile int* cancel) {
  return Generate(bits, out, cancel, Source{RandSource, nullptr});
}

int KV_RSA_GenerateKeyPairEx(int bits, KV_RSA_COMPONENT** out, volatile int* cancel,
                             KV_RSA_RANDOM_FN random, void* randomArg) {
  if (random == nullptr) return -2;
  return Generate(bits, out, cancel, Source{random, randomArg});
}

void KV_RSA_FreeKeyPair(KV_RSA_COMPONENT* block) {
  if (block == nullptr) return;
  for (int i = 0; i < KV_RSA_COMPONENT_COUNT; ++i) {
    if (block[i].data) {
      bn::Wipe(block[i].data, block[i].len);
      std::free(block[i].data);
    }
  }
  std::free(block);
}

}  // extern "C"
