#include "crypto/rc2.h"

#include <cstring>

#include "crypto/internal/wipe.h"

namespace kv {
namespace {

// PITABLE of RFC 2268 section 2: a permutation of 0..255 from the digits of pi.
constexpr uint8_t kPiTable[256] = {
    0xd9, 0x78, 0xf9, 0xc4, 0x19, 0xdd, 0xb5, 0xed, 0x28, 0xe9, 0xfd, 0x79, 0x4a, 0xa0, 0xd8, 0x9d,
    0xc6, 0x7e, 0x37, 0x83, 0x2b, 0x76, 0x53, 0x8e, 0x62, 0x4c, 0x64, 0x88, 0x44, 0x8b, 0xfb, 0xa2,
    0x17, 0x9a, 0x59, 0xf5, 0x87, 0xb3, 0x4f, 0x13, 0x61, 0x45, 0x6d, 0x8d, 0x09, 0x81, 0x7d, 0x32,
    0xbd, 0x8f, 0x40, 0xeb, 0x86, 0xb7, 0x7b, 0x0b, 0xf0, 0x95, 0x21, 0x22, 0x5c, 0x6b, 0x4e, 0x82,
    0x54, 0xd6, 0x65, 0x93, 0xce, 0x60, 0xb2, 0x1c, 0x73, 0x56, 0xc0, 0x14, 0xa7, 0x8c, 0xf1, 0xdc,
    0x12, 0x75, 0xca, 0x1f, 0x3b, 0xbe, 0xe4, 0xd1, 0x42, 0x3d, 0xd4, 0x30, 0xa3, 0x3c, 0xb6, 0x26,
    0x6f, 0xbf, 0x0e, 0xda, 0x46, 0x69, 0x07, 0x57, 0x27, 0xf2, 0x1d, 0x9b, 0xbc, 0x94, 0x43, 0x03,
    0xf8, 0x11, 0xc7, 0xf6, 0x90, 0xef, 0x3e, 0xe7, 0x06, 0xc3, 0xd5, 0x2f, 0xc8, 0x66, 0x1e, 0xd7,
    0x08, 0xe8, 0xea, 0xde, 0x80, 0x52, 0xee, 0xf7, 0x84, 0xaa, 0x72, 0xac, 0x35, 0x4d, 0x6a, 0x2a,
    0x96, 0x1a, 0xd2, 0x71, 0x5a, 0x15, 0x49, 0x74, 0x4b, 0x9f, 0xd0, 0x5e, 0x04, 0x18, 0xa4, 0xec,
    0xc2, 0xe0, 0x41, 0x6e, 0x0f, 0x51, 0xcb, 0xcc, 0x24, 0x91, 0xaf, 0x50, 0xa1, 0xf4, 0x70, 0x39,
    0x99, 0x7c, 0x3a, 0x85, 0x23, 0xb8, 0xb4, 0x7a, 0xfc, 0x02, 0x36, 0x5b, 0x25, 0x55, 0x97, 0x31,
    0x2d, 0x5d, 0xfa, 0x98, 0xe3, 0x8a, 0x92, 0xae, 0x05, 0xdf, 0x29, 0x10, 0x67, 0x6c, 0xba, 0xc9,
    0xd3, 0x00, 0xe6, 0xcf, 0xe1, 0x9e, 0xa8, 0x2c, 0x63, 0x16, 0x01, 0x3f, 0x58, 0xe2, 0x89, 0xa9,
    0x0d, 0x38, 0x34, 0x1b, 0xab, 0x33, 0xff, 0xb0, 0xbb, 0x48, 0x0c, 0x5f, 0xb9, 0xb1, 0xcd, 0x2e,
    0xc5, 0xf3, 0xdb, 0x47, 0xe5, 0xa5, 0x9c, 0x77, 0x0a, 0xa6, 0x20, 0x68, 0xfe, 0x7f, 0xc1, 0xad};

inline uint16_t Rol16(uint32_t x, int n) {
  return uint16_t((x << n) | ((x & 0xffff) >> (16 - n)));
}
inline uint16_t Ror16(uint32_t x, int n) {
  return uint16_t(((x & 0xffff) >> n) | (x << (16 - n)));
}

// Words are kept in 32-bit registers; only their low 16 bits matter, and the
// rotations mask as they go.
#define KV_MIX(a, b, c, d, s, j) a = Rol16(a + k[j] + (d & c) + (~d & b), s)
#define KV_MIXROUND(j)              \
  KV_MIX(r0, r1, r2, r3, 1, j);     \
  KV_MIX(r1, r2, r3, r0, 2, j + 1); \
  KV_MIX(r2, r3, r0, r1, 3, j + 2); \
  KV_MIX(r3, r0, r1, r2, 5, j + 3)
#define KV_MASH()   \
  r0 += k[r3 & 63]; \
  r1 += k[r0 & 63]; \
  r2 += k[r1 & 63]; \
  r3 += k[r2 & 63]
#define KV_RMIX(a, b, c, d, s, j) a = uint16_t(Ror16(a, s) - k[j] - (d & c) - (~d & b))
#define KV_RMIXROUND(j)              \
  KV_RMIX(r3, r0, r1, r2, 5, j + 3); \
  KV_RMIX(r2, r3, r0, r1, 3, j + 2); \
  KV_RMIX(r1, r2, r3, r0, 2, j + 1); \
  KV_RMIX(r0, r1, r2, r3, 1, j)
#define KV_RMASH()                \
  r3 = uint16_t(r3 - k[r2 & 63]); \
  r2 = uint16_t(r2 - k[r1 & 63]); \
  r1 = uint16_t(r1 - k[r0 & 63]); \
  r0 = uint16_t(r0 - k[r3 & 63])

inline void Encrypt(const uint16_t* k, uint32_t& r0, uint32_t& r1, uint32_t& r2, uint32_t& r3) {
  KV_MIXROUND(0);
  KV_MIXROUND(4);
  KV_MIXROUND(8);
  KV_MIXROUND(12);
  KV_MIXROUND(16);
  KV_MASH();
  KV_MIXROUND(20);
  KV_MIXROUND(24);
  KV_MIXROUND(28);
  KV_MIXROUND(32);
  KV_MIXROUND(36);
  KV_MIXROUND(40);
  KV_MASH();
  KV_MIXROUND(44);
  KV_MIXROUND(48);
  KV_MIXROUND(52);
  KV_MIXROUND(56);
  KV_MIXROUND(60);
}

inline void Decrypt(const uint16_t* k, uint32_t& r0, uint32_t& r1, uint32_t& r2, uint32_t& r3) {
  KV_RMIXROUND(60);
  KV_RMIXROUND(56);
  KV_RMIXROUND(52);
  KV_RMIXROUND(48);
  KV_RMIXROUND(44);
  KV_RMASH();
  KV_RMIXROUND(40);
  KV_RMIXROUND(36);
  KV_RMIXROUND(32);
  KV_RMIXROUND(28);
  KV_RMIXROUND(24);
  KV_RMIXROUND(20);
  KV_RMASH();
  KV_RMIXROUND(16);
  KV_RMIXROUND(12);
  KV_RMIXROUND(8);
  KV_RMIXROUND(4);
  KV_RMIXROUND(0);
}

inline uint32_t Load16(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8;
}
inline void Store16(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
}

}  // namespace

Rc2::~Rc2() {
  internal::Wipe(this, sizeof *this);
}

bool Rc2::SetKey(const uint8_t* key, size_t len, int effective_bits) {
  if (key == nullptr || len < 1 || len > kMaxKeySize || effective_bits < 1 ||
      effective_bits > kMaxEffectiveBits)
    return false;
  uint8_t l[128];
  std::memcpy(l, key, len);
  const size_t t = len;
  for (size_t i = t; i < 128; ++i) l[i] = kPiTable[uint8_t(l[i - 1] + l[i - t])];
  // Reduce the search space to effective_bits, then spread the reduced key
  // back over the whole buffer.
  const size_t t8 = size_t(effective_bits + 7) / 8;
  const uint8_t tm = uint8_t(0xff >> (8 * t8 - size_t(effective_bits)));
  l[128 - t8] = kPiTable[l[128 - t8] & tm];
  for (size_t i = 128 - t8; i-- > 0;) l[i] = kPiTable[l[i + 1] ^ l[i + t8]];
  for (int i = 0; i < 64; ++i) k_[i] = uint16_t(l[2 * i] | l[2 * i + 1] << 8);
  internal::Wipe(l, sizeof l);
  keyed_ = true;
  return true;
}

void Rc2::EncryptBlock(const uint8_t* in, uint8_t* out) const {
  uint32_t r0 = Load16(in), r1 = Load16(in + 2), r2 = Load16(in + 4), r3 = Load16(in + 6);
  Encrypt(k_, r0, r1, r2, r3);
  Store16(out, r0);
  Store16(out + 2, r1);
  Store16(out + 4, r2);
  Store16(out + 6, r3);
}

void Rc2::DecryptBlock(const uint8_t* in, uint8_t* out) const {
  uint32_t r0 = Load16(in), r1 = Load16(in + 2), r2 = Load16(in + 4), r3 = Load16(in + 6);
  Decrypt(k_, r0, r1, r2, r3);
  Store16(out, r0);
  Store16(out + 2, r1);
  Store16(out + 4, r2);
  Store16(out + 6, r3);
}

void Rc2::CbcEncrypt(uint8_t* iv, const uint8_t* in, uint8_t* out, size_t blocks) const {
  uint32_t r0 = Load16(iv), r1 = Load16(iv + 2), r2 = Load16(iv + 4), r3 = Load16(iv + 6);
  for (; blocks; --blocks, in += 8, out += 8) {
    r0 = (r0 ^ Load16(in)) & 0xffff;
    r1 = (r1 ^ Load16(in + 2)) & 0xffff;
    r2 = (r2 ^ Load16(in + 4)) & 0xffff;
    r3 = (r3 ^ Load16(in + 6)) & 0xffff;
    Encrypt(k_, r0, r1, r2, r3);
    Store16(out, r0);
    Store16(out + 2, r1);
    Store16(out + 4, r2);
    Store16(out + 6, r3);
  }
  Store16(iv, r0);
  Store16(iv + 2, r1);
  Store16(iv + 4, r2);
  Store16(iv + 6, r3);
}

void Rc2::CbcDecrypt(uint8_t* iv, const uint8_t* in, uint8_t* out, size_t blocks) const {
  uint32_t p0 = Load16(iv), p1 = Load16(iv + 2), p2 = Load16(iv + 4), p3 = Load16(iv + 6);
  for (; blocks; --blocks, in += 8, out += 8) {
    uint32_t c0 = Load16(in), c1 = Load16(in + 2), c2 = Load16(in + 4), c3 = Load16(in + 6);
    uint32_t r0 = c0, r1 = c1, r2 = c2, r3 = c3;
    Decrypt(k_, r0, r1, r2, r3);
    Store16(out, r0 ^ p0);
    Store16(out + 2, r1 ^ p1);
    Store16(out + 4, r2 ^ p2);
    Store16(out + 6, r3 ^ p3);
    p0 = c0;
    p1 = c1;
    p2 = c2;
    p3 = c3;
  }
  Store16(iv, p0);
  Store16(iv + 2, p1);
  Store16(iv + 4, p2);
  Store16(iv + 6, p3);
}

}  // namespace kv
