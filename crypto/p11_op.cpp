// KV_P11_OP: the operation object. Every operation builds the core's key and
// algorithm descriptors, calls the opened store, copies the result out and
// releases everything it made on every path. No exception leaves a method.
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "asn1/types/types.h"
#include "crypto/internal/p11_core.h"
#include "crypto/internal/p11_util.h"
#include "crypto/internal/wipe.h"
#include "crypto/p11.h"

using kv::p11::AlgInfo;
using kv::p11::Bytes;
using kv::p11::KeyInfo;

namespace {

struct AlgFree {
  void operator()(AlgInfo* p) const {
    KV_P11_Alg::FreeICKAIObj(reinterpret_cast<unsigned char*>(p));
  }
};
struct KeyFree {
  void operator()(KeyInfo* p) const {
    KV_P11_Key::FreeICKKIObj(reinterpret_cast<unsigned char*>(p));
  }
};
using AlgPtr = std::unique_ptr<AlgInfo, AlgFree>;
using KeyPtr = std::unique_ptr<KeyInfo, KeyFree>;

int BuildKey(KV_P11_Key& key, KeyPtr& out) {
  unsigned char* raw = nullptr;
  const int rc = key.GetICKKIObj(&raw, key.getAK());
  out.reset(reinterpret_cast<KeyInfo*>(raw));
  return rc;
}

int BuildAlg(KV_P11_Alg& alg, int keyAccessKind, AlgPtr& out) {
  unsigned char* raw = nullptr;
  const int rc = alg.GetICKAIObj(&raw, keyAccessKind);
  out.reset(reinterpret_cast<AlgInfo*>(raw));
  return rc;
}

// Runs body, turning any exception into a status: memory exhaustion into
// -1031, anything else into the core's "bad argument".
template <class F>
int Guarded(F&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return KV_P11_ERR_MEMORY;
  } catch (...) {
    return kv::p11::kBadArgument;
  }
}

// Releases a result that may hold plaintext or key bytes.
struct WipeOnExit {
  Bytes& b;
  ~WipeOnExit() { kv::p11::WipeBytes(b); }
};

KV_PKCS11_S* CopyDescription(const KV_PKCS11_S* src) {
  auto* d = new KV_PKCS11_S{src->selector, nullptr, 0, nullptr, 0};
  if (src->label != nullptr && src->labelLen != 0) {
    d->label = kv::p11::DupBytes(src->label, src->labelLen);
    d->labelLen = src->labelLen;
  }
  if (src->pin != nullptr && src->pinLen != 0) {
    d->pin = kv::p11::DupBytes(src->pin, src->pinLen);
    d->pinLen = src->pinLen;
  }
  if ((src->labelLen && src->label && !d->label) || (src->pinLen && src->pin && !d->pin)) {
    kv::p11::FreeWiped(d->label, d->labelLen);
    kv::p11::FreeWiped(d->pin, d->pinLen);
    delete d;
    throw std::bad_alloc();
  }
  return d;
}

void FreeDescription(KV_PKCS11_S* d) {
  if (d == nullptr) return;
  kv::p11::FreeWiped(d->label, d->labelLen);
  kv::p11::FreeWiped(d->pin, d->pinLen);
  delete d;
}

std::string Text(const unsigned char* p, size_t n) {
  return p ? std::string(reinterpret_cast<const char*>(p), n) : std::string();
}

// A label as the token keeps it: the bytes up to the first NUL.
std::string LabelOf(const MiByte& label) {
  const char* p = label.GetChars();
  return p ? std::string(p, strnlen(p, label.GetLength())) : std::string();
}

}  // namespace

KV_P11_OP::KV_P11_OP() = default;

KV_P11_OP::KV_P11_OP(const KV_P11_OP& other) {
  *this = other;
}

KV_P11_OP& KV_P11_OP::operator=(const KV_P11_OP& other) {
  if (this == &other) return *this;
  Reset();
  // The copy opens a chooser of its own from the same description; when that
  // fails it stays unopened, as a fresh object would.
  if (other.desc_ != nullptr) createChooser(other.desc_);
  return *this;
}

KV_P11_OP::~KV_P11_OP() {
  Reset();
}

void KV_P11_OP::Reset() {
  destroyChooser();
}

int KV_P11_OP::createChooser(void* chooser) {
  if (chooser == nullptr) return kv::p11::kBadArgument;
  return Guarded([&]() -> int {
    const auto* s = static_cast<const KV_PKCS11_S*>(chooser);
    std::unique_ptr<KV_PKCS11_S, void (*)(KV_PKCS11_S*)> desc(CopyDescription(s), FreeDescription);
    std::string pin = Text(desc->pin, desc->pinLen);
    std::unique_ptr<kv::p11::Store> store;
    int rc =
        kv::p11::OpenModuleStore(desc->selector, Text(desc->label, desc->labelLen), pin, &store);
    kv::internal::Wipe(&pin[0], pin.size());
    if (rc < 0) return rc;
    if (rc > 0 || !store) store = kv::p11::OpenSoftStore();
    destroyChooser();
    store_ = store.release();
    desc_ = desc.release();
    return 0;
  });
}

int KV_P11_OP::destroyChooser() {
  delete store_;
  store_ = nullptr;
  FreeDescription(desc_);
  desc_ = nullptr;
  return 0;
}

bool KV_P11_OP::onModule() const {
  return store_ != nullptr && store_->OnModule();
}

int KV_P11_OP::Digest(KV_P11_Alg& alg, MiByte& in, MiByte& out) {
  if (store_ == nullptr) return kv::p11::kChooserFailed;
  return Guarded([&]() -> int {
    AlgPtr a;
    if (int rc = BuildAlg(alg, KV_AK_SECRET, a)) return rc;
    Bytes result;
    result.reserve(256);
    if (int rc = store_->Digest(*a, in.GetBytes(), in.GetLength(), result)) return rc;
    kv::p11::AssignOut(out, result);
    return 0;
  });
}

int KV_P11_OP::GenerateRandom(MiByte& out, int len, MiByte& seed) {
  if (store_ == nullptr) return kv::p11::kChooserFailed;
  if (len < 0) return kv::p11::kBadArgument;
  return Guarded([&]() -> int {
    Bytes result(static_cast<size_t>(len));
    WipeOnExit wipe{result};
    if (int rc = store_->Random(result.data(), result.size(), seed.GetBytes(), seed.GetLength())) {
      return rc;
    }
    kv::p11::AssignOut(out, result);
    return 0;
  });
}

namespace {

enum class Direction { kEncrypt, kDecrypt, kSign, kSignRecover };

int RunKeyed(kv::p11::Store* store, Direction dir, KV_P11_Alg& alg, KV_P11_Key& key, MiByte& in,
             MiByte& out) {
  if (store == nullptr) return kv::p11::kChooserFailed;
  return Guarded([&]() -> int {
    KeyPtr k;
    if (int rc = BuildKey(key, k)) return rc;
    AlgPtr a;
    if (int rc = BuildAlg(alg, key.getAK(), a)) return rc;
    Bytes result;
    WipeOnExit wipe{result};
    // Ciphers add at most a block; an RSA block may be longer than that and
    // the buffer grows to the modulus length then.
    result.reserve(static_cast<size_t>(in.GetLength()) + 128);
    const unsigned char* p = in.GetBytes();
    const size_t n = in.GetLength();
    int rc;
    switch (dir) {
      case Direction::kEncrypt:
        rc = store->Encrypt(*a, *k, p, n, result);
        break;
      case Direction::kDecrypt:
        rc = store->Decrypt(*a, *k, p, n, result);
        break;
      case Direction::kSign:
        rc = store->Sign(*a, *k, p, n, result);
        break;
      default:
        rc = store->SignRecover(*a, *k, p, n, result);
        break;
    }
    if (rc != 0) return rc;
    kv::p11::AssignOut(out, result);
    return 0;
  });
}

}  // namespace

int KV_P11_OP::Encrypt(KV_P11_Alg& alg, KV_P11_Key& key, MiByte& in, MiByte& out) {
  return RunKeyed(store_, Direction::kEncrypt, alg, key, in, out);
}

int KV_P11_OP::Decrypt(KV_P11_Alg& alg, KV_P11_Key& key, MiByte& in, MiByte& out) {
  return RunKeyed(store_, Direction::kDecrypt, alg, key, in, out);
}

int KV_P11_OP::Sign(KV_P11_Alg& alg, KV_P11_Key& key, MiByte& in, MiByte& out) {
  return RunKeyed(store_, Direction::kSign, alg, key, in, out);
}

int KV_P11_OP::SignRecover(KV_P11_Alg& alg, KV_P11_Key& key, MiByte& in, MiByte& out) {
  return RunKeyed(store_, Direction::kSignRecover, alg, key, in, out);
}

int KV_P11_OP::Verify(KV_P11_Alg& alg, KV_P11_Key& key, MiByte& data, MiByte& signature) {
  if (store_ == nullptr) return kv::p11::kChooserFailed;
  return Guarded([&]() -> int {
    KeyPtr k;
    if (int rc = BuildKey(key, k)) return rc;
    AlgPtr a;
    if (int rc = BuildAlg(alg, key.getAK(), a)) return rc;
    return store_->Verify(*a, *k, data.GetBytes(), data.GetLength(), signature.GetBytes(),
                          signature.GetLength());
  });
}

namespace {

int RunBig(kv::p11::Store* store, bool encrypt, KV_P11_Key& key, MiByte& in, MiByte& out) {
  if (store == nullptr) return kv::p11::kChooserFailed;
  return Guarded([&]() -> int {
    KeyPtr k;
    if (int rc = BuildKey(key, k)) return rc;
    const unsigned char* p = in.GetBytes();
    const size_t n = in.GetLength();
    auto call = [&](unsigned char* buf, size_t* len) {
      return encrypt ? store->BigEncrypt(*k, p, n, buf, len)
                     : store->BigDecrypt(*k, p, n, buf, len);
    };
    size_t len = 0;
    if (int rc = call(nullptr, &len)) return rc;
    Bytes result(len);
    WipeOnExit wipe{result};
    if (int rc = call(result.data(), &len)) return rc;
    result.resize(len);
    kv::p11::AssignOut(out, result);
    return 0;
  });
}

}  // namespace

int KV_P11_OP::RSABigEncrypt(KV_P11_Key& key, MiByte& in, MiByte& out) {
  return RunBig(store_, true, key, in, out);
}

int KV_P11_OP::RSABigDecrypt(KV_P11_Key& key, MiByte& in, MiByte& out) {
  return RunBig(store_, false, key, in, out);
}

int KV_P11_OP::GetHardPubKey(MiByte& label, KV_P11_Key& key) {
  if (store_ == nullptr) return kv::p11::kChooserFailed;
  if (label.Empty()) return KV_P11_ERR_ARGUMENT;
  return Guarded([&]() -> int {
    Bytes n, e;
    if (int rc = store_->GetPublicKey(LabelOf(label), &n, &e)) return rc;
    KV_PKCS11_RSA_PUBLIC_KEY pub{n.data(), static_cast<unsigned>(n.size()), e.data(),
                                 static_cast<unsigned>(e.size())};
    KV_P11_Key fresh;
    if (int rc = fresh.setPublicKey(&pub)) return rc;
    fresh.setKeyType(KV_KEY_RSA_PUBLIC);
    key = fresh;
    return 0;
  });
}

int KV_P11_OP::GetCertFromToken(unsigned char* label, unsigned len, unsigned char* out,
                                unsigned* outLen) {
  if (label == nullptr || outLen == nullptr || len == 0) return KV_P11_ERR_ARGUMENT;
  if (store_ == nullptr) return kv::p11::kChooserFailed;
  return Guarded([&]() -> int {
    Bytes der;
    bool found = false;
    if (int rc = store_->GetCertificate(Text(label, len), &der, &found)) return rc;
    *outLen = found ? static_cast<unsigned>(der.size()) : 0;
    if (out != nullptr && !der.empty()) std::memcpy(out, der.data(), der.size());
    return 0;
  });
}

int KV_P11_OP::SetCertIntoToken(unsigned char* label, unsigned len, unsigned char* cert,
                                unsigned certLen) {
  if (label == nullptr || len == 0 || cert == nullptr || certLen == 0) {
    return KV_P11_ERR_ARGUMENT;
  }
  if (store_ == nullptr) return kv::p11::kChooserFailed;
  return Guarded([&]() -> int {
    const std::string name = Text(label, len);
    bool found = false;
    if (int rc = store_->FindObject(name, KV_OBJ_CERTIFICATE, &found)) return rc;
    if (found) return KV_P11_ERR_CERT_LABEL_TAKEN;
    const int rc = store_->PutCertificate(name, cert, certLen);
    return rc == kv::p11::kLabelExists ? KV_P11_ERR_CERT_LABEL_TAKEN : rc;
  });
}

bool KV_P11_OP::CheckLabelExistInToken(unsigned char* label, unsigned len, unsigned kind) {
  if (store_ == nullptr || label == nullptr || len == 0) return false;
  if (kind < KV_OBJ_CERTIFICATE || kind > KV_OBJ_PRIVATE_KEY) return false;
  bool found = false;
  const int rc =
      Guarded([&] { return store_->FindObject(Text(label, len), static_cast<int>(kind), &found); });
  return rc == 0 && found;
}

bool KV_P11_OP::CheckRSAKeyPair(RSAPublicKey& pub, unsigned char* label, unsigned len) {
  if (store_ == nullptr || label == nullptr || len == 0) return false;
  const int rc = Guarded([&]() -> int {
    KV_P11_Key key;
    if (int r = key.setRSAPublicKey(pub)) return r;
    key.setKeyType(KV_KEY_RSA_PUBLIC);
    KeyPtr k;
    if (int r = BuildKey(key, k)) return r;
    return store_->CheckKeyPair(k->comp[0], k->comp[1], Text(label, len));
  });
  return rc == 0;
}

int KV_P11_OP::GenRSAKeyPair(KV_P11_Key& pub, MiByte& pubLabel, KV_P11_Key& priv, MiByte& privLabel,
                             int bits, int onToken) {
  if (bits != 512 && bits != 1024 && bits != 2048) bits = 1024;
  const bool token = onToken != 0;
  if (pubLabel.Empty() || privLabel.Empty()) return KV_P11_ERR_ARGUMENT;
  if (store_ == nullptr) return kv::p11::kChooserFailed;
  const int rc = Guarded([&]() -> int {
    std::string pubName, privName;
    try {
      pubName = LabelOf(pubLabel);
      privName = LabelOf(privLabel);
    } catch (...) {
      return static_cast<int>(KV_P11_ERR_MEMORY);
    }
    if (token) {
      bool found = false;
      if (int r = store_->FindObject(pubName, KV_OBJ_PUBLIC_KEY, &found)) return r;
      if (found) return static_cast<int>(KV_P11_ERR_PUB_LABEL_TAKEN);
      if (int r = store_->FindObject(privName, KV_OBJ_PRIVATE_KEY, &found)) return r;
      if (found) return static_cast<int>(KV_P11_ERR_PRIV_LABEL_TAKEN);
    }
    Bytes comp[8];
    struct WipeAll {
      Bytes* c;
      ~WipeAll() {
        for (int i = 0; i < 8; ++i) kv::p11::WipeBytes(c[i]);
      }
    } wipe{comp};
    if (int r = store_->GenerateKeyPair(bits, token, pubName, privName, comp)) return r;

    KV_P11_Key newPub, newPriv;
    if (token) {
      if (int r = store_->GetPublicKey(pubName, &comp[0], &comp[1])) return r;
    }
    KV_PKCS11_RSA_PUBLIC_KEY p{comp[0].data(), static_cast<unsigned>(comp[0].size()),
                               comp[1].data(), static_cast<unsigned>(comp[1].size())};
    if (int r = newPub.setPublicKey(&p)) return r;
    newPub.setKeyType(KV_KEY_RSA_PUBLIC);
    if (token) {
      if (int r = newPriv.setTokenKeyLabel(
              reinterpret_cast<unsigned char*>(const_cast<char*>(privName.c_str())))) {
        return r;
      }
    } else {
      KV_PKCS11_RSA_PRIVATE_KEY s{};
      unsigned char** data[8] = {&s.modulus, &s.publicExponent, &s.privateExponent, &s.prime1,
                                 &s.prime2,  &s.exponent1,      &s.exponent2,       &s.coefficient};
      unsigned* lens[8] = {&s.modulusLen,   &s.publicExponentLen, &s.privateExponentLen,
                           &s.prime1Len,    &s.prime2Len,         &s.exponent1Len,
                           &s.exponent2Len, &s.coefficientLen};
      for (int i = 0; i < 8; ++i) {
        *data[i] = comp[i].data();
        *lens[i] = static_cast<unsigned>(comp[i].size());
      }
      if (int r = newPriv.setPrivateKey(&s)) return r;
    }
    newPriv.setKeyType(KV_KEY_RSA_PRIVATE);
    pub = newPub;
    priv = newPriv;
    return 0;
  });
  return rc;
}
