#include "crypto/rc4.h"

#include <cstring>

#include "crypto/internal/wipe.h"

namespace kv {

Rc4::~Rc4() {
  internal::Wipe(this, sizeof *this);
}

bool Rc4::SetKey(const uint8_t* key, size_t len) {
  if (key == nullptr || len < 1 || len > kMaxKeySize) return false;
  for (uint32_t i = 0; i < 256; ++i) s_[i] = uint8_t(i);
  uint32_t j = 0;
  for (uint32_t i = 0; i < 256; ++i) {
    uint8_t t = s_[i];
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
  uint8_t* s = s_;
  uint32_t i = i_, j = j_;
  // One key stream byte in the textbook order, i already advanced.
  auto step = [&]() -> uint64_t {
    uint32_t a = s[i];
    j = (j + a) & 0xff;
    uint32_t b = s[j];
    s[i] = uint8_t(b);
    s[j] = uint8_t(a);
    return s[(a + b) & 0xff];
  };
  // Eight key stream bytes are gathered into one word and applied at once.
  // While i does not wrap within the eight steps its entries sit at fixed
  // offsets from one pointer. Each step loads the next entry before its own
  // swap and patches it when the swap wrote that very entry; the next j is
  // computed for both cases and chosen, which keeps the chain through j short.
  // Inside the block jj runs ahead: it already includes the next entry, and
  // only its low byte is the index.
  for (; n >= 8; n -= 8, in += 8, out += 8) {
    uint64_t ks = 0;
    if (i < 247) {
      uint8_t* p = s + i;
      uint32_t a = p[1];
      uint32_t jj = j + a;
#define KV_RC4_STEP(m)                                  \
  do {                                                  \
    uint32_t jm = jj & 0xff;                            \
    uint32_t b = s[jm];                                 \
    uint32_t next = p[(m) + 1];                         \
    s[jm] = uint8_t(a);                                 \
    p[m] = uint8_t(b);                                  \
    bool patched = jm == i + (m) + 1;                   \
    ks |= uint64_t(s[(a + b) & 0xff]) << (8 * ((m)-1)); \
    uint32_t j_loaded = jj + next, j_patched = jj + a;  \
    jj = patched ? j_patched : j_loaded;                \
    a = patched ? a : next;                             \
  } while (0)
      KV_RC4_STEP(1);
      KV_RC4_STEP(2);
      KV_RC4_STEP(3);
      KV_RC4_STEP(4);
      KV_RC4_STEP(5);
      KV_RC4_STEP(6);
      KV_RC4_STEP(7);
      KV_RC4_STEP(8);
#undef KV_RC4_STEP
      j = (jj - a) & 0xff;
      i += 8;
    } else {
      for (int k = 0; k < 8; ++k) {
        i = (i + 1) & 0xff;
        ks |= step() << (8 * k);
      }
    }
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    ks = __builtin_bswap64(ks);
#endif
    uint64_t v;
    std::memcpy(&v, in, 8);
    v ^= ks;
    std::memcpy(out, &v, 8);
  }
  for (; n; --n) {
    i = (i + 1) & 0xff;
    *out++ = uint8_t(*in++ ^ step());
  }
  i_ = i;
  j_ = j;
  return true;
}

bool Rc4::Process(const uint8_t* key, size_t key_len, const uint8_t* in, uint8_t* out, size_t n) {
  Rc4 rc4;
  return rc4.SetKey(key, key_len) && rc4.Process(in, out, n);
}

}  // namespace kv
