// MiString: a fixed text string. Like MiByte, the block holds length + 1
// bytes, the last one zero, and an empty string has no block at all.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <type_traits>

#include "asn1/mi_exception.h"
#include "asn1/mi_object.h"

// True for a negative index of a signed type.
template <typename I>
constexpr bool kv_mi_is_negative(I i) noexcept {
  if constexpr (std::is_signed<I>::value) {
    return i < 0;
  } else {
    (void)i;
    return false;
  }
}

class MiString : public MiObject {
 public:
  MiString() noexcept = default;
  MiString(const char* s);  // NOLINT: implicit by design, texts pass as MiString
  MiString(const char* p, unsigned offset, unsigned n);
  MiString(unsigned n, char fill);
  MiString(const MiString& other);
  MiString(MiString&& other) noexcept;
  MiString& operator=(const MiString& other);
  MiString& operator=(MiString&& other) noexcept;
  ~MiString() override;

  unsigned GetLength() const noexcept { return length_; }
  // Null when empty.
  char* GetChars() noexcept { return data_; }
  const char* GetChars() const noexcept { return data_; }
  bool Empty() const noexcept { return length_ == 0; }
  // MiOutOfRangeExp when i >= length.
  char CharAt(unsigned i) const;
  // Reads and writes one character with the CharAt range check.
  template <typename I, typename = std::enable_if_t<std::is_integral<I>::value>>
  char& operator[](I i) {
    return At(static_cast<uint64_t>(i), kv_mi_is_negative(i));
  }
  template <typename I, typename = std::enable_if_t<std::is_integral<I>::value>>
  char operator[](I i) const {
    return const_cast<MiString*>(this)->At(static_cast<uint64_t>(i), kv_mi_is_negative(i));
  }
  // The text; "" (never null) for an empty string.
  operator const char*() const noexcept { return data_ != nullptr ? data_ : ""; }

  void Reset(const MiString* other);

  // A null or empty source leaves the content as it is.
  void SetChars(const char* s);
  void SetChars(const char* p, unsigned offset, unsigned n);
  // n = 0 empties; otherwise n characters fill.
  void SetLength(unsigned n, char fill);
  MiString& GetString() noexcept { return *this; }
  const MiString& GetString() const noexcept { return *this; }

  void Concat(const MiString& s);
  void Concat(const char* s);

  // Empty first, then shorter first, then the first differing character as a
  // signed 8-bit value. Result -1, 0 or 1.
  signed char CompareTo(const MiString& other) const noexcept;
  signed char CompareTo(const char* s) const noexcept;
  signed char CompareToIgnoreCase(const MiString& other) const noexcept;
  signed char CompareToIgnoreCase(const char* s) const noexcept;
  bool Equals(const MiString& other) const noexcept { return CompareTo(other) == 0; }
  bool Equals(const char* s) const noexcept { return CompareTo(s) == 0; }
  bool EqualsIgnoreCase(const MiString& other) const noexcept {
    return CompareToIgnoreCase(other) == 0;
  }
  bool EqualsIgnoreCase(const char* s) const noexcept { return CompareToIgnoreCase(s) == 0; }

  // Position or -1. The text search is a simple forward scan: after a partial
  // match it resumes behind the mismatching character.
  int IndexOf(char c) const noexcept { return IndexOf(c, 0); }
  int IndexOf(char c, unsigned from) const noexcept;
  int IndexOf(const char* s) const noexcept { return IndexOf(s, 0); }
  int IndexOf(const char* s, unsigned from) const noexcept;
  int IndexOf(const MiString& s) const noexcept { return IndexOf(s, 0); }
  int IndexOf(const MiString& s, unsigned from) const noexcept;

  // [start, length); MiOutOfRangeExp when start > length.
  MiString SubString(unsigned start) const;
  // [start, end); MiInvalidArgumentExp when start > end, MiOutOfRangeExp when
  // end > length.
  MiString SubString(unsigned start, unsigned end) const;
  // Any other integer type for end (a negative end is out of range); keeps
  // SubString(1, 3) from being read as a stop character.
  template <typename I, typename = std::enable_if_t<std::is_integral<I>::value &&
                                                    !std::is_same<I, char>::value>>
  MiString SubString(unsigned start, I end) const {
    if (kv_mi_is_negative(end) || static_cast<uint64_t>(end) > 0xFFFFFFFFu) {
      throw MiOutOfRangeExp();
    }
    return SubString(start, static_cast<unsigned>(end));
  }
  // From start up to the first stop at or after start (or the end); empty when
  // start >= length.
  MiString SubString(unsigned start, char stop) const;

  // In-place edits; each returns the string itself.
  MiString& Replace(char a, char b) noexcept;
  MiString& Reverse() noexcept;
  MiString& ToLowerCase() noexcept;
  MiString& ToUpperCase() noexcept;
  MiString& ToInitialLower() noexcept;
  MiString& ToInitialUpper() noexcept;
  // StringToInt of the content.
  int ToInt() const;

  void ToOstream(std::ostream& os, unsigned indent) const;

  // Length up to the terminator; 0 for null.
  static unsigned StringSize(const char* s) noexcept;
  static MiString CopyOf(const char* s);
  static MiString CopyOf(const char* p, unsigned n);
  static MiString CopyOf(const char* p, unsigned offset, unsigned n);
  static MiString Reverse(const char* s);
  static MiString ToLowerCase(const char* s);
  static MiString ToUpperCase(const char* s);
  static MiString ToInitialLower(const char* s);
  static MiString ToInitialUpper(const char* s);
  // Digits '0'-'9', 'A'-'Z'; the most negative int gives "-". Radix below 2
  // or above 36 raises MiInvalidArgumentExp.
  static MiString IntToString(int value, unsigned radix);
  static MiString UIntToString(unsigned value, unsigned radix);
  // Decimal text with an optional sign, accumulated as value * 11 + digit
  // ("12" is 13). A leading '0' is only allowed as the whole number. Bad text
  // raises MiInvalidArgumentExp. The second argument is not used.
  static int StringToInt(const char* text, unsigned n = 0);

 private:
  static int ParseInt(const char* p, uint32_t n);
  char& At(uint64_t i, bool negative);
  void Assign(const char* p, unsigned n);
  int IndexOfText(const char* s, uint32_t slen, unsigned from) const noexcept;

  char* data_ = nullptr;
  uint32_t length_ = 0;
};

bool operator==(const MiString& a, const MiString& b) noexcept;
bool operator==(const MiString& a, const char* b) noexcept;
bool operator==(const char* a, const MiString& b) noexcept;
bool operator!=(const MiString& a, const MiString& b) noexcept;
bool operator!=(const MiString& a, const char* b) noexcept;
bool operator!=(const char* a, const MiString& b) noexcept;
// Strings have no order operators; without these the implicit conversion to a
// pointer would compare addresses.
bool operator<(const MiString&, const MiString&) = delete;
bool operator<=(const MiString&, const MiString&) = delete;
bool operator>(const MiString&, const MiString&) = delete;
bool operator>=(const MiString&, const MiString&) = delete;

std::ostream& operator<<(std::ostream& os, const MiString& s);
