#include <cstdint>
#include <cstring>
#include <vector>

#include "crypto/internal/wipe.h"
#include "pki/errors.h"
#include "pki/internal/pkcs12_pbe.h"

namespace kv::pki::p12 {

namespace {

constexpr unsigned kU = 20;  // SHA-1 output
constexpr unsigned kV = 64;  // SHA-1 block

const PbeScheme kSchemes[] = {
    {"1.2.840.113549.1.12.1.1", "pbeWithSHAAnd128BitRC4", KV_ALG_RC4, KV_KEY_RC4, 16, 0, 0},
    {"1.2.840.113549.1.12.1.2", "pbeWithSHAAnd40BitRC4", KV_ALG_RC4, KV_KEY_RC4, 5, 0, 0},
    {"1.2.840.113549.1.12.1.3", "pbeWithSHAAnd3-KeyTripleDES-CBC", KV_ALG_DES_EDE3_CBC, KV_KEY_DES3,
     24, 8, 0},
    {"1.2.840.113549.1.12.1.4", "pbeWithSHAAnd2-KeyTripleDES-CBC", KV_ALG_DES_EDE3_CBC,
     KV_KEY_DES3_2KEY, 16, 8, 0},
    {"1.2.840.113549.1.12.1.5", "pbeWithSHAAnd128BitRC2-CBC", KV_ALG_RC2_CBC, KV_KEY_RC2, 16, 8,
     128},
    {"1.2.840.113549.1.12.1.6", "pbeWithSHAAnd40BitRC2-CBC", KV_ALG_RC2_CBC, KV_KEY_RC2, 5, 8, 40},
};

// Appends one UTF-16 code unit, big-endian.
void PutUnit(std::vector<unsigned char>& out, uint32_t u) {
  out.push_back(static_cast<unsigned char>(u >> 8));
  out.push_back(static_cast<unsigned char>(u));
}

int Sha1(KV_P11_OP& op, MiByte& in, MiByte& out) {
  KV_P11_Alg alg;
  alg.setAlgType(KV_ALG_SHA1);
  return op.Digest(alg, in, out);
}

}  // namespace

const char kPbeSha3Des[] = "1.2.840.113549.1.12.1.3";
const char kPbeShaRc2_40[] = "1.2.840.113549.1.12.1.6";

void Wipe(MiByte& b) {
  if (!b.Empty()) kv::internal::Wipe(b.GetChars(), b.GetLength());
}

bool PasswordToBmp(const char* utf8, MiByte& out) {
  std::vector<unsigned char> bmp;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(utf8 ? utf8 : "");
  while (*p) {
    uint32_t c = *p;
    unsigned extra;
    if (c < 0x80) {
      extra = 0;
    } else if ((c & 0xE0) == 0xC0) {
      extra = 1;
      c &= 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2;
      c &= 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3;
      c &= 0x07;
    } else {
      return false;
    }
    ++p;
    for (unsigned i = 0; i < extra; ++i, ++p) {
      if ((*p & 0xC0) != 0x80) return false;
      c = (c << 6) | (*p & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not text.
    static const uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (c < kMin[extra] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return false;
    if (c >= 0x10000) {
      c -= 0x10000;
      PutUnit(bmp, 0xD800 + (c >> 10));
      PutUnit(bmp, 0xDC00 + (c & 0x3FF));
    } else {
      PutUnit(bmp, c);
    }
  }
  PutUnit(bmp, 0);
  out = MiByte(reinterpret_cast<const char*>(bmp.data()), static_cast<unsigned>(bmp.size()));
  kv::internal::Wipe(bmp.data(), bmp.size());
  return true;
}

int DeriveKey(KV_P11_OP& op, const MiByte& password, const MiByte& salt, int iterations, int id,
              unsigned n, MiByte& out) {
  if (iterations < 1 || n == 0) return KV_ERR_ARGUMENT;
  // I = S || P, each repeated to a whole number of v-octet blocks.
  auto stretch = [](const MiByte& src, std::vector<unsigned char>& dst) {
    unsigned len = src.GetLength();
    if (len == 0) return;
    unsigned total = (len + kV - 1) / kV * kV;
    for (unsigned i = 0; i < total; ++i) dst.push_back(src.GetBytes()[i % len]);
  };
  std::vector<unsigned char> I;
  stretch(salt, I);
  stretch(password, I);

  std::vector<unsigned char> result;
  MiByte block(kV + static_cast<unsigned>(I.size()));
  std::memset(block.GetChars(), id, kV);
  int rv = 0;
  while (result.size() < n) {
    if (!I.empty()) std::memcpy(block.GetChars() + kV, I.data(), I.size());
    MiByte a;
    rv = Sha1(op, block, a);
    for (int r = 1; rv == 0 && r < iterations; ++r) {
      MiByte next;
      rv = Sha1(op, a, next);
      a = std::move(next);
    }
    if (rv == 0 && a.GetLength() != kU) rv = KV_ERR_DIGEST;
    if (rv != 0) break;
    result.insert(result.end(), a.GetBytes(), a.GetBytes() + kU);
    if (result.size() >= n) {
      Wipe(a);
      break;
    }
    // I_j = (I_j + B + 1) mod 2^(8v), B being A repeated to v octets.
    for (size_t j = 0; j < I.size(); j += kV) {
      unsigned carry = 1;
      for (int k = kV - 1; k >= 0; --k) {
        carry += I[j + k] + a.GetBytes()[k % kU];
        I[j + k] = static_cast<unsigned char>(carry);
        carry >>= 8;
      }
    }
    Wipe(a);
  }
  if (rv == 0) out = MiByte(reinterpret_cast<const char*>(result.data()), n);
  kv::internal::Wipe(result.data(), result.size());
  kv::internal::Wipe(I.data(), I.size());
  Wipe(block);
  return rv;
}

int HmacSha1(KV_P11_OP& op, const MiByte& key, const MiByte& data, MiByte& mac) {
  MiByte k(kV, 0);
  int rv = 0;
  if (key.GetLength() > kV) {
    MiByte in(key), h;
    rv = Sha1(op, in, h);
    if (rv == 0) std::memcpy(k.GetChars(), h.GetChars(), h.GetLength() < kV ? h.GetLength() : kV);
    Wipe(in);
    Wipe(h);
  } else if (!key.Empty()) {
    std::memcpy(k.GetChars(), key.GetChars(), key.GetLength());
  }
  if (rv == 0) {
    MiByte inner(kV + data.GetLength());
    for (unsigned i = 0; i < kV; ++i)
      inner.GetChars()[i] = static_cast<char>(k.GetBytes()[i] ^ 0x36);
    if (!data.Empty()) std::memcpy(inner.GetChars() + kV, data.GetChars(), data.GetLength());
    MiByte ih;
    rv = Sha1(op, inner, ih);
    if (rv == 0) {
      MiByte outer(kV + ih.GetLength());
      for (unsigned i = 0; i < kV; ++i)
        outer.GetChars()[i] = static_cast<char>(k.GetBytes()[i] ^ 0x5C);
      std::memcpy(outer.GetChars() + kV, ih.GetChars(), ih.GetLength());
      rv = Sha1(op, outer, mac);
      Wipe(outer);
    }
    Wipe(inner);
  }
  Wipe(k);
  return rv;
}

const PbeScheme* FindPbe(const char* oid) {
  if (oid == nullptr) return nullptr;
  for (const PbeScheme& s : kSchemes)
    if (std::strcmp(s.oid, oid) == 0) return &s;
  return nullptr;
}

int PbeCrypt(KV_P11_OP& op, const PbeScheme& scheme, const MiByte& password, const MiByte& salt,
             int iterations, bool encrypt, const MiByte& in, MiByte& out) {
  MiByte keyBytes, iv;
  int rv = DeriveKey(op, password, salt, iterations, kIdKey, scheme.keyLen, keyBytes);
  if (rv == 0 && scheme.ivLen)
    rv = DeriveKey(op, password, salt, iterations, kIdIv, scheme.ivLen, iv);
  if (rv == 0) {
    KV_P11_Alg alg;
    alg.setAlgType(scheme.algKind);
    if (scheme.ivLen) rv = alg.setIV(iv);
    if (scheme.effectiveBits) alg.setEffectiveBits(scheme.effectiveBits);
    KV_P11_Key key;
    key.setKeyType(scheme.keyKind);
    KV_PKCS11_SESSION_KEY sk;
    sk.key = reinterpret_cast<unsigned char*>(keyBytes.GetChars());
    sk.keyLen = keyBytes.GetLength();
    // The size value of an RC2 key is its length; for triple DES 16 or 24.
    sk.size = static_cast<int>(scheme.keyLen);
    if (rv == 0) rv = key.setSessionKey(&sk);
    if (rv == 0) {
      MiByte src(in);
      rv = encrypt ? op.Encrypt(alg, key, src, out) : op.Decrypt(alg, key, src, out);
      Wipe(src);
      // A wrong key shows as bad padding; whatever the token calls it, the
      // bag did not decrypt.
      if (rv != 0 && !encrypt && rv != KV_ERR_MEMORY) rv = KV_ERR_DECRYPT;
    }
    key.Reset();
  }
  Wipe(keyBytes);
  Wipe(iv);
  return rv;
}

}  // namespace kv::pki::p12
