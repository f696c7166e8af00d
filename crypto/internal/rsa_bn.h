// Fixed-capacity multi-precision arithmetic behind the RSA engine.
//
// Numbers are arrays of 64-bit limbs, least significant first, with an explicit
// limb count. At the engine's boundary a number is the 1 to 256 32-bit words of
// a key component; two such words make one limb here, which halves the number of
// multiplications. Every routine works on caller-provided or stack storage sized
// for the largest number, so no operation allocates.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv {
namespace rsabn {

using Limb = std::uint64_t;
using DLimb = unsigned __int128;

constexpr int kMaxWords = 256;            // 32-bit words of the largest component (8192 bits)
constexpr int kMaxLimbs = kMaxWords / 2;  // the same in 64-bit limbs
constexpr int kMaxBytes = kMaxWords * 4;

// A number of up to kMaxLimbs limbs; `n` limbs are in use and d[n-1] != 0
// unless the number is zero (n == 0).
struct Num {
  int n = 0;
  Limb d[kMaxLimbs];
};

// Big-endian bytes into a normalised number. Leading zero bytes are skipped;
// false when the value needs more than kMaxLimbs limbs.
bool FromBytes(const std::uint8_t* p, std::size_t len, Num& out);
// Limbs into exactly `len` big-endian bytes (high bytes zero-filled). The value
// must fit.
void ToBytes(const Limb* a, int n, std::uint8_t* out, std::size_t len);
// Minimal big-endian byte count of a normalised number (0 for zero).
std::size_t ByteLength(const Num& a);

int Normalize(const Limb* a, int n);  // count without leading zero limbs
int BitLength(const Limb* a, int n);
// Compares numbers of possibly different limb counts (leading zeros allowed).
int Cmp(const Limb* a, int an, const Limb* b, int bn);
inline int Cmp(const Num& a, const Num& b) {
  return Cmp(a.d, a.n, b.d, b.n);
}

Limb Add(Limb* r, const Limb* a, const Limb* b, int n);  // returns carry
Limb Sub(Limb* r, const Limb* a, const Limb* b, int n);  // returns borrow
// r = a * b, r has an + bn limbs and must not overlap a or b.
void Mul(Limb* r, const Limb* a, int an, const Limb* b, int bn);
// Remainder (and quotient if q is not null) of a (an limbs, an <= 2*kMaxLimbs+1)
// by m (mn limbs, m[mn-1] != 0). r receives mn limbs, q an - mn + 1 limbs.
// False when m is zero.
bool DivMod(const Limb* a, int an, const Limb* m, int mn, Limb* q, Limb* r);
// Remainder of a by a small divisor.
std::uint32_t ModSmall(const Limb* a, int n, std::uint32_t m);

void Copy(Num& dst, const Num& src);
void SetWord(Num& dst, Limb w);
// Overwrites storage that held secret values.
void Wipe(void* p, std::size_t len);

// Montgomery arithmetic modulo an odd m with R = 2^(64 n).
struct Mont {
  int n = 0;
  Limb m[kMaxLimbs];
  Limb n0 = 0;          // -m^-1 mod 2^64
  Limb rr[kMaxLimbs];   // R^2 mod m
  Limb one[kMaxLimbs];  // R mod m, i.e. 1 in Montgomery form
};

// False when m is even or not greater than 1.
bool MontInit(Mont& ctx, const Num& m);
// r = a * b / R mod m; all n limbs, inputs below m. r may alias a or b.
void MontMul(const Mont& ctx, Limb* r, const Limb* a, const Limb* b);
void MontSqr(const Mont& ctx, Limb* r, const Limb* a);
void ToMont(const Mont& ctx, Limb* r, const Limb* a);
void FromMont(const Mont& ctx, Limb* r, const Limb* a);
// r = g^e in Montgomery form, g given in Montgomery form, by sliding windows.
void MontExp(const Mont& ctx, Limb* r, const Limb* g, const Limb* e, int en);
// The same for secret exponents: fixed 5-bit windows and a table read that
// touches every entry, so neither the sequence of operations nor the memory
// accessed depends on the exponent's bits (only on its limb count).
void MontExpSecret(const Mont& ctx, Limb* r, const Limb* g, const Limb* e, int en);
// r = a^e mod m for an ordinary a (any limb count, reduced first) and result of
// ctx.n limbs; `secret` selects MontExpSecret.
void ModExp(const Mont& ctx, Limb* r, const Limb* a, int an, const Limb* e, int en, bool secret);

}  // namespace rsabn
}  // namespace kv
