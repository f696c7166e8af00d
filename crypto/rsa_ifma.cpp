// The CRT exponentiations on AVX-512 IFMA: numbers in 52-bit limbs, four to a
// 256-bit register (a 1024-bit prime fills five exactly, where 512-bit
// registers would carry four idle lanes), multiplied by almost-Montgomery multiplication (results
// below twice the modulus, reduced once at the end), the two halves side by
// side. Used when the processor has IFMA; the 64-bit path serves the rest.
#include "crypto/internal/rsa_ifma.h"

#include <cstring>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__)) && !defined(KV_RSA_NO_IFMA)
#include <cpuid.h>
#include <immintrin.h>
#if defined(__GNUC__) && !defined(__clang__)
// GCC 12's own AVX-512 intrinsics trip this warning when inlined.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#define KV_RSA_HAVE_IFMA 1
#endif

#include "crypto/internal/cpu.h"
#include "crypto/internal/rsa_bn.h"

namespace kv {
namespace rsabn {

#ifdef KV_RSA_HAVE_IFMA
namespace {

constexpr std::uint64_t kMask52 = (static_cast<std::uint64_t>(1) << 52) - 1;
constexpr int kMaxVec = 10;  // 40 limbs of 52 bits: moduli up to 2048 bits
constexpr int kMaxL52 = kMaxVec * 4;

bool CpuHasIfma() {
  static const bool has = [] {
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (!__get_cpuid(1, &a, &b, &c, &d)) return false;
    bool osxsave = (c >> 27) & 1;
    if (!osxsave) return false;
    // The OS must save the AVX-512 state (XCR0 bits 1, 2, 5, 6, 7).
    unsigned lo = 0, hi = 0;
    __asm__("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
    if ((lo & 0xe6) != 0xe6) return false;
    if (!__get_cpuid_count(7, 0, &a, &b, &c, &d)) return false;
    return ((b >> 16) & 1) && ((b >> 21) & 1) && ((b >> 31) & 1);  // AVX512F, IFMA, VL
  }();
  return has;
}

// 64-bit limbs into L 52-bit limbs (the rest of the lanes zero).
void To52(const Limb* a, int n, std::uint64_t* out, int lanes) {
  for (int j = 0; j < lanes; ++j) {
    int bit = 52 * j;
    int limb = bit / 64, off = bit % 64;
    std::uint64_t v = 0;
    if (limb < n) v = a[limb] >> off;
    if (off > 12 && limb + 1 < n) v |= a[limb + 1] << (64 - off);
    out[j] = v & kMask52;
  }
}

void From52(const std::uint64_t* in, int lanes, Limb* a, int n) {
  for (int i = 0; i < n; ++i) a[i] = 0;
  for (int j = 0; j < lanes; ++j) {
    int bit = 52 * j;
    int limb = bit / 64, off = bit % 64;
    if (limb < n) a[limb] |= in[j] << off;
    if (off > 12 && limb + 1 < n) a[limb + 1] |= in[j] >> (64 - off);
  }
}

template <int V>
struct Vec {
  __m256i v[V];
};

template <int V>
__attribute__((target("avx512f,avx512vl,avx512ifma"))) inline void LoadVec(
    Vec<V>& dst, const std::uint64_t* src) {
  for (int v = 0; v < V; ++v)
    dst.v[v] = _mm256_load_si256(reinterpret_cast<const __m256i*>(src + 4 * v));
}

// r = a * b / 2^(52 L) modulo m, not fully reduced: inputs below 2m give a
// result below 2m since 2^(52 L) > 4m. All operands are normalised to 52 bits
// per lane.
template <int V>
__attribute__((target("avx512f,avx512vl,avx512ifma"))) inline void Amm(
    Vec<V>& r, const Vec<V>& a, const std::uint64_t* b, const Vec<V>& m, std::uint64_t m0,
    std::uint64_t k0, int lanes) {
  __m256i x[V];
  for (int v = 0; v < V; ++v) x[v] = _mm256_setzero_si256();
  const __m256i zero = _mm256_setzero_si256();
  for (int i = 0; i < lanes; ++i) {
    const __m256i bi = _mm256_set1_epi64x(static_cast<long long>(b[i]));
    for (int v = 0; v < V; ++v) x[v] = _mm256_madd52lo_epu64(x[v], a.v[v], bi);
    std::uint64_t x0 = static_cast<std::uint64_t>(_mm_cvtsi128_si64(_mm256_castsi256_si128(x[0])));
    std::uint64_t mq = (x0 * k0) & kMask52;
    const __m256i mv = _mm256_set1_epi64x(static_cast<long long>(mq));
    for (int v = 0; v < V; ++v) x[v] = _mm256_madd52lo_epu64(x[v], m.v[v], mv);
    // Lane 0 is now a multiple of 2^52; its carry moves to the next lane.
    std::uint64_t carry = (x0 + ((mq * m0) & kMask52)) >> 52;
    for (int v = 0; v < V - 1; ++v) x[v] = _mm256_alignr_epi64(x[v + 1], x[v], 1);
    x[V - 1] = _mm256_alignr_epi64(zero, x[V - 1], 1);
    x[0] = _mm256_add_epi64(x[0], _mm256_maskz_set1_epi64(1, static_cast<long long>(carry)));
    for (int v = 0; v < V; ++v) x[v] = _mm256_madd52hi_epu64(x[v], a.v[v], bi);
    for (int v = 0; v < V; ++v) x[v] = _mm256_madd52hi_epu64(x[v], m.v[v], mv);
  }
  // Normalise the lanes to 52 bits.
  alignas(32) std::uint64_t t[V * 4];
  for (int v = 0; v < V; ++v) _mm256_store_si256(reinterpret_cast<__m256i*>(t + 4 * v), x[v]);
  std::uint64_t c = 0;
  for (int j = 0; j < V * 4; ++j) {
    std::uint64_t s = t[j] + c;
    t[j] = s & kMask52;
    c = s >> 52;
  }
  for (int v = 0; v < V; ++v)
    r.v[v] = _mm256_load_si256(reinterpret_cast<const __m256i*>(t + 4 * v));
}

// Two independent products in one loop, so that one's latency hides behind
// the other's work: the two CRT halves run side by side.
template <int V>
__attribute__((target("avx512f,avx512vl,avx512ifma"))) inline void Amm2(
    Vec<V>* r, const Vec<V>* a, const Vec<V>* b, const Vec<V>* m, const std::uint64_t* m0,
    const std::uint64_t* k0, int lanes) {
  alignas(32) std::uint64_t bl[2][V * 4];
  for (int h = 0; h < 2; ++h) {
    for (int v = 0; v < V; ++v)
      _mm256_store_si256(reinterpret_cast<__m256i*>(bl[h] + 4 * v), b[h].v[v]);
  }
  __m256i x0[V], x1[V];
  for (int v = 0; v < V; ++v) x0[v] = x1[v] = _mm256_setzero_si256();
  const __m256i zero = _mm256_setzero_si256();
  const std::uint64_t a00 =
      static_cast<std::uint64_t>(_mm_cvtsi128_si64(_mm256_castsi256_si128(a[0].v[0])));
  const std::uint64_t a10 =
      static_cast<std::uint64_t>(_mm_cvtsi128_si64(_mm256_castsi256_si128(a[1].v[0])));
  for (int i = 0; i < lanes; ++i) {
    // Lane 0 is followed in scalar code, so the multiplier m is ready without
    // waiting for the vector products; the high halves go to their own
    // registers and join after the shift, which keeps each register's chain of
    // dependent operations short.
    const std::uint64_t bs0 = bl[0][i], bs1 = bl[1][i];
    const __m256i b0 = _mm256_set1_epi64x(static_cast<long long>(bs0));
    const __m256i b1 = _mm256_set1_epi64x(static_cast<long long>(bs1));
    std::uint64_t l0 = static_cast<std::uint64_t>(_mm_cvtsi128_si64(_mm256_castsi256_si128(x0[0])));
    std::uint64_t l1 = static_cast<std::uint64_t>(_mm_cvtsi128_si64(_mm256_castsi256_si128(x1[0])));
    l0 += (a00 * bs0) & kMask52;
    l1 += (a10 * bs1) & kMask52;
    std::uint64_t q0 = (l0 * k0[0]) & kMask52;
    std::uint64_t q1 = (l1 * k0[1]) & kMask52;
    std::uint64_t c0 = (l0 + ((q0 * m0[0]) & kMask52)) >> 52;
    std::uint64_t c1 = (l1 + ((q1 * m0[1]) & kMask52)) >> 52;
    const __m256i mv0 = _mm256_set1_epi64x(static_cast<long long>(q0));
    const __m256i mv1 = _mm256_set1_epi64x(static_cast<long long>(q1));
    __m256i h0[V], h1[V];
    for (int v = 0; v < V; ++v) x0[v] = _mm256_madd52lo_epu64(x0[v], a[0].v[v], b0);
    for (int v = 0; v < V; ++v) x1[v] = _mm256_madd52lo_epu64(x1[v], a[1].v[v], b1);
    for (int v = 0; v < V; ++v) h0[v] = _mm256_madd52hi_epu64(zero, a[0].v[v], b0);
    for (int v = 0; v < V; ++v) h1[v] = _mm256_madd52hi_epu64(zero, a[1].v[v], b1);
    for (int v = 0; v < V; ++v) x0[v] = _mm256_madd52lo_epu64(x0[v], m[0].v[v], mv0);
    for (int v = 0; v < V; ++v) x1[v] = _mm256_madd52lo_epu64(x1[v], m[1].v[v], mv1);
    for (int v = 0; v < V; ++v) h0[v] = _mm256_madd52hi_epu64(h0[v], m[0].v[v], mv0);
    for (int v = 0; v < V; ++v) h1[v] = _mm256_madd52hi_epu64(h1[v], m[1].v[v], mv1);
    for (int v = 0; v < V - 1; ++v) x0[v] = _mm256_alignr_epi64(x0[v + 1], x0[v], 1);
    for (int v = 0; v < V - 1; ++v) x1[v] = _mm256_alignr_epi64(x1[v + 1], x1[v], 1);
    x0[V - 1] = _mm256_alignr_epi64(zero, x0[V - 1], 1);
    x1[V - 1] = _mm256_alignr_epi64(zero, x1[V - 1], 1);
    h0[0] = _mm256_add_epi64(h0[0], _mm256_maskz_set1_epi64(1, static_cast<long long>(c0)));
    h1[0] = _mm256_add_epi64(h1[0], _mm256_maskz_set1_epi64(1, static_cast<long long>(c1)));
    for (int v = 0; v < V; ++v) x0[v] = _mm256_add_epi64(x0[v], h0[v]);
    for (int v = 0; v < V; ++v) x1[v] = _mm256_add_epi64(x1[v], h1[v]);
  }
  alignas(32) std::uint64_t t[2][V * 4];
  for (int v = 0; v < V; ++v) {
    _mm256_store_si256(reinterpret_cast<__m256i*>(t[0] + 4 * v), x0[v]);
    _mm256_store_si256(reinterpret_cast<__m256i*>(t[1] + 4 * v), x1[v]);
  }
  for (int h = 0; h < 2; ++h) {
    std::uint64_t c = 0;
    for (int j = 0; j < V * 4; ++j) {
      std::uint64_t sum = t[h][j] + c;
      t[h][j] = sum & kMask52;
      c = sum >> 52;
    }
    for (int v = 0; v < V; ++v)
      r[h].v[v] = _mm256_load_si256(reinterpret_cast<const __m256i*>(t[h] + 4 * v));
  }
}

// Constant-time table read: every entry is touched whatever the index.
template <int V>
__attribute__((target("avx512f,avx512vl,avx512ifma"))) inline void Select(Vec<V>& out,
                                                                          const Vec<V>* table,
                                                                          int count, int index) {
  for (int v = 0; v < V; ++v) out.v[v] = _mm256_setzero_si256();
  for (int k = 0; k < count; ++k) {
    __mmask8 pick = static_cast<__mmask8>(0u - static_cast<unsigned>(k == index));
    for (int v = 0; v < V; ++v) out.v[v] = _mm256_mask_mov_epi64(out.v[v], pick, table[k].v[v]);
  }
}

struct Half {
  const Mont* ctx;
  const Limb* x;
  const Limb* e;
  int en;
  Limb* r;
};

// Both CRT exponentiations with fixed 5-bit windows, side by side.
template <int V>
__attribute__((target("avx512f,avx512vl,avx512ifma"))) void CrtExpV(const Half* half, int lanes) {
  constexpr int kW = 5;
  constexpr int kEntries = 1 << kW;
  alignas(32) std::uint64_t buf[V * 4];
  Vec<V> m[2], one_m[2], acc[2], tmp[2], sel[2];
  std::uint64_t m0[2], k0[2];
  static_assert(sizeof(Vec<V>) % 32 == 0, "vector alignment");
  Vec<V> table[2][kEntries];
  int ebits = 0;
  for (int h = 0; h < 2; ++h) {
    const Mont& ctx = *half[h].ctx;
    std::memset(buf, 0, sizeof buf);
    To52(ctx.m, ctx.n, buf, lanes);
    LoadVec<V>(m[h], buf);
    m0[h] = buf[0];
    k0[h] = ctx.n0 & kMask52;
    Limb pow[2 * kMaxLimbs + 1];
    const int bits = 104 * lanes;
    const int pn = bits / 64 + 1;
    for (int i = 0; i < pn; ++i) pow[i] = 0;
    pow[bits / 64] = static_cast<Limb>(1) << (bits % 64);
    Limb rr[kMaxLimbs];
    DivMod(pow, pn, ctx.m, ctx.n, nullptr, rr);
    alignas(32) std::uint64_t rr52[V * 4] = {};
    To52(rr, ctx.n, rr52, lanes);
    alignas(32) std::uint64_t unit[V * 4] = {};
    unit[0] = 1;
    Vec<V> u;
    LoadVec<V>(u, unit);
    Amm<V>(table[h][0], u, rr52, m[h], m0[h], k0[h], lanes);  // 1 in Montgomery form
    one_m[h] = table[h][0];
    std::memset(buf, 0, sizeof buf);
    To52(half[h].x, ctx.n, buf, lanes);
    Vec<V> xv;
    LoadVec<V>(xv, buf);
    Amm<V>(table[h][1], xv, rr52, m[h], m0[h], k0[h], lanes);  // x R'
    int b = BitLength(half[h].e, half[h].en);
    if (b > ebits) ebits = b;
  }
  for (int k = 2; k < kEntries; ++k) {
    Vec<V> prev[2] = {table[0][k - 1], table[1][k - 1]};
    Vec<V> g[2] = {table[0][1], table[1][1]};
    Amm2<V>(tmp, prev, g, m, m0, k0, lanes);
    table[0][k] = tmp[0];
    table[1][k] = tmp[1];
  }
  auto window = [&](int h, int pos) {
    int val = 0;
    for (int k = pos + kW - 1; k >= pos; --k) {
      int bit = 0;
      if (k < 64 * half[h].en) bit = static_cast<int>((half[h].e[k / 64] >> (k % 64)) & 1);
      val = (val << 1) | bit;
    }
    return val;
  };
  int pos = ebits == 0 ? 0 : ((ebits - 1) / kW) * kW;
  acc[0] = one_m[0];
  acc[1] = one_m[1];
  for (; pos >= 0; pos -= kW) {
    for (int s = 0; s < kW; ++s) {
      Vec<V> cur[2] = {acc[0], acc[1]};
      Amm2<V>(acc, cur, cur, m, m0, k0, lanes);
    }
    Select<V>(sel[0], table[0], kEntries, window(0, pos));
    Select<V>(sel[1], table[1], kEntries, window(1, pos));
    Vec<V> cur[2] = {acc[0], acc[1]};
    Amm2<V>(acc, cur, sel, m, m0, k0, lanes);
  }
  for (int h = 0; h < 2; ++h) {
    const Mont& ctx = *half[h].ctx;
    alignas(32) std::uint64_t unit[V * 4] = {};
    unit[0] = 1;
    Amm<V>(acc[h], acc[h], unit, m[h], m0[h], k0[h], lanes);
    for (int v = 0; v < V; ++v)
      _mm256_store_si256(reinterpret_cast<__m256i*>(buf + 4 * v), acc[h].v[v]);
    Limb out[kMaxLimbs + 1], t[kMaxLimbs + 1], mm[kMaxLimbs + 1];
    From52(buf, lanes, out, ctx.n + 1);
    for (int k = 0; k < ctx.n; ++k) mm[k] = ctx.m[k];
    mm[ctx.n] = 0;
    if (!Sub(t, out, mm, ctx.n + 1)) {
      for (int k = 0; k < ctx.n; ++k) out[k] = t[k];
    }
    for (int k = 0; k < ctx.n; ++k) half[h].r[k] = out[k];
    Wipe(out, sizeof out);
    Wipe(t, sizeof t);
  }
  Wipe(table, sizeof table);
  Wipe(acc, sizeof acc);
  Wipe(sel, sizeof sel);
  Wipe(tmp, sizeof tmp);
  Wipe(buf, sizeof buf);
}

}  // namespace

bool IfmaCrtExp(const Mont& p, Limb* rp, const Limb* xp, const Limb* ep, int epn, const Mont& q,
                Limb* rq, const Limb* xq, const Limb* eq, int eqn) {
  if (!CpuHasIfma() || !kv::internal::AccelerationAllowed()) return false;
  if (p.n != q.n) return false;
  int lanes = (64 * p.n + 2 + 51) / 52;
  if (lanes > kMaxL52) return false;
  const Half half[2] = {{&p, xp, ep, epn, rp}, {&q, xq, eq, eqn, rq}};
  switch ((lanes + 3) / 4) {
    case 2:
      CrtExpV<2>(half, lanes);
      return true;
    case 3:
      CrtExpV<3>(half, lanes);
      return true;
    case 4:
      CrtExpV<4>(half, lanes);
      return true;
    case 5:
      CrtExpV<5>(half, lanes);
      return true;
    case 6:
      CrtExpV<6>(half, lanes);
      return true;
    case 7:
      CrtExpV<7>(half, lanes);
      return true;
    case 8:
      CrtExpV<8>(half, lanes);
      return true;
    case 9:
      CrtExpV<9>(half, lanes);
      return true;
    case 10:
      CrtExpV<10>(half, lanes);
      return true;
    default:
      return false;
  }
}

#else

bool IfmaCrtExp(const Mont&, Limb*, const Limb*, const Limb*, int, const Mont&, Limb*, const Limb*,
                const Limb*, int) {
  return false;
}

#endif

}  // namespace rsabn
}  // namespace kv
