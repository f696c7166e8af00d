// DES (FIPS 46-3) and triple DES in EDE form (SP 800-67) as 64-bit block
// ciphers. CBC mode over them lives in crypto/cbc.h.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv {

class Des {
 public:
  static constexpr size_t kBlockSize = 8;
  static constexpr size_t kKeySize = 8;

  Des() = default;
  ~Des();
  Des(const Des&) = default;
  Des& operator=(const Des&) = default;

  // key must be 8 bytes; the parity bits are ignored. False on another length.
  bool SetKey(const uint8_t* key, size_t len);
  bool HasKey() const { return keyed_; }

  // One block; in and out may be the same buffer.
  void EncryptBlock(const uint8_t* in, uint8_t* out) const;
  void DecryptBlock(const uint8_t* in, uint8_t* out) const;
  // CBC over whole blocks; iv is updated to the last ciphertext block. in and
  // out may be the same buffer.
  void CbcEncrypt(uint8_t* iv, const uint8_t* in, uint8_t* out, size_t blocks) const;
  void CbcDecrypt(uint8_t* iv, const uint8_t* in, uint8_t* out, size_t blocks) const;

 private:
  friend class TripleDes;
  uint32_t enc_[32] = {};  // two words per round, in encryption order
  uint32_t dec_[32] = {};  // the same, reversed
  bool keyed_ = false;
};

// Encrypt with K1, decrypt with K2, encrypt with K3. A 16-byte key is the
// two-key form (K3 = K1), a 24-byte key the three-key form.
class TripleDes {
 public:
  static constexpr size_t kBlockSize = 8;

  TripleDes() = default;
  ~TripleDes();
  TripleDes(const TripleDes&) = default;
  TripleDes& operator=(const TripleDes&) = default;

  // key must be 16 or 24 bytes. False on another length.
  bool SetKey(const uint8_t* key, size_t len);
  bool HasKey() const { return keyed_; }

  void EncryptBlock(const uint8_t* in, uint8_t* out) const;
  void DecryptBlock(const uint8_t* in, uint8_t* out) const;
  void CbcEncrypt(uint8_t* iv, const uint8_t* in, uint8_t* out, size_t blocks) const;
  void CbcDecrypt(uint8_t* iv, const uint8_t* in, uint8_t* out, size_t blocks) const;

 private:
  Des k_[3];
  bool keyed_ = false;
};

}  // namespace kv
