// SHA-1 compression over whole 64-byte blocks; exposed for tests that compare
// the accelerated and portable code.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv::internal {

void Sha1Blocks(uint32_t h[5], const uint8_t* p, size_t blocks);
void Sha1BlocksPortable(uint32_t h[5], const uint8_t* p, size_t blocks);

}  // namespace kv::internal
