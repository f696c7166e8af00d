#include "asn1/mi_byte_buffer.h"

#include <cstring>
#include <ostream>
#include <utility>

#include "asn1/internal/mi_alloc.h"
#include "asn1/internal/mi_text.h"

namespace {
constexpr uint64_t kMaxLength = 0xFFFFFFFEu;
constexpr uint32_t kInitialCapacity = 1024;

uint32_t Need(uint32_t length, unsigned n) {
  uint64_t total = static_cast<uint64_t>(length) + n;
  if (total > kMaxLength) throw MiOutOfRangeExp();
  return static_cast<uint32_t>(total);
}

bool Inside(const char* p, const char* block, uint32_t capacity) {
  return block != nullptr && p >= block && p < block + capacity + 1;
}
}  // namespace

// The block of an empty buffer is allocated when the first byte arrives.
MiByteBuffer::MiByteBuffer() = default;

MiByteBuffer::MiByteBuffer(unsigned n) : capacity_(kv_mi::InitialCapacity(n, false)) {
  if (n != 0) data_ = kv_mi::AllocZero(static_cast<std::size_t>(capacity_) + 1);
  length_ = n;
}

MiByteBuffer::MiByteBuffer(const char* p, unsigned n) : MiByteBuffer(p, 0, n) {}

MiByteBuffer::MiByteBuffer(const char* p, unsigned offset, unsigned n) {
  if (p == nullptr) n = 0;
  capacity_ = kv_mi::InitialCapacity(n, false);
  if (n == 0) return;
  data_ = kv_mi::AllocZero(static_cast<std::size_t>(capacity_) + 1);
  std::memcpy(data_, p + offset, n);
  length_ = n;
}

MiByteBuffer::MiByteBuffer(const MiByte& bytes)
    : MiByteBuffer(bytes.GetChars(), 0, bytes.GetLength()) {}

MiByteBuffer::MiByteBuffer(const MiByteBuffer& other)
    : MiByteBuffer(other.data_, 0, other.length_) {}

MiByteBuffer::MiByteBuffer(MiByteBuffer&& other) noexcept
    : MiObject(other), data_(other.data_), length_(other.length_), capacity_(other.capacity_) {
  other.data_ = nullptr;
  other.length_ = 0;
  other.capacity_ = kInitialCapacity;
}

MiByteBuffer& MiByteBuffer::operator=(const MiByteBuffer& other) {
  if (this != &other) Reset(&other);
  return *this;
}

MiByteBuffer& MiByteBuffer::operator=(MiByteBuffer&& other) noexcept {
  if (this != &other) {
    std::swap(data_, other.data_);
    std::swap(length_, other.length_);
    std::swap(capacity_, other.capacity_);
  }
  return *this;
}

MiByteBuffer::~MiByteBuffer() {
  kv_mi::Free(data_);
}

unsigned char MiByteBuffer::CharAt(unsigned i) const {
  if (i >= length_) throw MiOutOfRangeExp();
  return static_cast<unsigned char>(data_[i]);
}

void MiByteBuffer::SetCharAt(unsigned i, unsigned char c) {
  if (i >= length_) throw MiOutOfRangeExp();
  data_[i] = static_cast<char>(c);
}

unsigned char& MiByteBuffer::operator[](unsigned i) {
  if (i >= length_) throw MiOutOfRangeExp();
  return reinterpret_cast<unsigned char*>(data_)[i];
}

// Makes the content a copy of p[0, n), applying the capacity rule to n.
// p may point into the current block.
void MiByteBuffer::AssignContent(const char* p, unsigned n) {
  uint32_t cap = kv_mi::NextCapacity(capacity_, n, false);
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
  Terminate();
}

void MiByteBuffer::Reset(const MiByteBuffer* other) {
  if (other == this) return;
  if (other == nullptr) {
    AssignContent(nullptr, 0);
  } else {
    AssignContent(other->data_, other->length_);
  }
}

void MiByteBuffer::EnsureCapacity(unsigned n) {
  if (capacity_ >= n) return;
  const uint32_t cap = kv_mi::NextCapacity(capacity_, n, false);
  if (data_ == nullptr) {  // nothing to move yet
    capacity_ = cap;
    return;
  }
  char* block = kv_mi::AllocZero(static_cast<std::size_t>(cap) + 1);
  if (length_ != 0) std::memcpy(block, data_, length_);
  kv_mi::Free(data_);
  data_ = block;
  capacity_ = cap;
}

// SetLength beyond the current length (the cut-back case is inline).
void MiByteBuffer::GrowLength(unsigned n) {
  uint32_t cap = kv_mi::NextCapacity(capacity_, n, false);
  if (cap != capacity_ || data_ == nullptr) {
    // The new block is zero-filled already.
    char* block = kv_mi::AllocZero(static_cast<std::size_t>(cap) + 1);
    if (length_ != 0) std::memcpy(block, data_, length_);
    kv_mi::Free(data_);
    data_ = block;
    capacity_ = cap;
  } else {
    std::memset(data_ + length_, 0, n - length_);
  }
  length_ = n;
  Terminate();
}

void MiByteBuffer::SetByte(const char* p, unsigned n) {
  if (p == nullptr || n == 0) return;
  AssignContent(p, n);
}

void MiByteBuffer::SetByte(const char* p, unsigned offset, unsigned n) {
  if (p == nullptr || n == 0) return;
  AssignContent(p + offset, n);
}

void MiByteBuffer::SetByte(const MiByte& src) {
  if (src.Empty()) return;
  AssignContent(src.GetChars(), src.GetLength());
}

void MiByteBuffer::SetByte(const MiByte& src, unsigned n) {
  SetByte(src, 0, n);
}

void MiByteBuffer::SetByte(const MiByte& src, unsigned offset, unsigned n) {
  if (n == 0) return;
  if (static_cast<uint64_t>(offset) + n > src.GetLength()) throw MiOutOfRangeExp();
  AssignContent(src.GetChars() + offset, n);
}

MiByte MiByteBuffer::GetByte() const {
  return MiByte(data_, length_);
}

// Inserts p[0, n) before pos (pos <= length, n > 0). p may point into the
// current block.
void MiByteBuffer::InsertBytes(unsigned pos, const char* p, unsigned n) {
  uint32_t need = Need(length_, n);
  if (KeepsCapacity(need)) {
    if (Inside(p, data_, capacity_)) {
      // The source moves with the tail: insert from a copy.
      MiByte copy(p, n);
      std::memmove(data_ + pos + n, data_ + pos, length_ - pos);
      std::memcpy(data_ + pos, copy.GetChars(), n);
    } else {
      std::memmove(data_ + pos + n, data_ + pos, length_ - pos);
      std::memcpy(data_ + pos, p, n);
    }
  } else {
    uint32_t cap = kv_mi::NextCapacity(capacity_, need, false);
    char* block = kv_mi::AllocZero(static_cast<std::size_t>(cap) + 1);
    if (pos != 0) std::memcpy(block, data_, pos);
    std::memcpy(block + pos, p, n);
    if (length_ != pos) std::memcpy(block + pos + n, data_ + pos, length_ - pos);
    kv_mi::Free(data_);
    data_ = block;
    capacity_ = cap;
  }
  length_ = need;
  Terminate();
}

MiByteBuffer& MiByteBuffer::AppendSlow(const char* p, unsigned n) {
  if (p == nullptr || n == 0) return *this;
  uint32_t need = Need(length_, n);
  if (KeepsCapacity(need)) {
    std::memmove(data_ + length_, p, n);
    length_ = need;
    Terminate();
    return *this;
  }
  InsertBytes(length_, p, n);
  return *this;
}

MiByteBuffer& MiByteBuffer::Append(const char* p, unsigned offset, unsigned n) {
  if (p == nullptr || n == 0) return *this;
  return Append(p + offset, n);
}

MiByteBuffer& MiByteBuffer::Append(const MiByte* bytes) {
  if (bytes == nullptr) return *this;
  return Append(bytes->GetChars(), bytes->GetLength());
}

MiByteBuffer& MiByteBuffer::Append(const MiByte& bytes) {
  return Append(bytes.GetChars(), bytes.GetLength());
}

MiByteBuffer& MiByteBuffer::Append(const MiByte& bytes, unsigned offset) {
  if (offset >= bytes.GetLength()) return *this;
  return Append(bytes.GetChars() + offset, bytes.GetLength() - offset);
}

MiByteBuffer& MiByteBuffer::Append(const MiByte& bytes, unsigned offset, unsigned n) {
  if (offset >= bytes.GetLength()) return *this;
  unsigned remaining = bytes.GetLength() - offset;
  return Append(bytes.GetChars() + offset, n < remaining ? n : remaining);
}

MiByteBuffer& MiByteBuffer::Append(const MiByteBuffer& other) {
  return Append(other.data_, other.length_);
}

MiByteBuffer& MiByteBuffer::Insert(unsigned pos, unsigned char c) {
  const char ch = static_cast<char>(c);
  return Insert(pos, &ch, 1u);
}

MiByteBuffer& MiByteBuffer::Insert(unsigned pos, const char* p, unsigned n) {
  if (pos > length_) throw MiOutOfRangeExp();
  if (p == nullptr || n == 0) return *this;
  InsertBytes(pos, p, n);
  return *this;
}

MiByteBuffer& MiByteBuffer::Insert(unsigned pos, const char* p, unsigned offset, unsigned n) {
  if (pos > length_) throw MiOutOfRangeExp();
  if (p == nullptr || n == 0) return *this;
  InsertBytes(pos, p + offset, n);
  return *this;
}

MiByteBuffer& MiByteBuffer::Insert(unsigned pos, const MiByte& bytes) {
  return Insert(pos, bytes.GetChars(), bytes.GetLength());
}

MiByteBuffer& MiByteBuffer::Insert(unsigned pos, const MiByteBuffer& other) {
  return Insert(pos, other.data_, other.length_);
}

void MiByteBuffer::DeleteByte(unsigned start, unsigned end) {
  if (!(start < length_ && start <= end) || start == end) return;
  if (end > length_) end = length_;
  const uint32_t removed = end - start;
  const uint32_t remaining = length_ - removed;
  // The capacity rule is asked about the number of bytes removed, not the
  // size that remains; it must still leave room for what remains.
  uint32_t cap = kv_mi::NextCapacity(capacity_, removed, false);
  if (cap < remaining) cap = kv_mi::NextCapacity(capacity_, remaining, false);
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
  Terminate();
}

void MiByteBuffer::Replace(unsigned char a, unsigned char b) {
  for (uint32_t i = 0; i < length_; ++i) {
    if (static_cast<unsigned char>(data_[i]) == a) data_[i] = static_cast<char>(b);
  }
}

void MiByteBuffer::Replace(unsigned start, unsigned end, const MiByte& bytes) {
  Replace(start, end, bytes.GetChars(), bytes.GetLength());
}

void MiByteBuffer::Replace(unsigned start, unsigned end, const char* p, unsigned n) {
  // Checked up front so that a failing insert cannot follow a completed delete.
  if (start > length_) throw MiOutOfRangeExp();
  if (p != nullptr) Need(length_, n);
  if (p != nullptr && n != 0 && Inside(p, data_, capacity_)) {
    // The source would be disturbed by the delete.
    MiByte copy(p, n);
    DeleteByte(start, end);
    Insert(start, copy.GetChars(), n);
    return;
  }
  DeleteByte(start, end);
  Insert(start, p, n);
}

void MiByteBuffer::Reverse() {
  if (length_ != 0) Reverse(0, length_);
}

void MiByteBuffer::Reverse(unsigned start) {
  Reverse(start, length_);
}

void MiByteBuffer::Reverse(unsigned start, unsigned end) {
  if (start >= length_) throw MiOutOfRangeExp();
  if (start > end) throw MiInvalidArgumentExp();
  if (end > length_) end = length_;
  const uint32_t count = (end - start + 1) / 2;
  for (uint32_t k = 0; k < count; ++k) std::swap(data_[start + k], data_[end - 1 - k]);
}

void MiByteBuffer::ToOstream(std::ostream& os, unsigned indent) const {
  kv_mi::WriteHex(os, reinterpret_cast<const unsigned char*>(data_), length_, indent);
}

int MiByteBuffer::Compare(const MiByteBuffer& o) const noexcept {
  if (&o == this) return 0;
  return kv_mi::CompareBytes(data_, length_, o.data_, o.length_, false);
}

std::ostream& operator<<(std::ostream& os, const MiByteBuffer& b) {
  b.ToOstream(os, 0);
  return os;
}
