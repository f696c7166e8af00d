// RC4 stream cipher.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv {

class Rc4 {
 public:
  static constexpr size_t kMaxKeySize = 256;

  Rc4() = default;
  ~Rc4();
  Rc4(const Rc4&) = default;
  Rc4& operator=(const Rc4&) = default;

  // key of 1..256 bytes; false otherwise. Restarts the key stream.
  bool SetKey(const uint8_t* key, size_t len);
  bool HasKey() const { return keyed_; }
  // XORs the next n key stream bytes onto in; in and out may be the same
  // buffer. False (and nothing written) when no key is set.
  bool Process(const uint8_t* in, uint8_t* out, size_t n);

  // One-shot: a fresh key stream over in.
  static bool Process(const uint8_t* key, size_t key_len, const uint8_t* in, uint8_t* out,
                      size_t n);

 private:
  uint8_t s_[256] = {};
  uint32_t i_ = 0, j_ = 0;
  bool keyed_ = false;
};

}  // namespace kv
