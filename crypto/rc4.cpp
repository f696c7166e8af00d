#include "crypto/rc4.h"

#include <cstring>

#include "crypto/internal/wipe.h"

namespace kv {

Rc4::~Rc4() {
  internal::Wipe(this, sizeof *this);
}

bool Rc4::SetKey(const uint8_t* key, size_t len) {
  if (key == nullptr || len < 1 || len > kMaxKeySize) return false;
  for (uint32_t i = 0; i < 256; ++i) s_[i] = i;
  uint32_t j = 0;
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t t = s_[i];
    j = (j + t + key[i % len]) & 0xff;
    s_[i] = s_[j];
    s_[j] = t;
  }
  i_ = j_ = 0;
  keyed_ = true;
  return true;
}

bool Rc4::Process(const uint8_t* in, uint8_t* out, size_t n) {
  if (!keyed_) return false;
  uint32_t* s = s_;
  uint32_t i = i_, j = j_;
  auto next = [&]() -> uint64_t {
    i = (i + 1) & 0xff;
    uint32_t a = s[i];
    j = (j + a) & 0xff;
    uint32_t b = s[j];
    s[i] = b;
    s[j] = a;
    return s[(a + b) & 0xff];
  };
  // Eight key stream bytes are gathered into one word and applied at once.
  for (; n >= 8; n -= 8, in += 8, out += 8) {
    uint64_t ks = next();
    ks |= next() << 8;
    ks |= next() << 16;
    ks |= next() << 24;
    ks |= next() << 32;
    ks |= next() << 40;
    ks |= next() << 48;
    ks |= next() << 56;
    uint64_t v;
    std::memcpy(&v, in, 8);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    ks = __builtin_bswap64(ks);
#endif
    v ^= ks;
    std::memcpy(out, &v, 8);
  }
  for (; n; --n) *out++ = uint8_t(*in++ ^ next());
  i_ = i;
  j_ = j;
  return true;
}

bool Rc4::Process(const uint8_t* key, size_t key_len, const uint8_t* in, uint8_t* out, size_t n) {
  Rc4 rc4;
  return rc4.SetKey(key, key_len) && rc4.Process(in, out, n);
}

}  // namespace kv
