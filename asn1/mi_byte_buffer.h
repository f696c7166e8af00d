// MiByteBuffer: a growable octet buffer. The block holds capacity + 1 bytes and
// is zero-filled when allocated; length <= capacity. A new buffer has
// capacity 1024; capacities double when more room is needed and come down
// (to 2048 * 2^k) when a much smaller size is asked of a large buffer.
#pragma once

#include <cstdint>
#include <cstring>
#include <iosfwd>

#include "asn1/mi_byte.h"
#include "asn1/mi_exception.h"
#include "asn1/mi_object.h"

class MiByteBuffer : public MiObject {
 public:
  MiByteBuffer();
  // Capacity 1024 doubled until it is >= n; length n, all zero.
  explicit MiByteBuffer(unsigned n);
  MiByteBuffer(const char* p, unsigned n);
  MiByteBuffer(const char* p, unsigned offset, unsigned n);
  explicit MiByteBuffer(const MiByte& bytes);
  MiByteBuffer(const MiByteBuffer& other);
  MiByteBuffer(MiByteBuffer&& other) noexcept;
  MiByteBuffer& operator=(const MiByteBuffer& other);
  MiByteBuffer& operator=(MiByteBuffer&& other) noexcept;
  ~MiByteBuffer() override;

  unsigned GetLength() const noexcept { return length_; }
  unsigned Capacity() const noexcept { return capacity_; }
  // Null when empty.
  char* GetChars() noexcept { return length_ != 0 ? data_ : nullptr; }
  const char* GetChars() const noexcept { return length_ != 0 ? data_ : nullptr; }
  const unsigned char* GetBytes() const noexcept {
    return reinterpret_cast<const unsigned char*>(GetChars());
  }
  bool Empty() const noexcept { return length_ == 0; }
  // MiOutOfRangeExp when i >= length.
  unsigned char CharAt(unsigned i) const;
  void SetCharAt(unsigned i, unsigned char c);
  unsigned char operator[](unsigned i) const { return CharAt(i); }
  unsigned char& operator[](unsigned i);

  // Takes a copy of other's content, or becomes empty when other is null.
  void Reset(const MiByteBuffer* other);

  // Only grows: doubles the capacity until it is >= n.
  void EnsureCapacity(unsigned n);
  // Growing zero-fills the new bytes; shrinking only lowers the length.
  // Inline for the cut-back case, which the DER encoder does on every value.
  void SetLength(unsigned n) {
    if (n <= length_) {
      length_ = n;
      Terminate();
      return;
    }
    GrowLength(n);
  }

  // Replace the content by a copy of the given range. A null source or a zero
  // count leaves the content as it is; a range outside a MiByte source raises
  // MiOutOfRangeExp.
  void SetByte(const char* p, unsigned n);
  void SetByte(const char* p, unsigned offset, unsigned n);
  void SetByte(const MiByte& src);
  void SetByte(const MiByte& src, unsigned n);
  void SetByte(const MiByte& src, unsigned offset, unsigned n);
  // A copy of the content.
  MiByte GetByte() const;

  // Appends; a null source or a zero count does nothing. The offset forms of
  // the MiByte overloads do nothing when offset >= the source length and cut
  // n back to what remains.
  MiByteBuffer& Append(unsigned char c) {
    if (KeepsCapacity(static_cast<uint64_t>(length_) + 1)) {
      data_[length_++] = static_cast<char>(c);
      data_[length_] = 0;
      return *this;
    }
    return Append(reinterpret_cast<const char*>(&c), 1u);
  }
  MiByteBuffer& Append(const char* p, unsigned n) {
    // Fast path for the common case (the block has room): a plain copy.
    if (p != nullptr && n != 0 && KeepsCapacity(static_cast<uint64_t>(length_) + n) &&
        !InBlock(p)) {
      std::memcpy(data_ + length_, p, n);
      length_ += n;
      data_[length_] = 0;
      return *this;
    }
    return AppendSlow(p, n);
  }
  MiByteBuffer& Append(const char* p, unsigned offset, unsigned n);
  MiByteBuffer& Append(const MiByte* bytes);
  MiByteBuffer& Append(const MiByte& bytes);
  MiByteBuffer& Append(const MiByte& bytes, unsigned offset);
  MiByteBuffer& Append(const MiByte& bytes, unsigned offset, unsigned n);
  MiByteBuffer& Append(const MiByteBuffer& other);

  // Insert before pos; pos = length appends; pos > length raises
  // MiOutOfRangeExp; a null source or a zero count does nothing.
  MiByteBuffer& Insert(unsigned pos, unsigned char c);
  MiByteBuffer& Insert(unsigned pos, const char* p, unsigned n);
  MiByteBuffer& Insert(unsigned pos, const char* p, unsigned offset, unsigned n);
  MiByteBuffer& Insert(unsigned pos, const MiByte& bytes);
  MiByteBuffer& Insert(unsigned pos, const MiByteBuffer& other);

  // Removes [start, end). Nothing happens unless start < length and
  // start <= end; end is cut back to the length.
  void DeleteByte(unsigned start, unsigned end);

  // Every byte a becomes b.
  void Replace(unsigned char a, unsigned char b);
  // DeleteByte(start, end) followed by an insert at start.
  void Replace(unsigned start, unsigned end, const MiByte& bytes);
  void Replace(unsigned start, unsigned end, const char* p, unsigned n);

  // Reverse the whole content, [start, length) or [start, end).
  // MiOutOfRangeExp when start >= length, MiInvalidArgumentExp when start > end.
  void Reverse();
  void Reverse(unsigned start);
  void Reverse(unsigned start, unsigned end);

  // Hexadecimal dump, 16 bytes a line, each line indented by indent * 4 spaces.
  void ToOstream(std::ostream& os, unsigned indent) const;

  // Length first, then the first differing byte weighed as an unsigned value.
  bool operator==(const MiByteBuffer& o) const noexcept { return Compare(o) == 0; }
  bool operator!=(const MiByteBuffer& o) const noexcept { return Compare(o) != 0; }
  bool operator<(const MiByteBuffer& o) const noexcept { return Compare(o) < 0; }
  bool operator<=(const MiByteBuffer& o) const noexcept { return Compare(o) <= 0; }
  bool operator>(const MiByteBuffer& o) const noexcept { return Compare(o) > 0; }
  bool operator>=(const MiByteBuffer& o) const noexcept { return Compare(o) >= 0; }

 private:
  int Compare(const MiByteBuffer& o) const noexcept;
  // True when the capacity rule leaves the capacity unchanged for `need`
  // (capacities are always 1024 * 2^j, so no shrink happens while
  // 2 * need >= capacity).
  bool KeepsCapacity(uint64_t need) const noexcept {
    return data_ != nullptr && need <= capacity_ && (capacity_ <= 2048 || 2 * need >= capacity_);
  }
  // p lies in the current block (copying from it needs memmove).
  bool InBlock(const char* p) const noexcept {
    return data_ != nullptr && p >= data_ && p < data_ + capacity_ + 1;
  }
  void GrowLength(unsigned n);
  MiByteBuffer& AppendSlow(const char* p, unsigned n);
  void AssignContent(const char* p, unsigned n);
  void InsertBytes(unsigned pos, const char* p, unsigned n);
  void Terminate() noexcept {
    if (data_ != nullptr) data_[length_] = 0;
  }

  char* data_ = nullptr;
  uint32_t length_ = 0;
  uint32_t capacity_ = 1024;
};

std::ostream& operator<<(std::ostream& os, const MiByteBuffer& b);
