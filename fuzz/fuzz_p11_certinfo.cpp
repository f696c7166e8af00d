// libFuzzer target: arbitrary octets read as a certificate for the attributes
// of a PKCS#11 certificate object. Whatever it accepts, every field must be a
// run of octets of the input itself (the walk copies, never invents).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "crypto/internal/p11_certinfo.h"

namespace {

bool Inside(const std::vector<unsigned char>& field, const uint8_t* data, size_t size) {
  return field.empty() || std::search(data, data + size, field.begin(), field.end()) != data + size;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exact-size heap copy, so a read past the end is caught.
  std::vector<unsigned char> in(data, data + size);
  kv::p11::CertFields f;
  if (!kv::p11::ReadCertFields(in.data(), in.size(), &f)) return 0;
  if (f.subject.empty() || f.issuer.empty() || f.serial.empty()) std::abort();
  if (!Inside(f.subject, data, size) || !Inside(f.issuer, data, size) ||
      !Inside(f.serial, data, size) || !Inside(f.modulus, data, size))
    std::abort();
  return 0;
}
