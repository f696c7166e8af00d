// Byte-order helpers shared by the digests and ciphers.
#pragma once

#include <cstdint>
#include <cstring>

namespace kv::internal {

inline uint32_t LoadBe32(const uint8_t* p) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
inline void StoreBe32(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v >> 24);
  p[1] = uint8_t(v >> 16);
  p[2] = uint8_t(v >> 8);
  p[3] = uint8_t(v);
}
inline uint32_t LoadLe32(const uint8_t* p) {
  return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}
inline void StoreLe32(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
  p[2] = uint8_t(v >> 16);
  p[3] = uint8_t(v >> 24);
}
inline uint32_t Rotl32(uint32_t x, int n) {
  return (x << n) | (x >> ((32 - n) & 31));
}
inline uint32_t Rotr32(uint32_t x, int n) {
  return (x >> n) | (x << ((32 - n) & 31));
}

}  // namespace kv::internal
