// Clearing of secrets that the optimiser must not drop.
#pragma once

#include <cstddef>

namespace kv::internal {

inline void Wipe(void* p, size_t n) {
  volatile unsigned char* v = static_cast<volatile unsigned char*>(p);
  while (n--) *v++ = 0;
}

}  // namespace kv::internal
