// The toolkit allocator. Every buffer a getter of the flat layers or of the
// token layer hands to its caller comes from T_malloc and is released with
// T_free, so a caller in another module (another C runtime on Windows) frees it
// where it was allocated.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* n bytes, or null when memory runs out. T_malloc(0) returns a valid pointer
 * that T_free accepts. */
void* T_malloc(size_t n);
/* Releases a block of T_malloc; null is ignored. */
void T_free(void* p);

#ifdef __cplusplus
}  // extern "C"
#endif
