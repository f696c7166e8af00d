// Multi-precision arithmetic for the RSA engine: conversions, schoolbook
// multiplication, long division and Montgomery exponentiation.
#include <cstring>
#if defined(__x86_64__)
#include <cpuid.h>
#endif

#include "crypto/internal/cpu.h"
#include "crypto/internal/rsa_bn.h"

namespace kv {
namespace rsabn {

bool FromBytes(const std::uint8_t* p, std::size_t len, Num& out) {
  while (len > 0 && *p == 0) {
    ++p;
    --len;
  }
  if (len > static_cast<std::size_t>(kMaxBytes)) return false;
  int limbs = static_cast<int>((len + 7) / 8);
  for (int i = 0; i < limbs; ++i) out.d[i] = 0;
  for (std::size_t i = 0; i < len; ++i) {
    std::size_t pos = len - 1 - i;  // byte i counted from the least significant end
    out.d[i / 8] |= static_cast<Limb>(p[pos]) << (8 * (i % 8));
  }
  out.n = limbs;
  return true;
}

void ToBytes(const Limb* a, int n, std::uint8_t* out, std::size_t len) {
  for (std::size_t i = 0; i < len; ++i) {
    std::size_t limb = i / 8;
    std::uint8_t b = 0;
    if (limb < static_cast<std::size_t>(n)) b = static_cast<std::uint8_t>(a[limb] >> (8 * (i % 8)));
    out[len - 1 - i] = b;
  }
}

std::size_t ByteLength(const Num& a) {
  return (static_cast<std::size_t>(BitLength(a.d, a.n)) + 7) / 8;
}

int Normalize(const Limb* a, int n) {
  while (n > 0 && a[n - 1] == 0) --n;
  return n;
}

int BitLength(const Limb* a, int n) {
  n = Normalize(a, n);
  if (n == 0) return 0;
  return 64 * (n - 1) + (64 - __builtin_clzll(a[n - 1]));
}

int Cmp(const Limb* a, int an, const Limb* b, int bn) {
  an = Normalize(a, an);
  bn = Normalize(b, bn);
  if (an != bn) return an < bn ? -1 : 1;
  for (int i = an - 1; i >= 0; --i) {
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  }
  return 0;
}

Limb Add(Limb* r, const Limb* a, const Limb* b, int n) {
  Limb c = 0;
  for (int i = 0; i < n; ++i) {
    DLimb s = static_cast<DLimb>(a[i]) + b[i] + c;
    r[i] = static_cast<Limb>(s);
    c = static_cast<Limb>(s >> 64);
  }
  return c;
}

Limb Sub(Limb* r, const Limb* a, const Limb* b, int n) {
  Limb borrow = 0;
  for (int i = 0; i < n; ++i) {
    Limb ai = a[i], bi = b[i];
    Limb t = ai - bi;
    Limb b1 = ai < bi;
    Limb t2 = t - borrow;
    Limb b2 = t < borrow;
    r[i] = t2;
    borrow = b1 | b2;
  }
  return borrow;
}

void Mul(Limb* r, const Limb* a, int an, const Limb* b, int bn) {
  for (int i = 0; i < an + bn; ++i) r[i] = 0;
  for (int i = 0; i < an; ++i) {
    Limb c = 0;
    Limb ai = a[i];
    for (int j = 0; j < bn; ++j) {
      DLimb t = static_cast<DLimb>(ai) * b[j] + r[i + j] + c;
      r[i + j] = static_cast<Limb>(t);
      c = static_cast<Limb>(t >> 64);
    }
    r[i + bn] = c;
  }
}

std::uint32_t ModSmall(const Limb* a, int n, std::uint32_t m) {
  // Two 32-bit halves per limb keep the division in 64 bits.
  std::uint64_t r = 0;
  for (int i = n - 1; i >= 0; --i) {
    r = ((r << 32) | (a[i] >> 32)) % m;
    r = ((r << 32) | (a[i] & 0xffffffffu)) % m;
  }
  return static_cast<std::uint32_t>(r);
}

bool DivMod(const Limb* a, int an, const Limb* m, int mn, Limb* q, Limb* r) {
  mn = Normalize(m, mn);
  if (mn == 0) return false;
  int un_len = Normalize(a, an);
  if (un_len < mn) {
    for (int i = 0; i < mn; ++i) r[i] = i < un_len ? a[i] : 0;
    if (q) {
      for (int i = 0; i < an - mn + 1; ++i) q[i] = 0;
    }
    return true;
  }
  if (q) {
    for (int i = 0; i < an - mn + 1; ++i) q[i] = 0;
  }
  if (mn == 1) {
    Limb rem = 0;
    for (int i = un_len - 1; i >= 0; --i) {
      DLimb cur = (static_cast<DLimb>(rem) << 64) | a[i];
      Limb qi = static_cast<Limb>(cur / m[0]);
      rem = static_cast<Limb>(cur - static_cast<DLimb>(qi) * m[0]);
      if (q) q[i] = qi;
    }
    r[0] = rem;
    return true;
  }
  // Knuth's algorithm D on normalised copies.
  Limb vn[kMaxLimbs * 2 + 2];
  Limb un[kMaxLimbs * 4 + 4];
  int s = __builtin_clzll(m[mn - 1]);
  for (int i = mn - 1; i > 0; --i) vn[i] = s ? (m[i] << s) | (m[i - 1] >> (64 - s)) : m[i];
  vn[0] = m[0] << s;
  un[un_len] = s ? a[un_len - 1] >> (64 - s) : 0;
  for (int i = un_len - 1; i > 0; --i) un[i] = s ? (a[i] << s) | (a[i - 1] >> (64 - s)) : a[i];
  un[0] = a[0] << s;

  const DLimb base = static_cast<DLimb>(1) << 64;
  for (int j = un_len - mn; j >= 0; --j) {
    DLimb num = (static_cast<DLimb>(un[j + mn]) << 64) | un[j + mn - 1];
    DLimb qhat = num / vn[mn - 1];
    DLimb rhat = num - qhat * vn[mn - 1];
    while (qhat >= base || qhat * vn[mn - 2] > ((rhat << 64) | un[j + mn - 2])) {
      --qhat;
      rhat += vn[mn - 1];
      if (rhat >= base) break;
    }
    Limb qh = static_cast<Limb>(qhat);
    Limb carry = 0, borrow = 0;
    for (int i = 0; i < mn; ++i) {
      DLimb p = static_cast<DLimb>(qh) * vn[i] + carry;
      carry = static_cast<Limb>(p >> 64);
      Limb plo = static_cast<Limb>(p);
      Limb u = un[i + j];
      Limb t = u - plo;
      Limb b1 = u < plo;
      Limb t2 = t - borrow;
      Limb b2 = t < borrow;
      un[i + j] = t2;
      borrow = b1 | b2;
    }
    DLimb sub = static_cast<DLimb>(carry) + borrow;
    Limb top = un[j + mn];
    bool negative = static_cast<DLimb>(top) < sub;
    un[j + mn] = top - static_cast<Limb>(sub);
    if (negative) {
      --qh;
      Limb c = 0;
      for (int i = 0; i < mn; ++i) {
        DLimb t = static_cast<DLimb>(un[i + j]) + vn[i] + c;
        un[i + j] = static_cast<Limb>(t);
        c = static_cast<Limb>(t >> 64);
      }
      un[j + mn] += c;
    }
    if (q) q[j] = qh;
  }
  for (int i = 0; i < mn; ++i) r[i] = s ? (un[i] >> s) | (un[i + 1] << (64 - s)) : un[i];
  Wipe(un, sizeof(Limb) * (un_len + 1));
  return true;
}

void Copy(Num& dst, const Num& src) {
  dst.n = src.n;
  for (int i = 0; i < src.n; ++i) dst.d[i] = src.d[i];
}

void SetWord(Num& dst, Limb w) {
  dst.d[0] = w;
  dst.n = w ? 1 : 0;
}

void Wipe(void* p, std::size_t len) {
  std::memset(p, 0, len);
  // The empty statement that "reads" p keeps the compiler from dropping the
  // stores to storage that is about to die.
  __asm__ __volatile__("" : : "r"(p) : "memory");
}

// ---- Montgomery arithmetic ----

namespace {

// Subtracts m from t (n limbs plus the carry limb `hi`) when t >= m, without
// branching on the values.
inline void FinalSubtract(Limb* r, const Limb* t, Limb hi, const Limb* m, int n) {
  Limb tmp[kMaxLimbs];
  Limb borrow = Sub(tmp, t, m, n);
  // Keep t - m unless it borrowed past the carry limb.
  Limb keep_t = static_cast<Limb>(0) - (borrow & (hi ^ 1));
  for (int i = 0; i < n; ++i) r[i] = (t[i] & keep_t) | (tmp[i] & ~keep_t);
}

// Coarsely integrated operand scanning with both carry chains in one pass.
template <int N>
inline void MontMulFixed(Limb* r, const Limb* a, const Limb* b, const Limb* m, Limb n0, int n_rt) {
  const int n = N > 0 ? N : n_rt;
  Limb t[kMaxLimbs + 2];
  for (int j = 0; j <= n; ++j) t[j] = 0;
  for (int i = 0; i < n; ++i) {
    Limb bi = b[i];
    DLimb x = static_cast<DLimb>(a[0]) * bi + t[0];
    Limb c1 = static_cast<Limb>(x >> 64);
    Limb lo = static_cast<Limb>(x);
    Limb mm = lo * n0;
    DLimb y = static_cast<DLimb>(mm) * m[0] + lo;
    Limb c2 = static_cast<Limb>(y >> 64);
    for (int j = 1; j < n; ++j) {
      x = static_cast<DLimb>(a[j]) * bi + t[j] + c1;
      c1 = static_cast<Limb>(x >> 64);
      y = static_cast<DLimb>(mm) * m[j] + static_cast<Limb>(x) + c2;
      c2 = static_cast<Limb>(y >> 64);
      t[j - 1] = static_cast<Limb>(y);
    }
    DLimb z = static_cast<DLimb>(t[n]) + c1 + c2;
    t[n - 1] = static_cast<Limb>(z);
    t[n] = static_cast<Limb>(z >> 64);
  }
  FinalSubtract(r, t, t[n], m, n);
}

// Squaring: the cross products are computed once and doubled, then the
// 2n-limb square is reduced word by word.
template <int N>
inline void MontSqrFixed(Limb* r, const Limb* a, const Limb* m, Limb n0, int n_rt) {
  const int n = N > 0 ? N : n_rt;
  if (n <= 0 || n > kMaxLimbs) return;
  Limb t[2 * kMaxLimbs + 1];
  for (int i = 0; i < 2 * n; ++i) t[i] = 0;
  for (int i = 0; i < n - 1; ++i) {
    Limb ai = a[i];
    Limb c = 0;
    for (int j = i + 1; j < n; ++j) {
      DLimb p = static_cast<DLimb>(ai) * a[j] + t[i + j] + c;
      t[i + j] = static_cast<Limb>(p);
      c = static_cast<Limb>(p >> 64);
    }
    t[i + n] = c;
  }
  // Double the cross products and add the squares of the limbs.
  Limb shift = 0, carry = 0;
  for (int i = 0; i < n; ++i) {
    DLimb sq = static_cast<DLimb>(a[i]) * a[i];
    Limb lo = t[2 * i], hi = t[2 * i + 1];
    Limb dlo = (lo << 1) | shift;
    Limb dhi = (hi << 1) | (lo >> 63);
    shift = hi >> 63;
    DLimb s0 = static_cast<DLimb>(dlo) + static_cast<Limb>(sq) + carry;
    t[2 * i] = static_cast<Limb>(s0);
    DLimb s1 = static_cast<DLimb>(dhi) + static_cast<Limb>(sq >> 64) + static_cast<Limb>(s0 >> 64);
    t[2 * i + 1] = static_cast<Limb>(s1);
    carry = static_cast<Limb>(s1 >> 64);
  }
  // Montgomery reduction of the 2n-limb value.
  Limb extra = 0;
  for (int i = 0; i < n; ++i) {
    Limb mm = t[i] * n0;
    Limb c = 0;
    for (int j = 0; j < n; ++j) {
      DLimb p = static_cast<DLimb>(mm) * m[j] + t[i + j] + c;
      t[i + j] = static_cast<Limb>(p);
      c = static_cast<Limb>(p >> 64);
    }
    DLimb s = static_cast<DLimb>(t[i + n]) + c + extra;
    t[i + n] = static_cast<Limb>(s);
    extra = static_cast<Limb>(s >> 64);
  }
  FinalSubtract(r, t + n, extra, m, n);
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define KV_RSA_HAVE_ADX_PATH 1

bool CpuHasAdx() {
  static const bool has = [] {
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (!__get_cpuid_count(7, 0, &a, &b, &c, &d)) return false;
    return ((b >> 19) & 1) && ((b >> 8) & 1);  // ADX and BMI2 (mulx)
  }();
  return has;
}

// One outer step of the Montgomery product with two independent carry chains
// (adcx on CF, adox on OF) per row: t += a * bi, then t = (t + m * mod) / 2^64
// with m = t[0] * n0. t holds N + 2 limbs and t[N + 1] is 0 on entry.
template <int N>
inline void MontRowAdx(Limb* t, const Limb* a, Limb bi, const Limb* mod, Limb n0) {
  static_assert(N % 2 == 0 && N >= 4, "even limb counts only");
  __asm__ volatile(
      // t += a * bi
      "movq %[bi], %%rdx\n\t"
      "xorl %%eax, %%eax\n\t"
      "xorl %%r10d, %%r10d\n\t"
      ".set kvj, 0\n\t"
      ".rept %c[half]\n\t"
      "mulxq 8*kvj(%[a]), %%r8, %%r9\n\t"
      "adoxq 8*kvj(%[t]), %%r8\n\t"
      "adcxq %%r10, %%r8\n\t"
      "movq %%r8, 8*kvj(%[t])\n\t"
      "mulxq 8*(kvj+1)(%[a]), %%r8, %%r10\n\t"
      "adoxq 8*(kvj+1)(%[t]), %%r8\n\t"
      "adcxq %%r9, %%r8\n\t"
      "movq %%r8, 8*(kvj+1)(%[t])\n\t"
      ".set kvj, kvj+2\n\t"
      ".endr\n\t"
      "adcxq %%rax, %%r10\n\t"
      "adoxq 8*%c[n](%[t]), %%r10\n\t"
      "movq %%r10, 8*%c[n](%[t])\n\t"
      "movl $0, %%r8d\n\t"
      "adoxq %%rax, %%r8\n\t"
      "movq %%r8, 8*(%c[n]+1)(%[t])\n\t"
      // m = t[0] * n0; t = (t + m * mod) >> 64
      "movq (%[t]), %%rdx\n\t"
      "imulq %[n0], %%rdx\n\t"
      "xorl %%eax, %%eax\n\t"
      "mulxq (%[m]), %%r8, %%r9\n\t"
      "adoxq (%[t]), %%r8\n\t"
      ".set kvj, 1\n\t"
      ".rept %c[half]-1\n\t"
      "mulxq 8*kvj(%[m]), %%r8, %%r10\n\t"
      "adoxq 8*kvj(%[t]), %%r8\n\t"
      "adcxq %%r9, %%r8\n\t"
      "movq %%r8, 8*(kvj-1)(%[t])\n\t"
      "mulxq 8*(kvj+1)(%[m]), %%r8, %%r9\n\t"
      "adoxq 8*(kvj+1)(%[t]), %%r8\n\t"
      "adcxq %%r10, %%r8\n\t"
      "movq %%r8, 8*kvj(%[t])\n\t"
      ".set kvj, kvj+2\n\t"
      ".endr\n\t"
      "mulxq 8*(%c[n]-1)(%[m]), %%r8, %%r10\n\t"
      "adoxq 8*(%c[n]-1)(%[t]), %%r8\n\t"
      "adcxq %%r9, %%r8\n\t"
      "movq %%r8, 8*(%c[n]-2)(%[t])\n\t"
      "adcxq %%rax, %%r10\n\t"
      "adoxq 8*%c[n](%[t]), %%r10\n\t"
      "movq %%r10, 8*(%c[n]-1)(%[t])\n\t"
      "movq 8*(%c[n]+1)(%[t]), %%r8\n\t"
      "adoxq %%rax, %%r8\n\t"
      "movq %%r8, 8*%c[n](%[t])\n\t"
      "movq %%rax, 8*(%c[n]+1)(%[t])\n\t"
      :
      : [t] "r"(t), [a] "r"(a), [m] "r"(mod), [bi] "r"(bi), [n0] "r"(n0), [n] "i"(N),
        [half] "i"(N / 2)
      : "rax", "rdx", "r8", "r9", "r10", "cc", "memory");
}

// t[0..L-1] += a[0..L-1] * x; t[L] (not read) receives the top limb.
template <int L>
inline void MulRowAdx(Limb* t, const Limb* a, Limb x) {
  __asm__ volatile(
      "movq %[x], %%rdx\n\t"
      "xorl %%eax, %%eax\n\t"
      "xorl %%r10d, %%r10d\n\t"
      ".set kvj, 0\n\t"
      ".rept %c[len]\n\t"
      "mulxq 8*kvj(%[a]), %%r8, %%r9\n\t"
      "adoxq 8*kvj(%[t]), %%r8\n\t"
      "adcxq %%r10, %%r8\n\t"
      "movq %%r8, 8*kvj(%[t])\n\t"
      "movq %%r9, %%r10\n\t"
      ".set kvj, kvj+1\n\t"
      ".endr\n\t"
      "adcxq %%rax, %%r10\n\t"
      "adoxq %%rax, %%r10\n\t"
      "movq %%r10, 8*%c[len](%[t])\n\t"
      :
      : [t] "r"(t), [a] "r"(a), [x] "r"(x), [len] "i"(L)
      : "rax", "rdx", "r8", "r9", "r10", "cc", "memory");
}

// One reduction step: t[0..N-1] += (t[0] n0 mod 2^64) * mod, which clears
// t[0]; returns the limb that belongs above t[N-1].
template <int N>
inline Limb RedRowAdx(Limb* t, const Limb* mod, Limb n0) {
  Limb top;
  __asm__ volatile(
      "movq (%[t]), %%rdx\n\t"
      "imulq %[n0], %%rdx\n\t"
      "xorl %%eax, %%eax\n\t"
      "xorl %%r10d, %%r10d\n\t"
      ".set kvj, 0\n\t"
      ".rept %c[n]\n\t"
      "mulxq 8*kvj(%[m]), %%r8, %%r9\n\t"
      "adoxq 8*kvj(%[t]), %%r8\n\t"
      "adcxq %%r10, %%r8\n\t"
      "movq %%r8, 8*kvj(%[t])\n\t"
      "movq %%r9, %%r10\n\t"
      ".set kvj, kvj+1\n\t"
      ".endr\n\t"
      "adcxq %%rax, %%r10\n\t"
      "adoxq %%rax, %%r10\n\t"
      "movq %%r10, %[top]\n\t"
      : [top] "=&r"(top)
      : [t] "r"(t), [m] "r"(mod), [n0] "r"(n0), [n] "i"(N)
      : "rax", "rdx", "r8", "r9", "r10", "cc", "memory");
  return top;
}

template <int N, int I>
struct CrossRowsAdx {
  static inline void Run(Limb* t, const Limb* a) {
    MulRowAdx<N - 1 - I>(t + 2 * I + 1, a + I + 1, a[I]);
    CrossRowsAdx<N, I + 1>::Run(t, a);
  }
};
template <int N>
struct CrossRowsAdx<N, N - 1> {
  static inline void Run(Limb*, const Limb*) {}
};

// Square: cross products once, doubled, plus the limb squares; then N
// reduction steps over the 2N-limb value.
template <int N>
inline void MontSqrAdx(Limb* r, const Limb* a, const Limb* m, Limb n0) {
  Limb t[2 * N + 1];
  for (int i = 0; i < 2 * N + 1; ++i) t[i] = 0;
  CrossRowsAdx<N, 0>::Run(t, a);
  Limb shift = 0, carry = 0;
  for (int i = 0; i < N; ++i) {
    DLimb sq = static_cast<DLimb>(a[i]) * a[i];
    Limb lo = t[2 * i], hi = t[2 * i + 1];
    Limb dlo = (lo << 1) | shift;
    Limb dhi = (hi << 1) | (lo >> 63);
    shift = hi >> 63;
    DLimb s0 = static_cast<DLimb>(dlo) + static_cast<Limb>(sq) + carry;
    t[2 * i] = static_cast<Limb>(s0);
    DLimb s1 = static_cast<DLimb>(dhi) + static_cast<Limb>(sq >> 64) + static_cast<Limb>(s0 >> 64);
    t[2 * i + 1] = static_cast<Limb>(s1);
    carry = static_cast<Limb>(s1 >> 64);
  }
  Limb extra = 0;
  for (int i = 0; i < N; ++i) {
    Limb c = RedRowAdx<N>(t + i, m, n0);
    DLimb s = static_cast<DLimb>(t[i + N]) + c + extra;
    t[i + N] = static_cast<Limb>(s);
    extra = static_cast<Limb>(s >> 64);
  }
  FinalSubtract(r, t + N, extra, m, N);
}

template <int N>
inline void MontMulAdx(Limb* r, const Limb* a, const Limb* b, const Limb* m, Limb n0) {
  Limb t[N + 2];
  for (int j = 0; j < N + 2; ++j) t[j] = 0;
  for (int i = 0; i < N; ++i) MontRowAdx<N>(t, a, b[i], m, n0);
  FinalSubtract(r, t, t[N], m, N);
}
#endif

}  // namespace

void MontMul(const Mont& ctx, Limb* r, const Limb* a, const Limb* b) {
#ifdef KV_RSA_HAVE_ADX_PATH
  if (CpuHasAdx() && kv::internal::AccelerationAllowed()) {
    switch (ctx.n) {
      case 4:
        MontMulAdx<4>(r, a, b, ctx.m, ctx.n0);
        return;
      case 8:
        MontMulAdx<8>(r, a, b, ctx.m, ctx.n0);
        return;
      case 16:
        MontMulAdx<16>(r, a, b, ctx.m, ctx.n0);
        return;
      case 24:
        MontMulAdx<24>(r, a, b, ctx.m, ctx.n0);
        return;
      case 32:
        MontMulAdx<32>(r, a, b, ctx.m, ctx.n0);
        return;
      case 48:
        MontMulAdx<48>(r, a, b, ctx.m, ctx.n0);
        return;
      case 64:
        MontMulAdx<64>(r, a, b, ctx.m, ctx.n0);
        return;
      case 128:
        MontMulAdx<128>(r, a, b, ctx.m, ctx.n0);
        return;
      default:
        break;
    }
  }
#endif
  switch (ctx.n) {
    case 4:
      MontMulFixed<4>(r, a, b, ctx.m, ctx.n0, 4);
      break;
    case 8:
      MontMulFixed<8>(r, a, b, ctx.m, ctx.n0, 8);
      break;
    case 16:
      MontMulFixed<16>(r, a, b, ctx.m, ctx.n0, 16);
      break;
    case 24:
      MontMulFixed<24>(r, a, b, ctx.m, ctx.n0, 24);
      break;
    case 32:
      MontMulFixed<32>(r, a, b, ctx.m, ctx.n0, 32);
      break;
    case 64:
      MontMulFixed<64>(r, a, b, ctx.m, ctx.n0, 64);
      break;
    default:
      MontMulFixed<0>(r, a, b, ctx.m, ctx.n0, ctx.n);
      break;
  }
}

void MontSqr(const Mont& ctx, Limb* r, const Limb* a) {
#ifdef KV_RSA_HAVE_ADX_PATH
  if (CpuHasAdx() && kv::internal::AccelerationAllowed()) {
    switch (ctx.n) {
      case 4:
        MontSqrAdx<4>(r, a, ctx.m, ctx.n0);
        return;
      case 8:
        MontSqrAdx<8>(r, a, ctx.m, ctx.n0);
        return;
      case 16:
        MontSqrAdx<16>(r, a, ctx.m, ctx.n0);
        return;
      case 24:
        MontSqrAdx<24>(r, a, ctx.m, ctx.n0);
        return;
      case 32:
        MontSqrAdx<32>(r, a, ctx.m, ctx.n0);
        return;
      case 48:
      case 64:
      case 128:
        MontMul(ctx, r, a, a);
        return;
      default:
        break;
    }
  }
#endif
  switch (ctx.n) {
    case 4:
      MontSqrFixed<4>(r, a, ctx.m, ctx.n0, 4);
      break;
    case 8:
      MontSqrFixed<8>(r, a, ctx.m, ctx.n0, 8);
      break;
    case 16:
      MontSqrFixed<16>(r, a, ctx.m, ctx.n0, 16);
      break;
    case 24:
      MontSqrFixed<24>(r, a, ctx.m, ctx.n0, 24);
      break;
    case 32:
      MontSqrFixed<32>(r, a, ctx.m, ctx.n0, 32);
      break;
    case 64:
      MontSqrFixed<64>(r, a, ctx.m, ctx.n0, 64);
      break;
    default:
      MontSqrFixed<0>(r, a, ctx.m, ctx.n0, ctx.n);
      break;
  }
}

bool MontInit(Mont& ctx, const Num& m) {
  int n = Normalize(m.d, m.n);
  if (n == 0 || (m.d[0] & 1) == 0 || (n == 1 && m.d[0] == 1)) return false;
  ctx.n = n;
  for (int i = 0; i < n; ++i) ctx.m[i] = m.d[i];
  // Newton iteration for m^-1 mod 2^64; each step doubles the correct bits.
  Limb inv = 1;
  for (int i = 0; i < 6; ++i) inv *= 2 - m.d[0] * inv;
  ctx.n0 = static_cast<Limb>(0) - inv;
  // R mod m by long division, then R^2 mod m by doubling R mod m 64 n times.
  Limb big[kMaxLimbs + 1];
  for (int i = 0; i < n; ++i) big[i] = 0;
  big[n] = 1;
  DivMod(big, n + 1, ctx.m, n, nullptr, ctx.one);
  Limb x[kMaxLimbs];
  for (int i = 0; i < n; ++i) x[i] = ctx.one[i];
  for (int k = 0; k < 64 * n; ++k) {
    Limb carry = Add(x, x, x, n);
    Limb tmp[kMaxLimbs];
    Limb borrow = Sub(tmp, x, ctx.m, n);
    if (carry || !borrow) {
      for (int i = 0; i < n; ++i) x[i] = tmp[i];
    }
  }
  for (int i = 0; i < n; ++i) ctx.rr[i] = x[i];
  return true;
}

void ToMont(const Mont& ctx, Limb* r, const Limb* a) {
  MontMul(ctx, r, a, ctx.rr);
}

void FromMont(const Mont& ctx, Limb* r, const Limb* a) {
  Limb one[kMaxLimbs];
  one[0] = 1;
  for (int i = 1; i < ctx.n; ++i) one[i] = 0;
  MontMul(ctx, r, a, one);
}

void MontExp(const Mont& ctx, Limb* r, const Limb* g, const Limb* e, int en) {
  const int n = ctx.n;
  int bits = BitLength(e, en);
  if (bits == 0) {
    for (int i = 0; i < n; ++i) r[i] = ctx.one[i];
    return;
  }
  int w = bits > 671 ? 6 : bits > 239 ? 5 : bits > 79 ? 4 : bits > 23 ? 3 : 1;
  // Odd powers g, g^3, ..., g^(2^w - 1).
  static_assert(kMaxLimbs <= 128, "window table sized for 128 limbs");
  Limb table[32][kMaxLimbs];
  Limb g2[kMaxLimbs];
  for (int i = 0; i < n; ++i) table[0][i] = g[i];
  if (w > 1) {
    MontSqr(ctx, g2, g);
    for (int k = 1; k < (1 << (w - 1)); ++k) MontMul(ctx, table[k], table[k - 1], g2);
  }
  Limb acc[kMaxLimbs];
  bool started = false;
  int i = bits - 1;
  auto bit = [&](int pos) { return static_cast<int>((e[pos / 64] >> (pos % 64)) & 1); };
  while (i >= 0) {
    if (!bit(i)) {
      if (started) MontSqr(ctx, acc, acc);
      --i;
      continue;
    }
    // Longest window of at most w bits ending in a set bit.
    int lo = i - w + 1 < 0 ? 0 : i - w + 1;
    while (!bit(lo)) ++lo;
    int val = 0;
    for (int k = i; k >= lo; --k) val = (val << 1) | bit(k);
    if (started) {
      for (int k = i; k >= lo; --k) MontSqr(ctx, acc, acc);
      MontMul(ctx, acc, acc, table[val >> 1]);
    } else {
      for (int k = 0; k < n; ++k) acc[k] = table[val >> 1][k];
      started = true;
    }
    i = lo - 1;
  }
  for (int k = 0; k < n; ++k) r[k] = acc[k];
  Wipe(table, sizeof(Limb) * kMaxLimbs * (1u << (w - 1)));
}

void MontExpSecret(const Mont& ctx, Limb* r, const Limb* g, const Limb* e, int en) {
  constexpr int kW = 5;
  constexpr int kEntries = 1 << kW;
  const int n = ctx.n;
  Limb table[kEntries][kMaxLimbs];
  for (int i = 0; i < n; ++i) {
    table[0][i] = ctx.one[i];
    table[1][i] = g[i];
  }
  for (int k = 2; k < kEntries; ++k) MontMul(ctx, table[k], table[k - 1], g);
  const int bits = 64 * en;
  Limb acc[kMaxLimbs], sel[kMaxLimbs];
  for (int i = 0; i < n; ++i) acc[i] = ctx.one[i];
  for (int pos = ((bits - 1) / kW) * kW; pos >= 0; pos -= kW) {
    for (int s = 0; s < kW; ++s) MontSqr(ctx, acc, acc);
    Limb idx = 0;
    for (int k = pos + kW - 1; k >= pos; --k) {
      Limb bit = k < bits ? (e[k / 64] >> (k % 64)) & 1 : 0;
      idx = (idx << 1) | bit;
    }
    // Read every entry so that the access pattern does not depend on idx.
    for (int i = 0; i < n; ++i) sel[i] = 0;
    for (int k = 0; k < kEntries; ++k) {
      Limb diff = static_cast<Limb>(k) ^ idx;
      Limb mask = ((diff | (0 - diff)) >> 63) - 1;  // all ones when k == idx
      for (int i = 0; i < n; ++i) sel[i] |= table[k][i] & mask;
    }
    MontMul(ctx, acc, acc, sel);
  }
  for (int i = 0; i < n; ++i) r[i] = acc[i];
  Wipe(table, sizeof table);
  Wipe(acc, sizeof acc);
  Wipe(sel, sizeof sel);
}

void ModExp(const Mont& ctx, Limb* r, const Limb* a, int an, const Limb* e, int en, bool secret) {
  Limb red[kMaxLimbs];
  DivMod(a, an, ctx.m, ctx.n, nullptr, red);
  Limb gm[kMaxLimbs];
  ToMont(ctx, gm, red);
  Limb out[kMaxLimbs];
  if (secret) {
    MontExpSecret(ctx, out, gm, e, en);
  } else {
    MontExp(ctx, out, gm, e, en);
  }
  FromMont(ctx, r, out);
  Wipe(red, sizeof red);
  Wipe(gm, sizeof gm);
}

}  // namespace rsabn
}  // namespace kv
