// libFuzzer target: arbitrary octets decoded as a ContentInfo (PKCS #7), with its signed or
// enveloped content. Decoding may refuse the input only with a MiException; whatever it accepts
// must encode again or refuse with a MiException too.
#include <cstddef>
#include <cstdint>

#include "asn1/asn1.h"

namespace {

// The content is an open type: decode it further by its content type.
void DecodeContent(const ContentInfo& ci) {
  const AsnOid* type = ci.GetContentType();
  const AsnAny* content = ci.GetContent();
  if (!type || !content || !content->HasData()) return;
  if (type->GetData().Equals("1.2.840.113549.1.7.2")) {
    SignedData sd;
    content->DecodeInto(sd);
    MiByteBuffer out;
    sd.DerEncode(out, 0);
  } else if (type->GetData().Equals("1.2.840.113549.1.7.3")) {
    EnvelopedData ed;
    content->DecodeInto(ed);
  }
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > (1u << 20)) return 0;
  MiByte in(reinterpret_cast<const char*>(data), static_cast<unsigned>(size));
  ContentInfo obj;
  try {
    obj.DerDecode(in, 0);
  } catch (const MiException&) {
    return 0;
  }
  try {
    MiByteBuffer out;
    obj.DerEncode(out, 0);
    DecodeContent(obj);
  } catch (const MiException&) {
  }
  return 0;
}
