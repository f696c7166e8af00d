#include "crypto/md5.h"

#include <cmath>
#include <cstring>

#include "crypto/internal/bytes.h"
#include "crypto/internal/wipe.h"

namespace kv {
namespace {

using internal::LoadLe32;
using internal::Rotl32;

// T[i] = floor(2^32 * |sin(i + 1)|), the sine table of RFC 1321 section 3.4.
struct SineTable {
  uint32_t t[64];
  SineTable() {
    for (int i = 0; i < 64; ++i)
      t[i] = uint32_t(std::floor(4294967296.0 * std::fabs(std::sin(i + 1.0))));
  }
};

const uint32_t* Sines() {
  static const SineTable table;
  return table.t;
}

void Blocks(uint32_t h[4], const uint8_t* p, size_t blocks, const uint32_t* T) {
  uint32_t x[16];
  while (blocks--) {
    for (int i = 0; i < 16; ++i) x[i] = LoadLe32(p + 4 * i);
    uint32_t a = h[0], b = h[1], c = h[2], d = h[3];
    // G and I are written so that the message and constant additions stay off
    // the dependency chain through a.
#define KV_F(b, c, d) ((d) ^ ((b) & ((c) ^ (d))))
#define KV_G(b, c, d) (((b) & (d)) + ((c) & ~(d)))
#define KV_H(b, c, d) ((b) ^ (c) ^ (d))
#define KV_I(b, c, d) ((c) ^ ((b) | ~(d)))
#define KV_STEP(F, a, b, c, d, k, s, i) a = b + Rotl32(a + (x[k] + T[i]) + F(b, c, d), s)
#define KV_ROUND(F, k0, k1, k2, k3, s0, s1, s2, s3, i) \
  KV_STEP(F, a, b, c, d, k0, s0, i);                   \
  KV_STEP(F, d, a, b, c, k1, s1, i + 1);               \
  KV_STEP(F, c, d, a, b, k2, s2, i + 2);               \
  KV_STEP(F, b, c, d, a, k3, s3, i + 3)
    // Round 1: words in order.
    KV_ROUND(KV_F, 0, 1, 2, 3, 7, 12, 17, 22, 0);
    KV_ROUND(KV_F, 4, 5, 6, 7, 7, 12, 17, 22, 4);
    KV_ROUND(KV_F, 8, 9, 10, 11, 7, 12, 17, 22, 8);
    KV_ROUND(KV_F, 12, 13, 14, 15, 7, 12, 17, 22, 12);
    // Round 2: word (1 + 5i) mod 16.
    KV_ROUND(KV_G, 1, 6, 11, 0, 5, 9, 14, 20, 16);
    KV_ROUND(KV_G, 5, 10, 15, 4, 5, 9, 14, 20, 20);
    KV_ROUND(KV_G, 9, 14, 3, 8, 5, 9, 14, 20, 24);
    KV_ROUND(KV_G, 13, 2, 7, 12, 5, 9, 14, 20, 28);
    // Round 3: word (5 + 3i) mod 16.
    KV_ROUND(KV_H, 5, 8, 11, 14, 4, 11, 16, 23, 32);
    KV_ROUND(KV_H, 1, 4, 7, 10, 4, 11, 16, 23, 36);
    KV_ROUND(KV_H, 13, 0, 3, 6, 4, 11, 16, 23, 40);
    KV_ROUND(KV_H, 9, 12, 15, 2, 4, 11, 16, 23, 44);
    // Round 4: word 7i mod 16.
    KV_ROUND(KV_I, 0, 7, 14, 5, 6, 10, 15, 21, 48);
    KV_ROUND(KV_I, 12, 3, 10, 1, 6, 10, 15, 21, 52);
    KV_ROUND(KV_I, 8, 15, 6, 13, 6, 10, 15, 21, 56);
    KV_ROUND(KV_I, 4, 11, 2, 9, 6, 10, 15, 21, 60);
#undef KV_ROUND
#undef KV_STEP
#undef KV_I
#undef KV_H
#undef KV_G
#undef KV_F
    h[0] += a;
    h[1] += b;
    h[2] += c;
    h[3] += d;
    p += 64;
  }
  internal::Wipe(x, sizeof x);
}

}  // namespace

Md5::~Md5() {
  internal::Wipe(this, sizeof *this);
}

void Md5::Init() {
  h_[0] = 0x67452301;
  h_[1] = 0xefcdab89;
  h_[2] = 0x98badcfe;
  h_[3] = 0x10325476;
  total_ = 0;
  used_ = 0;
}

void Md5::Update(const void* data, size_t len) {
  if (len == 0) return;
  const uint32_t* T = Sines();
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
    Blocks(h_, buf_, 1, T);
    used_ = 0;
  }
  if (len >= kBlockSize) {
    size_t blocks = len / kBlockSize;
    Blocks(h_, p, blocks, T);
    p += blocks * kBlockSize;
    len -= blocks * kBlockSize;
  }
  if (len) {
    std::memcpy(buf_, p, len);
    used_ = len;
  }
}

void Md5::Final(uint8_t* out) {
  // Padding: 0x80, zeros, then the length in bits, little-endian.
  uint64_t bits = total_ * 8;
  uint8_t pad[kBlockSize * 2] = {0x80};
  size_t padlen = (used_ < 56 ? 56 : 120) - used_;
  for (int i = 0; i < 8; ++i) pad[padlen + i] = uint8_t(bits >> (8 * i));
  Update(pad, padlen + 8);
  for (int i = 0; i < 4; ++i) internal::StoreLe32(out + 4 * i, h_[i]);
  Init();
}

void Md5::Digest(const void* data, size_t len, uint8_t* out) {
  Md5 s;
  s.Update(data, len);
  s.Final(out);
}

}  // namespace kv
