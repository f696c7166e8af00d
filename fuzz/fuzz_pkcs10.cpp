// libFuzzer target: arbitrary octets taken apart as a PKCS#10 request through
// the flat function the control calls. Any input gives a status; an accepted
// request yields a key record and a subject that formats as DN text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "pki/pki.h"

namespace {

PKCS_CTX Context() {
  static PKCS_CTX ctx = [] {
    PKCS_CTX c = nullptr;
    PKCS_Initialize();
    if (PKCS_CreateCtx(&c) != 0) std::abort();
    return c;
  }();
  return ctx;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > (1u << 16)) return 0;
  PKCS_CTX ctx = Context();
  KV_LIST* parts = nullptr;
  if (KV_CreateList(&parts) != 0) std::abort();
  PKCS_PUBKEY key;
  PKCS_InitPubKey(ctx, &key);
  int rv = KVPKCS_DecomposePKCS10(ctx, data, static_cast<unsigned>(size), parts, &key);
  if (rv == 0) {
    unsigned count = 0;
    const unsigned char* subject = nullptr;
    unsigned n = 0;
    if (KV_ListCount(parts, &count) != 0 || count == 0 || key.modulus == nullptr ||
        KV_ListGet(parts, 0, &subject, &n) != 0) {
      std::abort();
    }
    unsigned textLen = 0;
    if (KV_NameToText(subject, n, nullptr, &textLen) != 0) std::abort();
    // The signature check runs too (small keys only, to keep runs fast).
    if (key.modulusLen <= 256) KVPKCS_VerifyPKCS10(ctx, data, static_cast<unsigned>(size));
  } else if (rv >= 0) {
    std::abort();
  }
  PKCS_FreePubKey(ctx, &key);
  KV_DestroyList(parts);
  return 0;
}
