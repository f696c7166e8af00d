#include <cstdio>
#include <cstdlib>

#include "asn1/internal/mi_alloc.h"

namespace kv_mi {

namespace {
// Largest capacity a 32-bit length field can describe, keeping one byte for
// the terminator of the block.
constexpr uint64_t kMaxCapacity = 0xFFFFFFFEu;

bool Holds(uint64_t capacity, uint64_t need, bool strict) {
  return strict ? capacity > need : capacity >= need;
}

uint32_t Grow(uint64_t capacity, uint64_t need, bool strict) {
  if (capacity == 0) capacity = 1;
  while (!Holds(capacity, need, strict)) {
    capacity *= 2;
    if (capacity > kMaxCapacity) {
      capacity = kMaxCapacity;
      if (!Holds(capacity, need, strict)) OutOfMemory();
      break;
    }
  }
  return static_cast<uint32_t>(capacity);
}
}  // namespace

char* AllocZero(std::size_t n) {
  void* p = std::calloc(n, 1);
  if (p == nullptr) OutOfMemory();
  return static_cast<char*>(p);
}

void Free(char* p) noexcept {
  std::free(p);
}

void OutOfMemory() {
  std::fputs("korvanta: out of memory\n", stderr);
  std::abort();
}

uint32_t NextCapacity(uint32_t capacity, uint64_t need, bool strict) {
  // A buffer whose block was moved away starts again like a new one.
  if (capacity == 0) return InitialCapacity(need, strict);
  if (!Holds(capacity, need, strict)) return Grow(capacity, need, strict);
  // Shrinking: only capacities above 2048 come down, to 2048 * 2^k for the
  // smallest k with need < 1024 * 2^k, and never above what they were.
  if (need < capacity && capacity > 2048) {
    uint64_t target = 2048;
    uint64_t limit = 1024;
    while (!(need < limit)) {
      limit *= 2;
      target *= 2;
    }
    if (target < capacity) return static_cast<uint32_t>(target);
  }
  return capacity;
}

uint32_t InitialCapacity(uint64_t need, bool strict) {
  return Grow(1024, need, strict);
}

}  // namespace kv_mi
