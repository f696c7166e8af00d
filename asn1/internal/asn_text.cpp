#include "asn1/internal/asn_text.h"

#include "asn1/mi_biginteger.h"

namespace kv_asn {

namespace {

// Base-128 groups of a big-endian unsigned magnitude, 0x80 on all but the last.
void AppendBase128(std::string& out, const std::string& magnitude) {
  // Collect 7-bit groups from the least significant end.
  std::string groups;
  unsigned acc = 0, bits = 0;
  for (size_t i = magnitude.size(); i-- > 0;) {
    acc |= static_cast<unsigned>(static_cast<unsigned char>(magnitude[i])) << bits;
    bits += 8;
    while (bits >= 7) {
      groups.push_back(static_cast<char>(acc & 0x7F));
      acc >>= 7;
      bits -= 7;
    }
  }
  if (bits) groups.push_back(static_cast<char>(acc & 0x7F));
  while (groups.size() > 1 && groups.back() == 0) groups.pop_back();
  for (size_t i = groups.size(); i-- > 0;)
    out.push_back(static_cast<char>(groups[i] | (i ? 0x80 : 0)));
}

void AppendBase128(std::string& out, uint64_t v) {
  char tmp[10];
  int n = 0;
  do {
    tmp[n++] = static_cast<char>(v & 0x7F);
    v >>= 7;
  } while (v);
  while (n-- > 0) out.push_back(static_cast<char>(tmp[n] | (n ? 0x80 : 0)));
}

// Decimal digits to magnitude octets.
std::string DecimalMagnitude(const std::string& digits) {
  MiBigInteger b = MiBigInteger::FromString(digits.c_str());
  MiByte m = b.GetMagnitude();
  return std::string(m.GetChars(), m.GetLength());
}

}  // namespace

bool OidTextToOctets(const char* text, unsigned n, std::string& out) {
  out.clear();
  if (!text || n == 0) return false;
  unsigned arcs = 0;
  uint64_t first = 0;
  unsigned start = 0;
  for (unsigned i = 0; i <= n; ++i) {
    if (i < n && text[i] != '.') continue;
    // One arc: text[start, i).
    const unsigned len = i - start;
    if (len == 0) return false;
    for (unsigned k = start; k < i; ++k)
      if (text[k] < '0' || text[k] > '9') return false;
    uint64_t v = 0;
    const bool small = len <= 19;
    if (small)
      for (unsigned k = start; k < i; ++k) v = v * 10 + static_cast<unsigned>(text[k] - '0');
    if (arcs == 0) {
      if (!small || v > 1000) return false;
      first = v;
    } else if (arcs == 1) {
      if (small && v <= UINT64_MAX - first * 40) {
        AppendBase128(out, first * 40 + v);
      } else {
        // A huge second arc: first * 40 + second in big arithmetic.
        std::string mag = DecimalMagnitude(std::string(text + start, len));
        unsigned carry = static_cast<unsigned>(first * 40);
        for (size_t b = mag.size(); b-- > 0 && carry;) {
          unsigned sum = static_cast<unsigned char>(mag[b]) + carry;
          mag[b] = static_cast<char>(sum & 0xFF);
          carry = sum >> 8;
        }
        while (carry) {
          mag.insert(mag.begin(), static_cast<char>(carry & 0xFF));
          carry >>= 8;
        }
        AppendBase128(out, mag);
      }
    } else if (small) {
      AppendBase128(out, v);
    } else {
      AppendBase128(out, DecimalMagnitude(std::string(text + start, len)));
    }
    ++arcs;
    start = i + 1;
  }
  return arcs >= 2;
}

bool OidTextToOctetsQuick(const char* text, unsigned n, unsigned char* out, unsigned& len) {
  len = 0;
  if (!text || n == 0) return false;
  unsigned arcs = 0;
  uint64_t first = 0;
  unsigned i = 0;
  while (true) {
    // One arc: decimal digits up to '.' or the end.
    const unsigned start = i;
    uint64_t v = 0;
    while (i < n && text[i] >= '0' && text[i] <= '9') {
      v = v * 10 + static_cast<unsigned>(text[i] - '0');
      ++i;
    }
    const unsigned digits = i - start;
    if (digits == 0 || digits > 19) return false;
    if (i < n && text[i] != '.') return false;
    if (arcs == 0) {
      if (v > 1000) return false;
      first = v;
    } else {
      if (arcs == 1) {
        if (v > UINT64_MAX - first * 40) return false;
        v += first * 40;
      }
      // Base-128 groups, most significant first, 0x80 on all but the last.
      unsigned char tmp[10];
      unsigned g = 0;
      do {
        tmp[g++] = static_cast<unsigned char>(v & 0x7F);
        v >>= 7;
      } while (v);
      if (len + g > kOidQuickOctets) return false;
      while (g-- > 0) out[len++] = static_cast<unsigned char>(tmp[g] | (g ? 0x80 : 0));
    }
    ++arcs;
    if (i == n) break;
    ++i;  // the '.'
  }
  return arcs >= 2;
}

bool OidOctetsToText(const unsigned char* p, unsigned n, std::string& out) {
  out.clear();
  if (n == 0 || (p[n - 1] & 0x80)) return false;
  bool first = true;
  unsigned i = 0;
  while (i < n) {
    unsigned j = i;
    while (p[j] & 0x80) ++j;  // the last octet has 0x80 clear, so this stops
    const unsigned groups = j - i + 1;
    std::string arc;
    if (groups <= 9) {
      uint64_t v = 0;
      for (unsigned k = i; k <= j; ++k) v = (v << 7) | (p[k] & 0x7F);
      if (first) {
        uint64_t a = v < 40 ? 0 : v < 80 ? 1 : 2;
        out += std::to_string(a);
        out += '.';
        v -= a * 40;
      }
      arc = std::to_string(v);
    } else {
      // Wide arc: assemble the magnitude bit by bit.
      std::string mag(1, '\0');
      for (unsigned k = i; k <= j; ++k) {
        unsigned carry = p[k] & 0x7F;
        for (size_t b = mag.size(); b-- > 0;) {
          unsigned v = (static_cast<unsigned>(static_cast<unsigned char>(mag[b])) << 7) | carry;
          mag[b] = static_cast<char>(v & 0xFF);
          carry = v >> 8;
        }
        while (carry) {
          mag.insert(mag.begin(), static_cast<char>(carry & 0xFF));
          carry >>= 8;
        }
      }
      if (first) {
        // A first subidentifier this large always means arc 2.
        unsigned borrow = 80;
        for (size_t b = mag.size(); b-- > 0 && borrow;) {
          int v = static_cast<unsigned char>(mag[b]) - static_cast<int>(borrow);
          borrow = 0;
          if (v < 0) {
            v += 256;
            borrow = 1;
          }
          mag[b] = static_cast<char>(v);
        }
        out += "2.";
      }
      arc = MiBigInteger::FromMagnitude(reinterpret_cast<const unsigned char*>(mag.data()),
                                        static_cast<unsigned>(mag.size()))
                .ToStdString(10);
    }
    out += arc;
    first = false;
    i = j + 1;
    if (i < n) out += '.';
  }
  return true;
}

bool Utf8ToCodes(const unsigned char* p, unsigned n, std::vector<uint32_t>& out) {
  out.clear();
  out.reserve(n);
  for (unsigned i = 0; i < n;) {
    unsigned char c = p[i];
    unsigned extra;
    uint32_t code;
    if (c < 0x80) {
      extra = 0;
      code = c;
    } else if ((c & 0xE0) == 0xC0) {
      extra = 1;
      code = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2;
      code = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3;
      code = c & 0x07;
    } else if ((c & 0xFC) == 0xF8) {
      extra = 4;
      code = c & 0x03;
    } else if ((c & 0xFE) == 0xFC) {
      extra = 5;
      code = c & 0x01;
    } else {
      return false;
    }
    if (extra > n - i - 1) return false;
    for (unsigned k = 1; k <= extra; ++k) {
      unsigned char d = p[i + k];
      if ((d & 0xC0) != 0x80) return false;
      code = (code << 6) | (d & 0x3F);
    }
    out.push_back(code);
    i += extra + 1;
  }
  return true;
}

void AppendUtf8(std::string& out, uint32_t code) {
  if (code < 0x80) {
    out.push_back(static_cast<char>(code));
    return;
  }
  unsigned extra = code < 0x800       ? 1
                   : code < 0x10000   ? 2
                   : code < 0x200000  ? 3
                   : code < 0x4000000 ? 4
                                      : 5;
  static const unsigned char lead[] = {0, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
  out.push_back(static_cast<char>(lead[extra] | (code >> (6 * extra))));
  for (unsigned k = extra; k-- > 0;)
    out.push_back(static_cast<char>(0x80 | ((code >> (6 * k)) & 0x3F)));
}

unsigned Int32Octets(int32_t v, unsigned char out[4]) {
  unsigned char b[4];
  uint32_t u = static_cast<uint32_t>(v);
  for (int i = 0; i < 4; ++i) b[i] = static_cast<unsigned char>(u >> (24 - 8 * i));
  unsigned s = 0;
  while (s < 3 && ((b[s] == 0x00 && !(b[s + 1] & 0x80)) || (b[s] == 0xFF && (b[s + 1] & 0x80))))
    ++s;
  for (unsigned i = s; i < 4; ++i) out[i - s] = b[i];
  return 4 - s;
}

}  // namespace kv_asn
