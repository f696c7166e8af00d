#include "crypto/md2.h"

#include <cstring>

#include "crypto/internal/wipe.h"

namespace kv {
namespace {

// The substitution table is the permutation of 0..255 that RFC 1319 builds
// from the digits of pi: a Durstenfeld shuffle whose random numbers are drawn
// from successive decimal digits, rejecting draws that would bias the result.
// We compute pi (Machin's formula, fixed point in base 10^9) rather than
// carry a table.
class PiDigits {
 public:
  PiDigits() {
    // pi = 16 atan(1/5) - 4 atan(1/239)
    uint32_t sum[kLimbs] = {}, t[kLimbs];
    AtanInverse(5, t);
    MulSmall(t, 16);
    Add(sum, t);
    AtanInverse(239, t);
    MulSmall(t, 4);
    Sub(sum, t);
    digits_[0] = uint8_t(sum[0]);
    size_t n = 1;
    for (int i = 1; i <= kUsedLimbs; ++i) {
      for (uint32_t v = sum[i], div = 100000000; div; div /= 10) {
        digits_[n++] = uint8_t(v / div % 10);
      }
    }
  }
  bool Next(unsigned* d) {
    if (pos_ >= kDigits) return false;
    *d = digits_[pos_++];
    return true;
  }

 private:
  // 90 limbs of 9 digits give 810 decimals; the shuffle needs about 720. Two
  // more limbs absorb the truncation error of the series.
  static constexpr int kUsedLimbs = 90;
  static constexpr int kLimbs = kUsedLimbs + 3;
  static constexpr size_t kDigits = 1 + 9 * kUsedLimbs;
  static constexpr uint32_t kBase = 1000000000;

  static bool IsZero(const uint32_t* a) {
    for (int i = 0; i < kLimbs; ++i)
      if (a[i]) return false;
    return true;
  }
  static void DivSmall(uint32_t* a, uint32_t d) {
    uint64_t rem = 0;
    for (int i = 0; i < kLimbs; ++i) {
      uint64_t cur = rem * kBase + a[i];
      a[i] = uint32_t(cur / d);
      rem = cur % d;
    }
  }
  static void MulSmall(uint32_t* a, uint32_t m) {
    uint64_t carry = 0;
    for (int i = kLimbs - 1; i >= 0; --i) {
      uint64_t cur = uint64_t(a[i]) * m + carry;
      a[i] = uint32_t(cur % kBase);
      carry = cur / kBase;
    }
  }
  static void Add(uint32_t* a, const uint32_t* b) {
    uint32_t carry = 0;
    for (int i = kLimbs - 1; i >= 0; --i) {
      uint32_t cur = a[i] + b[i] + carry;
      carry = cur >= kBase;
      a[i] = carry ? cur - kBase : cur;
    }
  }
  static void Sub(uint32_t* a, const uint32_t* b) {
    uint32_t borrow = 0;
    for (int i = kLimbs - 1; i >= 0; --i) {
      uint32_t sub = b[i] + borrow;
      borrow = a[i] < sub;
      a[i] = borrow ? a[i] + kBase - sub : a[i] - sub;
    }
  }
  // atan(1/x) = sum over k of (-1)^k / ((2k + 1) x^(2k+1)).
  static void AtanInverse(uint32_t x, uint32_t* out) {
    uint32_t power[kLimbs] = {1}, term[kLimbs];
    std::memset(out, 0, sizeof(uint32_t) * kLimbs);
    DivSmall(power, x);
    for (uint32_t k = 0; !IsZero(power); ++k) {
      std::memcpy(term, power, sizeof term);
      DivSmall(term, 2 * k + 1);
      if (k % 2 == 0) {
        Add(out, term);
      } else {
        Sub(out, term);
      }
      DivSmall(power, x * x);
    }
  }

  uint8_t digits_[kDigits];
  size_t pos_ = 0;
};

struct SubstitutionTable {
  uint8_t s[256];
  bool ok = true;

  SubstitutionTable() {
    PiDigits pi;
    for (int i = 0; i < 256; ++i) s[i] = uint8_t(i);
    for (unsigned n = 2; n <= 256 && ok; ++n) {
      unsigned j = 0;
      ok = Draw(pi, n, &j);
      uint8_t tmp = s[j];
      s[j] = s[n - 1];
      s[n - 1] = tmp;
    }
  }
  // A number below n from one, two or three digits; a draw at or above the
  // largest multiple of n is thrown away.
  static bool Draw(PiDigits& pi, unsigned n, unsigned* out) {
    for (;;) {
      unsigned x, d, y = 10;
      if (!pi.Next(&x)) return false;
      if (n > 10) {
        if (!pi.Next(&d)) return false;
        x = x * 10 + d;
        y = 100;
      }
      if (n > 100) {
        if (!pi.Next(&d)) return false;
        x = x * 10 + d;
        y = 1000;
      }
      if (x < n * (y / n)) {
        *out = x % n;
        return true;
      }
    }
  }
};

const uint8_t* Substitution() {
  static const SubstitutionTable table;
  return table.s;
}

}  // namespace

Md2::~Md2() {
  internal::Wipe(this, sizeof *this);
}

void Md2::Init() {
  std::memset(x_, 0, sizeof x_);
  std::memset(checksum_, 0, sizeof checksum_);
  used_ = 0;
}

void Md2::Block(const uint8_t* m) {
  const uint8_t* S = Substitution();
  uint8_t l = checksum_[15];
  for (int j = 0; j < 16; ++j) {
    x_[16 + j] = m[j];
    x_[32 + j] = uint8_t(m[j] ^ x_[j]);
    l = checksum_[j] ^= S[m[j] ^ l];
  }
  unsigned t = 0;
  for (unsigned round = 0; round < 18; ++round) {
    for (int k = 0; k < 48; ++k) t = x_[k] ^= S[t];
    t = (t + round) & 0xff;
  }
}

void Md2::Update(const void* data, size_t len) {
  if (len == 0) return;
  const uint8_t* p = static_cast<const uint8_t*>(data);
  if (used_) {
    size_t take = kBlockSize - used_;
    if (take > len) take = len;
    std::memcpy(buf_ + used_, p, take);
    used_ += take;
    p += take;
    len -= take;
    if (used_ < kBlockSize) return;
    Block(buf_);
    used_ = 0;
  }
  for (; len >= kBlockSize; p += kBlockSize, len -= kBlockSize) Block(p);
  if (len) {
    std::memcpy(buf_, p, len);
    used_ = len;
  }
}

void Md2::Final(uint8_t* out) {
  // Pad with i bytes of value i (1..16), then digest the checksum as a block.
  uint8_t pad[kBlockSize];
  size_t n = kBlockSize - used_;
  std::memset(pad, int(n), n);
  Update(pad, n);
  uint8_t sum[16];
  std::memcpy(sum, checksum_, sizeof sum);
  Block(sum);
  std::memcpy(out, x_, kDigestSize);
  internal::Wipe(sum, sizeof sum);
  Init();
}

void Md2::Digest(const void* data, size_t len, uint8_t* out) {
  Md2 s;
  s.Update(data, len);
  s.Final(out);
}

}  // namespace kv
