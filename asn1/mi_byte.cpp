#include "asn1/mi_byte.h"

#include <cstring>
#include <ostream>

#include "asn1/internal/mi_alloc.h"
#include "asn1/internal/mi_text.h"

namespace {
// A new block of n + 1 bytes holding a copy of p[0, n); the trailing byte is zero.
char* CopyBlock(const char* p, unsigned n) {
  char* block = kv_mi::AllocZero(static_cast<std::size_t>(n) + 1);
  if (p != nullptr && n != 0) std::memcpy(block, p, n);
  return block;
}

void CheckRange(unsigned srcLength, unsigned offset, unsigned n) {
  if (static_cast<uint64_t>(offset) + n > srcLength) throw MiOutOfRangeExp();
}
}  // namespace

MiByte::MiByte(unsigned n) {
  if (n != 0) {
    data_ = kv_mi::AllocZero(static_cast<std::size_t>(n) + 1);
    length_ = n;
  }
}

MiByte::MiByte(unsigned n, unsigned char fill) : MiByte(n) {
  if (n != 0) std::memset(data_, fill, n);
}

MiByte::MiByte(const char* p, unsigned n) {
  Assign(p, n);
}

MiByte::MiByte(const char* p, unsigned offset, unsigned n) {
  if (p != nullptr) Assign(p + offset, n);
}

MiByte::MiByte(const MiByte& other) : MiObject(other) {
  Assign(other.data_, other.length_);
}

MiByte::MiByte(MiByte&& other) noexcept
    : MiObject(other), data_(other.data_), length_(other.length_) {
  other.data_ = nullptr;
  other.length_ = 0;
}

MiByte& MiByte::operator=(const MiByte& other) {
  if (this != &other) Reset(&other);
  return *this;
}

MiByte& MiByte::operator=(MiByte&& other) noexcept {
  if (this != &other) {
    kv_mi::Free(data_);
    data_ = other.data_;
    length_ = other.length_;
    other.data_ = nullptr;
    other.length_ = 0;
  }
  return *this;
}

MiByte::~MiByte() {
  kv_mi::Free(data_);
}

// Replaces the content; p may point into the current block.
void MiByte::Assign(const char* p, unsigned n) {
  char* block = nullptr;
  if (p != nullptr && n != 0) block = CopyBlock(p, n);
  kv_mi::Free(data_);
  data_ = block;
  length_ = block != nullptr ? n : 0;
}

unsigned char MiByte::CharAt(unsigned i) const {
  if (i >= length_) throw MiOutOfRangeExp();
  return static_cast<unsigned char>(data_[i]);
}

void MiByte::SetCharAt(unsigned i, unsigned char c) {
  if (i >= length_) throw MiOutOfRangeExp();
  data_[i] = static_cast<char>(c);
}

void MiByte::Reset(const MiByte* other) {
  if (other == this) return;
  if (other == nullptr) {
    Assign(nullptr, 0);
  } else {
    Assign(other->data_, other->length_);
  }
}

void MiByte::SetByte(const char* p, unsigned n) {
  if (p == nullptr || n == 0) return;
  Assign(p, n);
}

void MiByte::SetByte(const char* p, unsigned offset, unsigned n) {
  if (p == nullptr || n == 0) return;
  Assign(p + offset, n);
}

void MiByte::SetByte(const MiByte& src) {
  if (src.length_ == 0) return;
  Assign(src.data_, src.length_);
}

void MiByte::SetByte(const MiByte& src, unsigned n) {
  SetByte(src, 0, n);
}

void MiByte::SetByte(const MiByte& src, unsigned offset, unsigned n) {
  if (n == 0) return;
  CheckRange(src.length_, offset, n);
  Assign(src.data_ + offset, n);
}

void MiByte::SetLength(unsigned n) {
  if (n == length_) return;
  if (n == 0) {
    Assign(nullptr, 0);
    return;
  }
  char* block = kv_mi::AllocZero(static_cast<std::size_t>(n) + 1);
  if (length_ != 0) std::memcpy(block, data_, n < length_ ? n : length_);
  kv_mi::Free(data_);
  data_ = block;
  length_ = n;
}

void MiByte::SetLength(unsigned n, unsigned char fill) {
  if (n == 0) {
    Assign(nullptr, 0);
    return;
  }
  if (n != length_) {
    char* block = kv_mi::AllocZero(static_cast<std::size_t>(n) + 1);
    kv_mi::Free(data_);
    data_ = block;
    length_ = n;
  }
  std::memset(data_, fill, n);
}

void MiByte::Concat(const char* p, unsigned n) {
  if (p == nullptr || n == 0) return;
  uint64_t total = static_cast<uint64_t>(length_) + n;
  if (total > 0xFFFFFFFEu) throw MiOutOfRangeExp();
  char* block = kv_mi::AllocZero(static_cast<std::size_t>(total) + 1);
  if (length_ != 0) std::memcpy(block, data_, length_);
  std::memcpy(block + length_, p, n);  // p may lie in the old block: copy before freeing it
  kv_mi::Free(data_);
  data_ = block;
  length_ = static_cast<uint32_t>(total);
}

signed char MiByte::CompareTo(const MiByte& other) const noexcept {
  if (&other == this) return 0;
  return static_cast<signed char>(
      kv_mi::CompareBytes(data_, length_, other.data_, other.length_, true));
}

signed char MiByte::CompareTo(const char* p, unsigned n) const noexcept {
  return static_cast<signed char>(kv_mi::CompareBytes(data_, length_, p, n, true));
}

signed char MiByte::CompareTo(const char* p, unsigned offset, unsigned n) const noexcept {
  return static_cast<signed char>(
      kv_mi::CompareBytes(data_, length_, p == nullptr ? nullptr : p + offset, n, true));
}

uint32_t MiByte::UInt32Value() const noexcept {
  uint32_t v = 0;
  unsigned start = length_ > 4 ? length_ - 4 : 0;
  for (unsigned i = start; i < length_; ++i) v = (v << 8) | static_cast<unsigned char>(data_[i]);
  return v;
}

int32_t MiByte::Int32Value() const noexcept {
  if (length_ == 0) return 0;
  unsigned start = length_ > 4 ? length_ - 4 : 0;
  unsigned count = length_ - start;
  uint32_t v = UInt32Value();
  // Sign-extend from the top bit of the first byte read.
  if (count < 4 && (static_cast<unsigned char>(data_[start]) & 0x80) != 0) {
    v |= ~((1u << (8 * count)) - 1);
  }
  return static_cast<int32_t>(v);
}

void MiByte::ToOstream(std::ostream& os, unsigned indent) const {
  kv_mi::WriteHex(os, GetBytes(), length_, indent);
}

std::ostream& operator<<(std::ostream& os, const MiByte& b) {
  b.ToOstream(os, 0);
  return os;
}
