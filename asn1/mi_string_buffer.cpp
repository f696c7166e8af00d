#include "asn1/mi_string_buffer.h"

#include <cstring>
#include <ostream>
#include <utility>

#include "asn1/internal/mi_alloc.h"
#include "asn1/internal/mi_text.h"

namespace {
constexpr uint64_t kMaxLength = 0xFFFFFFFDu;  // capacity must stay above the length

uint32_t Need(uint32_t length, uint64_t n) {
  uint64_t total = length + n;
  if (total > kMaxLength) throw MiOutOfRangeExp();
  return static_cast<uint32_t>(total);
}

uint32_t Size(const char* s) {
  if (s == nullptr) return 0;
  std::size_t n = std::strlen(s);
  if (n > kMaxLength) throw MiOutOfRangeExp();
  return static_cast<uint32_t>(n);
}

bool Inside(const char* p, const char* block, uint32_t capacity) {
  return block != nullptr && p >= block && p < block + capacity + 1;
}

char Upper(char c) {
  return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}
char Lower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// Decimal text of a number, written backwards into the end of buf.
unsigned Decimal(char (&buf)[16], uint32_t magnitude, bool negative) {
  unsigned pos = sizeof buf;
  do {
    buf[--pos] = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  if (negative) buf[--pos] = '-';
  return pos;
}
}  // namespace

MiStringBuffer::MiStringBuffer() : data_(kv_mi::AllocZero(1025)), length_(0), capacity_(1024) {}

MiStringBuffer::MiStringBuffer(unsigned n) : capacity_(kv_mi::InitialCapacity(n, true)) {
  data_ = kv_mi::AllocZero(static_cast<std::size_t>(capacity_) + 1);
}

MiStringBuffer::MiStringBuffer(const char* s) : MiStringBuffer(s, 0, Size(s)) {}

MiStringBuffer::MiStringBuffer(const char* p, unsigned offset, unsigned n) {
  if (p == nullptr) n = 0;
  capacity_ = kv_mi::InitialCapacity(n, true);
  data_ = kv_mi::AllocZero(static_cast<std::size_t>(capacity_) + 1);
  if (n != 0) std::memcpy(data_, p + offset, n);
  length_ = n;
}

MiStringBuffer::MiStringBuffer(const MiString& s)
    : MiStringBuffer(s.GetChars(), 0, s.GetLength()) {}

MiStringBuffer::MiStringBuffer(const MiStringBuffer& other)
    : MiStringBuffer(other.data_, 0, other.length_) {}

MiStringBuffer::MiStringBuffer(MiStringBuffer&& other) noexcept
    : MiObject(other), data_(other.data_), length_(other.length_), capacity_(other.capacity_) {
  other.data_ = nullptr;
  other.length_ = 0;
  other.capacity_ = 0;
}

MiStringBuffer& MiStringBuffer::operator=(const MiStringBuffer& other) {
  if (this != &other) Reset(&other);
  return *this;
}

MiStringBuffer& MiStringBuffer::operator=(MiStringBuffer&& other) noexcept {
  if (this != &other) {
    std::swap(data_, other.data_);
    std::swap(length_, other.length_);
    std::swap(capacity_, other.capacity_);
  }
  return *this;
}

MiStringBuffer::~MiStringBuffer() {
  kv_mi::Free(data_);
}

char MiStringBuffer::CharAt(unsigned i) const {
  if (i >= length_) throw MiOutOfRangeExp();
  return data_[i];
}

void MiStringBuffer::SetCharAt(unsigned i, char c) {
  if (i >= length_) throw MiOutOfRangeExp();
  data_[i] = c;
}

// Makes the content a copy of p[0, n) under the capacity rule; p may point
// into the current block.
void MiStringBuffer::AssignContent(const char* p, unsigned n) {
  uint32_t cap = kv_mi::NextCapacity(capacity_, n, true);
  if (cap != capacity_ || data_ == nullptr) {
    char* block = kv_mi::AllocZero(static_cast<std::size_t>(cap) + 1);
    if (n != 0) std::memcpy(block, p, n);
    kv_mi::Free(data_);
    data_ = block;
    capacity_ = cap;
  } else if (n != 0) {
    std::memmove(data_, p, n);
  }
  length_ = n;
  data_[length_] = 0;
}

void MiStringBuffer::Reset(const MiStringBuffer* other) {
  if (other == this) return;
  if (other == nullptr) {
    AssignContent(nullptr, 0);
  } else {
    AssignContent(other->data_, other->length_);
  }
}

void MiStringBuffer::EnsureCapacity(unsigned n) {
  if (data_ != nullptr && capacity_ > n) return;
  uint32_t cap =
      data_ == nullptr ? kv_mi::InitialCapacity(n, true) : kv_mi::NextCapacity(capacity_, n, true);
  char* block = kv_mi::AllocZero(static_cast<std::size_t>(cap) + 1);
  if (length_ != 0) std::memcpy(block, data_, length_);
  kv_mi::Free(data_);
  data_ = block;
  capacity_ = cap;
}

void MiStringBuffer::SetChars(const char* s) {
  uint32_t n = Size(s);
  if (n != 0) AssignContent(s, n);
}

void MiStringBuffer::SetChars(const char* p, unsigned offset, unsigned n) {
  if (p == nullptr || n == 0) return;
  Need(0, n);
  AssignContent(p + offset, n);
}

void MiStringBuffer::SetString(const MiString& s) {
  if (s.Empty()) return;
  AssignContent(s.GetChars(), s.GetLength());
}

MiString MiStringBuffer::ToString() const {
  return MiString(data_, 0, length_);
}

// Inserts p[0, n) before pos (pos <= length, n > 0); p may point into the
// current block.
void MiStringBuffer::InsertChars(unsigned pos, const char* p, unsigned n) {
  uint32_t need = Need(length_, n);
  uint32_t cap = kv_mi::NextCapacity(capacity_, need, true);
  if (cap == capacity_ && data_ != nullptr) {
    if (Inside(p, data_, capacity_)) {
      MiString copy(p, 0, n);
      std::memmove(data_ + pos + n, data_ + pos, length_ - pos);
      std::memcpy(data_ + pos, copy.GetChars(), n);
    } else {
      std::memmove(data_ + pos + n, data_ + pos, length_ - pos);
      std::memcpy(data_ + pos, p, n);
    }
  } else {
    char* block = kv_mi::AllocZero(static_cast<std::size_t>(cap) + 1);
    if (pos != 0) std::memcpy(block, data_, pos);
    std::memcpy(block + pos, p, n);
    if (length_ != pos) std::memcpy(block + pos + n, data_ + pos, length_ - pos);
    kv_mi::Free(data_);
    data_ = block;
    capacity_ = cap;
  }
  length_ = need;
  data_[length_] = 0;
}

MiStringBuffer& MiStringBuffer::Append(char c) {
  InsertChars(length_, &c, 1);
  return *this;
}

MiStringBuffer& MiStringBuffer::Append(const char* s) {
  uint32_t n = Size(s);
  if (n != 0) InsertChars(length_, s, n);
  return *this;
}

MiStringBuffer& MiStringBuffer::Append(const char* p, unsigned offset, unsigned n) {
  if (p == nullptr || n == 0) return *this;
  InsertChars(length_, p + offset, n);
  return *this;
}

MiStringBuffer& MiStringBuffer::Append(const MiString& s) {
  if (!s.Empty()) InsertChars(length_, s.GetChars(), s.GetLength());
  return *this;
}

MiStringBuffer& MiStringBuffer::Append(int value) {
  return Insert(length_, value);
}

MiStringBuffer& MiStringBuffer::Append(unsigned value) {
  return Insert(length_, value);
}

MiStringBuffer& MiStringBuffer::Insert(unsigned pos, char c) {
  if (pos > length_) throw MiOutOfRangeExp();
  InsertChars(pos, &c, 1);
  return *this;
}

MiStringBuffer& MiStringBuffer::Insert(unsigned pos, const char* s) {
  if (pos > length_) throw MiOutOfRangeExp();
  uint32_t n = Size(s);
  if (n != 0) InsertChars(pos, s, n);
  return *this;
}

MiStringBuffer& MiStringBuffer::Insert(unsigned pos, const char* p, unsigned offset, unsigned n) {
  if (pos > length_) throw MiOutOfRangeExp();
  if (p != nullptr && n != 0) InsertChars(pos, p + offset, n);
  return *this;
}

MiStringBuffer& MiStringBuffer::Insert(unsigned pos, const MiString& s) {
  if (pos > length_) throw MiOutOfRangeExp();
  if (!s.Empty()) InsertChars(pos, s.GetChars(), s.GetLength());
  return *this;
}

MiStringBuffer& MiStringBuffer::Insert(unsigned pos, int value) {
  if (pos > length_) throw MiOutOfRangeExp();
  char buf[16];
  uint32_t magnitude = value < 0 ? 0u - static_cast<uint32_t>(value) : static_cast<uint32_t>(value);
  unsigned at = Decimal(buf, magnitude, value < 0);
  InsertChars(pos, buf + at, static_cast<unsigned>(sizeof buf - at));
  return *this;
}

MiStringBuffer& MiStringBuffer::Insert(unsigned pos, unsigned value) {
  if (pos > length_) throw MiOutOfRangeExp();
  char buf[16];
  unsigned at = Decimal(buf, value, false);
  InsertChars(pos, buf + at, static_cast<unsigned>(sizeof buf - at));
  return *this;
}

void MiStringBuffer::DeleteCharAt(unsigned i) {
  if (i >= length_) throw MiOutOfRangeExp();
  DeleteChars(i, i + 1);
}

void MiStringBuffer::DeleteChars(unsigned start, unsigned end) {
  if (!(start < length_ && start <= end) || start == end) return;
  if (end > length_) end = length_;
  const uint32_t removed = end - start;
  const uint32_t remaining = length_ - removed;
  // As for byte buffers the capacity rule is asked about the number of
  // characters removed; it must still leave room for what remains.
  uint32_t cap = kv_mi::NextCapacity(capacity_, removed, true);
  if (cap <= remaining) cap = kv_mi::NextCapacity(capacity_, remaining, true);
  if (cap != capacity_) {
    char* block = kv_mi::AllocZero(static_cast<std::size_t>(cap) + 1);
    std::memcpy(block, data_, start);
    std::memcpy(block + start, data_ + end, length_ - end);
    kv_mi::Free(data_);
    data_ = block;
    capacity_ = cap;
  } else {
    std::memmove(data_ + start, data_ + end, length_ - end);
  }
  length_ = remaining;
  data_[length_] = 0;
}

void MiStringBuffer::Replace(char a, char b) {
  for (uint32_t i = 0; i < length_; ++i) {
    if (data_[i] == a) data_[i] = b;
  }
}

void MiStringBuffer::Replace(unsigned start, unsigned end, const MiString& s) {
  if (start > length_) throw MiOutOfRangeExp();
  Need(length_, s.GetLength());
  DeleteChars(start, end);
  if (!s.Empty()) InsertChars(start, s.GetChars(), s.GetLength());
}

void MiStringBuffer::Replace(unsigned start, unsigned end, const char* s) {
  if (start > length_) throw MiOutOfRangeExp();
  // A copy first: s may lie in this buffer and move with the delete.
  MiString copy(s);
  Replace(start, end, copy);
}

void MiStringBuffer::Reverse() {
  for (uint32_t i = 0; i < length_ / 2; ++i) std::swap(data_[i], data_[length_ - 1 - i]);
}

MiString MiStringBuffer::SubString(unsigned start) const {
  if (start > length_) throw MiOutOfRangeExp();
  return MiString(data_, start, length_ - start);
}

MiString MiStringBuffer::SubString(unsigned start, unsigned end) const {
  if (start > end) throw MiInvalidArgumentExp();
  if (end > length_) throw MiOutOfRangeExp();
  return MiString(data_, start, end - start);
}

void MiStringBuffer::ToLowerCase() {
  for (uint32_t i = 0; i < length_; ++i) data_[i] = Lower(data_[i]);
}

void MiStringBuffer::ToUpperCase() {
  for (uint32_t i = 0; i < length_; ++i) data_[i] = Upper(data_[i]);
}

void MiStringBuffer::ToInitialLower() {
  if (length_ != 0) data_[0] = Lower(data_[0]);
}

void MiStringBuffer::ToInitialUpper() {
  if (length_ != 0) data_[0] = Upper(data_[0]);
}

void MiStringBuffer::ToOstream(std::ostream& os, unsigned indent) const {
  if (length_ == 0) return;
  kv_mi::WriteIndent(os, indent);
  os.write(data_, length_);
}

namespace {
bool SameText(const char* a, uint32_t alen, const char* b) {
  std::size_t blen = b == nullptr ? 0 : std::strlen(b);
  return kv_mi::CompareBytes(a, alen, b, blen, true) == 0;
}
}  // namespace

bool operator==(const MiStringBuffer& a, const MiStringBuffer& b) noexcept {
  return kv_mi::CompareBytes(a.GetChars(), a.GetLength(), b.GetChars(), b.GetLength(), true) == 0;
}
bool operator==(const MiStringBuffer& a, const char* b) noexcept {
  return SameText(a.GetChars(), a.GetLength(), b);
}
bool operator==(const char* a, const MiStringBuffer& b) noexcept {
  return b == a;
}
bool operator!=(const MiStringBuffer& a, const MiStringBuffer& b) noexcept {
  return !(a == b);
}
bool operator!=(const MiStringBuffer& a, const char* b) noexcept {
  return !(a == b);
}
bool operator!=(const char* a, const MiStringBuffer& b) noexcept {
  return !(b == a);
}

std::ostream& operator<<(std::ostream& os, const MiStringBuffer& s) {
  s.ToOstream(os, 0);
  return os;
}
