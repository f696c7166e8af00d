// Key format conversions per second beside the nearest OpenSSL calls: the
// private blob read (b2i_PrivateKey), the private blob write (i2b_PrivateKey_bio
// into a memory BIO), the public blob read (b2i_PublicKey) and PKCS#1 private
// key decoding (d2i_RSAPrivateKey), on one 2048-bit key.
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdio>
#include <vector>

#include "bench.h"
#include "crypto/keyconv.h"

namespace {

std::vector<unsigned char> Blob(EVP_PKEY* pkey, bool pub) {
  BIO* mem = BIO_new(BIO_s_mem());
  if (pub) {
    i2b_PublicKey_bio(mem, pkey);
  } else {
    i2b_PrivateKey_bio(mem, pkey);
  }
  char* data = nullptr;
  const long n = BIO_get_mem_data(mem, &data);
  std::vector<unsigned char> out(data, data + n);
  BIO_free(mem);
  return out;
}

}  // namespace

KV_BENCH(keyconv) {
  RSA* rsa = RSA_new();
  BIGNUM* e = BN_new();
  BN_set_word(e, 65537);
  RSA_generate_key_ex(rsa, 2048, e, nullptr);
  BN_free(e);
  EVP_PKEY* pkey = EVP_PKEY_new();
  EVP_PKEY_set1_RSA(pkey, rsa);
  const std::vector<unsigned char> priv = Blob(pkey, false);
  const std::vector<unsigned char> pub = Blob(pkey, true);
  std::vector<unsigned char> der(i2d_RSAPrivateKey(rsa, nullptr));
  unsigned char* w = der.data();
  i2d_RSAPrivateKey(rsa, &w);
  const unsigned priv_len = static_cast<unsigned>(priv.size());
  const unsigned pub_len = static_cast<unsigned>(pub.size());
  const unsigned der_len = static_cast<unsigned>(der.size());

  PKCS_PRIKEY rec;
  PKCS_InitPriKey(nullptr, &rec);
  if (KV_MSPriKeyToIPKEx(nullptr, priv.data(), priv_len, &rec) != 0) {
    std::printf("keyconv: OpenSSL's blob did not read\n");
  }

  double ours = kvbench::rate([&] { KV_MSPriKeyToIPKEx(nullptr, priv.data(), priv_len, &rec); });
  double theirs = kvbench::rate([&] {
    const unsigned char* p = priv.data();
    EVP_PKEY_free(b2i_PrivateKey(&p, priv_len));
  });
  kvbench::report("keyconv_privblob_to_record_per_s", ours, theirs, true);

  std::vector<unsigned char> out(1172, 0);
  ours = kvbench::rate([&] {
    unsigned len = 1172;
    KV_IPKToMSPriKey(nullptr, &rec, out.data(), &len);
  });
  theirs = kvbench::rate([&] {
    BIO* mem = BIO_new(BIO_s_mem());
    i2b_PrivateKey_bio(mem, pkey);
    BIO_free(mem);
  });
  kvbench::report("keyconv_record_to_privblob_per_s", ours, theirs, true);

  PKCS_PUBKEY pubrec;
  PKCS_InitPubKey(nullptr, &pubrec);
  ours = kvbench::rate([&] { KV_MSPubKeyToIPKEx(nullptr, pub.data(), pub_len, &pubrec); });
  theirs = kvbench::rate([&] {
    const unsigned char* p = pub.data();
    EVP_PKEY_free(b2i_PublicKey(&p, pub_len));
  });
  kvbench::report("keyconv_pubblob_to_record_per_s", ours, theirs, true);
  PKCS_FreePubKey(nullptr, &pubrec);

  ours = kvbench::rate([&] { KV_PKCS1PriKeyDecode(nullptr, der.data(), der_len, &rec); });
  theirs = kvbench::rate([&] {
    const unsigned char* p = der.data();
    RSA_free(d2i_RSAPrivateKey(nullptr, &p, der_len));
  });
  kvbench::report("keyconv_pkcs1_private_decode_per_s", ours, theirs, true);

  PKCS_FreePriKey(nullptr, &rec);
  EVP_PKEY_free(pkey);
  RSA_free(rsa);
}
