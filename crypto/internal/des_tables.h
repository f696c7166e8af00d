// DES internals shared with tests: the generic bit permutation the tables are
// built with, and the fast initial and final permutations.
#pragma once

#include <cstdint>

namespace kv::internal {

// Output bit i (from the most significant) is input bit table[i], counted
// from 1 at the most significant of in_bits.
uint64_t Permute(uint64_t in, int in_bits, const uint8_t* table, int out_bits);
// IP computed bit by bit from its table.
uint64_t DesInitialPermutationReference(uint64_t x);
// The fast IP and its inverse on the two halves.
void DesIp(uint32_t& l, uint32_t& r);
void DesFp(uint32_t& l, uint32_t& r);
void DesKeySchedule(const uint8_t* key, uint32_t* enc, uint32_t* dec);

}  // namespace kv::internal
