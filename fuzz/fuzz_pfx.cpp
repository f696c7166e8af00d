// libFuzzer target: arbitrary octets decoded as a PFX (PKCS #12), with its authenticated safe.
// Decoding may refuse the input only with a MiException; whatever it accepts must encode again or
// refuse with a MiException too.
#include <cstddef>
#include <cstdint>

#include "asn1/asn1.h"

namespace {

// The authenticated safe is a SEQUENCE OF ContentInfo inside the data content.
void DecodeSafes(const PFX& pfx) {
  const ContentInfo* auth = pfx.GetAuthSafe();
  const AsnAny* content = auth ? auth->GetContent() : nullptr;
  const AsnOctetString* os =
      content ? dynamic_cast<const AsnOctetString*>(content->GetData()) : nullptr;
  if (!os || os->GetData().Empty()) return;
  AsnSequenceOf<ContentInfo> safes;
  safes.DerDecode(os->GetData(), 0);
  for (unsigned i = 0; i < safes.Size(); ++i) {
    const AsnAny* inner = safes.Get(i)->GetContent();
    const AsnOctetString* bags =
        inner ? dynamic_cast<const AsnOctetString*>(inner->GetData()) : nullptr;
    if (!bags || bags->GetData().Empty()) continue;
    AsnSequenceOf<SafeBag> list;
    list.DerDecode(bags->GetData(), 0);
  }
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > (1u << 20)) return 0;
  MiByte in(reinterpret_cast<const char*>(data), static_cast<unsigned>(size));
  PFX obj;
  try {
    obj.DerDecode(in, 0);
  } catch (const MiException&) {
    return 0;
  }
  try {
    MiByteBuffer out;
    obj.DerEncode(out, 0);
    DecodeSafes(obj);
  } catch (const MiException&) {
  }
  return 0;
}
