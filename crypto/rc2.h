// RC2 (RFC 2268) as a 64-bit block cipher; CBC mode lives in crypto/cbc.h.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv {

class Rc2 {
 public:
  static constexpr size_t kBlockSize = 8;
  static constexpr size_t kMaxKeySize = 128;
  static constexpr int kMaxEffectiveBits = 1024;

  Rc2() = default;
  ~Rc2();
  Rc2(const Rc2&) = default;
  Rc2& operator=(const Rc2&) = default;

  // key of 1..128 bytes, effective key length 1..1024 bits. False otherwise.
  bool SetKey(const uint8_t* key, size_t len, int effective_bits);
  // Effective key length equal to the key length in bits (at most 1024).
  bool SetKey(const uint8_t* key, size_t len) { return SetKey(key, len, int(len * 8)); }
  bool HasKey() const { return keyed_; }

  // One block; in and out may be the same buffer.
  void EncryptBlock(const uint8_t* in, uint8_t* out) const;
  void DecryptBlock(const uint8_t* in, uint8_t* out) const;
  // CBC over whole blocks; iv is updated to the last ciphertext block. in and
  // out may be the same buffer.
  void CbcEncrypt(uint8_t* iv, const uint8_t* in, uint8_t* out, size_t blocks) const;
  void CbcDecrypt(uint8_t* iv, const uint8_t* in, uint8_t* out, size_t blocks) const;

 private:
  uint16_t k_[64] = {};
  bool keyed_ = false;
};

}  // namespace kv
