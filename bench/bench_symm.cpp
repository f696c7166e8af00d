// Digests and ciphers: MB/s over 8 KiB buffers, ours against OpenSSL's EVP.
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <time.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench.h"
#include "crypto/crypto.h"

namespace {

constexpr size_t kBuf = 8192;
const uint8_t kIv[16] = {1, 2, 3, 4, 5, 6, 7, 8};

std::vector<uint8_t> Pattern(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = uint8_t(i * 131 + 7);
  return v;
}

// Calls per second of the thread's own processor time: the machine is shared,
// and wall time would charge us for other processes.
double CpuRate(const std::function<void()>& fn, double seconds) {
  auto now = [] {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
  };
  fn();  // warm up
  long calls = 0;
  double start = now(), elapsed = 0;
  while ((elapsed = now() - start) < seconds) {
    for (int i = 0; i < 8; ++i) fn();
    calls += 8;
  }
  return double(calls) / elapsed;
}

// Each side is measured in three slices of 0.1 s, alternating with the other
// side, and the best slice counts.
void Report(const std::string& name, const std::function<void()>& ours,
            const std::function<void()>& openssl) {
  double a = 0, b = openssl ? 0 : -1;
  for (int round = 0; round < 3; ++round) {
    a = std::max(a, CpuRate(ours, 0.1) * kBuf / 1e6);
    if (openssl) b = std::max(b, CpuRate(openssl, 0.1) * kBuf / 1e6);
  }
  kvbench::report(name, a, b, true);
}

struct EvpMd {
  EVP_MD* md;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  explicit EvpMd(const char* name) : md(EVP_MD_fetch(nullptr, name, nullptr)) {}
  ~EvpMd() {
    EVP_MD_CTX_free(ctx);
    EVP_MD_free(md);
  }
};

template <class H>
void DigestFigure(const char* name, const std::vector<uint8_t>& buf) {
  H h;
  uint8_t out[H::kDigestSize];
  auto ours = [&] {
    h.Update(buf.data(), buf.size());
    h.Final(out);
  };
  EvpMd evp(name);
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  auto theirs = [&] {
    EVP_DigestInit_ex2(evp.ctx, evp.md, nullptr);
    EVP_DigestUpdate(evp.ctx, buf.data(), buf.size());
    EVP_DigestFinal_ex(evp.ctx, md, &n);
  };
  Report(name, ours, evp.md ? std::function<void()>(theirs) : nullptr);
}

// One EVP cipher context streaming 8 KiB buffers, as a long message would.
struct EvpCipher {
  EVP_CIPHER* cipher;
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  std::vector<uint8_t> out = std::vector<uint8_t>(kBuf + 16);
  EvpCipher(const char* name, const uint8_t* key, size_t key_len, bool encrypt)
      : cipher(EVP_CIPHER_fetch(nullptr, name, nullptr)) {
    if (!cipher) return;
    EVP_CipherInit_ex2(ctx, cipher, nullptr, nullptr, encrypt ? 1 : 0, nullptr);
    EVP_CIPHER_CTX_set_key_length(ctx, int(key_len));
    EVP_CipherInit_ex2(ctx, nullptr, key, kIv, encrypt ? 1 : 0, nullptr);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
  }
  ~EvpCipher() {
    EVP_CIPHER_CTX_free(ctx);
    EVP_CIPHER_free(cipher);
  }
  std::function<void()> Run(const std::vector<uint8_t>& buf) {
    if (!cipher) return nullptr;
    return [this, &buf] {
      int n = 0;
      EVP_CipherUpdate(ctx, out.data(), &n, buf.data(), int(buf.size()));
    };
  }
};

template <class Stream, class C>
void CbcFigure(const std::string& name, const char* evp_name, bool encrypt, const C& cipher,
               const uint8_t* key, size_t key_len, const std::vector<uint8_t>& buf) {
  Stream s;
  s.Init(cipher, kIv, 8, false);
  std::vector<uint8_t> out(kBuf + 16);
  size_t n = 0;
  EvpCipher evp(evp_name, key, key_len, encrypt);
  Report(
      name, [&] { s.Update(buf.data(), buf.size(), out.data(), &n); }, evp.Run(buf));
}

template <class C>
void CbcFigures(const char* name, const C& cipher, const uint8_t* key, size_t key_len,
                const std::vector<uint8_t>& buf) {
  CbcFigure<kv::CbcEncryptor<C>>(std::string(name) + "-encrypt", name, true, cipher, key, key_len,
                                 buf);
  CbcFigure<kv::CbcDecryptor<C>>(std::string(name) + "-decrypt", name, false, cipher, key, key_len,
                                 buf);
}

}  // namespace

KV_BENCH(symm) {
  // DES, RC2 and RC4 live in OpenSSL's legacy provider.
  OSSL_PROVIDER* legacy = OSSL_PROVIDER_load(nullptr, "legacy");
  OSSL_PROVIDER* deflt = OSSL_PROVIDER_load(nullptr, "default");
  const auto buf = Pattern(kBuf);
  const auto key = Pattern(24);

  DigestFigure<kv::Sha1>("SHA1", buf);
  DigestFigure<kv::Md5>("MD5", buf);
  {
    kv::Md2 h;
    uint8_t out[kv::Md2::kDigestSize];
    Report(
        "MD2",
        [&] {
          h.Update(buf.data(), buf.size());
          h.Final(out);
        },
        nullptr);  // OpenSSL no longer offers MD2
  }

  kv::Des des;
  des.SetKey(key.data(), 8);
  CbcFigures("DES-CBC", des, key.data(), 8, buf);
  kv::TripleDes tdes;
  tdes.SetKey(key.data(), 24);
  CbcFigures("DES-EDE3-CBC", tdes, key.data(), 24, buf);
  kv::Rc2 rc2;
  rc2.SetKey(key.data(), 16, 128);
  CbcFigures("RC2-CBC", rc2, key.data(), 16, buf);

  kv::Rc4 rc4;
  rc4.SetKey(key.data(), 16);
  std::vector<uint8_t> out(kBuf);
  EvpCipher evp("RC4", key.data(), 16, true);
  Report(
      "RC4", [&] { rc4.Process(buf.data(), out.data(), buf.size()); }, evp.Run(buf));

  if (legacy) OSSL_PROVIDER_unload(legacy);
  if (deflt) OSSL_PROVIDER_unload(deflt);
}
