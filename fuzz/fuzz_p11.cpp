// Outside input through the token layer with fixed keys: the first octet picks
// the operation, the rest is the ciphertext, signature or AlgorithmIdentifier.
// Every call must return a status without crashing, leaking or reading out of
// bounds.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "asn1/types/types.h"
#include "crypto/p11.h"
#include "crypto/rsa.h"

namespace {

struct Fixture {
  KV_P11_OP op;
  KV_P11_Key priv, pub, session;
  KV_P11_Alg cipher[4];  // DES, DES-EDE3, RC2, RC4

  Fixture() {
    KV_PKCS11_S s{KV_P11_STORE_SOFT, nullptr, 0, nullptr, 0};
    op.createChooser(&s);
    KV_RSA_COMPONENT* block = nullptr;
    KV_RSA_GenerateKeyPairEx(512, &block, nullptr, KV_RSA_OsRandom, nullptr);
    kv::RsaKeyPairPtr owner(block);
    KV_PKCS11_RSA_PRIVATE_KEY k{block[0].data, block[0].len, block[1].data, block[1].len,
                                block[2].data, block[2].len, block[3].data, block[3].len,
                                block[4].data, block[4].len, block[5].data, block[5].len,
                                block[6].data, block[6].len, block[7].data, block[7].len};
    priv.setPrivateKey(&k);
    KV_PKCS11_RSA_PUBLIC_KEY p{block[0].data, block[0].len, block[1].data, block[1].len};
    pub.setPublicKey(&p);
    unsigned char key[24] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                             13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24};
    const int kinds[4] = {KV_ALG_DES_CBC, KV_ALG_DES_EDE3_CBC, KV_ALG_RC2_CBC, KV_ALG_RC4};
    MiByte iv("abcdefgh", 8);
    for (int i = 0; i < 4; ++i) {
      cipher[i].setAlgType(kinds[i]);
      cipher[i].setIV(iv);
    }
    cipher[2].setEffectiveBits(64);
    KV_PKCS11_SESSION_KEY sk{key, 24, 24};
    session.setSessionKey(&sk);
    session.setKeyType(KV_KEY_DES3);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Fixture f;
  if (size == 0) return 0;
  const unsigned op = data[0] % 6;
  MiByte in(reinterpret_cast<const char*>(data + 1), static_cast<unsigned>(size - 1)), out;
  KV_P11_Alg alg;
  switch (op) {
    case 0:  // symmetric decryption: DES takes the first 8 key octets
      for (KV_P11_Alg& a : f.cipher) {
        KV_P11_Key k(f.session);
        int kind = 0;
        a.getAlgType(kind);
        if (kind == KV_ALG_DES_CBC) {
          unsigned char k8[8] = {1, 2, 3, 4, 5, 6, 7, 8};
          KV_PKCS11_SESSION_KEY sk{k8, 8, 8};
          k.setSessionKey(&sk);
        }
        f.op.Decrypt(a, k, in, out);
      }
      break;
    case 1:  // RSA: both block types
      alg.setAlgType(KV_ALG_RSA);
      f.op.Decrypt(alg, f.priv, in, out);
      f.op.Decrypt(alg, f.pub, in, out);
      break;
    case 2: {  // signatures: the first half is the data, the rest the signature
      const unsigned half = in.GetLength() / 2;
      MiByte msg(in.GetChars(), 0, half), sig(in.GetChars(), half, in.GetLength() - half);
      for (int kind : {KV_ALG_RSA, KV_ALG_SHA1_RSA, KV_ALG_MD5_RSA, KV_ALG_MD2_RSA}) {
        alg.setAlgType(kind);
        f.op.Verify(alg, f.pub, msg, sig);
      }
      break;
    }
    case 3:
      f.op.RSABigDecrypt(f.priv, in, out);
      break;
    case 4: {  // an AlgorithmIdentifier from outside drives a decryption
      AlgorithmIdentifier id;
      try {
        id.DerDecode(in, 0);
      } catch (...) {
        break;
      }
      if (alg.setAlgorithmIdentifier(id) == 0) {
        alg.getAlgorithmIdentifier(id);
        f.op.Decrypt(alg, f.session, in, out);
      }
      break;
    }
    default: {  // a session key from outside
      KV_P11_Key k;
      AlgorithmIdentifier id;
      id.SetAlgorithm(AsnOid("1.2.840.113549.3.2"));
      k.setSessionKey(in, static_cast<int>(data[0]), id);
      for (KV_P11_Alg& a : f.cipher) f.op.Encrypt(a, k, in, out);
      break;
    }
  }
  return 0;
}
