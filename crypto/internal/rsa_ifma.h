// CRT exponentiation on AVX-512 IFMA for primes of up to 2048 bits.
#pragma once

#include "crypto/internal/rsa_bn.h"

namespace kv {
namespace rsabn {

// Both CRT halves at once (rp = xp^ep mod p, rq = xq^eq mod q, inputs below
// their moduli) with fixed windows and constant-time table reads. False, with
// nothing written, when the processor lacks IFMA, acceleration is switched
// off, p and q differ in limb count or exceed 2048 bits; the caller then uses
// the 64-bit code.
bool IfmaCrtExp(const Mont& p, Limb* rp, const Limb* xp, const Limb* ep, int epn, const Mont& q,
                Limb* rq, const Limb* xq, const Limb* eq, int eqn);

}  // namespace rsabn
}  // namespace kv
