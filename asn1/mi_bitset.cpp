#include "asn1/mi_bitset.h"

#include <cstring>
#include <ostream>
#include <utility>

#include "asn1/internal/mi_text.h"

namespace {
uint32_t ByteCount(uint64_t bits) {
  return static_cast<uint32_t>((bits + 7) / 8);
}

uint32_t Longer(uint32_t length, unsigned n) {
  uint64_t total = static_cast<uint64_t>(length) + n;
  if (total > 0xFFFFFFFFu) throw MiOutOfRangeExp();
  return static_cast<uint32_t>(total);
}
}  // namespace

MiBitSet::MiBitSet(unsigned n) : bytes_(ByteCount(n)), bitLength_(n) {}

MiBitSet::MiBitSet(const char* bits) {
  SetBitsString(bits);
}

MiBitSet::MiBitSet(const MiByte& bytes, unsigned n) {
  SetBits(bytes, n);
}

MiBitSet::MiBitSet(const MiByte& bytes, unsigned start, unsigned n) {
  SetBits(bytes, start, n);
}

MiBitSet::MiBitSet(MiBitSet&& other) noexcept
    : MiObject(other), bytes_(std::move(other.bytes_)), bitLength_(other.bitLength_) {
  other.bitLength_ = 0;
}

MiBitSet& MiBitSet::operator=(const MiBitSet& other) {
  Reset(&other);
  return *this;
}

MiBitSet& MiBitSet::operator=(MiBitSet&& other) noexcept {
  if (this != &other) {
    bytes_ = std::move(other.bytes_);
    bitLength_ = other.bitLength_;
    other.bitLength_ = 0;
  }
  return *this;
}

MiBitSet::~MiBitSet() = default;

void MiBitSet::PutBit(uint32_t i, bool v) noexcept {
  char& byte = bytes_.GetChars()[i >> 3];
  const unsigned mask = 0x80u >> (i & 7);
  byte = static_cast<char>(v ? (static_cast<unsigned char>(byte) | mask)
                             : (static_cast<unsigned char>(byte) & ~mask));
}

// Clears the unused low-order bits of the last byte.
void MiBitSet::ClearTail() noexcept {
  if (bitLength_ % 8 == 0) return;
  char& last = bytes_.GetChars()[bytes_.GetLength() - 1];
  const unsigned keep = 0xFFu << (8 - bitLength_ % 8);
  last = static_cast<char>(static_cast<unsigned char>(last) & keep);
}

bool MiBitSet::Get(unsigned i) const {
  if (i >= bitLength_) throw MiOutOfRangeExp();
  return Bit(i);
}

void MiBitSet::Set(unsigned i, bool value) {
  if (i >= bitLength_) throw MiOutOfRangeExp();
  PutBit(i, value);
}

void MiBitSet::SetLength(unsigned n) {
  if (n == bitLength_) return;
  if (n > bitLength_) ClearTail();  // bits taken over as they were must not reappear
  bytes_.SetLength(ByteCount(n));
  bitLength_ = n;
  if (n != 0) ClearTail();
}

void MiBitSet::SetBits(const MiByte& bytes, unsigned n) {
  if (n == 0) {
    Reset(nullptr);
    return;
  }
  const uint32_t count = ByteCount(n);
  if (count > bytes.GetLength()) throw MiOutOfRangeExp();
  MiByte copy(bytes.GetChars(), count);
  bytes_ = std::move(copy);
  bitLength_ = n;
  ClearTail();
}

void MiBitSet::SetBits(const MiByte& bytes, unsigned start, unsigned n) {
  if (n == 0) {
    Reset(nullptr);
    return;
  }
  const uint64_t available = static_cast<uint64_t>(bytes.GetLength()) * 8;
  if (!(start < available && static_cast<uint64_t>(start) + n <= available)) {
    throw MiOutOfRangeExp();
  }
  MiByte out(ByteCount(n));
  const unsigned char* src = bytes.GetBytes();
  char* dst = out.GetChars();
  if (start % 8 == 0) {
    std::memcpy(dst, src + start / 8, ByteCount(n));
  } else {
    const unsigned shift = start % 8;
    const uint32_t first = start / 8;
    const uint32_t last = static_cast<uint32_t>((static_cast<uint64_t>(start) + n - 1) / 8);
    for (uint32_t k = 0; k < out.GetLength(); ++k) {
      unsigned hi = src[first + k];
      unsigned lo = (first + k + 1 <= last) ? src[first + k + 1] : 0;
      dst[k] = static_cast<char>(((hi << shift) | (lo >> (8 - shift))) & 0xFF);
    }
  }
  bytes_ = std::move(out);
  bitLength_ = n;
  ClearTail();
}

void MiBitSet::SetBitsByte(const char* p, unsigned offset, unsigned n) {
  if (p == nullptr || n == 0) {
    Reset(nullptr);
    return;
  }
  // Taken as they are: unused bits of the last byte are kept.
  MiByte copy(p + offset, ByteCount(n));
  bytes_ = std::move(copy);
  bitLength_ = n;
}

void MiBitSet::SetBitsString(const char* bits) {
  if (bits == nullptr || bits[0] == '\0') {
    Reset(nullptr);
    return;
  }
  const std::size_t len = std::strlen(bits);
  if (len > 0xFFFFFFFFu) throw MiOutOfRangeExp();
  for (std::size_t i = 0; i < len; ++i) {
    if (bits[i] != '0' && bits[i] != '1') throw MiInvalidArgumentExp();
  }
  MiByte out(ByteCount(len));
  char* dst = out.GetChars();
  for (std::size_t i = 0; i < len; ++i) {
    if (bits[i] == '1') dst[i >> 3] = static_cast<char>(dst[i >> 3] | (0x80 >> (i & 7)));
  }
  bytes_ = std::move(out);
  bitLength_ = static_cast<uint32_t>(len);
}

MiString MiBitSet::GetBitsString() const {
  if (bitLength_ == 0) return MiString();
  MiString text(bitLength_, '0');
  char* out = text.GetChars();
  for (uint32_t i = 0; i < bitLength_; ++i) {
    if (Bit(i)) out[i] = '1';
  }
  return text;
}

void MiBitSet::CutRight(unsigned n) {
  if (n > bitLength_) throw MiOutOfRangeExp();
  if (n == 0) return;
  SetLength(bitLength_ - n);
}

void MiBitSet::CutLeft(unsigned n) {
  if (n > bitLength_) throw MiOutOfRangeExp();
  if (n == 0) return;
  if (n == bitLength_) {
    Reset(nullptr);
    return;
  }
  MiBitSet rest(bytes_, n, bitLength_ - n);
  *this = std::move(rest);
}

void MiBitSet::ExpandRight(unsigned n, bool fill) {
  if (n == 0) return;
  const uint32_t length = Longer(bitLength_, n);
  // The new positions are set on the old set before the longer one is taken
  // over, which is out of range: filling with ones fails, and is meant to.
  if (fill) throw MiOutOfRangeExp();
  SetLength(length);
}

void MiBitSet::ExpandLeft(unsigned n, bool fill) {
  if (n == 0) return;
  MiBitSet out(Longer(bitLength_, n));
  char* dst = out.bytes_.GetChars();
  if (fill) {
    std::memset(dst, 0xFF, n / 8);
    for (uint32_t i = n / 8 * 8; i < n; ++i) out.PutBit(i, true);
  }
  if (n % 8 == 0) {
    if (bitLength_ != 0) std::memcpy(dst + n / 8, bytes_.GetChars(), bytes_.GetLength());
  } else {
    for (uint32_t i = 0; i < bitLength_; ++i) {
      if (Bit(i)) out.PutBit(n + i, true);
    }
  }
  out.ClearTail();
  *this = std::move(out);
}

MiBitSet MiBitSet::ShiftLeft(unsigned n) const {
  if (n == 0) return *this;
  MiBitSet out(bitLength_);
  if (n >= bitLength_) return out;
  for (uint32_t i = 0; i < bitLength_ - n; ++i) {
    if (Bit(i + n)) out.PutBit(i, true);
  }
  return out;
}

MiBitSet MiBitSet::ShiftRight(unsigned n) const {
  if (n == 0) return *this;
  MiBitSet out(bitLength_);
  if (n >= bitLength_) return out;
  for (uint32_t i = n; i < bitLength_; ++i) {
    if (Bit(i - n)) out.PutBit(i, true);
  }
  return out;
}

MiBitSet MiBitSet::Not() const {
  MiBitSet out(*this);
  char* p = out.bytes_.GetChars();
  for (uint32_t k = 0; k < out.bytes_.GetLength(); ++k) p[k] = static_cast<char>(~p[k]);
  out.ClearTail();
  return out;
}

MiBitSet MiBitSet::And(const MiBitSet& other) const {
  MiBitSet out(bitLength_ > other.bitLength_ ? bitLength_ : other.bitLength_);
  const uint32_t common =
      bytes_.GetLength() < other.bytes_.GetLength() ? bytes_.GetLength() : other.bytes_.GetLength();
  char* p = out.bytes_.GetChars();
  for (uint32_t k = 0; k < common; ++k)
    p[k] = static_cast<char>(bytes_.GetChars()[k] & other.bytes_.GetChars()[k]);
  out.ClearTail();
  return out;
}

MiBitSet MiBitSet::Or(const MiBitSet& other) const {
  const MiBitSet& longer = bitLength_ >= other.bitLength_ ? *this : other;
  const MiBitSet& shorter = bitLength_ >= other.bitLength_ ? other : *this;
  MiBitSet out(longer);
  out.ClearTail();
  MiBitSet low(shorter);
  low.ClearTail();
  char* p = out.bytes_.GetChars();
  for (uint32_t k = 0; k < low.bytes_.GetLength(); ++k)
    p[k] = static_cast<char>(p[k] | low.bytes_.GetChars()[k]);
  return out;
}

signed char MiBitSet::CompareTo(const MiBitSet& other) const noexcept {
  if (&other == this) return 0;
  if (bitLength_ == 0) return other.bitLength_ == 0 ? 0 : -1;
  if (other.bitLength_ == 0) return 1;
  if (bitLength_ != other.bitLength_) return bitLength_ < other.bitLength_ ? -1 : 1;
  return bytes_.CompareTo(other.bytes_);
}

void MiBitSet::Reset(const MiBitSet* other) {
  if (other == this) return;
  if (other == nullptr) {
    bytes_.Reset(nullptr);
    bitLength_ = 0;
  } else {
    bytes_.Reset(&other->bytes_);
    bitLength_ = other->bitLength_;
  }
}

void MiBitSet::ToOstream(std::ostream& os, unsigned indent) const {
  for (uint32_t i = 0; i < bitLength_; ++i) {
    if (i % 32 == 0) kv_mi::WriteIndent(os, indent);
    os << (Bit(i) ? '1' : '0');
    if (i % 8 == 7) os << ' ';
    if (i % 32 == 31 && i + 1 != bitLength_) os << '\n';
  }
}

std::ostream& operator<<(std::ostream& os, const MiBitSet& b) {
  b.ToOstream(os, 0);
  return os;
}
