// Layout of the platform's RSA key blobs: an 8-octet blob header (type,
// version, two reserved octets, key algorithm), the 12-octet RSA header
// (magic, bit length, public exponent), then the integers little-endian.
#pragma once

#include <cstdint>

namespace kv::internal::keyblob {

constexpr unsigned char kPublicKeyBlob = 6;
constexpr unsigned char kPrivateKeyBlob = 7;
constexpr unsigned char kVersion = 2;
constexpr uint32_t kCalgRsaSign = 0x2400;    // 9216
constexpr uint32_t kCalgRsaKeyx = 0xA400;    // 41984
constexpr uint32_t kMagicRsa1 = 0x31415352;  // "RSA1" read little-endian
constexpr uint32_t kMagicRsa2 = 0x32415352;  // "RSA2"

constexpr unsigned kAlgOffset = 4;
constexpr unsigned kMagicOffset = 8;
constexpr unsigned kBitLenOffset = 12;
constexpr unsigned kExponentOffset = 16;
constexpr unsigned kHeaderSize = 20;

// Octets of the i-th integer of a private blob (order n, p, q, dP, dQ, qInv,
// d) for a k-octet modulus.
constexpr unsigned PrivateSlotSize(unsigned k, int i) {
  return (i == 0 || i == 6) ? k : k / 2;
}

constexpr unsigned PublicBlobSize(uint32_t bits) {
  return kHeaderSize + bits / 8;
}
// n and d of k octets, five halves: 20 + 9k/2.
constexpr unsigned PrivateBlobSize(uint32_t bits) {
  return kHeaderSize + (bits / 16) * 9;
}

static_assert(PublicBlobSize(2048) == 276, "public 2048-bit blob");
static_assert(PrivateBlobSize(2048) == 1172, "private 2048-bit blob");
static_assert(PrivateBlobSize(1024) == 596, "private 1024-bit blob");

}  // namespace kv::internal::keyblob
