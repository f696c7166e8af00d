// MD5 (RFC 1321), streaming and one-shot.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv {

class Md5 {
 public:
  static constexpr size_t kDigestSize = 16;
  static constexpr size_t kBlockSize = 64;

  Md5() { Init(); }
  ~Md5();
  Md5(const Md5&) = default;
  Md5& operator=(const Md5&) = default;

  // Starts a new message; Reset() is the same.
  void Init();
  void Reset() { Init(); }
  // Adds len bytes; data may be null when len is 0.
  void Update(const void* data, size_t len);
  // Writes kDigestSize bytes to out and starts a new message.
  void Final(uint8_t* out);

  static void Digest(const void* data, size_t len, uint8_t* out);

 private:
  uint32_t h_[4];
  uint64_t total_;
  uint8_t buf_[kBlockSize];
  size_t used_;
};

}  // namespace kv
