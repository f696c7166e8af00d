// Helpers shared by the value classes: the comparison order and the
// hexadecimal stream layout.
#pragma once

#include <cstdint>
#include <iosfwd>

namespace kv_mi {

// Empty first, then shorter first, then the first differing byte; bytes are
// weighed as signed or unsigned 8-bit values.
int CompareBytes(const char* a, uint64_t alen, const char* b, uint64_t blen, bool signedBytes);

void WriteHex(std::ostream& os, const unsigned char* p, uint32_t n, unsigned indent);
void WriteIndent(std::ostream& os, unsigned indent);

}  // namespace kv_mi
