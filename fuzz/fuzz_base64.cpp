// Decodes arbitrary text and checks that encoding the input octets and
// decoding the text again gives them back, with and without line breaks.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "asn1/asn1.h"
#include "pki/pki.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  const int n = static_cast<int>(size);
  std::vector<char> in(data, data + size);
  char* text = in.empty() ? nullptr : in.data();

  // Decoding never writes more octets than characters it reads.
  std::vector<char> out(size + 1);
  int decoded = -1;
  if (KVPKCS_Base64Decode(text, n, out.data(), &decoded) != 0) std::abort();
  if (decoded < 0 || decoded > n) std::abort();

  KV_Base64 b64;
  MiByte source(text, static_cast<unsigned>(size));
  MiByte back;
  if (b64.Decode(source, back) != 0) std::abort();
  if (back.GetLength() != static_cast<unsigned>(decoded)) std::abort();
  if (decoded != 0 && std::memcmp(back.GetChars(), out.data(), static_cast<size_t>(decoded)) != 0) {
    std::abort();
  }

  // Round trip of the input octets.
  for (bool lineBreaks : {false, true}) {
    int length = 0;
    if (b64.Encode(text, n, nullptr, &length, lineBreaks) != 0) std::abort();
    std::vector<char> encoded(static_cast<size_t>(length) + 1);
    int written = 0;
    if (b64.Encode(text, n, encoded.data(), &written, lineBreaks) != 0) std::abort();
    if (written != length) std::abort();
    std::vector<char> again(static_cast<size_t>(length) + 1);
    int decodedAgain = -1;
    if (KVPKCS_Base64Decode(encoded.data(), length, again.data(), &decodedAgain) != 0) std::abort();
    if (decodedAgain != n) std::abort();
    if (n != 0 && std::memcmp(again.data(), data, size) != 0) std::abort();
  }
  return 0;
}
