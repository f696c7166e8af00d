// Exponentiation on AVX-512 IFMA for moduli of up to 2048 bits.
#pragma once

#include "crypto/internal/rsa_bn.h"

namespace kv {
namespace rsabn {

// r = x^e mod ctx.m for x below the modulus (ctx.n limbs each). False, with r
// untouched, when the processor lacks IFMA, acceleration is switched off or the
// modulus is too large; the caller then uses MontExp.
bool IfmaModExp(const Mont& ctx, Limb* r, const Limb* x, const Limb* e, int en);

// Both CRT halves at once (rp = xp^ep mod p, rq = xq^eq mod q) with fixed
// windows and constant-time table reads; false when unsupported, as above, or
// when p and q differ in limb count.
bool IfmaCrtExp(const Mont& p, Limb* rp, const Limb* xp, const Limb* ep, int epn, const Mont& q,
                Limb* rq, const Limb* xq, const Limb* eq, int eqn);

}  // namespace rsabn
}  // namespace kv
