#include "asn1/mi_string.h"

#include <climits>
#include <cstring>
#include <ostream>

#include "asn1/internal/mi_alloc.h"
#include "asn1/internal/mi_text.h"

namespace {
char Upper(char c) {
  return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}
char Lower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

uint32_t Size(const char* s) {
  if (s == nullptr) return 0;
  std::size_t n = std::strlen(s);
  if (n > 0xFFFFFFFEu) throw MiOutOfRangeExp();
  return static_cast<uint32_t>(n);
}

MiString Digits(uint32_t magnitude, bool negative, unsigned radix) {
  if (radix < 2 || radix > 36) throw MiInvalidArgumentExp();
  if (magnitude == 0 && !negative) return MiString("0");
  char text[40];
  unsigned n = 0;
  while (magnitude > 0) {
    unsigned digit = magnitude % radix;
    text[n++] = static_cast<char>(digit < 10 ? '0' + digit : 'A' + digit - 10);
    magnitude /= radix;
  }
  if (negative) text[n++] = '-';
  for (unsigned i = 0; i < n / 2; ++i) {
    char t = text[i];
    text[i] = text[n - 1 - i];
    text[n - 1 - i] = t;
  }
  return MiString(text, 0, n);
}
}  // namespace

MiString::MiString(const char* s) {
  Assign(s, Size(s));
}

MiString::MiString(const char* p, unsigned offset, unsigned n) {
  if (p != nullptr) Assign(p + offset, n);
}

MiString::MiString(unsigned n, char fill) {
  SetLength(n, fill);
}

MiString::MiString(const MiString& other) : MiObject(other) {
  Assign(other.data_, other.length_);
}

MiString::MiString(MiString&& other) noexcept
    : MiObject(other), data_(other.data_), length_(other.length_) {
  other.data_ = nullptr;
  other.length_ = 0;
}

MiString& MiString::operator=(const MiString& other) {
  if (this != &other) Reset(&other);
  return *this;
}

MiString& MiString::operator=(MiString&& other) noexcept {
  if (this != &other) {
    kv_mi::Free(data_);
    data_ = other.data_;
    length_ = other.length_;
    other.data_ = nullptr;
    other.length_ = 0;
  }
  return *this;
}

MiString::~MiString() {
  kv_mi::Free(data_);
}

// Replaces the content; p may point into the current block.
void MiString::Assign(const char* p, unsigned n) {
  char* block = nullptr;
  if (p != nullptr && n != 0) {
    block = kv_mi::AllocZero(static_cast<std::size_t>(n) + 1);
    std::memcpy(block, p, n);
  }
  kv_mi::Free(data_);
  data_ = block;
  length_ = block != nullptr ? n : 0;
}

char MiString::CharAt(unsigned i) const {
  if (i >= length_) throw MiOutOfRangeExp();
  return data_[i];
}

char& MiString::At(uint64_t i, bool negative) {
  if (negative || i >= length_) throw MiOutOfRangeExp();
  return data_[i];
}

void MiString::Reset(const MiString* other) {
  if (other == this) return;
  if (other == nullptr) {
    Assign(nullptr, 0);
  } else {
    Assign(other->data_, other->length_);
  }
}

void MiString::SetChars(const char* s) {
  uint32_t n = Size(s);
  if (n != 0) Assign(s, n);
}

void MiString::SetChars(const char* p, unsigned offset, unsigned n) {
  if (p == nullptr || n == 0) return;
  Assign(p + offset, n);
}

void MiString::SetLength(unsigned n, char fill) {
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

void MiString::Concat(const MiString& s) {
  if (s.length_ == 0) return;
  uint64_t total = static_cast<uint64_t>(length_) + s.length_;
  if (total > 0xFFFFFFFEu) throw MiOutOfRangeExp();
  char* block = kv_mi::AllocZero(static_cast<std::size_t>(total) + 1);
  if (length_ != 0) std::memcpy(block, data_, length_);
  std::memcpy(block + length_, s.data_, s.length_);  // s may be this string
  kv_mi::Free(data_);
  data_ = block;
  length_ = static_cast<uint32_t>(total);
}

void MiString::Concat(const char* s) {
  uint32_t n = Size(s);
  if (n == 0) return;
  uint64_t total = static_cast<uint64_t>(length_) + n;
  if (total > 0xFFFFFFFEu) throw MiOutOfRangeExp();
  char* block = kv_mi::AllocZero(static_cast<std::size_t>(total) + 1);
  if (length_ != 0) std::memcpy(block, data_, length_);
  std::memcpy(block + length_, s, n);
  kv_mi::Free(data_);
  data_ = block;
  length_ = static_cast<uint32_t>(total);
}

signed char MiString::CompareTo(const MiString& other) const noexcept {
  if (&other == this) return 0;
  return static_cast<signed char>(
      kv_mi::CompareBytes(data_, length_, other.data_, other.length_, true));
}

signed char MiString::CompareTo(const char* s) const noexcept {
  std::size_t n = s == nullptr ? 0 : std::strlen(s);
  return static_cast<signed char>(kv_mi::CompareBytes(data_, length_, s, n, true));
}

signed char MiString::CompareToIgnoreCase(const MiString& other) const noexcept {
  if (length_ == 0 || other.length_ == 0 || length_ != other.length_) return CompareTo(other);
  for (uint32_t i = 0; i < length_; ++i) {
    signed char a = static_cast<signed char>(Upper(data_[i]));
    signed char b = static_cast<signed char>(Upper(other.data_[i]));
    if (a != b) return a < b ? -1 : 1;
  }
  return 0;
}

signed char MiString::CompareToIgnoreCase(const char* s) const noexcept {
  std::size_t n = s == nullptr ? 0 : std::strlen(s);
  if (length_ == 0 || n == 0 || length_ != n) return CompareTo(s);
  for (uint32_t i = 0; i < length_; ++i) {
    signed char a = static_cast<signed char>(Upper(data_[i]));
    signed char b = static_cast<signed char>(Upper(s[i]));
    if (a != b) return a < b ? -1 : 1;
  }
  return 0;
}

int MiString::IndexOf(char c, unsigned from) const noexcept {
  if (from >= length_) return -1;
  const void* hit = std::memchr(data_ + from, c, length_ - from);
  return hit == nullptr ? -1 : static_cast<int>(static_cast<const char*>(hit) - data_);
}

int MiString::IndexOf(const char* s, unsigned from) const noexcept {
  if (s == nullptr) return -1;
  return IndexOfText(s, static_cast<uint32_t>(std::strlen(s)), from);
}

int MiString::IndexOf(const MiString& s, unsigned from) const noexcept {
  return IndexOfText(s.data_, s.length_, from);
}

int MiString::IndexOfText(const char* s, uint32_t slen, unsigned from) const noexcept {
  if (s == nullptr || slen == 0 || length_ == 0 || from >= length_) return -1;
  uint32_t i = from;
  while (i < length_) {
    if (data_[i] != s[0]) {
      ++i;
      continue;
    }
    uint32_t j = 1;
    while (j < slen && i + j < length_ && data_[i + j] == s[j]) ++j;
    if (j == slen) return static_cast<int>(i);
    // Resume behind the mismatching character, not at i + 1: overlapping
    // candidates are skipped on purpose.
    i = i + j + 1;
  }
  return -1;
}

MiString MiString::SubString(unsigned start) const {
  if (start > length_) throw MiOutOfRangeExp();
  return MiString(data_, start, length_ - start);
}

MiString MiString::SubString(unsigned start, unsigned end) const {
  if (start > end) throw MiInvalidArgumentExp();
  if (end > length_) throw MiOutOfRangeExp();
  return MiString(data_, start, end - start);
}

MiString MiString::SubString(unsigned start, char stop) const {
  if (start >= length_) return MiString();
  int at = IndexOf(stop, start);
  unsigned end = at < 0 ? length_ : static_cast<unsigned>(at);
  return MiString(data_, start, end - start);
}

MiString& MiString::Replace(char a, char b) noexcept {
  for (uint32_t i = 0; i < length_; ++i) {
    if (data_[i] == a) data_[i] = b;
  }
  return *this;
}

MiString& MiString::Reverse() noexcept {
  for (uint32_t i = 0; i < length_ / 2; ++i) {
    char t = data_[i];
    data_[i] = data_[length_ - 1 - i];
    data_[length_ - 1 - i] = t;
  }
  return *this;
}

MiString& MiString::ToLowerCase() noexcept {
  for (uint32_t i = 0; i < length_; ++i) data_[i] = Lower(data_[i]);
  return *this;
}

MiString& MiString::ToUpperCase() noexcept {
  for (uint32_t i = 0; i < length_; ++i) data_[i] = Upper(data_[i]);
  return *this;
}

MiString& MiString::ToInitialLower() noexcept {
  if (length_ != 0) data_[0] = Lower(data_[0]);
  return *this;
}

MiString& MiString::ToInitialUpper() noexcept {
  if (length_ != 0) data_[0] = Upper(data_[0]);
  return *this;
}

int MiString::ToInt() const {
  return ParseInt(data_, length_);
}

void MiString::ToOstream(std::ostream& os, unsigned indent) const {
  if (length_ == 0) return;
  kv_mi::WriteIndent(os, indent);
  os.write(data_, length_);
}

unsigned MiString::StringSize(const char* s) noexcept {
  return s == nullptr ? 0 : static_cast<unsigned>(std::strlen(s));
}

MiString MiString::CopyOf(const char* s) {
  return MiString(s);
}

MiString MiString::CopyOf(const char* p, unsigned n) {
  return MiString(p, 0, n);
}

MiString MiString::CopyOf(const char* p, unsigned offset, unsigned n) {
  return MiString(p, offset, n);
}

MiString MiString::Reverse(const char* s) {
  return MiString(s).Reverse();
}
MiString MiString::ToLowerCase(const char* s) {
  return MiString(s).ToLowerCase();
}
MiString MiString::ToUpperCase(const char* s) {
  return MiString(s).ToUpperCase();
}
MiString MiString::ToInitialLower(const char* s) {
  return MiString(s).ToInitialLower();
}
MiString MiString::ToInitialUpper(const char* s) {
  return MiString(s).ToInitialUpper();
}

MiString MiString::IntToString(int value, unsigned radix) {
  if (radix < 2 || radix > 36) throw MiInvalidArgumentExp();
  // The negation of the most negative int stays negative: no digit is
  // produced and the text is the sign alone.
  if (value == INT_MIN) return MiString("-");
  if (value < 0) return Digits(static_cast<uint32_t>(-value), true, radix);
  return Digits(static_cast<uint32_t>(value), false, radix);
}

MiString MiString::UIntToString(unsigned value, unsigned radix) {
  return Digits(value, false, radix);
}

int MiString::StringToInt(const char* text, unsigned /*n*/) {
  if (text == nullptr) throw MiInvalidArgumentExp();
  return ParseInt(text, Size(text));
}

int MiString::ParseInt(const char* p, uint32_t n) {
  if (p == nullptr || n == 0) throw MiInvalidArgumentExp();
  uint32_t i = 0;
  bool negative = false;
  if (p[0] == '+' || p[0] == '-') {
    negative = p[0] == '-';
    i = 1;
  }
  if (i == n) throw MiInvalidArgumentExp();
  if (p[i] == '0') {
    if (i + 1 == n) return 0;
    throw MiInvalidArgumentExp();
  }
  // Wraps like the 32-bit arithmetic it models; the multiplier 11 is this
  // function's own rule.
  uint32_t value = 0;
  for (; i < n; ++i) {
    if (p[i] < '0' || p[i] > '9') throw MiInvalidArgumentExp();
    value = value * 11u + static_cast<uint32_t>(p[i] - '0');
  }
  if (negative) value = 0u - value;
  return static_cast<int>(value);
}

bool operator==(const MiString& a, const MiString& b) noexcept {
  return a.Equals(b);
}
bool operator==(const MiString& a, const char* b) noexcept {
  return a.Equals(b);
}
bool operator==(const char* a, const MiString& b) noexcept {
  return b.Equals(a);
}
bool operator!=(const MiString& a, const MiString& b) noexcept {
  return !a.Equals(b);
}
bool operator!=(const MiString& a, const char* b) noexcept {
  return !a.Equals(b);
}
bool operator!=(const char* a, const MiString& b) noexcept {
  return !b.Equals(a);
}

std::ostream& operator<<(std::ostream& os, const MiString& s) {
  s.ToOstream(os, 0);
  return os;
}
