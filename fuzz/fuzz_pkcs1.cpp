// PKCS#1 RSAPublicKey / RSAPrivateKey DER from outside. The decoders take
// strict DER only, so whatever they accept must re-encode to the same octets.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "crypto/keyconv.h"

namespace {

template <typename Rec, typename Encode>
void ReEncode(const Rec& rec, Encode encode, const std::uint8_t* data, std::size_t size) {
  unsigned len = 0;
  if (encode(nullptr, &rec, nullptr, &len) != 0) std::abort();
  std::vector<unsigned char> der(len);
  if (encode(nullptr, &rec, der.data(), &len) != 0) std::abort();
  if (len != size || std::memcmp(der.data(), data, size) != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A distinct non-null pointer for empty input, so emptiness is what is fed.
  static const std::uint8_t kEmpty = 0;
  const std::uint8_t* in = size ? data : &kEmpty;
  const unsigned len = static_cast<unsigned>(size);
  PKCS_PUBKEY pub;
  PKCS_InitPubKey(nullptr, &pub);
  if (KV_PKCS1PubKeyDecode(nullptr, in, len, &pub) == 0) {
    ReEncode(pub, KV_PKCS1PubKeyEncode, data, size);
  }
  PKCS_FreePubKey(nullptr, &pub);
  PKCS_PRIKEY pri;
  PKCS_InitPriKey(nullptr, &pri);
  if (KV_PKCS1PriKeyDecode(nullptr, in, len, &pri) == 0) {
    ReEncode(pri, KV_PKCS1PriKeyEncode, data, size);
  }
  PKCS_FreePriKey(nullptr, &pri);
  unsigned out_len = 0;
  KV_P1DerToMSPubKey(in, len, nullptr, &out_len);
  KV_P1DerToMSPriKey(in, len, nullptr, &out_len);
  return 0;
}
