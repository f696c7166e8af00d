// Digests and ciphers: MB/s over 8 KiB buffers, ours against OpenSSL's EVP.
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "bench.h"
#include "crypto/crypto.h"

namespace {

constexpr size_t kBuf = 8192;
constexpr double kSeconds = 0.3;

double MBps(const std::function<void()>& fn) {
  return kvbench::rate(fn, kSeconds) * kBuf / 1e6;
}

std::vector<uint8_t> Pattern(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = uint8_t(i * 131 + 7);
  return v;
}

template <class H>
double OurDigest(const std::vector<uint8_t>& buf) {
  H h;
  uint8_t out[H::kDigestSize];
  return MBps([&] {
    h.Update(buf.data(), buf.size());
    h.Final(out);
  });
}

double OpensslDigest(const char* name, const std::vector<uint8_t>& buf) {
  EVP_MD* md = EVP_MD_fetch(nullptr, name, nullptr);
  if (!md) return -1;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  double r = MBps([&] {
    EVP_DigestInit_ex2(ctx, md, nullptr);
    EVP_DigestUpdate(ctx, buf.data(), buf.size());
    EVP_DigestFinal_ex(ctx, out, &n);
  });
  EVP_MD_CTX_free(ctx);
  EVP_MD_free(md);
  return r;
}

// Streams 8 KiB buffers through one cipher context, as a long message would.
double OpensslCipher(const char* name, const uint8_t* key, size_t key_len, bool encrypt,
                     const std::vector<uint8_t>& buf) {
  EVP_CIPHER* c = EVP_CIPHER_fetch(nullptr, name, nullptr);
  if (!c) return -1;
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  static const uint8_t iv[16] = {1, 2, 3, 4, 5, 6, 7, 8};
  EVP_CipherInit_ex2(ctx, c, nullptr, nullptr, encrypt ? 1 : 0, nullptr);
  EVP_CIPHER_CTX_set_key_length(ctx, int(key_len));
  EVP_CipherInit_ex2(ctx, nullptr, key, iv, encrypt ? 1 : 0, nullptr);
  EVP_CIPHER_CTX_set_padding(ctx, 0);
  std::vector<uint8_t> out(buf.size() + 16);
  int n = 0;
  double r = MBps([&] { EVP_CipherUpdate(ctx, out.data(), &n, buf.data(), int(buf.size())); });
  EVP_CIPHER_CTX_free(ctx);
  EVP_CIPHER_free(c);
  return r;
}

template <class Stream, class C>
double OurCbc(const C& cipher, const std::vector<uint8_t>& buf) {
  static const uint8_t iv[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  Stream s;
  s.Init(cipher, iv, 8, false);
  std::vector<uint8_t> out(buf.size() + 16);
  size_t n = 0;
  return MBps([&] { s.Update(buf.data(), buf.size(), out.data(), &n); });
}

template <class C>
void CbcPair(const char* label, const char* ossl, const C& cipher, const uint8_t* key,
             size_t key_len, const std::vector<uint8_t>& buf) {
  std::string base = label;
  kvbench::report(base + "-encrypt", OurCbc<kv::CbcEncryptor<C>>(cipher, buf),
                  OpensslCipher(ossl, key, key_len, true, buf), true);
  kvbench::report(base + "-decrypt", OurCbc<kv::CbcDecryptor<C>>(cipher, buf),
                  OpensslCipher(ossl, key, key_len, false, buf), true);
}

}  // namespace

KV_BENCH(symm) {
  // DES, RC2 and RC4 live in OpenSSL's legacy provider.
  OSSL_PROVIDER* legacy = OSSL_PROVIDER_load(nullptr, "legacy");
  OSSL_PROVIDER* deflt = OSSL_PROVIDER_load(nullptr, "default");
  const auto buf = Pattern(kBuf);
  const auto key = Pattern(24);

  kvbench::report("SHA1", OurDigest<kv::Sha1>(buf), OpensslDigest("SHA1", buf), true);
  kvbench::report("MD5", OurDigest<kv::Md5>(buf), OpensslDigest("MD5", buf), true);
  kvbench::report("MD2", OurDigest<kv::Md2>(buf), -1, true);

  kv::Des des;
  des.SetKey(key.data(), 8);
  CbcPair("DES-CBC", "DES-CBC", des, key.data(), 8, buf);
  kv::TripleDes tdes;
  tdes.SetKey(key.data(), 24);
  CbcPair("DES-EDE3-CBC", "DES-EDE3-CBC", tdes, key.data(), 24, buf);
  kv::Rc2 rc2;
  rc2.SetKey(key.data(), 16, 128);
  CbcPair("RC2-CBC", "RC2-CBC", rc2, key.data(), 16, buf);

  kv::Rc4 rc4;
  rc4.SetKey(key.data(), 16);
  std::vector<uint8_t> out(kBuf);
  double ours = MBps([&] { rc4.Process(buf.data(), out.data(), buf.size()); });
  kvbench::report("RC4", ours, OpensslCipher("RC4", key.data(), 16, true, buf), true);

  if (legacy) OSSL_PROVIDER_unload(legacy);
  if (deflt) OSSL_PROVIDER_unload(deflt);
}
