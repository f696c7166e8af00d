#include "crypto/des.h"

#include <cstring>
#include <utility>

#include "crypto/internal/bytes.h"
#include "crypto/internal/wipe.h"

namespace kv {
namespace internal {
namespace {

// Tables of FIPS 46-3, bit numbers counted from 1 at the most significant bit.
constexpr uint8_t kP[32] = {16, 7, 20, 21, 29, 12, 28, 17, 1,  15, 23, 26, 5,  18, 31, 10,
                            2,  8, 24, 14, 32, 27, 3,  9,  19, 13, 30, 6,  22, 11, 4,  25};
constexpr uint8_t kPc1[56] = {57, 49, 41, 33, 25, 17, 9,  1,  58, 50, 42, 34, 26, 18,
                              10, 2,  59, 51, 43, 35, 27, 19, 11, 3,  60, 52, 44, 36,
                              63, 55, 47, 39, 31, 23, 15, 7,  62, 54, 46, 38, 30, 22,
                              14, 6,  61, 53, 45, 37, 29, 21, 13, 5,  28, 20, 12, 4};
constexpr uint8_t kPc2[48] = {14, 17, 11, 24, 1,  5,  3,  28, 15, 6,  21, 10, 23, 19, 12, 4,
                              26, 8,  16, 7,  27, 20, 13, 2,  41, 52, 31, 37, 47, 55, 30, 40,
                              51, 45, 33, 48, 44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};
constexpr uint8_t kShifts[16] = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1};
constexpr uint8_t kS[8][64] = {
    {14, 4,  13, 1, 2,  15, 11, 8, 3, 10, 6, 12, 5,  9,  0,  7,  0,  15, 7,  4,  14, 2,
     13, 1,  10, 6, 12, 11, 9,  5, 3, 8,  4, 1,  14, 8,  13, 6,  2,  11, 15, 12, 9,  7,
     3,  10, 5,  0, 15, 12, 8,  2, 4, 9,  1, 7,  5,  11, 3,  14, 10, 0,  6,  13},
    {15, 1,  8,  14, 6,  11, 3,  4, 9,  7,  2, 13, 12, 0,  5,  10, 3,  13, 4,  7, 15, 2,
     8,  14, 12, 0,  1,  10, 6,  9, 11, 5,  0, 14, 7,  11, 10, 4,  13, 1,  5,  8, 12, 6,
     9,  3,  2,  15, 13, 8,  10, 1, 3,  15, 4, 2,  11, 6,  7,  12, 0,  5,  14, 9},
    {10, 0,  9,  14, 6, 3,  15, 5,  1,  13, 12, 7, 11, 4,  2,  8,  13, 7, 0,  9, 3, 4,
     6,  10, 2,  8,  5, 14, 12, 11, 15, 1,  13, 6, 4,  9,  8,  15, 3,  0, 11, 1, 2, 12,
     5,  10, 14, 7,  1, 10, 13, 0,  6,  9,  8,  7, 4,  15, 14, 3,  11, 5, 2,  12},
    {7, 13, 14, 3, 0, 6,  9, 10, 1,  2, 8,  5, 11, 12, 4,  15, 13, 8,  11, 5, 6, 15,
     0, 3,  4,  7, 2, 12, 1, 10, 14, 9, 10, 6, 9,  0,  12, 11, 7,  13, 15, 1, 3, 14,
     5, 2,  8,  4, 3, 15, 0, 6,  10, 1, 13, 8, 9,  4,  5,  11, 12, 7,  2,  14},
    {2,  12, 4, 1,  7,  10, 11, 6, 8, 5,  3, 15, 13, 0,  14, 9,  14, 11, 2,  12, 4,  7,
     13, 1,  5, 0,  15, 10, 3,  9, 8, 6,  4, 2,  1,  11, 10, 13, 7,  8,  15, 9,  12, 5,
     6,  3,  0, 14, 11, 8,  12, 7, 1, 14, 2, 13, 6,  15, 0,  9,  10, 4,  5,  3},
    {12, 1,  10, 15, 9,  2,  6, 8,  0, 13, 3,  4,  14, 7,  5, 11, 10, 15, 4, 2, 7, 12,
     9,  5,  6,  1,  13, 14, 0, 11, 3, 8,  9,  14, 15, 5,  2, 8,  12, 3,  7, 0, 4, 10,
     1,  13, 11, 6,  4,  3,  2, 12, 9, 5,  15, 10, 11, 14, 1, 7,  6,  0,  8, 13},
    {4, 11, 2,  14, 15, 0,  8,  13, 3, 12, 9,  7, 5,  10, 6,  1,  13, 0,  11, 7,  4, 9,
     1, 10, 14, 3,  5,  12, 2,  15, 8, 6,  1,  4, 11, 13, 12, 3,  7,  14, 10, 15, 6, 8,
     0, 5,  9,  2,  6,  11, 13, 8,  1, 4,  10, 7, 9,  5,  0,  15, 14, 2,  3,  12},
    {13, 2, 8,  4, 6, 15, 11, 1,  10, 9,  3, 14, 5,  0,  12, 7,  1,  15, 13, 8, 10, 3,
     7,  4, 12, 5, 6, 11, 0,  14, 9,  2,  7, 11, 4,  1,  9,  12, 14, 2,  0,  6, 10, 13,
     15, 3, 5,  8, 2, 1,  14, 7,  4,  10, 8, 13, 15, 12, 9,  0,  3,  5,  6,  11}};

// Output bit i (from the most significant) is input bit table[i], counted
// from 1 at the most significant of in_bits.
uint64_t Permute(uint64_t in, int in_bits, const uint8_t* table, int out_bits) {
  uint64_t out = 0;
  for (int i = 0; i < out_bits; ++i) out = (out << 1) | ((in >> (in_bits - table[i])) & 1);
  return out;
}

// SP[i][x]: S-box i applied to the six bits x, its four output bits placed
// where S-box i writes them, then run through P. One lookup per S-box does
// both steps of the round function.
struct SpTables {
  uint32_t sp[8][64];
  SpTables() {
    for (int i = 0; i < 8; ++i) {
      for (unsigned x = 0; x < 64; ++x) {
        unsigned row = ((x >> 4) & 2) | (x & 1), col = (x >> 1) & 15;
        uint32_t pre = uint32_t(kS[i][row * 16 + col]) << (28 - 4 * i);
        sp[i][x] = uint32_t(Permute(pre, 32, kP, 32));
      }
    }
  }
};

const SpTables& Tables() {
  static const SpTables t;
  return t;
}

// The initial permutation IP as five exchanges of bit groups between the
// halves, and its inverse FP as the same exchanges in reverse order.
inline void SwapMove(uint32_t& a, uint32_t& b, int shift, uint32_t mask) {
  uint32_t t = ((a >> shift) ^ b) & mask;
  b ^= t;
  a ^= t << shift;
}
inline void Ip(uint32_t& l, uint32_t& r) {
  SwapMove(l, r, 4, 0x0f0f0f0f);
  SwapMove(l, r, 16, 0x0000ffff);
  SwapMove(r, l, 2, 0x33333333);
  SwapMove(r, l, 8, 0x00ff00ff);
  SwapMove(l, r, 1, 0x55555555);
}
inline void Fp(uint32_t& l, uint32_t& r) {
  SwapMove(l, r, 1, 0x55555555);
  SwapMove(r, l, 8, 0x00ff00ff);
  SwapMove(r, l, 2, 0x33333333);
  SwapMove(l, r, 16, 0x0000ffff);
  SwapMove(l, r, 4, 0x0f0f0f0f);
}

// The expansion E takes eight overlapping six-bit windows of R. Rotating R
// right by 3 lines up windows 0, 2, 4, 6 in the four bytes (most significant
// first), rotating it left by 1 lines up windows 1, 3, 5, 7; the subkey words
// are laid out the same way.
#define KV_DES_ROUND(l, r, k)                                           \
  do {                                                                  \
    uint32_t u = Rotr32(r, 3) ^ (k)[0], v = Rotl32(r, 1) ^ (k)[1];      \
    /* A balanced tree, so the eight lookups combine in three steps. */ \
    l ^= ((sp[0][(u >> 24) & 63] ^ sp[2][(u >> 16) & 63]) ^             \
          (sp[4][(u >> 8) & 63] ^ sp[6][u & 63])) ^                     \
         ((sp[1][(v >> 24) & 63] ^ sp[3][(v >> 16) & 63]) ^             \
          (sp[5][(v >> 8) & 63] ^ sp[7][v & 63]));                      \
  } while (0)

// Sixteen rounds on halves already through IP; leaves the halves swapped as
// the last round does not exchange them, so the caller passes (r, l) to FP.
inline void Rounds(const uint32_t (*sp)[64], const uint32_t* ks, uint32_t& l, uint32_t& r) {
  for (int i = 0; i < 32; i += 4) {
    KV_DES_ROUND(l, r, ks + i);
    KV_DES_ROUND(r, l, ks + i + 2);
  }
}

void KeySchedule(const uint8_t* key, uint32_t* enc, uint32_t* dec) {
  uint64_t k = 0;
  for (int i = 0; i < 8; ++i) k = (k << 8) | key[i];
  uint64_t cd = Permute(k, 64, kPc1, 56);
  uint32_t c = uint32_t(cd >> 28), d = uint32_t(cd & 0xfffffff);
  for (int round = 0; round < 16; ++round) {
    for (int s = 0; s < kShifts[round]; ++s) {
      c = ((c << 1) | (c >> 27)) & 0xfffffff;
      d = ((d << 1) | (d >> 27)) & 0xfffffff;
    }
    uint64_t sub = Permute((uint64_t(c) << 28) | d, 56, kPc2, 48);
    uint32_t g[8];
    for (int i = 0; i < 8; ++i) g[i] = uint32_t(sub >> (42 - 6 * i)) & 63;
    enc[2 * round] = g[0] << 24 | g[2] << 16 | g[4] << 8 | g[6];
    enc[2 * round + 1] = g[1] << 24 | g[3] << 16 | g[5] << 8 | g[7];
  }
  for (int round = 0; round < 16; ++round) {
    dec[2 * round] = enc[30 - 2 * round];
    dec[2 * round + 1] = enc[31 - 2 * round];
  }
  Wipe(&k, sizeof k);
  Wipe(&cd, sizeof cd);
}

}  // namespace
}  // namespace internal

using internal::LoadBe32;
using internal::Rotl32;
using internal::Rotr32;
using internal::StoreBe32;

namespace {

inline void Crypt1(const uint32_t* ks, const uint8_t* in, uint8_t* out) {
  const auto& sp = internal::Tables().sp;
  uint32_t l = LoadBe32(in), r = LoadBe32(in + 4);
  internal::Ip(l, r);
  internal::Rounds(sp, ks, l, r);
  internal::Fp(r, l);
  StoreBe32(out, r);
  StoreBe32(out + 4, l);
}

inline void Crypt3(const uint32_t* a, const uint32_t* b, const uint32_t* c,
                   const uint32_t (*sp)[64], uint32_t& l, uint32_t& r) {
  // FP of one stage and IP of the next cancel; only the half swap remains.
  internal::Ip(l, r);
  internal::Rounds(sp, a, l, r);
  internal::Rounds(sp, b, r, l);
  internal::Rounds(sp, c, l, r);
  internal::Fp(r, l);
}

// CBC decryption handles two blocks at a time: they are independent, and the
// interleaved rounds keep more lookups in flight.
template <class Crypt>
void CbcDecryptBlocks(const Crypt& crypt, uint8_t* iv, const uint8_t* in, uint8_t* out,
                      size_t blocks) {
  uint32_t pl = LoadBe32(iv), pr = LoadBe32(iv + 4);
  for (; blocks >= 2; blocks -= 2, in += 16, out += 16) {
    uint32_t c0l = LoadBe32(in), c0r = LoadBe32(in + 4);
    uint32_t c1l = LoadBe32(in + 8), c1r = LoadBe32(in + 12);
    uint32_t l0 = c0l, r0 = c0r, l1 = c1l, r1 = c1r;
    crypt(l0, r0, l1, r1);
    StoreBe32(out, l0 ^ pl);
    StoreBe32(out + 4, r0 ^ pr);
    StoreBe32(out + 8, l1 ^ c0l);
    StoreBe32(out + 12, r1 ^ c0r);
    pl = c1l;
    pr = c1r;
  }
  if (blocks) {
    uint32_t cl = LoadBe32(in), cr = LoadBe32(in + 4);
    uint32_t l = cl, r = cr, l1 = 0, r1 = 0;
    crypt(l, r, l1, r1);
    StoreBe32(out, l ^ pl);
    StoreBe32(out + 4, r ^ pr);
    pl = cl;
    pr = cr;
  }
  StoreBe32(iv, pl);
  StoreBe32(iv + 4, pr);
}

// Two independent blocks through the sixteen rounds side by side.
inline void Rounds2(const uint32_t (*sp)[64], const uint32_t* ks, uint32_t& l0, uint32_t& r0,
                    uint32_t& l1, uint32_t& r1) {
  for (int i = 0; i < 32; i += 4) {
    KV_DES_ROUND(l0, r0, ks + i);
    KV_DES_ROUND(l1, r1, ks + i);
    KV_DES_ROUND(r0, l0, ks + i + 2);
    KV_DES_ROUND(r1, l1, ks + i + 2);
  }
}

}  // namespace

Des::~Des() {
  internal::Wipe(this, sizeof *this);
}

bool Des::SetKey(const uint8_t* key, size_t len) {
  if (key == nullptr || len != kKeySize) return false;
  internal::KeySchedule(key, enc_, dec_);
  keyed_ = true;
  return true;
}

void Des::EncryptBlock(const uint8_t* in, uint8_t* out) const {
  Crypt1(enc_, in, out);
}
void Des::DecryptBlock(const uint8_t* in, uint8_t* out) const {
  Crypt1(dec_, in, out);
}

void Des::CbcEncrypt(uint8_t* iv, const uint8_t* in, uint8_t* out, size_t blocks) const {
  const auto& sp = internal::Tables().sp;
  // The chaining value is kept after IP. IP is a bit permutation, so
  // IP(P ^ C) = IP(P) ^ IP(C), and IP(C) is the round output itself: IP of
  // the next plaintext and FP of each output then stay off the serial chain.
  uint32_t l = LoadBe32(iv), r = LoadBe32(iv + 4);
  internal::Ip(l, r);
  for (; blocks; --blocks, in += 8, out += 8) {
    uint32_t pl = LoadBe32(in), pr = LoadBe32(in + 4);
    internal::Ip(pl, pr);
    // The rounds leave (L16, R16); the block before FP is (R16, L16).
    uint32_t a = l ^ pl, b = r ^ pr;
    internal::Rounds(sp, enc_, a, b);
    l = b;
    r = a;
    uint32_t ol = l, orr = r;
    internal::Fp(ol, orr);
    StoreBe32(out, ol);
    StoreBe32(out + 4, orr);
  }
  internal::Fp(l, r);
  StoreBe32(iv, l);
  StoreBe32(iv + 4, r);
}

void Des::CbcDecrypt(uint8_t* iv, const uint8_t* in, uint8_t* out, size_t blocks) const {
  const auto& sp = internal::Tables().sp;
  const uint32_t* ks = dec_;
  CbcDecryptBlocks(
      [&](uint32_t& l0, uint32_t& r0, uint32_t& l1, uint32_t& r1) {
        internal::Ip(l0, r0);
        internal::Ip(l1, r1);
        Rounds2(sp, ks, l0, r0, l1, r1);
        internal::Fp(r0, l0);
        internal::Fp(r1, l1);
        std::swap(l0, r0);
        std::swap(l1, r1);
      },
      iv, in, out, blocks);
}

TripleDes::~TripleDes() {
  internal::Wipe(&keyed_, sizeof keyed_);
}

bool TripleDes::SetKey(const uint8_t* key, size_t len) {
  if (key == nullptr || (len != 16 && len != 24)) return false;
  k_[0].SetKey(key, 8);
  k_[1].SetKey(key + 8, 8);
  k_[2].SetKey(len == 24 ? key + 16 : key, 8);
  keyed_ = true;
  return true;
}

void TripleDes::EncryptBlock(const uint8_t* in, uint8_t* out) const {
  const auto& sp = internal::Tables().sp;
  uint32_t l = LoadBe32(in), r = LoadBe32(in + 4);
  Crypt3(k_[0].enc_, k_[1].dec_, k_[2].enc_, sp, l, r);
  StoreBe32(out, r);
  StoreBe32(out + 4, l);
}

void TripleDes::DecryptBlock(const uint8_t* in, uint8_t* out) const {
  const auto& sp = internal::Tables().sp;
  uint32_t l = LoadBe32(in), r = LoadBe32(in + 4);
  Crypt3(k_[2].dec_, k_[1].enc_, k_[0].dec_, sp, l, r);
  StoreBe32(out, r);
  StoreBe32(out + 4, l);
}

void TripleDes::CbcEncrypt(uint8_t* iv, const uint8_t* in, uint8_t* out, size_t blocks) const {
  const auto& sp = internal::Tables().sp;
  const uint32_t *ka = k_[0].enc_, *kb = k_[1].dec_, *kc = k_[2].enc_;
  // As in Des::CbcEncrypt, the chaining value is kept after IP.
  uint32_t l = LoadBe32(iv), r = LoadBe32(iv + 4);
  internal::Ip(l, r);
  for (; blocks; --blocks, in += 8, out += 8) {
    uint32_t pl = LoadBe32(in), pr = LoadBe32(in + 4);
    internal::Ip(pl, pr);
    uint32_t a = l ^ pl, b = r ^ pr;
    internal::Rounds(sp, ka, a, b);
    internal::Rounds(sp, kb, b, a);
    internal::Rounds(sp, kc, a, b);
    l = b;
    r = a;
    uint32_t ol = l, orr = r;
    internal::Fp(ol, orr);
    StoreBe32(out, ol);
    StoreBe32(out + 4, orr);
  }
  internal::Fp(l, r);
  StoreBe32(iv, l);
  StoreBe32(iv + 4, r);
}

void TripleDes::CbcDecrypt(uint8_t* iv, const uint8_t* in, uint8_t* out, size_t blocks) const {
  const auto& sp = internal::Tables().sp;
  const uint32_t *a = k_[2].dec_, *b = k_[1].enc_, *c = k_[0].dec_;
  CbcDecryptBlocks(
      [&](uint32_t& l0, uint32_t& r0, uint32_t& l1, uint32_t& r1) {
        internal::Ip(l0, r0);
        internal::Ip(l1, r1);
        Rounds2(sp, a, l0, r0, l1, r1);
        Rounds2(sp, b, r0, l0, r1, l1);
        Rounds2(sp, c, l0, r0, l1, r1);
        internal::Fp(r0, l0);
        internal::Fp(r1, l1);
        std::swap(l0, r0);
        std::swap(l1, r1);
      },
      iv, in, out, blocks);
}

}  // namespace kv
