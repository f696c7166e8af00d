// MiBitSet: a bit string. Bit i lives in byte i / 8 under the mask
// 0x80 >> (i % 8): the first bit is the most significant bit of the first
// byte, the order of a DER BIT STRING. The byte string is always
// ceil(bit length / 8) bytes long.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "asn1/mi_byte.h"
#include "asn1/mi_exception.h"
#include "asn1/mi_object.h"
#include "asn1/mi_string.h"

class MiBitSet : public MiObject {
 public:
  MiBitSet() noexcept = default;
  // n zero bits.
  explicit MiBitSet(unsigned n);
  // A text of '0' and '1', as SetBitsString.
  explicit MiBitSet(const char* bits);
  MiBitSet(const MiByte& bytes, unsigned n);
  MiBitSet(const MiByte& bytes, unsigned start, unsigned n);
  MiBitSet(const MiBitSet& other) = default;
  MiBitSet(MiBitSet&& other) noexcept;
  MiBitSet& operator=(const MiBitSet& other);
  MiBitSet& operator=(MiBitSet&& other) noexcept;
  ~MiBitSet() override;

  // MiOutOfRangeExp when i >= bit length.
  bool Get(unsigned i) const;
  void Set(unsigned i, bool value);
  bool operator[](unsigned i) const { return Get(i); }

  unsigned GetBitLength() const noexcept { return bitLength_; }
  const MiByte& GetByte() const noexcept { return bytes_; }
  bool Empty() const noexcept { return bitLength_ == 0; }
  // Keeps the first min(old, n) bits; new bits are 0.
  void SetLength(unsigned n);

  // The first n bits of bytes (the unused low bits of the last byte cleared);
  // MiOutOfRangeExp when bytes is too short; n = 0 empties the set.
  void SetBits(const MiByte& bytes, unsigned n);
  // The n bits that begin at bit start of bytes; MiOutOfRangeExp unless
  // start < 8 * length and start + n <= 8 * length; n = 0 empties the set.
  void SetBits(const MiByte& bytes, unsigned start, unsigned n);
  // ceil(n / 8) bytes from p + offset taken as they are, bit length n; a null
  // p or n = 0 empties the set.
  void SetBitsByte(const char* p, unsigned offset, unsigned n);
  // A null or empty text empties the set; characters other than '0' and '1'
  // raise MiInvalidArgumentExp.
  void SetBitsString(const char* bits);
  // '0'/'1' text, first bit first; empty for an empty set.
  MiString GetBitsString() const;

  // Drop the last / first n bits; MiOutOfRangeExp when n exceeds the length.
  void CutRight(unsigned n);
  void CutLeft(unsigned n);
  // Lengthen by n bits. ExpandRight with fill true raises MiOutOfRangeExp by
  // design (n = 0 does nothing).
  void ExpandRight(unsigned n, bool fill);
  void ExpandLeft(unsigned n, bool fill);

  // New sets. Shifts keep the bit length. And/Or give a set as long as the
  // longer operand, the missing bits of the shorter one read as 0.
  MiBitSet ShiftLeft(unsigned n) const;
  MiBitSet ShiftRight(unsigned n) const;
  MiBitSet Not() const;
  MiBitSet And(const MiBitSet& other) const;
  MiBitSet Or(const MiBitSet& other) const;

  // Empty first, then the bit lengths, then the bytes as signed values.
  signed char CompareTo(const MiBitSet& other) const noexcept;
  bool Equals(const MiBitSet& other) const noexcept { return CompareTo(other) == 0; }
  void Reset(const MiBitSet* other);

  // '1'/'0' per bit, a space after every eighth bit, 32 bits a line.
  void ToOstream(std::ostream& os, unsigned indent) const;

  bool operator==(const MiBitSet& o) const noexcept { return Equals(o); }
  bool operator!=(const MiBitSet& o) const noexcept { return !Equals(o); }
  MiBitSet operator&(const MiBitSet& o) const { return And(o); }
  MiBitSet operator|(const MiBitSet& o) const { return Or(o); }
  MiBitSet operator~() const { return Not(); }
  MiBitSet operator<<(unsigned n) const { return ShiftLeft(n); }
  MiBitSet operator>>(unsigned n) const { return ShiftRight(n); }

 private:
  bool Bit(uint32_t i) const noexcept {
    return (static_cast<unsigned char>(bytes_.GetChars()[i >> 3]) & (0x80u >> (i & 7))) != 0;
  }
  void PutBit(uint32_t i, bool v) noexcept;
  void ClearTail() noexcept;

  MiByte bytes_;
  uint32_t bitLength_ = 0;
};

std::ostream& operator<<(std::ostream& os, const MiBitSet& b);
