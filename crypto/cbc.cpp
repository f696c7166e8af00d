#include "crypto/cbc.h"

#include "crypto/internal/wipe.h"

namespace kv {

void internal::CbcWipe(void* p, size_t n) {
  Wipe(p, n);
}

bool DesCbcEncrypt(const uint8_t* key, size_t key_len, const uint8_t* iv, size_t iv_len,
                   const uint8_t* in, size_t len, uint8_t* out, size_t* out_len, bool pad) {
  Des c;
  *out_len = 0;
  return c.SetKey(key, key_len) && CbcEncrypt(c, iv, iv_len, in, len, out, out_len, pad);
}

bool DesCbcDecrypt(const uint8_t* key, size_t key_len, const uint8_t* iv, size_t iv_len,
                   const uint8_t* in, size_t len, uint8_t* out, size_t* out_len, bool pad) {
  Des c;
  *out_len = 0;
  return c.SetKey(key, key_len) && CbcDecrypt(c, iv, iv_len, in, len, out, out_len, pad);
}

bool TripleDesCbcEncrypt(const uint8_t* key, size_t key_len, const uint8_t* iv, size_t iv_len,
                         const uint8_t* in, size_t len, uint8_t* out, size_t* out_len, bool pad) {
  TripleDes c;
  *out_len = 0;
  return c.SetKey(key, key_len) && CbcEncrypt(c, iv, iv_len, in, len, out, out_len, pad);
}

bool TripleDesCbcDecrypt(const uint8_t* key, size_t key_len, const uint8_t* iv, size_t iv_len,
                         const uint8_t* in, size_t len, uint8_t* out, size_t* out_len, bool pad) {
  TripleDes c;
  *out_len = 0;
  return c.SetKey(key, key_len) && CbcDecrypt(c, iv, iv_len, in, len, out, out_len, pad);
}

bool Rc2CbcEncrypt(const uint8_t* key, size_t key_len, int effective_bits, const uint8_t* iv,
                   size_t iv_len, const uint8_t* in, size_t len, uint8_t* out, size_t* out_len,
                   bool pad) {
  Rc2 c;
  *out_len = 0;
  return c.SetKey(key, key_len, effective_bits) &&
         CbcEncrypt(c, iv, iv_len, in, len, out, out_len, pad);
}

bool Rc2CbcDecrypt(const uint8_t* key, size_t key_len, int effective_bits, const uint8_t* iv,
                   size_t iv_len, const uint8_t* in, size_t len, uint8_t* out, size_t* out_len,
                   bool pad) {
  Rc2 c;
  *out_len = 0;
  return c.SetKey(key, key_len, effective_bits) &&
         CbcDecrypt(c, iv, iv_len, in, len, out, out_len, pad);
}

}  // namespace kv
