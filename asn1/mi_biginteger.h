// MiBigInteger: the value behind ASN.1 INTEGER, kept as two's-complement
// content octets. Values built from native integers or from an unsigned
// magnitude are minimal; decoded octets are kept exactly as read, so that
// non-minimal or negative serial numbers re-encode to the same octets.
#pragma once

#include <cstdint>
#include <string>

#include "asn1/mi_byte.h"
#include "asn1/mi_object.h"
#include "asn1/mi_string.h"

class MiBigInteger : public MiObject {
 public:
  MiBigInteger() = default;  // no octets: reads as 0
  MiBigInteger(const MiBigInteger&) = default;
  MiBigInteger& operator=(const MiBigInteger&) = default;
  explicit MiBigInteger(int64_t value) { SetInt64(value); }

  static MiBigInteger FromInt64(int64_t value);
  static MiBigInteger FromUInt64(uint64_t value);
  // Unsigned big-endian magnitude (leading zeros dropped, a 00 added when the
  // top bit is set).
  static MiBigInteger FromMagnitude(const unsigned char* p, unsigned n, bool negative = false);
  static MiBigInteger FromMagnitude(const MiByte& magnitude, bool negative = false);
  // Two's-complement octets kept exactly as given.
  static MiBigInteger FromTwosComplement(const unsigned char* p, unsigned n);
  static MiBigInteger FromTwosComplement(const MiByte& octets);
  // Decimal text with an optional leading '-', or hexadecimal after "0x"/"-0x".
  // MiInvalidArgumentExp on anything else.
  static MiBigInteger FromString(const char* text);

  void SetInt64(int64_t value);
  void SetUInt64(uint64_t value);
  void SetTwosComplement(const unsigned char* p, unsigned n);

  // Two's-complement octets (empty when none were ever set).
  MiByte GetOctets() const;
  const unsigned char* Data() const {
    return reinterpret_cast<const unsigned char*>(m_octets.data());
  }
  unsigned Size() const { return static_cast<unsigned>(m_octets.size()); }

  bool IsNegative() const { return !m_octets.empty() && (m_octets[0] & 0x80); }
  bool IsZero() const;
  // Octets are the minimal two's-complement form.
  bool IsMinimal() const;

  int64_t ToInt64(bool& ok) const;
  uint64_t ToUInt64(bool& ok) const;
  int32_t ToInt32(bool& ok) const;
  int32_t Int32Value() const;  // 0 when it does not fit
  // Unsigned big-endian magnitude without sign (a single 00 for zero).
  MiByte GetMagnitude() const;
  // Radix 10: decimal with '-' for negatives; radix 16: upper-case hex of the
  // magnitude, with '-' for negatives. Other radixes raise MiInvalidArgumentExp.
  MiString ToString(unsigned radix = 10) const;
  std::string ToStdString(unsigned radix = 10) const;

  // Numeric comparison (-1, 0, 1); equality of values, not of octets.
  int CompareTo(const MiBigInteger& other) const;
  // Same octets.
  bool Equals(const MiBigInteger& other) const { return m_octets == other.m_octets; }
  bool operator==(const MiBigInteger& o) const { return CompareTo(o) == 0; }
  bool operator!=(const MiBigInteger& o) const { return CompareTo(o) != 0; }
  bool operator<(const MiBigInteger& o) const { return CompareTo(o) < 0; }

 private:
  std::string m_octets;  // two's complement, big-endian
};
