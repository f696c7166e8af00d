#include "asn1/mi_biginteger.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "asn1/mi_exception.h"

namespace {

// Minimal two's-complement octets of a 64-bit value.
std::string MinimalOctets(uint64_t bits, bool negative) {
  unsigned char buf[9];
  for (int i = 0; i < 8; ++i) buf[i + 1] = static_cast<unsigned char>(bits >> (56 - 8 * i));
  buf[0] = negative ? 0xFF : 0x00;
  unsigned start = 0;
  // Drop a leading octet while the next one carries the same sign.
  while (start < 8) {
    unsigned char lead = buf[start], next = buf[start + 1];
    if ((lead == 0x00 && !(next & 0x80)) || (lead == 0xFF && (next & 0x80)))
      ++start;
    else
      break;
  }
  return std::string(reinterpret_cast<const char*>(buf + start), 9 - start);
}

// Magnitude (unsigned big-endian) of two's-complement octets.
std::string MagnitudeOf(const std::string& oct) {
  if (oct.empty()) return std::string(1, '\0');
  std::string m = oct;
  if (static_cast<unsigned char>(m[0]) & 0x80) {
    // Negate: invert and add one.
    for (auto& c : m) c = static_cast<char>(~static_cast<unsigned char>(c));
    for (size_t i = m.size(); i-- > 0;) {
      unsigned char v = static_cast<unsigned char>(m[i]) + 1;
      m[i] = static_cast<char>(v);
      if (v != 0) break;
    }
  }
  size_t z = 0;
  while (z + 1 < m.size() && m[z] == 0) ++z;
  return m.substr(z);
}

}  // namespace

MiBigInteger MiBigInteger::FromInt64(int64_t value) {
  MiBigInteger b;
  b.SetInt64(value);
  return b;
}

MiBigInteger MiBigInteger::FromUInt64(uint64_t value) {
  MiBigInteger b;
  b.SetUInt64(value);
  return b;
}

MiBigInteger MiBigInteger::FromMagnitude(const unsigned char* p, unsigned n, bool negative) {
  MiBigInteger b;
  unsigned z = 0;
  while (p && z < n && p[z] == 0) ++z;
  if (!p || z == n) {
    b.m_octets.assign(1, '\0');
    return b;
  }
  std::string m(reinterpret_cast<const char*>(p + z), n - z);
  if (!negative) {
    if (static_cast<unsigned char>(m[0]) & 0x80) m.insert(m.begin(), '\0');
    b.m_octets = m;
    return b;
  }
  // Two's complement of the magnitude, then drop redundant 0xFF octets.
  m.insert(m.begin(), '\0');
  for (auto& c : m) c = static_cast<char>(~static_cast<unsigned char>(c));
  for (size_t i = m.size(); i-- > 0;) {
    unsigned char v = static_cast<unsigned char>(m[i]) + 1;
    m[i] = static_cast<char>(v);
    if (v != 0) break;
  }
  size_t s = 0;
  while (s + 1 < m.size() && static_cast<unsigned char>(m[s]) == 0xFF &&
         (static_cast<unsigned char>(m[s + 1]) & 0x80))
    ++s;
  b.m_octets = m.substr(s);
  return b;
}

MiBigInteger MiBigInteger::FromMagnitude(const MiByte& magnitude, bool negative) {
  return FromMagnitude(reinterpret_cast<const unsigned char*>(magnitude.GetChars()),
                       magnitude.GetLength(), negative);
}

MiBigInteger MiBigInteger::FromTwosComplement(const unsigned char* p, unsigned n) {
  MiBigInteger b;
  b.SetTwosComplement(p, n);
  return b;
}

MiBigInteger MiBigInteger::FromTwosComplement(const MiByte& octets) {
  return FromTwosComplement(reinterpret_cast<const unsigned char*>(octets.GetChars()),
                            octets.GetLength());
}

MiBigInteger MiBigInteger::FromString(const char* text) {
  if (!text || !*text) throw MiInvalidArgumentExp();
  bool negative = false;
  if (*text == '-') {
    negative = true;
    ++text;
  }
  std::string mag;  // big-endian magnitude being built
  auto mulAdd = [&mag](unsigned mul, unsigned add) {
    unsigned carry = add;
    for (size_t i = mag.size(); i-- > 0;) {
      unsigned v = static_cast<unsigned char>(mag[i]) * mul + carry;
      mag[i] = static_cast<char>(v & 0xFF);
      carry = v >> 8;
    }
    while (carry) {
      mag.insert(mag.begin(), static_cast<char>(carry & 0xFF));
      carry >>= 8;
    }
  };
  if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    text += 2;
    if (!*text) throw MiInvalidArgumentExp();
    for (; *text; ++text) {
      char c = *text;
      unsigned d;
      if (c >= '0' && c <= '9')
        d = c - '0';
      else if (c >= 'a' && c <= 'f')
        d = c - 'a' + 10;
      else if (c >= 'A' && c <= 'F')
        d = c - 'A' + 10;
      else
        throw MiInvalidArgumentExp();
      mulAdd(16, d);
    }
  } else {
    if (!*text) throw MiInvalidArgumentExp();
    for (; *text; ++text) {
      if (*text < '0' || *text > '9') throw MiInvalidArgumentExp();
      mulAdd(10, static_cast<unsigned>(*text - '0'));
    }
  }
  return FromMagnitude(reinterpret_cast<const unsigned char*>(mag.data()),
                       static_cast<unsigned>(mag.size()), negative);
}

void MiBigInteger::SetInt64(int64_t value) {
  m_octets = MinimalOctets(static_cast<uint64_t>(value), value < 0);
}

void MiBigInteger::SetUInt64(uint64_t value) {
  if (value >> 63) {
    m_octets.assign(1, '\0');
    for (int i = 0; i < 8; ++i) m_octets.push_back(static_cast<char>(value >> (56 - 8 * i)));
  } else {
    m_octets = MinimalOctets(value, false);
  }
}

void MiBigInteger::SetTwosComplement(const unsigned char* p, unsigned n) {
  if (!p || n == 0)
    m_octets.clear();
  else
    m_octets.assign(reinterpret_cast<const char*>(p), n);
}

MiByte MiBigInteger::GetOctets() const {
  if (m_octets.empty()) return MiByte();
  return MiByte(m_octets.data(), static_cast<unsigned>(m_octets.size()));
}

bool MiBigInteger::IsZero() const {
  for (char c : m_octets)
    if (c != 0) return false;
  return true;
}

bool MiBigInteger::IsMinimal() const {
  if (m_octets.size() < 2) return !m_octets.empty();
  unsigned char a = static_cast<unsigned char>(m_octets[0]);
  unsigned char b = static_cast<unsigned char>(m_octets[1]);
  return !((a == 0x00 && !(b & 0x80)) || (a == 0xFF && (b & 0x80)));
}

int64_t MiBigInteger::ToInt64(bool& ok) const {
  ok = true;
  if (m_octets.empty()) return 0;
  const bool neg = IsNegative();
  const unsigned char fill = neg ? 0xFF : 0x00;
  size_t s = 0;
  // Skip sign-extension octets beyond 8.
  while (m_octets.size() - s > 8) {
    if (static_cast<unsigned char>(m_octets[s]) != fill) {
      ok = false;
      return 0;
    }
    ++s;
  }
  uint64_t v = neg ? ~uint64_t(0) : 0;
  for (size_t i = s; i < m_octets.size(); ++i)
    v = (v << 8) | static_cast<unsigned char>(m_octets[i]);
  // The kept octets must carry the same sign as the whole number.
  if (m_octets.size() - s == 8 && ((v >> 63) != 0) != neg) {
    ok = false;
    return 0;
  }
  return static_cast<int64_t>(v);
}

uint64_t MiBigInteger::ToUInt64(bool& ok) const {
  ok = true;
  if (m_octets.empty()) return 0;
  if (IsNegative()) {
    ok = false;
    return 0;
  }
  size_t s = 0;
  while (m_octets.size() - s > 8) {
    if (m_octets[s] != 0) {
      ok = false;
      return 0;
    }
    ++s;
  }
  uint64_t v = 0;
  for (size_t i = s; i < m_octets.size(); ++i)
    v = (v << 8) | static_cast<unsigned char>(m_octets[i]);
  return v;
}

int32_t MiBigInteger::ToInt32(bool& ok) const {
  int64_t v = ToInt64(ok);
  if (!ok || v < INT32_MIN || v > INT32_MAX) {
    ok = false;
    return 0;
  }
  return static_cast<int32_t>(v);
}

int32_t MiBigInteger::Int32Value() const {
  bool ok;
  int32_t v = ToInt32(ok);
  return ok ? v : 0;
}

MiByte MiBigInteger::GetMagnitude() const {
  std::string m = MagnitudeOf(m_octets);
  return MiByte(m.data(), static_cast<unsigned>(m.size()));
}

std::string MiBigInteger::ToStdString(unsigned radix) const {
  std::string mag = MagnitudeOf(m_octets);
  std::string out;
  if (radix == 16) {
    static const char hex[] = "0123456789ABCDEF";
    for (char c : mag) {
      out.push_back(hex[static_cast<unsigned char>(c) >> 4]);
      out.push_back(hex[static_cast<unsigned char>(c) & 15]);
    }
  } else if (radix == 10) {
    // Repeated division by 10^9 of the big-endian magnitude.
    std::vector<uint32_t> chunks;
    std::string cur = mag;
    while (!(cur.size() == 1 && cur[0] == 0) && !cur.empty()) {
      uint64_t rem = 0;
      std::string q;
      q.reserve(cur.size());
      for (char c : cur) {
        uint64_t v = (rem << 8) | static_cast<unsigned char>(c);
        uint64_t d = v / 1000000000u;
        rem = v % 1000000000u;
        if (!q.empty() || d) q.push_back(static_cast<char>(d));
      }
      chunks.push_back(static_cast<uint32_t>(rem));
      if (q.empty()) q.assign(1, '\0');
      cur.swap(q);
    }
    if (chunks.empty()) {
      out = "0";
    } else {
      out = std::to_string(chunks.back());
      for (size_t i = chunks.size() - 1; i-- > 0;) {
        std::string part = std::to_string(chunks[i]);
        out.append(9 - part.size(), '0');
        out += part;
      }
    }
  } else {
    throw MiInvalidArgumentExp();
  }
  if (IsNegative()) out.insert(out.begin(), '-');
  return out;
}

MiString MiBigInteger::ToString(unsigned radix) const {
  return MiString(ToStdString(radix).c_str());
}

int MiBigInteger::CompareTo(const MiBigInteger& other) const {
  const bool an = IsNegative(), bn = other.IsNegative();
  if (an != bn) return an ? -1 : 1;
  std::string a = MagnitudeOf(m_octets), b = MagnitudeOf(other.m_octets);
  int mag;
  if (a.size() != b.size())
    mag = a.size() < b.size() ? -1 : 1;
  else {
    int c = std::memcmp(a.data(), b.data(), a.size());
    mag = c < 0 ? -1 : (c > 0 ? 1 : 0);
  }
  return an ? -mag : mag;
}
