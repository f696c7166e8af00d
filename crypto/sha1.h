// SHA-1 (FIPS 180-4), streaming and one-shot.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv {

class Sha1 {
 public:
  static constexpr size_t kDigestSize = 20;
  static constexpr size_t kBlockSize = 64;

  Sha1() { Init(); }
  ~Sha1();
  Sha1(const Sha1&) = default;
  Sha1& operator=(const Sha1&) = default;

  // Starts a new message; Reset() is the same.
  void Init();
  void Reset() { Init(); }
  // Adds len bytes; data may be null when len is 0.
  void Update(const void* data, size_t len);
  // Writes kDigestSize bytes to out and starts a new message, so the object
  // can be reused at once.
  void Final(uint8_t* out);

  static void Digest(const void* data, size_t len, uint8_t* out);

 private:
  uint32_t h_[5];
  uint64_t total_;  // bytes hashed so far
  uint8_t buf_[kBlockSize];
  size_t used_;  // bytes waiting in buf_
};

}  // namespace kv
