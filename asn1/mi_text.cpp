#include <ostream>

#include "asn1/internal/mi_text.h"

namespace kv_mi {

int CompareBytes(const char* a, uint64_t alen, const char* b, uint64_t blen, bool signedBytes) {
  if (alen == 0 || a == nullptr) return (blen == 0 || b == nullptr) ? 0 : -1;
  if (blen == 0 || b == nullptr) return 1;
  if (alen != blen) return alen < blen ? -1 : 1;
  for (uint64_t i = 0; i < alen; ++i) {
    if (a[i] == b[i]) continue;
    if (signedBytes) {
      return static_cast<signed char>(a[i]) < static_cast<signed char>(b[i]) ? -1 : 1;
    }
    return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[i]) ? -1 : 1;
  }
  return 0;
}

void WriteIndent(std::ostream& os, unsigned indent) {
  for (unsigned i = 0; i < indent; ++i) os << "    ";
}

void WriteHex(std::ostream& os, const unsigned char* p, uint32_t n, unsigned indent) {
  static const char kHex[] = "0123456789ABCDEF";
  char cell[4];
  for (uint32_t i = 0; i < n; ++i) {
    if (i % 16 == 0) WriteIndent(os, indent);
    cell[0] = kHex[p[i] >> 4];
    cell[1] = kHex[p[i] & 0x0F];
    cell[2] = ' ';
    cell[3] = ' ';
    // Every eighth byte of a line is followed by two spaces, the others by one.
    os.write(cell, (i % 8 == 7) ? 4 : 3);
    if (i % 16 == 15 && i + 1 != n) os << '\n';
  }
}

}  // namespace kv_mi
