// PKCS#10 request creation with the same 2048-bit key, SHA-1 with RSA: ours
// (subject from DN text, encoding, signing through the soft token) beside
// OpenSSL's X509_REQ_new / set / X509_REQ_sign / i2d. Key generation is not
// measured.
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstdio>
#include <vector>

#include "bench.h"
#include "pki/pki.h"

namespace {

std::vector<unsigned char> BnBytes(const BIGNUM* b) {
  std::vector<unsigned char> v(BN_num_bytes(b));
  BN_bn2bin(b, v.data());
  return v;
}

}  // namespace

KV_BENCH(pkcs10) {
  RSA* rsa = RSA_new();
  BIGNUM* e = BN_new();
  BN_set_word(e, 65537);
  RSA_generate_key_ex(rsa, 2048, e, nullptr);
  BN_free(e);
  const BIGNUM* parts[8];
  RSA_get0_key(rsa, &parts[0], &parts[1], &parts[2]);
  RSA_get0_factors(rsa, &parts[3], &parts[4]);
  RSA_get0_crt_params(rsa, &parts[5], &parts[6], &parts[7]);
  std::vector<unsigned char> bytes[8];
  for (int i = 0; i < 8; ++i) bytes[i] = BnBytes(parts[i]);
  PKCS_PRIKEY key{bytes[0].data(), static_cast<unsigned>(bytes[0].size()),
                  bytes[1].data(), static_cast<unsigned>(bytes[1].size()),
                  bytes[2].data(), static_cast<unsigned>(bytes[2].size()),
                  bytes[3].data(), static_cast<unsigned>(bytes[3].size()),
                  bytes[4].data(), static_cast<unsigned>(bytes[4].size()),
                  bytes[5].data(), static_cast<unsigned>(bytes[5].size()),
                  bytes[6].data(), static_cast<unsigned>(bytes[6].size()),
                  bytes[7].data(), static_cast<unsigned>(bytes[7].size())};
  EVP_PKEY* pkey = EVP_PKEY_new();
  EVP_PKEY_assign_RSA(pkey, rsa);  // pkey owns rsa now

  PKCS_Initialize();
  PKCS_CTX ctx = nullptr;
  if (PKCS_CreateCtx(&ctx) != 0) {
    std::printf("pkcs10: no context\n");
    EVP_PKEY_free(pkey);
    return;
  }
  unsigned oursLen = 0;
  double ours = kvbench::rate([&] {
    unsigned char* der = nullptr;
    if (KVPKCS_GenPKCS10WithKey(ctx, "CN=bench,O=Example,C=CN", &key, nullptr, &der, &oursLen) ==
        0) {
      T_free(der);
    }
  });
  int theirsLen = 0;
  double theirs = kvbench::rate([&] {
    X509_REQ* req = X509_REQ_new();
    X509_REQ_set_version(req, 0);
    X509_NAME* name = X509_REQ_get_subject_name(req);
    X509_NAME_add_entry_by_txt(name, "C", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("CN"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("Example"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("bench"), -1, -1, 0);
    X509_REQ_set_pubkey(req, pkey);
    X509_REQ_sign(req, pkey, EVP_sha1());
    unsigned char* der = nullptr;
    theirsLen = i2d_X509_REQ(req, &der);
    OPENSSL_free(der);
    X509_REQ_free(req);
  });
  if (oursLen == 0 || theirsLen <= 0) std::printf("pkcs10: a request was not made\n");
  kvbench::report("pkcs10_create_sha1_rsa2048_per_s", ours, theirs, true);
  PKCS_DestroyCtx(ctx);
  PKCS_Finalize();
  EVP_PKEY_free(pkey);
}
