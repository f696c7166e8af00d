// KV_P11_Alg: an algorithm kind with its IV and RC2 effective bits, read from
// and written to AlgorithmIdentifier, and the algorithm descriptor handed to
// the crypto core.
#include <cstdlib>
#include <cstring>
#include <new>

#include "asn1/asn_any.h"
#include "asn1/types/types.h"
#include "crypto/internal/p11_util.h"
#include "crypto/internal/wipe.h"
#include "crypto/p11.h"

namespace kv::p11 {

namespace {
const char* const kOids[] = {
    nullptr,
    "1.3.14.3.2.26",         // 1 SHA-1
    "1.2.840.113549.2.5",    // 2 MD5
    "1.2.840.113549.2.2",    // 3 MD2
    "1.3.14.3.2.7",          // 4 DES-CBC
    "1.2.840.113549.3.7",    // 5 DES-EDE3-CBC
    "1.2.840.113549.3.2",    // 6 RC2-CBC
    "1.2.840.113549.3.4",    // 7 RC4
    "1.2.840.113549.1.1.1",  // 8 RSA
    "1.2.840.113549.1.1.5",  // 9 SHA-1 with RSA
    "1.2.840.113549.1.1.4",  // 10 MD5 with RSA
    "1.2.840.113549.1.1.2",  // 11 MD2 with RSA
};
constexpr int kKindCount = 11;
}  // namespace

const char* OidOfKind(int kind) {
  return kind >= 1 && kind <= kKindCount ? kOids[kind] : nullptr;
}

int KindOfOid(const char* dotted) {
  if (dotted == nullptr) return -1;
  for (int k = 1; k <= kKindCount; ++k) {
    if (std::strcmp(kOids[k], dotted) == 0) return k;
  }
  return -1;
}

int Rc2BitsOfVersion(long version) {
  switch (version) {
    case 160:
      return 40;
    case 120:
      return 64;
    case 58:
      return 128;
    default:
      return -1;
  }
}

int Rc2VersionOfBits(int bits) {
  switch (bits) {
    case 40:
      return 160;
    case 64:
      return 120;
    case 128:
      return 58;
    default:
      return -1;
  }
}

unsigned char* DupBytes(const unsigned char* p, size_t n) {
  auto* block = static_cast<unsigned char*>(std::malloc(n + 1));
  if (block == nullptr) return nullptr;
  if (n != 0) std::memcpy(block, p, n);
  block[n] = 0;
  return block;
}

void FreeWiped(unsigned char* p, size_t n) {
  if (p == nullptr) return;
  kv::internal::Wipe(p, n);
  std::free(p);
}

void AssignOut(MiByte& out, const unsigned char* p, size_t n) {
  if (n == 0) {
    out = MiByte();
  } else {
    out = MiByte(reinterpret_cast<const char*>(p), static_cast<unsigned>(n));
  }
}

void WipeBytes(Bytes& b) {
  if (!b.empty()) kv::internal::Wipe(b.data(), b.size());
  b.clear();
}

}  // namespace kv::p11

using kv::p11::AlgInfo;

KV_P11_Alg::KV_P11_Alg(const KV_P11_Alg& other)
    : kind_(other.kind_), effectiveBits_(other.effectiveBits_) {
  if (other.iv_ != nullptr) {
    iv_ = kv::p11::DupBytes(other.iv_, other.ivLen_);
    if (iv_ == nullptr) throw std::bad_alloc();
    ivLen_ = other.ivLen_;
  }
}

KV_P11_Alg& KV_P11_Alg::operator=(const KV_P11_Alg& other) {
  if (this == &other) return *this;
  unsigned char* iv = nullptr;
  if (other.iv_ != nullptr) {
    iv = kv::p11::DupBytes(other.iv_, other.ivLen_);
    if (iv == nullptr) throw std::bad_alloc();
  }
  Clear();
  kind_ = other.kind_;
  effectiveBits_ = other.effectiveBits_;
  iv_ = iv;
  ivLen_ = iv ? other.ivLen_ : 0;
  return *this;
}

KV_P11_Alg::~KV_P11_Alg() {
  Clear();
}

void KV_P11_Alg::Clear() {
  kv::p11::FreeWiped(iv_, ivLen_);
  iv_ = nullptr;
  ivLen_ = 0;
  kind_ = -1;
  effectiveBits_ = 0;
}

int KV_P11_Alg::setAlgType(int kind) {
  kind_ = kind;
  return 0;
}

int KV_P11_Alg::getAlgType(int& kind) const {
  kind = kind_ >= KV_ALG_SHA1 && kind_ <= KV_ALG_MD2_RSA ? kind_ : -1;
  return 0;
}

int KV_P11_Alg::setIV(MiByte& iv) {
  if (iv.Empty()) return KV_P11_ERR_ARGUMENT;
  unsigned char* copy = kv::p11::DupBytes(iv.GetBytes(), iv.GetLength());
  if (copy == nullptr) return KV_P11_ERR_MEMORY;
  kv::p11::FreeWiped(iv_, ivLen_);
  iv_ = copy;
  ivLen_ = iv.GetLength();
  return 0;
}

int KV_P11_Alg::setEffectiveBits(int bits) {
  effectiveBits_ = bits;
  return 0;
}

int KV_P11_Alg::getEffectiveBits(int& bits) const {
  bits = effectiveBits_;
  return 0;
}

int KV_P11_Alg::getIV(MiByte& iv) const {
  if (iv_ == nullptr) return KV_P11_ERR_NO_MATERIAL;
  try {
    kv::p11::AssignOut(iv, iv_, ivLen_);
  } catch (...) {
    return KV_P11_ERR_MEMORY;
  }
  return 0;
}

namespace {

bool HasTag(const AsnObject* obj, uint32_t number) {
  return obj != nullptr && obj->GetAsnTagClass() == ASN_TAG_CLASS_UNIVERSAL &&
         obj->GetAsnTagNumber() == number;
}

// The parameters' value when present and not NULL.
const AsnObject* ParameterValue(AlgorithmIdentifier& alg) {
  const AsnAny* params = alg.GetParameters();
  if (params == nullptr || !params->HasData()) return nullptr;
  const AsnObject* value = params->GetData();
  return HasTag(value, ASN_TAG_NULL) ? nullptr : value;
}

}  // namespace

int KV_P11_Alg::setAlgorithmIdentifier(AlgorithmIdentifier& alg) {
  Clear();
  try {
    const AsnOid* oid = alg.GetAlgorithm();
    if (oid == nullptr || oid->GetData().GetLength() == 0) return KV_P11_ERR_NO_ALGORITHM;
    const int kind = kv::p11::KindOfOid(oid->GetData().GetChars());
    if (kind < 0) return KV_P11_ERR_UNSUPPORTED;

    MiByte iv;
    int bits = 0;
    const AsnObject* value = ParameterValue(alg);
    if (kind == KV_ALG_DES_CBC || kind == KV_ALG_DES_EDE3_CBC) {
      // An identifier without an IV is taken as it is; the cipher asks for
      // one when it runs.
      if (value != nullptr) {
        if (!HasTag(value, ASN_TAG_OCTET_STRING)) return KV_P11_ERR_UNSUPPORTED;
        AsnOctetString os;
        alg.GetParameters()->DecodeInto(os);
        iv = os.GetData();
      }
    } else if (kind == KV_ALG_RC2_CBC) {
      if (value == nullptr) return KV_P11_ERR_RC2_NO_PARAMS;
      if (!HasTag(value, ASN_TAG_SEQUENCE)) return KV_P11_ERR_UNSUPPORTED;
      RC2_CBC_parameter p;
      alg.GetParameters()->DecodeInto(p);
      const AsnInteger* version = p.GetRc2ParameterVersion();
      const AsnOctetString* ivOs = p.GetIv();
      if (version == nullptr || ivOs == nullptr) return KV_P11_ERR_UNSUPPORTED;
      bool ok = false;
      const int64_t v = version->GetInt64(ok);
      bits = ok ? kv::p11::Rc2BitsOfVersion(static_cast<long>(v)) : -1;
      if (bits < 0) return KV_P11_ERR_UNSUPPORTED;
      iv = ivOs->GetData();
    }
    if (!iv.Empty()) {
      const int rc = setIV(iv);
      if (rc != 0) return rc;
    }
    kind_ = kind;
    effectiveBits_ = bits;
    return 0;
  } catch (const std::bad_alloc&) {
    Clear();
    return KV_P11_ERR_MEMORY;
  } catch (...) {
    // Parameters that do not decode as their type.
    Clear();
    return KV_P11_ERR_UNSUPPORTED;
  }
}

int KV_P11_Alg::getAlgorithmIdentifier(AlgorithmIdentifier& alg) {
  const char* oid = kv::p11::OidOfKind(kind_);
  if (oid == nullptr) return KV_P11_ERR_UNSUPPORTED;
  try {
    if (kind_ == KV_ALG_DES_CBC || kind_ == KV_ALG_DES_EDE3_CBC) {
      if (iv_ == nullptr) return KV_P11_ERR_NO_MATERIAL;
      alg.SetParameters(AsnAny(AsnOctetString(reinterpret_cast<const char*>(iv_), ivLen_)));
    } else if (kind_ == KV_ALG_RC2_CBC) {
      if (iv_ == nullptr) return KV_P11_ERR_NO_MATERIAL;
      const int version = kv::p11::Rc2VersionOfBits(effectiveBits_);
      if (version < 0) return KV_P11_ERR_UNSUPPORTED;
      RC2_CBC_parameter p;
      p.SetRc2ParameterVersion(AsnInteger(version));
      p.SetIv(AsnOctetString(reinterpret_cast<const char*>(iv_), ivLen_));
      alg.SetParameters(AsnAny(p));
    } else {
      alg.SetParameters(AsnAny(AsnNull()));
    }
    alg.SetAlgorithm(AsnOid(oid));
    return 0;
  } catch (...) {
    return KV_P11_ERR_MEMORY;
  }
}

int KV_P11_Alg::GetICKAIObj(unsigned char** out, int keyAccessKind) {
  if (out == nullptr) return KV_P11_ERR_ARGUMENT;
  *out = nullptr;
  try {
    auto* info = new AlgInfo();
    info->kind = kind_;
    info->effectiveBits = effectiveBits_;
    if (iv_ != nullptr) info->iv.assign(iv_, iv_ + ivLen_);
    info->keyAccessKind = keyAccessKind;
    *out = reinterpret_cast<unsigned char*>(info);
    return 0;
  } catch (...) {
    return KV_P11_ERR_MEMORY;
  }
}

void KV_P11_Alg::FreeICKAIObj(unsigned char* obj) {
  delete reinterpret_cast<AlgInfo*>(obj);
}
