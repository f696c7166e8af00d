#include "control/portable/internal/rsa_key.h"

#include <cstring>

#include "asn1/asn1.h"
#include "crypto/rsa.h"

namespace kv::control::portable {

namespace {

const char kRsaEncryption[] = "1.2.840.113549.1.1.1";
const uint32_t kMagicPublic = 0x31415352;   // "RSA1"
const uint32_t kMagicPrivate = 0x32415352;  // "RSA2"
const size_t kHeaderSize = 8 + 12;          // BLOBHEADER + RSAPUBKEY

void WipeBytes(Bytes& b) {
  volatile uint8_t* v = b.data();
  for (size_t i = 0; i < b.size(); ++i) v[i] = 0;
  b.clear();
}

Bytes Trim(const uint8_t* p, size_t n) {
  while (n > 0 && *p == 0) {
    ++p;
    --n;
  }
  return Bytes(p, p + n);
}

void PutLe32(Bytes& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

uint32_t GetLe32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// Appends a big-endian integer as `width` little-endian octets.
bool PutLe(Bytes& out, const Bytes& be, size_t width) {
  if (be.size() > width) return false;
  for (size_t i = 0; i < width; ++i) out.push_back(i < be.size() ? be[be.size() - 1 - i] : 0);
  return true;
}

Bytes GetLe(const uint8_t* p, size_t width) {
  Bytes be(width);
  for (size_t i = 0; i < width; ++i) be[i] = p[width - 1 - i];
  return Trim(be.data(), be.size());
}

void PutHeader(Bytes& out, uint8_t type, uint32_t algid, uint32_t magic, const RsaKey& key) {
  out.push_back(type);
  out.push_back(2);  // CUR_BLOB_VERSION
  out.push_back(0);
  out.push_back(0);
  PutLe32(out, algid);
  PutLe32(out, magic);
  PutLe32(out, key.Bits());
  uint32_t exponent = 0;
  for (uint8_t b : key.e) exponent = exponent << 8 | b;
  PutLe32(out, exponent);
}

AsnInteger Integer(const Bytes& be) {
  return AsnInteger(MiBigInteger::FromMagnitude(be.data(), static_cast<unsigned>(be.size())));
}

Bytes Magnitude(const AsnInteger* i) {
  if (!i || i->GetData().IsNegative()) return Bytes();
  MiByte m = i->GetData().GetMagnitude();
  return Trim(m.GetBytes(), m.GetLength());
}

Bytes Encoded(const AsnObject& obj) {
  MiByteBuffer out;
  unsigned n = obj.DerEncode(out, 0);
  return Bytes(out.GetBytes(), out.GetBytes() + n);
}

// Decodes the whole of [der, der + len) into obj.
bool DecodeWhole(AsnObject& obj, const uint8_t* der, size_t len) {
  if (!der || len == 0 || len > 0x7FFFFFFF) return false;
  try {
    MiByte in(reinterpret_cast<const char*>(der), static_cast<unsigned>(len));
    return obj.DerDecode(in, 0) == len;
  } catch (const MiException&) {
    return false;
  }
}

struct Components {
  KV_RSA_COMPONENT c[KV_RSA_COMPONENT_COUNT];
  explicit Components(const RsaKey& k) {
    const Bytes* parts[] = {&k.n, &k.e, &k.d, &k.p, &k.q, &k.dp, &k.dq, &k.qinv};
    for (int i = 0; i < KV_RSA_COMPONENT_COUNT; ++i) {
      c[i].data = const_cast<unsigned char*>(parts[i]->data());
      c[i].len = static_cast<unsigned>(parts[i]->size());
    }
  }
};

}  // namespace

unsigned RsaKey::Bits() const {
  if (n.empty()) return 0;
  unsigned bits = static_cast<unsigned>(n.size()) * 8;
  for (uint8_t top = n[0]; !(top & 0x80); top <<= 1) --bits;
  return bits;
}

void RsaKey::Wipe() {
  for (Bytes* b : {&n, &e, &d, &p, &q, &dp, &dq, &qinv}) WipeBytes(*b);
}

bool GenerateRsaKey(unsigned bits, RsaKey* key) {
  KV_RSA_COMPONENT* raw = nullptr;
  if (KV_RSA_GenerateKeyPairEx(static_cast<int>(bits), &raw, nullptr, KV_RSA_OsRandom, nullptr) !=
      0) {
    return false;
  }
  RsaKeyPairPtr block(raw);
  Bytes* parts[] = {&key->n, &key->e, &key->d, &key->p, &key->q, &key->dp, &key->dq, &key->qinv};
  for (int i = 0; i < KV_RSA_COMPONENT_COUNT; ++i) *parts[i] = Trim(raw[i].data, raw[i].len);
  return key->Bits() == bits;
}

Bytes PublicKeyBlob(const RsaKey& key, uint32_t algid) {
  Bytes out;
  PutHeader(out, KV_PUBLICKEYBLOB, algid, kMagicPublic, key);
  PutLe(out, key.n, (key.Bits() + 7) / 8);
  return out;
}

bool PrivateKeyBlob(const RsaKey& key, uint32_t algid, Bytes* blob) {
  size_t full = (key.Bits() + 7) / 8, half = (key.Bits() + 15) / 16;
  Bytes out;
  PutHeader(out, KV_PRIVATEKEYBLOB, algid, kMagicPrivate, key);
  bool ok = PutLe(out, key.n, full) && PutLe(out, key.p, half) && PutLe(out, key.q, half) &&
            PutLe(out, key.dp, half) && PutLe(out, key.dq, half) && PutLe(out, key.qinv, half) &&
            PutLe(out, key.d, full);
  if (!ok) {
    WipeBytes(out);
    return false;
  }
  *blob = std::move(out);
  return true;
}

uint32_t ReadPrivateKeyBlob(const uint8_t* data, uint32_t len, RsaKey* key, uint32_t* algid) {
  if (!data || len < kHeaderSize) return KV_NTE_BAD_LEN;
  if (data[0] != KV_PRIVATEKEYBLOB) return KV_NTE_BAD_TYPE;
  if (data[1] != 2 || GetLe32(data + 8) != kMagicPrivate) return KV_NTE_BAD_DATA;
  *algid = GetLe32(data + 4);
  uint32_t bits = GetLe32(data + 12), exponent = GetLe32(data + 16);
  if (bits == 0 || bits > 8 * KV_RSA_MAX_MODULUS_BYTES || exponent == 0) return KV_NTE_BAD_DATA;
  size_t full = (bits + 7) / 8, half = (bits + 15) / 16;
  if (len < kHeaderSize + 2 * full + 5 * half) return KV_NTE_BAD_LEN;
  const uint8_t* p = data + kHeaderSize;
  RsaKey k;
  k.n = GetLe(p, full);
  p += full;
  Bytes* halves[] = {&k.p, &k.q, &k.dp, &k.dq, &k.qinv};
  for (Bytes* h : halves) {
    *h = GetLe(p, half);
    p += half;
  }
  k.d = GetLe(p, full);
  uint8_t e[4] = {uint8_t(exponent >> 24), uint8_t(exponent >> 16), uint8_t(exponent >> 8),
                  uint8_t(exponent)};
  k.e = Trim(e, 4);
  if (k.Bits() != bits || !CheckPrivateKey(k)) {
    k.Wipe();
    return KV_NTE_BAD_DATA;
  }
  *key = std::move(k);
  return 0;
}

Bytes EncodeRsaPrivateKey(const RsaKey& key) {
  RSAPrivateKey der;
  der.SetVersion(AsnInteger(int64_t{0}));
  der.SetPkModulus(Integer(key.n));
  der.SetPublicExponent(Integer(key.e));
  der.SetPrivateExponent(Integer(key.d));
  der.SetPrime1(Integer(key.p));
  der.SetPrime2(Integer(key.q));
  der.SetExponent1(Integer(key.dp));
  der.SetExponent2(Integer(key.dq));
  der.SetCoefficient(Integer(key.qinv));
  return Encoded(der);
}

bool DecodeRsaPrivateKey(const uint8_t* der, size_t len, RsaKey* key) {
  RSAPrivateKey rec;
  if (!DecodeWhole(rec, der, len)) return false;
  RsaKey k;
  k.n = Magnitude(rec.GetPkModulus());
  k.e = Magnitude(rec.GetPublicExponent());
  k.d = Magnitude(rec.GetPrivateExponent());
  k.p = Magnitude(rec.GetPrime1());
  k.q = Magnitude(rec.GetPrime2());
  k.dp = Magnitude(rec.GetExponent1());
  k.dq = Magnitude(rec.GetExponent2());
  k.qinv = Magnitude(rec.GetCoefficient());
  if (!CheckPrivateKey(k)) {
    k.Wipe();
    return false;
  }
  *key = std::move(k);
  return true;
}

Bytes EncodeRsaSpki(const RsaKey& key) {
  RSAPublicKey pub;
  pub.SetPkModulus(Integer(key.n));
  pub.SetPublicExponent(Integer(key.e));
  Bytes pubDer = Encoded(pub);
  AlgorithmIdentifier alg;
  alg.SetAlgorithm(AsnOid(kRsaEncryption));
  alg.SetParameters(AsnAny(AsnNull()));
  SubjectPublicKeyInfo spki;
  spki.SetAlgorithm(alg);
  MiByte bits(reinterpret_cast<const char*>(pubDer.data()), static_cast<unsigned>(pubDer.size()));
  spki.SetSubjectPublicKey(AsnBitString(MiBitSet(bits, bits.GetLength() * 8)));
  return Encoded(spki);
}

bool DecodeRsaSpki(const uint8_t* der, size_t len, RsaKey* key) {
  SubjectPublicKeyInfo spki;
  if (!DecodeWhole(spki, der, len)) return false;
  const AlgorithmIdentifier* alg = spki.GetAlgorithm();
  const AsnBitString* bits = spki.GetSubjectPublicKey();
  if (!alg || !alg->GetAlgorithm() || !bits) return false;
  if (std::strcmp(alg->GetAlgorithm()->GetData(), kRsaEncryption) != 0) return false;
  const MiBitSet& set = bits->GetData();
  if (set.GetBitLength() % 8 != 0) return false;
  RSAPublicKey pub;
  if (!DecodeWhole(pub, set.GetByte().GetBytes(), set.GetBitLength() / 8)) return false;
  RsaKey k;
  k.n = Magnitude(pub.GetPkModulus());
  k.e = Magnitude(pub.GetPublicExponent());
  if (k.n.empty() || k.e.empty()) return false;
  *key = std::move(k);
  return true;
}

bool CheckPrivateKey(const RsaKey& key) {
  for (const Bytes* b : {&key.n, &key.e, &key.d, &key.p, &key.q, &key.dp, &key.dq, &key.qinv})
    if (b->empty()) return false;
  Components c(key);
  KV_RSA_CTX* raw = nullptr;
  if (KV_RSA_LoadKey(c.c, KV_RSA_PRIVATE_BLOCK_SIZE, &raw) != 0) return false;
  RsaCtxPtr ctx(raw);
  return true;
}

bool SignSha1(const RsaKey& key, const uint8_t digest[20], Bytes* signature) {
  Components c(key);
  KV_RSA_CTX* raw = nullptr;
  if (KV_RSA_LoadKey(c.c, KV_RSA_PRIVATE_BLOCK_SIZE, &raw) != 0) return false;
  RsaCtxPtr ctx(raw);
  Bytes sig(KV_RSA_ModulusLength(ctx.get()));
  unsigned sigLen = static_cast<unsigned>(sig.size());
  if (KV_RSA_SignDigest(ctx.get(), KV_RSA_SHA1, digest, 20, sig.data(), &sigLen) != 0) return false;
  sig.resize(sigLen);
  *signature = std::move(sig);
  return true;
}

std::string Hex(const uint8_t* data, size_t len) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(2 * len);
  for (size_t i = 0; i < len; ++i) {
    out.push_back(kDigits[data[i] >> 4]);
    out.push_back(kDigits[data[i] & 15]);
  }
  return out;
}

}  // namespace kv::control::portable
