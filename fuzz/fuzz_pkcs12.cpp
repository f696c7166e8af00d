// libFuzzer target: the PFX reader over arbitrary octets with a fixed
// password ("fuzz"). Whatever the input, the reader returns a status; the
// flat reader on top must leave nothing allocated on failure.
#include <cstddef>
#include <cstdint>

#include "asn1/asn1.h"
#include "crypto/p11.h"
#include "pki/pki.h"

namespace {

KV_P11_OP& Op() {
  static KV_P11_OP* op = [] {
    auto* o = new KV_P11_OP;
    KV_PKCS11_S desc{};
    desc.selector = KV_P11_STORE_SOFT;
    o->createChooser(&desc);
    return o;
  }();
  return *op;
}

PKCS_CTX Ctx() {
  static PKCS_CTX ctx = [] {
    PKCS_Initialize();
    PKCS_CTX c = nullptr;
    PKCS_CreateCtx(&c);
    return c;
  }();
  return ctx;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > (1u << 16)) return 0;
  MiByte in(reinterpret_cast<const char*>(data), static_cast<unsigned>(size));
  KV_PFX pfx;
  if (pfx.Read(Op(), in, "fuzz") == 0) {
    for (const KV_PFX_BAG& b : pfx.Bags()) (void)b.value.GetLength();
  }
  KV_PFX_CONTENTS c;
  KV_InitPFXContents(&c);
  int rv = KV_ParsePFX(Ctx(), data, static_cast<unsigned>(size), "fuzz", &c);
  if (rv != 0 && (c.cert || c.others || c.friendlyName || c.key.modulus)) __builtin_trap();
  KV_FreePFXContents(&c);
  return 0;
}
