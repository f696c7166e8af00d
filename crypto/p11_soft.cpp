// The soft token: the crypto core on the kit's own digests, ciphers and RSA
// engine, with an in-memory object store (certificates, public and private
// keys by label) that lives as long as the chooser.
#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "crypto/cbc.h"
#include "crypto/internal/p11_core.h"
#include "crypto/internal/p11_util.h"
#include "crypto/internal/wipe.h"
#include "crypto/md2.h"
#include "crypto/md5.h"
#include "crypto/p11.h"
#include "crypto/rc4.h"
#include "crypto/rsa.h"
#include "crypto/sha1.h"

namespace kv::p11 {
namespace {

bool ValidKind(int kind) {
  return kind >= KV_ALG_SHA1 && kind <= KV_ALG_MD2_RSA;
}

// The status for an algorithm kind an operation does not take: unset or
// unknown kinds are a badly set algorithm object, known ones unsupported here.
int WrongKind(int kind) {
  return ValidKind(kind) ? kAlgNotSupported : kBadAlgObject;
}

// Digest kind (1 SHA-1, 2 MD5, 3 MD2) of a digest or signature kind, or 0.
int DigestOf(int kind) {
  switch (kind) {
    case KV_ALG_SHA1:
    case KV_ALG_SHA1_RSA:
      return KV_ALG_SHA1;
    case KV_ALG_MD5:
    case KV_ALG_MD5_RSA:
      return KV_ALG_MD5;
    case KV_ALG_MD2:
    case KV_ALG_MD2_RSA:
      return KV_ALG_MD2;
    default:
      return 0;
  }
}

int EngineDigestKind(int digest) {
  switch (digest) {
    case KV_ALG_SHA1:
      return KV_RSA_SHA1;
    case KV_ALG_MD5:
      return KV_RSA_MD5;
    default:
      return KV_RSA_MD2;
  }
}

// Writes the digest of a kind from DigestOf to out (up to 20 bytes); returns
// its length.
size_t RunDigest(int digest, const unsigned char* in, size_t n, unsigned char* out) {
  switch (digest) {
    case KV_ALG_SHA1:
      kv::Sha1::Digest(in, n, out);
      return kv::Sha1::kDigestSize;
    case KV_ALG_MD5:
      kv::Md5::Digest(in, n, out);
      return kv::Md5::kDigestSize;
    default:
      kv::Md2::Digest(in, n, out);
      return kv::Md2::kDigestSize;
  }
}

// The engine refuses a null input even with length 0.
const unsigned char* NonNull(const unsigned char* p) {
  static const unsigned char kEmpty = 0;
  return p ? p : &kEmpty;
}

bool SameInteger(const Bytes& a, const Bytes& b) {
  size_t i = 0, j = 0;
  while (i < a.size() && a[i] == 0) ++i;
  while (j < b.size() && b[j] == 0) ++j;
  return a.size() - i == b.size() - j && std::equal(a.begin() + i, a.end(), b.begin() + j);
}

// One loaded RSA key, kept while the same components come back: loading a
// private key checks its consistency, which costs a noticeable share of a
// signature.
struct CachedCtx {
  Bytes comp[8];
  int count = 0;
  RsaCtxPtr ctx;

  bool Matches(const Bytes* c, int n) const {
    if (!ctx || n != count) return false;
    for (int i = 0; i < n; ++i) {
      if (comp[i] != c[i]) return false;
    }
    return true;
  }
  void Clear() {
    ctx.reset();
    for (Bytes& b : comp) WipeBytes(b);
    count = 0;
  }
  ~CachedCtx() { Clear(); }
};

struct PrivateObject {
  Bytes comp[8];
  ~PrivateObject() {
    for (Bytes& b : comp) WipeBytes(b);
  }
};

class SoftStore final : public Store {
 public:
  bool OnModule() const override { return false; }

  int Digest(const AlgInfo& alg, const unsigned char* in, size_t n, Bytes& out) override {
    if (alg.kind != KV_ALG_SHA1 && alg.kind != KV_ALG_MD5 && alg.kind != KV_ALG_MD2) {
      return WrongKind(alg.kind);
    }
    unsigned char md[20];
    out.assign(md, md + RunDigest(alg.kind, in, n, md));
    return kOk;
  }

  int Random(unsigned char* out, size_t n, const unsigned char* seed, size_t seedLen) override {
    if (out == nullptr && n != 0) return kBadArgument;
    for (size_t done = 0; done < n;) {
      const unsigned part = static_cast<unsigned>(std::min<size_t>(n - done, 1u << 20));
      if (KV_RSA_OsRandom(nullptr, out + done, part) != 0) return kOtherError;
      done += part;
    }
    if (seed != nullptr && seedLen != 0) {
      // The caller's seed is folded in on top of the system's randomness, so
      // it can add entropy but never take any away.
      unsigned char block[kv::Sha1::kDigestSize];
      for (size_t pos = 0, counter = 0; pos < n; pos += sizeof block, ++counter) {
        kv::Sha1 h;
        h.Update(seed, seedLen);
        const unsigned char c[4] = {
            static_cast<unsigned char>(counter >> 24), static_cast<unsigned char>(counter >> 16),
            static_cast<unsigned char>(counter >> 8), static_cast<unsigned char>(counter)};
        h.Update(c, sizeof c);
        h.Final(block);
        for (size_t i = 0; i < sizeof block && pos + i < n; ++i) out[pos + i] ^= block[i];
      }
      kv::internal::Wipe(block, sizeof block);
    }
    return kOk;
  }

  int Encrypt(const AlgInfo& alg, const KeyInfo& key, const unsigned char* in, size_t n,
              Bytes& out) override {
    return Cipher(alg, key, in, n, out, true);
  }

  int Decrypt(const AlgInfo& alg, const KeyInfo& key, const unsigned char* in, size_t n,
              Bytes& out) override {
    return Cipher(alg, key, in, n, out, false);
  }

  int Sign(const AlgInfo& alg, const KeyInfo& key, const unsigned char* in, size_t n,
           Bytes& out) override {
    if (alg.kind != KV_ALG_RSA && DigestOf(alg.kind) == 0) return WrongKind(alg.kind);
    KV_RSA_CTX* ctx = nullptr;
    if (int rc = LoadRsa(key, &ctx)) return rc;
    if (KV_RSA_IsPrivate(ctx) != 1) return kBadKeyObject;
    const unsigned k = KV_RSA_ModulusLength(ctx);
    out.resize(k);
    unsigned len = 0;
    int rc;
    if (alg.kind == KV_ALG_RSA) {
      if (n > k) return kBadLength;
      rc = KV_RSA_Encrypt(ctx, NonNull(in), out.data(), static_cast<unsigned>(n), &len);
    } else {
      unsigned char md[20];
      const int digest = DigestOf(alg.kind);
      const size_t mdLen = RunDigest(digest, in, n, md);
      rc = KV_RSA_SignDigest(ctx, EngineDigestKind(digest), md, static_cast<unsigned>(mdLen),
                             out.data(), &len);
    }
    out.resize(rc == 0 ? len : 0);
    return rc;
  }

  int Verify(const AlgInfo& alg, const KeyInfo& key, const unsigned char* data, size_t n,
             const unsigned char* sig, size_t sigLen) override {
    if (alg.kind != KV_ALG_RSA && DigestOf(alg.kind) == 0) return WrongKind(alg.kind);
    KV_RSA_CTX* ctx = nullptr;
    if (int rc = LoadRsa(key, &ctx, /*publicOnly=*/true)) return rc;
    const unsigned k = KV_RSA_ModulusLength(ctx);
    if (sig == nullptr || sigLen != k) return kBadSignature;
    if (alg.kind == KV_ALG_RSA) {
      unsigned char block[KV_RSA_MAX_MODULUS_BYTES];
      unsigned len = 0;
      const int rc = KV_RSA_Decrypt(ctx, sig, block, k, &len);
      if (rc == kNoMemory) return rc;
      const bool same = rc == 0 && len == n && (n == 0 || std::memcmp(block, data, n) == 0);
      return same ? kOk : kBadSignature;
    }
    unsigned char md[20];
    const int digest = DigestOf(alg.kind);
    const size_t mdLen = RunDigest(digest, data, n, md);
    const int rc = KV_RSA_VerifyDigest(ctx, EngineDigestKind(digest), md,
                                       static_cast<unsigned>(mdLen), sig, k);
    if (rc == 0 || rc == kNoMemory) return rc;
    return kBadSignature;
  }

  int SignRecover(const AlgInfo& alg, const KeyInfo& key, const unsigned char* in, size_t n,
                  Bytes& out) override {
    // The data (or its DigestInfo) sits in a type-1 block that the public key
    // opens again, which is what Sign already produces.
    return Sign(alg, key, in, n, out);
  }

  int BigEncrypt(const KeyInfo& key, const unsigned char* in, size_t n, unsigned char* out,
                 size_t* outLen) override {
    if (outLen == nullptr || (in == nullptr && n != 0)) return kBadArgument;
    KV_RSA_CTX* ctx = nullptr;
    if (int rc = LoadRsa(key, &ctx)) return rc;
    unsigned k = 0;
    if (int rc = KV_RSA_Encrypt(ctx, NonNull(in), nullptr, 0, &k)) return rc;  // checks k
    const size_t chunk = k - 11;
    const size_t blocks = (n + chunk - 1) / chunk;
    const size_t need = blocks * k;
    if (out == nullptr) {
      *outLen = need;
      return kOk;
    }
    if (*outLen < need) return kBadLength;
    for (size_t b = 0; b < blocks; ++b) {
      const size_t take = std::min(chunk, n - b * chunk);
      unsigned len = 0;
      const int rc =
          KV_RSA_Encrypt(ctx, in + b * chunk, out + b * k, static_cast<unsigned>(take), &len);
      if (rc != 0) return rc;
    }
    *outLen = need;
    return kOk;
  }

  int BigDecrypt(const KeyInfo& key, const unsigned char* in, size_t n, unsigned char* out,
                 size_t* outLen) override {
    if (outLen == nullptr || (in == nullptr && n != 0)) return kBadArgument;
    KV_RSA_CTX* ctx = nullptr;
    if (int rc = LoadRsa(key, &ctx)) return rc;
    const unsigned k = KV_RSA_ModulusLength(ctx);
    if (k < 12) return -106;  // the engine's "bad modulus" code, as Decrypt reports it
    if (n % k != 0) return kBadLength;
    const size_t blocks = n / k;
    if (out == nullptr) {
      *outLen = blocks * (k - 11);
      return kOk;
    }
    unsigned char block[KV_RSA_MAX_MODULUS_BYTES];
    size_t written = 0;
    int rc = kOk;
    for (size_t b = 0; b < blocks && rc == kOk; ++b) {
      unsigned len = 0;
      rc = KV_RSA_Decrypt(ctx, in + b * k, block, k, &len);
      if (rc == kOk && written + len > *outLen) rc = kBadLength;
      if (rc == kOk) {
        std::memcpy(out + written, block, len);
        written += len;
      }
    }
    kv::internal::Wipe(block, sizeof block);
    if (rc != kOk) {
      kv::internal::Wipe(out, written);
      return rc;
    }
    *outLen = written;
    return kOk;
  }

  int FindObject(const std::string& label, int cls, bool* found) override {
    if (found == nullptr) return kBadArgument;
    switch (cls) {
      case KV_OBJ_CERTIFICATE:
        *found = certs_.count(label) != 0;
        break;
      case KV_OBJ_PUBLIC_KEY:
        *found = publics_.count(label) != 0;
        break;
      case KV_OBJ_PRIVATE_KEY:
        *found = privates_.count(label) != 0;
        break;
      default:
        return kBadArgument;
    }
    return kOk;
  }

  int GetPublicKey(const std::string& label, Bytes* modulus, Bytes* exponent) override {
    if (modulus == nullptr || exponent == nullptr) return kBadArgument;
    auto it = publics_.find(label);
    if (it == publics_.end()) return kObjectNotFound;
    *modulus = it->second.first;
    *exponent = it->second.second;
    return kOk;
  }

  int GetCertificate(const std::string& label, Bytes* der, bool* found) override {
    if (der == nullptr || found == nullptr) return kBadArgument;
    auto it = certs_.find(label);
    *found = it != certs_.end();
    if (*found) *der = it->second;
    return kOk;
  }

  int PutCertificate(const std::string& label, const unsigned char* der, size_t n) override {
    if (der == nullptr || n == 0) return kBadArgument;
    if (certs_.count(label)) return kLabelExists;
    certs_[label].assign(der, der + n);
    return kOk;
  }

  int CheckKeyPair(const Bytes& modulus, const Bytes& exponent,
                   const std::string& privLabel) override {
    auto it = privates_.find(privLabel);
    if (it == privates_.end()) return kObjectNotFound;
    const Bytes* c = it->second->comp;
    return SameInteger(c[0], modulus) && SameInteger(c[1], exponent) ? kOk : kBadKeyPair;
  }

  int GenerateKeyPair(int bits, bool onToken, const std::string& pubLabel,
                      const std::string& privLabel, Bytes comp[8]) override {
    if (onToken) {
      if (publics_.count(pubLabel)) return KV_P11_ERR_PUB_LABEL_TAKEN;
      if (privates_.count(privLabel)) return KV_P11_ERR_PRIV_LABEL_TAKEN;
    } else if (comp == nullptr) {
      return kBadArgument;
    }
    KV_RSA_COMPONENT* raw = nullptr;
    const int rc = KV_RSA_GenerateKeyPairEx(bits, &raw, nullptr, KV_RSA_OsRandom, nullptr);
    RsaKeyPairPtr block(raw);
    if (rc != 0) return rc;
    auto priv = std::make_unique<PrivateObject>();
    for (int i = 0; i < 8; ++i) priv->comp[i].assign(raw[i].data, raw[i].data + raw[i].len);
    if (onToken) {
      publics_[pubLabel] = {priv->comp[0], priv->comp[1]};
      privates_[privLabel] = std::move(priv);
    } else {
      for (int i = 0; i < 8; ++i) comp[i].swap(priv->comp[i]);
    }
    return kOk;
  }

 private:
  // Points *ctx at a loaded context for the key (owned by the cache). An
  // in-memory key or a token key of this store; publicOnly loads just the
  // modulus and exponent of a private key.
  int LoadRsa(const KeyInfo& key, KV_RSA_CTX** ctx, bool publicOnly = false) {
    const Bytes* comp = nullptr;
    int count = 0;
    if (key.onToken) {
      if (key.accessKind == KV_AK_PRIVATE) {
        auto it = privates_.find(key.label);
        if (it == privates_.end()) return kObjectNotFound;
        comp = it->second->comp;
        count = 8;
      } else if (key.accessKind == KV_AK_PUBLIC) {
        auto it = publics_.find(key.label);
        if (it == publics_.end()) return kObjectNotFound;
        tokenPublic_[0] = it->second.first;
        tokenPublic_[1] = it->second.second;
        comp = tokenPublic_;
        count = 2;
      } else {
        return kObjectNotFound;  // no secret keys are kept on the soft token
      }
    } else if (key.kind == KV_KEY_RSA_PUBLIC) {
      comp = key.comp;
      count = 2;
    } else if (key.kind == KV_KEY_RSA_PRIVATE) {
      comp = key.comp;
      count = 8;
    } else {
      return kBadKeyObject;
    }
    if (publicOnly) count = 2;
    CachedCtx& cache = count == 8 ? privateCache_ : publicCache_;
    if (!cache.Matches(comp, count)) {
      cache.Clear();
      KV_RSA_COMPONENT parts[8] = {};
      for (int i = 0; i < count; ++i) {
        if (comp[i].empty()) return kBadKeyInfo;
        parts[i].data = const_cast<unsigned char*>(comp[i].data());
        parts[i].len = static_cast<unsigned>(comp[i].size());
      }
      KV_RSA_CTX* loaded = nullptr;
      const int rc = KV_RSA_LoadKey(
          parts, count == 8 ? KV_RSA_PRIVATE_BLOCK_SIZE : KV_RSA_PUBLIC_BLOCK_SIZE, &loaded);
      if (rc != 0) return rc;
      cache.ctx.reset(loaded);
      for (int i = 0; i < count; ++i) cache.comp[i] = comp[i];
      cache.count = count;
    }
    *ctx = cache.ctx.get();
    return kOk;
  }

  int Cipher(const AlgInfo& alg, const KeyInfo& key, const unsigned char* in, size_t n, Bytes& out,
             bool encrypt) {
    if (alg.kind == KV_ALG_RSA) return RsaCipher(key, in, n, out, encrypt);
    if (alg.kind < KV_ALG_DES_CBC || alg.kind > KV_ALG_RC4) return WrongKind(alg.kind);
    if (key.onToken) return kObjectNotFound;  // no secret keys are kept on the soft token
    if (key.secret.empty()) return kBadKeyObject;
    const unsigned char* k = key.secret.data();
    const size_t kLen = key.secret.size();
    if (in == nullptr && n != 0) return kBadArgument;
    in = NonNull(in);

    if (alg.kind == KV_ALG_RC4) {
      if (kLen > kv::Rc4::kMaxKeySize) return kBadKeyInfo;
      out.resize(n);
      if (n != 0 && !kv::Rc4::Process(k, kLen, in, out.data(), n)) return kBadKeyInfo;
      return kOk;
    }

    bool keyOk = false;
    int bits = 0;
    switch (alg.kind) {
      case KV_ALG_DES_CBC:
        keyOk = kLen == kv::Des::kKeySize;
        break;
      case KV_ALG_DES_EDE3_CBC:
        keyOk = kLen == 16 || kLen == 24;
        break;
      default:  // RC2: the algorithm's effective bits, else the key's size value
        bits = alg.effectiveBits > 0 ? alg.effectiveBits
                                     : (key.size > 0 ? key.size * 8 : static_cast<int>(kLen * 8));
        keyOk = kLen <= kv::Rc2::kMaxKeySize;
        if (bits > kv::Rc2::kMaxEffectiveBits) return kBadAlgInfo;
        break;
    }
    if (!keyOk) return kBadKeyInfo;
    if (alg.iv.size() != 8) return kBadAlgInfo;
    if (!encrypt && (n == 0 || n % 8 != 0)) return kBadLength;
    out.resize(n + 8);
    size_t len = 0;
    const uint8_t* iv = alg.iv.data();
    bool ok;
    switch (alg.kind) {
      case KV_ALG_DES_CBC:
        ok = encrypt ? kv::DesCbcEncrypt(k, kLen, iv, 8, in, n, out.data(), &len)
                     : kv::DesCbcDecrypt(k, kLen, iv, 8, in, n, out.data(), &len);
        break;
      case KV_ALG_DES_EDE3_CBC:
        ok = encrypt ? kv::TripleDesCbcEncrypt(k, kLen, iv, 8, in, n, out.data(), &len)
                     : kv::TripleDesCbcDecrypt(k, kLen, iv, 8, in, n, out.data(), &len);
        break;
      default:
        ok = encrypt ? kv::Rc2CbcEncrypt(k, kLen, bits, iv, 8, in, n, out.data(), &len)
                     : kv::Rc2CbcDecrypt(k, kLen, bits, iv, 8, in, n, out.data(), &len);
        break;
    }
    if (!ok) {
      WipeBytes(out);
      // Encryption fails only on key material; decryption also on the padding.
      return encrypt ? kBadKeyInfo : kBadArgument;
    }
    out.resize(len);
    return kOk;
  }

  int RsaCipher(const KeyInfo& key, const unsigned char* in, size_t n, Bytes& out, bool encrypt) {
    if (in == nullptr && n != 0) return kBadArgument;
    KV_RSA_CTX* ctx = nullptr;
    if (int rc = LoadRsa(key, &ctx)) return rc;
    const unsigned k = KV_RSA_ModulusLength(ctx);
    if (n > KV_RSA_MAX_MODULUS_BYTES) return kBadLength;
    out.resize(k);
    unsigned len = 0;
    const int rc = encrypt ? KV_RSA_Encrypt(ctx, NonNull(in), out.data(), unsigned(n), &len)
                           : KV_RSA_Decrypt(ctx, NonNull(in), out.data(), unsigned(n), &len);
    if (rc != 0) {
      WipeBytes(out);
      return rc;
    }
    out.resize(len);
    return kOk;
  }

  std::map<std::string, Bytes> certs_;
  std::map<std::string, std::pair<Bytes, Bytes>> publics_;
  std::map<std::string, std::unique_ptr<PrivateObject>> privates_;
  Bytes tokenPublic_[2];
  CachedCtx privateCache_;
  CachedCtx publicCache_;
};

}  // namespace

std::unique_ptr<Store> OpenSoftStore() {
  return std::make_unique<SoftStore>();
}

}  // namespace kv::p11
