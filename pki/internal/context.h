// The library context behind PKCS_CTX: a soft-token chooser that the flat
// functions run their digests, ciphers and RSA operations on.
#pragma once

#include <cstdint>

#include "crypto/keyconv.h"
#include "crypto/p11.h"

struct PKCS_CONTEXT {
  static constexpr uint32_t kMagic = 0x4b56435au;  // "KVCZ"
  uint32_t magic = kMagic;
  KV_P11_OP op;
};

namespace kv::pki {

// True once PKCS_Initialize has been called more often than PKCS_Finalize.
bool LibraryInitialized();

// The context's operation object, or null for a null or destroyed context.
KV_P11_OP* ContextOp(PKCS_CTX ctx);

// Runs fn, turning any escaping exception into a status: -1031 for memory
// exhaustion, -1015 for the ASN.1 runtime's encode failures, -1002 for its
// other failures (the input was not what it claimed), -1010 for anything else.
// For the bodies of C functions.
template <typename Fn>
int Guard(Fn&& fn) noexcept;

}  // namespace kv::pki

#include "pki/internal/guard.h"
