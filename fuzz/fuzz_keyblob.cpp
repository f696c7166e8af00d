// Platform key blobs from outside, through the length-checked readers. Every
// blob that reads must write back: the integers come out where they went in.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "crypto/keyconv.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const unsigned len = static_cast<unsigned>(size);
  PKCS_PUBKEY pub;
  PKCS_InitPubKey(nullptr, &pub);
  if (KV_MSPubKeyToIPKEx(nullptr, data, len, &pub) == 0) {
    unsigned der_len = 0;
    if (KV_PKCS1PubKeyEncode(nullptr, &pub, nullptr, &der_len) != 0) std::abort();
    std::vector<unsigned char> der(der_len);
    if (KV_PKCS1PubKeyEncode(nullptr, &pub, der.data(), &der_len) != 0) std::abort();
    unsigned blob_len = 0;
    const int rc = KV_IPKToMSPubKey(nullptr, &pub, nullptr, &blob_len);
    std::vector<unsigned char> blob(blob_len);
    if (rc == 0 && KV_IPKToMSPubKey(nullptr, &pub, blob.data(), &blob_len) == 0 &&
        std::memcmp(blob.data() + 12, data + 12, blob_len - 12) != 0) {
      std::abort();  // bit length, exponent and modulus survive the round trip
    }
  }
  PKCS_FreePubKey(nullptr, &pub);

  PKCS_PRIKEY pri;
  PKCS_InitPriKey(nullptr, &pri);
  if (KV_MSPriKeyToIPKEx(nullptr, data, len, &pri) == 0) {
    const bool big = pri.modulusLen == 256;
    unsigned blob_len = 0;
    int rc = big ? KV_IPKToMSPriKey(nullptr, &pri, nullptr, &blob_len)
                 : KV_IPKToMSPriKey1024(nullptr, &pri, nullptr, &blob_len);
    std::vector<unsigned char> blob(blob_len, 0);
    rc = big ? KV_IPKToMSPriKey(nullptr, &pri, blob.data(), &blob_len)
             : KV_IPKToMSPriKey1024(nullptr, &pri, blob.data(), &blob_len);
    // 512-bit keys do not fit either writer's fixed layout exactly, but the
    // 1024-bit one takes them; 1024 and 2048 come back octet for octet.
    if (rc != 0) std::abort();
    if (pri.modulusLen != 64 && std::memcmp(blob.data() + 20, data + 20, blob_len - 20) != 0)
      std::abort();
    unsigned der_len = 0;
    if (KV_PKCS1PriKeyEncode(nullptr, &pri, nullptr, &der_len) != 0) std::abort();
    std::vector<unsigned char> der(der_len);
    if (KV_PKCS1PriKeyEncode(nullptr, &pri, der.data(), &der_len) != 0) std::abort();
  }
  PKCS_FreePriKey(nullptr, &pri);
  return 0;
}
