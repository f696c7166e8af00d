// Block allocation shared by the value classes: every block is zero-filled at
// once, and a failed allocation ends the process (there is no exception for it).
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv_mi {

// Returns n zero bytes (n >= 1). Never returns null.
char* AllocZero(std::size_t n);
void Free(char* p) noexcept;

// The buffer capacity rule for the size the next state needs. `strict` is
// true for text buffers, which always keep room for the terminator
// (capacity > size) where byte buffers only need capacity >= size.
uint32_t NextCapacity(uint32_t capacity, uint64_t need, bool strict);

// Capacity of a new buffer: 1024 doubled until it holds `need`.
uint32_t InitialCapacity(uint64_t need, bool strict);

// Ends the process: used when a size cannot be represented at all.
[[noreturn]] void OutOfMemory();

}  // namespace kv_mi
