// KV_RSABigEncrypt / KV_RSABigDecrypt: PKCS#1 v1.5 over data of any length,
// through a KV_P11_OP on the soft token.
#include <cstring>

#include "asn1/mi_byte.h"
#include "crypto/internal/wipe.h"
#include "crypto/keyconv.h"
#include "crypto/p11.h"

namespace {

// Modulus length in octets without leading zeros.
unsigned ModulusBytes(const unsigned char* n, unsigned len) {
  while (len != 0 && *n == 0) {
    ++n;
    --len;
  }
  return len;
}

int OpenSoft(KV_P11_OP& op) {
  KV_PKCS11_S s{KV_P11_STORE_SOFT, nullptr, 0, nullptr, 0};
  return op.createChooser(&s);
}

// Runs encryption (true) or decryption over in with the key and applies the
// output buffer rule. `bound` is the size a null output reports.
int Run(KV_P11_Key& key, bool encrypt, const unsigned char* in, unsigned inLen, unsigned char* out,
        unsigned* outLen, unsigned modulusBytes) {
  KV_P11_OP op;
  if (int rc = OpenSoft(op)) return rc;
  MiByte empty, result;
  // An empty input loads and checks the key without any RSA operation.
  if (int rc =
          encrypt ? op.RSABigEncrypt(key, empty, result) : op.RSABigDecrypt(key, empty, result)) {
    return rc;
  }
  const unsigned k = modulusBytes;
  unsigned need;
  if (encrypt) {
    const unsigned chunk = k - 11;
    need = static_cast<unsigned>((static_cast<unsigned long long>(inLen) + chunk - 1) / chunk * k);
  } else {
    if (inLen % k != 0) return -3;  // the soft token's "input length" status
    need = inLen / k * (k - 11);
  }
  if (out == nullptr) {
    *outLen = need;
    return 0;
  }
  if (encrypt && *outLen < need) return KV_CONV_ERR_BUFFER;
  MiByte data(reinterpret_cast<const char*>(in), inLen);
  const int rc =
      encrypt ? op.RSABigEncrypt(key, data, result) : op.RSABigDecrypt(key, data, result);
  if (!encrypt && !data.Empty()) kv::internal::Wipe(data.GetChars(), data.GetLength());
  if (rc == 0) {
    if (result.GetLength() > *outLen) {
      if (!result.Empty()) kv::internal::Wipe(result.GetChars(), result.GetLength());
      return KV_CONV_ERR_BUFFER;
    }
    if (!result.Empty()) std::memcpy(out, result.GetBytes(), result.GetLength());
    *outLen = result.GetLength();
  }
  if (!encrypt && !result.Empty()) kv::internal::Wipe(result.GetChars(), result.GetLength());
  return rc;
}

}  // namespace

extern "C" int KV_RSABigEncrypt(PKCS_CTX, const PKCS_PUBKEY* key, const unsigned char* in,
                                unsigned int inLen, unsigned char* out, unsigned int* outLen) {
  if (key == nullptr || outLen == nullptr || (in == nullptr && inLen != 0)) {
    return KV_CONV_ERR_ARGUMENT;
  }
  try {
    KV_P11_Key k;
    KV_PKCS11_RSA_PUBLIC_KEY pub{key->modulus, key->modulusLen, key->exponent, key->exponentLen};
    if (int rc = k.setPublicKey(&pub)) return rc;
    const unsigned n = ModulusBytes(key->modulus, key->modulusLen);
    if (n < 12) {
      // Let the engine report the short modulus.
      MiByte empty, result;
      KV_P11_OP op;
      if (int rc = OpenSoft(op)) return rc;
      return op.RSABigEncrypt(k, empty, result);
    }
    return Run(k, true, in, inLen, out, outLen, n);
  } catch (...) {
    return KV_CONV_ERR_MEMORY;
  }
}

extern "C" int KV_RSABigDecrypt(PKCS_CTX, const PKCS_PRIKEY* key, const unsigned char* in,
                                unsigned int inLen, unsigned char* out, unsigned int* outLen) {
  if (key == nullptr || outLen == nullptr || (in == nullptr && inLen != 0)) {
    return KV_CONV_ERR_ARGUMENT;
  }
  try {
    KV_P11_Key k;
    KV_PKCS11_RSA_PRIVATE_KEY priv{
        key->modulus,         key->modulusLen,         key->publicExponent, key->publicExponentLen,
        key->privateExponent, key->privateExponentLen, key->prime1,         key->prime1Len,
        key->prime2,          key->prime2Len,          key->exponent1,      key->exponent1Len,
        key->exponent2,       key->exponent2Len,       key->coefficient,    key->coefficientLen};
    if (int rc = k.setPrivateKey(&priv)) return rc;
    const unsigned n = ModulusBytes(key->modulus, key->modulusLen);
    if (n < 12) return -106;  // the engine's "bad modulus (byte-length < 12)"
    return Run(k, false, in, inLen, out, outLen, n);
  } catch (...) {
    return KV_CONV_ERR_MEMORY;
  }
}
