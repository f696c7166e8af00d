// MiStringBuffer: a growable text buffer. The block holds capacity + 1 bytes;
// length < capacity always holds and the byte after the content is zero. The
// capacity rule is the one of MiByteBuffer, keeping room for the terminator.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <type_traits>

#include "asn1/mi_exception.h"
#include "asn1/mi_object.h"
#include "asn1/mi_string.h"

class MiStringBuffer : public MiObject {
 public:
  MiStringBuffer();
  // Capacity 1024 doubled until it is > n; empty.
  explicit MiStringBuffer(unsigned n);
  // Keeps MiStringBuffer(0) from being read as a null text.
  explicit MiStringBuffer(int n) : MiStringBuffer(static_cast<unsigned>(n < 0 ? 0 : n)) {}
  MiStringBuffer(const char* s);  // NOLINT: implicit like MiString
  MiStringBuffer(const char* p, unsigned offset, unsigned n);
  explicit MiStringBuffer(const MiString& s);
  MiStringBuffer(const MiStringBuffer& other);
  MiStringBuffer(MiStringBuffer&& other) noexcept;
  MiStringBuffer& operator=(const MiStringBuffer& other);
  MiStringBuffer& operator=(MiStringBuffer&& other) noexcept;
  ~MiStringBuffer() override;

  unsigned GetLength() const noexcept { return length_; }
  unsigned Capacity() const noexcept { return capacity_; }
  // Null when empty.
  char* GetChars() noexcept { return length_ != 0 ? data_ : nullptr; }
  const char* GetChars() const noexcept { return length_ != 0 ? data_ : nullptr; }
  bool Empty() const noexcept { return length_ == 0; }
  // MiOutOfRangeExp when i >= length.
  char CharAt(unsigned i) const;
  void SetCharAt(unsigned i, char c);
  template <typename I, typename = std::enable_if_t<std::is_integral<I>::value>>
  char operator[](I i) const {
    if (kv_mi_is_negative(i) || static_cast<uint64_t>(i) >= length_) throw MiOutOfRangeExp();
    return data_[static_cast<uint64_t>(i)];
  }
  // The text; "" (never null) for an empty buffer.
  operator const char*() const noexcept { return length_ != 0 ? data_ : ""; }

  void Reset(const MiStringBuffer* other);

  // Only grows: doubles the capacity until it is > n.
  void EnsureCapacity(unsigned n);

  // A null or empty source leaves the content as it is.
  void SetChars(const char* s);
  void SetChars(const char* p, unsigned offset, unsigned n);
  void SetString(const MiString& s);
  MiString ToString() const;

  // Appends; a null source or a zero count does nothing. Numbers as decimal text.
  MiStringBuffer& Append(char c);
  MiStringBuffer& Append(const char* s);
  MiStringBuffer& Append(const char* p, unsigned offset, unsigned n);
  MiStringBuffer& Append(const MiString& s);
  MiStringBuffer& Append(int value);
  MiStringBuffer& Append(unsigned value);

  // Insert before pos; pos = length appends; pos > length raises MiOutOfRangeExp.
  MiStringBuffer& Insert(unsigned pos, char c);
  MiStringBuffer& Insert(unsigned pos, const char* s);
  MiStringBuffer& Insert(unsigned pos, const char* p, unsigned offset, unsigned n);
  MiStringBuffer& Insert(unsigned pos, const MiString& s);
  MiStringBuffer& Insert(unsigned pos, int value);
  MiStringBuffer& Insert(unsigned pos, unsigned value);

  // MiOutOfRangeExp when i >= length.
  void DeleteCharAt(unsigned i);
  // Removes [start, end) under the rules of MiByteBuffer::DeleteByte.
  void DeleteChars(unsigned start, unsigned end);
  void Replace(char a, char b);
  // DeleteChars(start, end) followed by an insert at start.
  void Replace(unsigned start, unsigned end, const MiString& s);
  void Replace(unsigned start, unsigned end, const char* s);
  void Reverse();
  // [start, length); MiOutOfRangeExp when start > length.
  MiString SubString(unsigned start) const;
  // [start, end); MiInvalidArgumentExp when start > end, MiOutOfRangeExp when
  // end > length.
  MiString SubString(unsigned start, unsigned end) const;
  void ToLowerCase();
  void ToUpperCase();
  void ToInitialLower();
  void ToInitialUpper();

  void ToOstream(std::ostream& os, unsigned indent) const;

 private:
  void AssignContent(const char* p, unsigned n);
  void InsertChars(unsigned pos, const char* p, unsigned n);

  char* data_ = nullptr;
  uint32_t length_ = 0;
  uint32_t capacity_ = 0;
};

bool operator==(const MiStringBuffer& a, const MiStringBuffer& b) noexcept;
bool operator==(const MiStringBuffer& a, const char* b) noexcept;
bool operator==(const char* a, const MiStringBuffer& b) noexcept;
bool operator!=(const MiStringBuffer& a, const MiStringBuffer& b) noexcept;
bool operator!=(const MiStringBuffer& a, const char* b) noexcept;
bool operator!=(const char* a, const MiStringBuffer& b) noexcept;
bool operator<(const MiStringBuffer&, const MiStringBuffer&) = delete;
bool operator<=(const MiStringBuffer&, const MiStringBuffer&) = delete;
bool operator>(const MiStringBuffer&, const MiStringBuffer&) = delete;
bool operator>=(const MiStringBuffer&, const MiStringBuffer&) = delete;

std::ostream& operator<<(std::ostream& os, const MiStringBuffer& s);
