// MD2 (RFC 1319), streaming and one-shot.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv {

class Md2 {
 public:
  static constexpr size_t kDigestSize = 16;
  static constexpr size_t kBlockSize = 16;

  Md2() { Init(); }
  ~Md2();
  Md2(const Md2&) = default;
  Md2& operator=(const Md2&) = default;

  // Starts a new message; Reset() is the same.
  void Init();
  void Reset() { Init(); }
  // Adds len bytes; data may be null when len is 0.
  void Update(const void* data, size_t len);
  // Writes kDigestSize bytes to out and starts a new message.
  void Final(uint8_t* out);

  static void Digest(const void* data, size_t len, uint8_t* out);

 private:
  void Block(const uint8_t* m);

  uint8_t x_[48];         // state
  uint8_t checksum_[16];  // running checksum
  uint8_t buf_[kBlockSize];
  size_t used_;
};

}  // namespace kv
