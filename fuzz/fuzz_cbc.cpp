// CBC decryption with padding over arbitrary ciphertext: the one-shot and
// streaming paths must agree, never read or write out of bounds, and a
// successful decryption must encrypt back to the input.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "crypto/crypto.h"

namespace {

template <class C>
void Check(const C& cipher, const uint8_t* iv, const uint8_t* data, size_t size, size_t cut) {
  std::vector<uint8_t> one(size + 8), streamed(size + 16), back(size + 8);
  size_t n1 = 0, a = 0, b = 0, n3 = 0;
  bool ok1 = kv::CbcDecrypt(cipher, iv, 8, data, size, one.data(), &n1, true);

  kv::CbcDecryptor<C> dec;
  bool ok2 = dec.Init(cipher, iv, 8, true) && dec.Update(data, cut, streamed.data(), &a);
  size_t a2 = 0;
  ok2 = ok2 && dec.Update(data + cut, size - cut, streamed.data() + a, &a2);
  ok2 = ok2 && dec.Final(streamed.data() + a + a2, &b);
  if (ok1 != ok2) std::abort();
  if (!ok1) return;
  if (n1 != a + a2 + b || std::memcmp(one.data(), streamed.data(), n1) != 0) std::abort();
  if (!kv::CbcEncrypt(cipher, iv, 8, one.data(), n1, back.data(), &n3, true)) std::abort();
  if (n3 != size || std::memcmp(back.data(), data, size) != 0) std::abort();
}

}  // namespace

// Input: a selector byte, a cut position byte, 24 key bytes, 8 IV bytes, then
// the ciphertext.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 34) return 0;
  const uint8_t sel = data[0], cut_byte = data[1];
  const uint8_t* key = data + 2;
  const uint8_t* iv = data + 26;
  data += 34;
  size -= 34;
  size_t cut = size ? cut_byte % (size + 1) : 0;
  switch (sel % 4) {
    case 0: {
      kv::Des c;
      c.SetKey(key, 8);
      Check(c, iv, data, size, cut);
      break;
    }
    case 1: {
      kv::TripleDes c;
      c.SetKey(key, sel & 4 ? 16 : 24);
      Check(c, iv, data, size, cut);
      break;
    }
    default: {
      kv::Rc2 c;
      c.SetKey(key, 1 + (sel >> 3) % 24, 1 + key[23] * 4);
      Check(c, iv, data, size, cut);
      break;
    }
  }
  return 0;
}
