// Helpers shared by the token layer's classes: the algorithm identifier table,
// owned secret buffers and conversions between MiByte and byte vectors.
#pragma once

#include <cstddef>
#include <cstring>

#include "crypto/internal/p11_core.h"

class MiByte;

namespace kv::p11 {

// The object identifier of an algorithm kind (1 .. 11), or null.
const char* OidOfKind(int kind);
// The algorithm kind of a dotted object identifier, or -1.
int KindOfOid(const char* dotted);

// RC2 parameter version <-> effective key bits; only 40, 64 and 128 bits have
// a version here. -1 when there is none.
int Rc2BitsOfVersion(long version);
int Rc2VersionOfBits(int bits);

// A malloc'ed copy of n bytes (one spare zero byte, so n may be 0), or null.
unsigned char* DupBytes(const unsigned char* p, size_t n);
// Wipes n bytes then frees; null is ignored.
void FreeWiped(unsigned char* p, size_t n);

// out becomes exactly the n bytes at p (empty for n == 0). May throw.
void AssignOut(MiByte& out, const unsigned char* p, size_t n);
inline void AssignOut(MiByte& out, const Bytes& b) {
  AssignOut(out, b.data(), b.size());
}

// Clears a byte vector in a way the optimiser keeps, then empties it.
void WipeBytes(Bytes& b);

}  // namespace kv::p11
