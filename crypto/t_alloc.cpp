#include "crypto/t_alloc.h"

#include <cstdlib>

extern "C" {

void* T_malloc(size_t n) {
  return std::malloc(n ? n : 1);
}

void T_free(void* p) {
  std::free(p);
}

}  // extern "C"
