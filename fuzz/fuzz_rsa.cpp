// Key components and ciphertexts from outside: the input is cut into eight
// length-prefixed components and a trailing block; every load and operation
// must return a status without crashing, leaking or reading out of bounds.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "crypto/rsa.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  KV_RSA_COMPONENT comps[KV_RSA_COMPONENT_COUNT] = {};
  std::vector<std::vector<unsigned char>> parts(KV_RSA_COMPONENT_COUNT);
  std::size_t pos = 0;
  for (int i = 0; i < KV_RSA_COMPONENT_COUNT && pos + 2 <= size; ++i) {
    std::size_t len = (static_cast<std::size_t>(data[pos]) << 8) | data[pos + 1];
    pos += 2;
    if (len > size - pos) len = size - pos;
    parts[i].assign(data + pos, data + pos + len);
    pos += len;
    comps[i].data = parts[i].empty() ? nullptr : parts[i].data();
    comps[i].len = static_cast<unsigned int>(len);
  }
  std::vector<unsigned char> block(data + pos, data + size);
  const unsigned int in_len = static_cast<unsigned int>(block.size());
  for (unsigned int kind : {KV_RSA_PUBLIC_BLOCK_SIZE, KV_RSA_PRIVATE_BLOCK_SIZE}) {
    KV_RSA_CTX* ctx = nullptr;
    if (KV_RSA_LoadKey(comps, kind, &ctx) != 0) continue;
    kv::RsaCtxPtr hold(ctx);
    std::vector<unsigned char> out(KV_RSA_MAX_MODULUS_BYTES);
    unsigned int out_len = 0;
    const unsigned char* in = block.empty() ? out.data() : block.data();
    KV_RSA_Decrypt(ctx, in, out.data(), in_len, &out_len);
    KV_RSA_OaepDecrypt(ctx, in, in_len, nullptr, 0, out.data(), &out_len);
    const unsigned char digest[20] = {0x5a};
    KV_RSA_VerifyDigest(ctx, KV_RSA_SHA1, digest, 20, in, in_len);
    if (in_len <= KV_RSA_ModulusLength(ctx)) {
      KV_RSA_Encrypt(ctx, in, out.data(), in_len, &out_len);
    }
  }
  return 0;
}
