// libFuzzer target: arbitrary octets decoded as a CertificationRequest (PKCS #10). Decoding may
// refuse the input only with a MiException; whatever it accepts must encode again or refuse with a
// MiException too.
#include <cstddef>
#include <cstdint>

#include "asn1/asn1.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > (1u << 20)) return 0;
  MiByte in(reinterpret_cast<const char*>(data), static_cast<unsigned>(size));
  CertificationRequest obj;
  try {
    obj.DerDecode(in, 0);
  } catch (const MiException&) {
    return 0;
  }
  try {
    MiByteBuffer out;
    obj.DerEncode(out, 0);
  } catch (const MiException&) {
  }
  return 0;
}
