// KV_P11_Key: one key (session key, RSA public or private key, or a token key
// reference), its plain-structure and ASN.1 forms, and the key descriptor
// handed to the crypto core. Every secret buffer is wiped before it is freed.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "asn1/types/types.h"
#include "crypto/internal/p11_util.h"
#include "crypto/internal/wipe.h"
#include "crypto/p11.h"

using kv::p11::Bytes;
using kv::p11::KeyInfo;

kv::p11::KeyInfo::~KeyInfo() {
  WipeBytes(secret);
  for (Bytes& c : comp) WipeBytes(c);
}

namespace {

// Copies (p, n) into part, replacing what it held. False when out of memory.
template <class Part>
bool SetPart(Part& part, const unsigned char* p, unsigned n) {
  unsigned char* copy = kv::p11::DupBytes(p, n);
  if (copy == nullptr) return false;
  kv::p11::FreeWiped(part.data, part.len);
  part.data = copy;
  part.len = n;
  return true;
}

template <class Part>
void FreePart(Part& part) {
  kv::p11::FreeWiped(part.data, part.len);
  part.data = nullptr;
  part.len = 0;
}

template <class Part>
bool Held(const Part& part) {
  return part.data != nullptr && part.len != 0;
}

// A T_malloc copy for the caller, or null.
unsigned char* CallerCopy(const unsigned char* p, unsigned n) {
  auto* block = static_cast<unsigned char*>(T_malloc(n));
  if (block != nullptr && n != 0) std::memcpy(block, p, n);
  return block;
}

// Unsigned big-endian magnitude of an ASN.1 INTEGER; empty when it holds no
// octets or is negative.
MiByte Magnitude(const AsnInteger* i) {
  if (i == nullptr || i->GetData().Size() == 0 || i->GetData().IsNegative()) return MiByte();
  return i->GetData().GetMagnitude();
}

AsnInteger IntegerOf(const unsigned char* p, unsigned n) {
  return AsnInteger(MiBigInteger::FromMagnitude(p, n));
}

}  // namespace

KV_P11_Key::KV_P11_Key(const KV_P11_Key& other) {
  CopyFrom(other);
}

KV_P11_Key& KV_P11_Key::operator=(const KV_P11_Key& other) {
  if (this == &other) return *this;
  KV_P11_Key copy(other);
  std::swap(kind_, copy.kind_);
  std::swap(tokenKey_, copy.tokenKey_);
  std::swap(label_, copy.label_);
  std::swap(session_, copy.session_);
  std::swap(sessionSize_, copy.sessionSize_);
  std::swap(public_, copy.public_);
  std::swap(private_, copy.private_);
  return *this;
}

KV_P11_Key::~KV_P11_Key() {
  FreeAll();
}

void KV_P11_Key::Reset() {
  FreeAll();
}

void KV_P11_Key::FreeAll() {
  kind_ = -1;
  tokenKey_ = 0;
  if (label_ != nullptr) {
    kv::p11::FreeWiped(reinterpret_cast<unsigned char*>(label_), std::strlen(label_));
    label_ = nullptr;
  }
  FreePart(session_);
  sessionSize_ = 0;
  for (Part& p : public_) FreePart(p);
  for (Part& p : private_) FreePart(p);
}

// Leaves *this empty and throws std::bad_alloc when a copy fails.
void KV_P11_Key::CopyFrom(const KV_P11_Key& other) {
  kind_ = other.kind_;
  tokenKey_ = other.tokenKey_;
  sessionSize_ = other.sessionSize_;
  bool ok = true;
  if (other.label_ != nullptr) {
    label_ = reinterpret_cast<char*>(kv::p11::DupBytes(
        reinterpret_cast<const unsigned char*>(other.label_), std::strlen(other.label_)));
    ok = label_ != nullptr;
  }
  auto copy = [&ok](Part& to, const Part& from) {
    if (ok && from.data != nullptr) ok = SetPart(to, from.data, from.len);
  };
  copy(session_, other.session_);
  for (int i = 0; i < 2; ++i) copy(public_[i], other.public_[i]);
  for (int i = 0; i < 8; ++i) copy(private_[i], other.private_[i]);
  if (!ok) {
    FreeAll();
    throw std::bad_alloc();
  }
}

int KV_P11_Key::setKeyType(int kind) {
  kind_ = kind;
  return 0;
}

int KV_P11_Key::getKeyType(int& kind) const {
  kind = kind_ >= KV_KEY_DES3 && kind_ <= KV_KEY_DES3_2KEY ? kind_ : -1;
  return 0;
}

int KV_P11_Key::getAK() const {
  if (kind_ == KV_KEY_RSA_PUBLIC) return KV_AK_PUBLIC;
  if (kind_ == KV_KEY_RSA_PRIVATE) return KV_AK_PRIVATE;
  return KV_AK_SECRET;
}

int KV_P11_Key::setTokenKeyLabel(unsigned char* label) {
  if (label == nullptr) return KV_P11_ERR_ARGUMENT;
  const size_t n = std::strlen(reinterpret_cast<const char*>(label));
  unsigned char* copy = kv::p11::DupBytes(label, n);
  if (copy == nullptr) return KV_P11_ERR_MEMORY;
  if (label_ != nullptr) {
    kv::p11::FreeWiped(reinterpret_cast<unsigned char*>(label_), std::strlen(label_));
  }
  label_ = reinterpret_cast<char*>(copy);
  tokenKey_ = 1;
  return 0;
}

int KV_P11_Key::setSessionKey(KV_PKCS11_SESSION_KEY* key) {
  if (key == nullptr || key->key == nullptr || key->keyLen == 0) return KV_P11_ERR_ARGUMENT;
  if (!SetPart(session_, key->key, key->keyLen)) return KV_P11_ERR_MEMORY;
  sessionSize_ = key->size;
  return 0;
}

int KV_P11_Key::getSessionKey(KV_PKCS11_SESSION_KEY* key) {
  if (key == nullptr) return KV_P11_ERR_ARGUMENT;
  if (!Held(session_)) return KV_P11_ERR_NO_MATERIAL;
  unsigned char* copy = CallerCopy(session_.data, session_.len);
  if (copy == nullptr) return KV_P11_ERR_MEMORY;
  key->key = copy;
  key->keyLen = session_.len;
  key->size = sessionSize_;
  return 0;
}

int KV_P11_Key::setPublicKey(KV_PKCS11_RSA_PUBLIC_KEY* key) {
  if (key == nullptr || key->modulus == nullptr || key->modulusLen == 0 ||
      key->exponent == nullptr || key->exponentLen == 0) {
    return KV_P11_ERR_ARGUMENT;
  }
  Part fresh[2];
  if (!SetPart(fresh[0], key->modulus, key->modulusLen) ||
      !SetPart(fresh[1], key->exponent, key->exponentLen)) {
    for (Part& p : fresh) FreePart(p);
    return KV_P11_ERR_MEMORY;
  }
  for (int i = 0; i < 2; ++i) {
    FreePart(public_[i]);
    public_[i] = fresh[i];
  }
  kind_ = KV_KEY_RSA_PUBLIC;
  return 0;
}

int KV_P11_Key::getPublicKey(KV_PKCS11_RSA_PUBLIC_KEY* key) {
  if (key == nullptr) return KV_P11_ERR_ARGUMENT;
  if (!Held(public_[0]) || !Held(public_[1])) return KV_P11_ERR_NO_MATERIAL;
  unsigned char* n = CallerCopy(public_[0].data, public_[0].len);
  unsigned char* e = CallerCopy(public_[1].data, public_[1].len);
  if (n == nullptr || e == nullptr) {
    T_free(n);
    T_free(e);
    return KV_P11_ERR_MEMORY;
  }
  key->modulus = n;
  key->modulusLen = public_[0].len;
  key->exponent = e;
  key->exponentLen = public_[1].len;
  return 0;
}

namespace {
// The eight (pointer, length) pairs of the structure in component order.
struct PrivateView {
  unsigned char** data[8];
  unsigned int* len[8];
  explicit PrivateView(KV_PKCS11_RSA_PRIVATE_KEY* k)
      : data{&k->modulus, &k->publicExponent, &k->privateExponent, &k->prime1,
             &k->prime2,  &k->exponent1,      &k->exponent2,       &k->coefficient},
        len{&k->modulusLen, &k->publicExponentLen, &k->privateExponentLen, &k->prime1Len,
            &k->prime2Len,  &k->exponent1Len,      &k->exponent2Len,       &k->coefficientLen} {}
};
}  // namespace

int KV_P11_Key::setPrivateKey(KV_PKCS11_RSA_PRIVATE_KEY* key) {
  if (key == nullptr) return KV_P11_ERR_ARGUMENT;
  PrivateView v(key);
  for (int i = 0; i < 8; ++i) {
    if (*v.data[i] == nullptr || *v.len[i] == 0) return KV_P11_ERR_ARGUMENT;
  }
  Part fresh[8];
  for (int i = 0; i < 8; ++i) {
    if (!SetPart(fresh[i], *v.data[i], *v.len[i])) {
      for (Part& p : fresh) FreePart(p);
      return KV_P11_ERR_MEMORY;
    }
  }
  for (int i = 0; i < 8; ++i) {
    FreePart(private_[i]);
    private_[i] = fresh[i];
  }
  kind_ = KV_KEY_RSA_PRIVATE;
  return 0;
}

int KV_P11_Key::getPrivateKey(KV_PKCS11_RSA_PRIVATE_KEY* key) {
  if (key == nullptr) return KV_P11_ERR_ARGUMENT;
  for (const Part& p : private_) {
    if (!Held(p)) return KV_P11_ERR_NO_MATERIAL;
  }
  unsigned char* copies[8] = {};
  for (int i = 0; i < 8; ++i) {
    copies[i] = CallerCopy(private_[i].data, private_[i].len);
    if (copies[i] == nullptr) {
      for (int j = 0; j < i; ++j) {
        kv::internal::Wipe(copies[j], private_[j].len);
        T_free(copies[j]);
      }
      return KV_P11_ERR_MEMORY;
    }
  }
  PrivateView v(key);
  for (int i = 0; i < 8; ++i) {
    *v.data[i] = copies[i];
    *v.len[i] = private_[i].len;
  }
  return 0;
}

int KV_P11_Key::setSessionKey(MiByte& key, int size, AlgorithmIdentifier& alg) {
  if (key.Empty()) return KV_P11_ERR_ARGUMENT;
  int kind = -1;
  try {
    const AsnOid* oid = alg.GetAlgorithm();
    switch (oid ? kv::p11::KindOfOid(oid->GetData().GetChars()) : -1) {
      case KV_ALG_DES_CBC:
        kind = KV_KEY_DES;
        break;
      case KV_ALG_DES_EDE3_CBC:
        kind = size == 16 ? KV_KEY_DES3_2KEY : KV_KEY_DES3;
        break;
      case KV_ALG_RC2_CBC:
        kind = KV_KEY_RC2;
        break;
      case KV_ALG_RC4:
        kind = KV_KEY_RC4;
        break;
      default:
        break;
    }
  } catch (...) {
    return KV_P11_ERR_MEMORY;
  }
  if (!SetPart(session_, key.GetBytes(), key.GetLength())) return KV_P11_ERR_MEMORY;
  sessionSize_ = size;
  kind_ = kind;
  return 0;
}

int KV_P11_Key::getSessionKey(MiByte& key, int& size, AlgorithmIdentifier& alg) {
  if (!Held(session_)) return KV_P11_ERR_NO_MATERIAL;
  int algKind = -1;
  switch (kind_) {
    case KV_KEY_DES3:
    case KV_KEY_DES3_2KEY:
      algKind = KV_ALG_DES_EDE3_CBC;
      break;
    case KV_KEY_DES:
      algKind = KV_ALG_DES_CBC;
      break;
    case KV_KEY_RC2:
      algKind = KV_ALG_RC2_CBC;
      break;
    case KV_KEY_RC4:
      algKind = KV_ALG_RC4;
      break;
    default:
      break;
  }
  try {
    kv::p11::AssignOut(key, session_.data, session_.len);
    size = sessionSize_;
    if (algKind > 0) alg.SetAlgorithm(AsnOid(kv::p11::OidOfKind(algKind)));
  } catch (...) {
    return KV_P11_ERR_MEMORY;
  }
  return 0;
}

int KV_P11_Key::setRSAPublicKey(RSAPublicKey& key) {
  try {
    MiByte n = Magnitude(key.GetPkModulus());
    MiByte e = Magnitude(key.GetPublicExponent());
    if (n.Empty() || e.Empty()) return KV_P11_ERR_NO_MATERIAL;
    KV_PKCS11_RSA_PUBLIC_KEY s{reinterpret_cast<unsigned char*>(n.GetChars()), n.GetLength(),
                               reinterpret_cast<unsigned char*>(e.GetChars()), e.GetLength()};
    return setPublicKey(&s);
  } catch (...) {
    return KV_P11_ERR_MEMORY;
  }
}

int KV_P11_Key::getRSAPublicKey(RSAPublicKey& key) {
  if (!Held(public_[0]) || !Held(public_[1])) return KV_P11_ERR_NO_MATERIAL;
  try {
    key.SetPkModulus(IntegerOf(public_[0].data, public_[0].len));
    key.SetPublicExponent(IntegerOf(public_[1].data, public_[1].len));
  } catch (...) {
    return KV_P11_ERR_MEMORY;
  }
  return 0;
}

int KV_P11_Key::setRSAPrivateKey(RSAPrivateKey& key) {
  try {
    const AsnInteger* ints[8] = {key.GetPkModulus(),       key.GetPublicExponent(),
                                 key.GetPrivateExponent(), key.GetPrime1(),
                                 key.GetPrime2(),          key.GetExponent1(),
                                 key.GetExponent2(),       key.GetCoefficient()};
    MiByte mags[8];
    for (int i = 0; i < 8; ++i) {
      mags[i] = Magnitude(ints[i]);
      if (mags[i].Empty()) {
        for (MiByte& m : mags) {
          if (!m.Empty()) kv::internal::Wipe(m.GetChars(), m.GetLength());
        }
        return KV_P11_ERR_NO_MATERIAL;
      }
    }
    KV_PKCS11_RSA_PRIVATE_KEY s{};
    PrivateView v(&s);
    for (int i = 0; i < 8; ++i) {
      *v.data[i] = reinterpret_cast<unsigned char*>(mags[i].GetChars());
      *v.len[i] = mags[i].GetLength();
    }
    const int rc = setPrivateKey(&s);
    for (MiByte& m : mags) kv::internal::Wipe(m.GetChars(), m.GetLength());
    return rc;
  } catch (...) {
    return KV_P11_ERR_MEMORY;
  }
}

int KV_P11_Key::getRSAPrivateKey(RSAPrivateKey& key) {
  for (const Part& p : private_) {
    if (!Held(p)) return KV_P11_ERR_NO_MATERIAL;
  }
  try {
    key.SetVersion(AsnInteger(int64_t{0}));
    key.SetPkModulus(IntegerOf(private_[0].data, private_[0].len));
    key.SetPublicExponent(IntegerOf(private_[1].data, private_[1].len));
    key.SetPrivateExponent(IntegerOf(private_[2].data, private_[2].len));
    key.SetPrime1(IntegerOf(private_[3].data, private_[3].len));
    key.SetPrime2(IntegerOf(private_[4].data, private_[4].len));
    key.SetExponent1(IntegerOf(private_[5].data, private_[5].len));
    key.SetExponent2(IntegerOf(private_[6].data, private_[6].len));
    key.SetCoefficient(IntegerOf(private_[7].data, private_[7].len));
  } catch (...) {
    return KV_P11_ERR_MEMORY;
  }
  return 0;
}

int KV_P11_Key::GetICKKIObj(unsigned char** out, int keyAccessKind) {
  if (out == nullptr) return KV_P11_ERR_ARGUMENT;
  *out = nullptr;
  try {
    auto info = std::make_unique<KeyInfo>();
    info->accessKind = keyAccessKind;
    info->kind = kind_;
    info->size = sessionSize_;
    auto take = [](Bytes& to, const Part& from) { to.assign(from.data, from.data + from.len); };
    if (tokenKey_) {
      info->onToken = true;
      info->label = label_ ? label_ : "";
    } else {
      switch (kind_) {
        case KV_KEY_DES3:
        case KV_KEY_DES:
        case KV_KEY_RC4:
        case KV_KEY_DES3_2KEY:
        case KV_KEY_RC2:
          if (!Held(session_)) return KV_P11_ERR_NO_MATERIAL;
          if (kind_ == KV_KEY_RC2 && sessionSize_ > static_cast<int>(session_.len)) {
            return KV_P11_ERR_RC2_SIZE;
          }
          take(info->secret, session_);
          break;
        case KV_KEY_RSA_PUBLIC:
          if (!Held(public_[0]) || !Held(public_[1])) return KV_P11_ERR_NO_MATERIAL;
          for (int i = 0; i < 2; ++i) take(info->comp[i], public_[i]);
          break;
        case KV_KEY_RSA_PRIVATE:
          for (const Part& p : private_) {
            if (!Held(p)) return KV_P11_ERR_NO_MATERIAL;
          }
          for (int i = 0; i < 8; ++i) take(info->comp[i], private_[i]);
          break;
        default:
          return KV_P11_ERR_UNSUPPORTED;
      }
    }
    *out = reinterpret_cast<unsigned char*>(info.release());
    return 0;
  } catch (...) {
    return KV_P11_ERR_MEMORY;
  }
}

void KV_P11_Key::FreeICKKIObj(unsigned char* obj) {
  delete reinterpret_cast<KeyInfo*>(obj);
}
