#include "crypto/sha1.h"

#include <cstring>

#include "crypto/internal/bytes.h"
#include "crypto/internal/cpu.h"
#include "crypto/internal/sha1_blocks.h"
#include "crypto/internal/wipe.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>

#include <utility>
#define KV_HAVE_SHA_NI 1
#endif

namespace kv {
namespace internal {

// Round constants of FIPS 180-4 section 4.2.1.
constexpr uint32_t kSha1K0 = 0x5a827999, kSha1K1 = 0x6ed9eba1, kSha1K2 = 0x8f1bbcdc,
                   kSha1K3 = 0xca62c1d6;

void Sha1BlocksPortable(uint32_t h[5], const uint8_t* p, size_t blocks) {
  uint32_t w[16];
  while (blocks--) {
    for (int i = 0; i < 16; ++i) w[i] = LoadBe32(p + 4 * i);
    uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
    // The schedule is kept in a 16-word ring; W[t] replaces W[t-16].
#define KV_W(t) \
  (w[(t)&15] = Rotl32(w[((t) + 13) & 15] ^ w[((t) + 8) & 15] ^ w[((t) + 2) & 15] ^ w[(t)&15], 1))
#define KV_R(a, b, c, d, e, f, k, x)     \
  do {                                   \
    e += Rotl32(a, 5) + (f) + (k) + (x); \
    b = Rotl32(b, 30);                   \
  } while (0)
#define KV_CH(b, c, d) ((d) ^ ((b) & ((c) ^ (d))))
#define KV_PAR(b, c, d) ((b) ^ (c) ^ (d))
#define KV_MAJ(b, c, d) (((b) & (c)) | ((d) & ((b) | (c))))
#define KV_FIVE(t, F, K, X)                     \
  KV_R(a, b, c, d, e, F(b, c, d), K, X(t));     \
  KV_R(e, a, b, c, d, F(a, b, c), K, X(t + 1)); \
  KV_R(d, e, a, b, c, F(e, a, b), K, X(t + 2)); \
  KV_R(c, d, e, a, b, F(d, e, a), K, X(t + 3)); \
  KV_R(b, c, d, e, a, F(c, d, e), K, X(t + 4))
#define KV_W0(t) w[t]
    KV_FIVE(0, KV_CH, kSha1K0, KV_W0);
    KV_FIVE(5, KV_CH, kSha1K0, KV_W0);
    KV_FIVE(10, KV_CH, kSha1K0, KV_W0);
    KV_R(a, b, c, d, e, KV_CH(b, c, d), kSha1K0, w[15]);
    KV_R(e, a, b, c, d, KV_CH(a, b, c), kSha1K0, KV_W(16));
    KV_R(d, e, a, b, c, KV_CH(e, a, b), kSha1K0, KV_W(17));
    KV_R(c, d, e, a, b, KV_CH(d, e, a), kSha1K0, KV_W(18));
    KV_R(b, c, d, e, a, KV_CH(c, d, e), kSha1K0, KV_W(19));
    KV_FIVE(20, KV_PAR, kSha1K1, KV_W);
    KV_FIVE(25, KV_PAR, kSha1K1, KV_W);
    KV_FIVE(30, KV_PAR, kSha1K1, KV_W);
    KV_FIVE(35, KV_PAR, kSha1K1, KV_W);
    KV_FIVE(40, KV_MAJ, kSha1K2, KV_W);
    KV_FIVE(45, KV_MAJ, kSha1K2, KV_W);
    KV_FIVE(50, KV_MAJ, kSha1K2, KV_W);
    KV_FIVE(55, KV_MAJ, kSha1K2, KV_W);
    KV_FIVE(60, KV_PAR, kSha1K3, KV_W);
    KV_FIVE(65, KV_PAR, kSha1K3, KV_W);
    KV_FIVE(70, KV_PAR, kSha1K3, KV_W);
    KV_FIVE(75, KV_PAR, kSha1K3, KV_W);
#undef KV_W0
#undef KV_FIVE
#undef KV_MAJ
#undef KV_PAR
#undef KV_CH
#undef KV_R
#undef KV_W
    h[0] += a;
    h[1] += b;
    h[2] += c;
    h[3] += d;
    h[4] += e;
    p += 64;
  }
  Wipe(w, sizeof w);
}

#ifdef KV_HAVE_SHA_NI
namespace {

#define KV_SHA_TARGET __attribute__((target("sha,sse4.1")))

// One group of four rounds. The two E registers alternate: the current one
// carries E plus the message words, the other keeps ABCD for the next group's
// E. Message groups live in a ring of four registers and are extended three
// groups ahead (msg1, xor, msg2), as the W recurrence needs words t-16, t-14,
// t-8 and t-3.
template <int G>
KV_SHA_TARGET inline void ShaNiGroup(__m128i& abcd, __m128i (&e)[2], __m128i (&m)[4]) {
  __m128i& cur = e[G % 2];
  __m128i& other = e[(G + 1) % 2];
  if constexpr (G == 0) {
    cur = _mm_add_epi32(cur, m[0]);
  } else {
    cur = _mm_sha1nexte_epu32(cur, m[G % 4]);
  }
  other = abcd;
  if constexpr (G >= 3 && G <= 18) m[(G + 1) % 4] = _mm_sha1msg2_epu32(m[(G + 1) % 4], m[G % 4]);
  abcd = _mm_sha1rnds4_epu32(abcd, cur, G / 5);
  if constexpr (G >= 1 && G <= 16) m[(G + 3) % 4] = _mm_sha1msg1_epu32(m[(G + 3) % 4], m[G % 4]);
  if constexpr (G >= 2 && G <= 17) m[(G + 2) % 4] = _mm_xor_si128(m[(G + 2) % 4], m[G % 4]);
}

template <int... G>
KV_SHA_TARGET inline void ShaNiAllGroups(__m128i& abcd, __m128i (&e)[2], __m128i (&m)[4],
                                         std::integer_sequence<int, G...>) {
  (ShaNiGroup<G>(abcd, e, m), ...);
}

KV_SHA_TARGET void Sha1BlocksShaNi(uint32_t h[5], const uint8_t* p, size_t blocks) {
  // Big-endian words with W[0] in the highest lane, as the instructions expect.
  const __m128i bswap = _mm_set_epi64x(0x0001020304050607LL, 0x08090a0b0c0d0e0fLL);
  __m128i abcd = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(h)), 0x1b);
  __m128i e0 = _mm_set_epi32(int(h[4]), 0, 0, 0);
  while (blocks--) {
    const __m128i abcd_save = abcd, e_save = e0;
    __m128i m[4];
    for (int i = 0; i < 4; ++i)
      m[i] = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * i)), bswap);
    __m128i e[2] = {e0, e0};
    ShaNiAllGroups(abcd, e, m, std::make_integer_sequence<int, 20>());
    // After the last group e[0] holds the ABCD that yields the final E.
    e0 = _mm_sha1nexte_epu32(e[0], e_save);
    abcd = _mm_add_epi32(abcd, abcd_save);
    p += 64;
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(h), _mm_shuffle_epi32(abcd, 0x1b));
  h[4] = uint32_t(_mm_extract_epi32(e0, 3));
}

}  // namespace
#endif

void Sha1Blocks(uint32_t h[5], const uint8_t* p, size_t blocks) {
#ifdef KV_HAVE_SHA_NI
  if (AccelerationAllowed() && CpuHasShaNi()) {
    Sha1BlocksShaNi(h, p, blocks);
    return;
  }
#endif
  Sha1BlocksPortable(h, p, blocks);
}

}  // namespace internal

Sha1::~Sha1() {
  internal::Wipe(this, sizeof *this);
}

void Sha1::Init() {
  // Initial hash value of FIPS 180-4 section 5.3.1.
  h_[0] = 0x67452301;
  h_[1] = 0xefcdab89;
  h_[2] = 0x98badcfe;
  h_[3] = 0x10325476;
  h_[4] = 0xc3d2e1f0;
  total_ = 0;
  used_ = 0;
}

void Sha1::Update(const void* data, size_t len) {
  if (len == 0) return;
  const uint8_t* p = static_cast<const uint8_t*>(data);
  total_ += len;
  if (used_) {
    size_t take = kBlockSize - used_;
    if (take > len) take = len;
    std::memcpy(buf_ + used_, p, take);
    used_ += take;
    p += take;
    len -= take;
    if (used_ < kBlockSize) return;
    internal::Sha1Blocks(h_, buf_, 1);
    used_ = 0;
  }
  if (len >= kBlockSize) {
    size_t blocks = len / kBlockSize;
    internal::Sha1Blocks(h_, p, blocks);
    p += blocks * kBlockSize;
    len -= blocks * kBlockSize;
  }
  if (len) {
    std::memcpy(buf_, p, len);
    used_ = len;
  }
}

void Sha1::Final(uint8_t* out) {
  // Padding: 0x80, zeros, then the message length in bits, big-endian.
  uint64_t bits = total_ * 8;
  uint8_t pad[kBlockSize * 2] = {0x80};
  size_t padlen = (used_ < 56 ? 56 : 120) - used_;
  for (int i = 0; i < 8; ++i) pad[padlen + i] = uint8_t(bits >> (56 - 8 * i));
  Update(pad, padlen + 8);
  for (int i = 0; i < 5; ++i) internal::StoreBe32(out + 4 * i, h_[i]);
  Init();
}

void Sha1::Digest(const void* data, size_t len, uint8_t* out) {
  Sha1 s;
  s.Update(data, len);
  s.Final(out);
}

}  // namespace kv
