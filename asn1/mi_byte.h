// MiByte: an owned octet array. The block always holds length + 1 bytes, the
// last one zero, so the content can be handed out as a character string; an
// empty value has no block at all.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "asn1/mi_exception.h"
#include "asn1/mi_object.h"

class MiByte : public MiObject {
 public:
  MiByte() noexcept = default;
  explicit MiByte(unsigned n);
  MiByte(unsigned n, unsigned char fill);
  MiByte(const char* p, unsigned n);
  MiByte(const char* p, unsigned offset, unsigned n);
  MiByte(const MiByte& other);
  MiByte(MiByte&& other) noexcept;
  MiByte& operator=(const MiByte& other);
  MiByte& operator=(MiByte&& other) noexcept;
  ~MiByte() override;

  unsigned GetLength() const noexcept { return length_; }
  // Null when empty.
  char* GetChars() noexcept { return data_; }
  const char* GetChars() const noexcept { return data_; }
  const unsigned char* GetBytes() const noexcept {
    return reinterpret_cast<const unsigned char*>(data_);
  }
  bool Empty() const noexcept { return length_ == 0; }
  // MiOutOfRangeExp when i >= length.
  unsigned char CharAt(unsigned i) const;
  void SetCharAt(unsigned i, unsigned char c);
  unsigned char operator[](unsigned i) const { return CharAt(i); }

  // Takes a copy of other's content, or becomes empty when other is null.
  void Reset(const MiByte* other);

  // Replace the content by a copy of the given range. A null source or a zero
  // count leaves the content as it is; a range outside a MiByte source raises
  // MiOutOfRangeExp.
  void SetByte(const char* p, unsigned n);
  void SetByte(const char* p, unsigned offset, unsigned n);
  void SetByte(const MiByte& src);
  void SetByte(const MiByte& src, unsigned n);
  void SetByte(const MiByte& src, unsigned offset, unsigned n);

  // n = 0 frees the block; otherwise keeps the first min(old, n) bytes and
  // zero-fills the rest.
  void SetLength(unsigned n);
  // n = 0 frees the block; otherwise length n with every byte set to fill.
  void SetLength(unsigned n, unsigned char fill);

  // Appends n bytes; nothing happens for a null p or n = 0.
  void Concat(const char* p, unsigned n);

  // Order: empty first, then shorter first, then the first differing byte
  // compared as a signed 8-bit value. Result -1, 0 or 1.
  signed char CompareTo(const MiByte& other) const noexcept;
  signed char CompareTo(const char* p, unsigned n) const noexcept;
  signed char CompareTo(const char* p, unsigned offset, unsigned n) const noexcept;
  bool Equals(const MiByte& other) const noexcept { return CompareTo(other) == 0; }

  // The last min(length, 4) bytes read big-endian; 0 when empty.
  int32_t Int32Value() const noexcept;
  uint32_t UInt32Value() const noexcept;

  MiByte& GetByte() noexcept { return *this; }
  const MiByte& GetByte() const noexcept { return *this; }

  // Hexadecimal dump, 16 bytes a line, each line indented by indent * 4 spaces.
  void ToOstream(std::ostream& os, unsigned indent) const;

  bool operator==(const MiByte& o) const noexcept { return CompareTo(o) == 0; }
  bool operator!=(const MiByte& o) const noexcept { return CompareTo(o) != 0; }
  bool operator<(const MiByte& o) const noexcept { return CompareTo(o) < 0; }
  bool operator<=(const MiByte& o) const noexcept { return CompareTo(o) <= 0; }
  bool operator>(const MiByte& o) const noexcept { return CompareTo(o) > 0; }
  bool operator>=(const MiByte& o) const noexcept { return CompareTo(o) >= 0; }

 private:
  void Assign(const char* p, unsigned n);

  char* data_ = nullptr;
  uint32_t length_ = 0;
};

std::ostream& operator<<(std::ostream& os, const MiByte& b);
