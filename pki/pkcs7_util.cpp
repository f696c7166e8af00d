#include <cstring>
#include <string>

#include "pki/errors.h"
#include "pki/internal/pkcs7_util.h"

namespace kv::pkcs7 {

const char kOidData[] = "1.2.840.113549.1.7.1";
const char kOidSigned[] = "1.2.840.113549.1.7.2";
const char kOidEnveloped[] = "1.2.840.113549.1.7.3";
const char kOidSignedEnveloped[] = "1.2.840.113549.1.7.4";
const char kOidDigested[] = "1.2.840.113549.1.7.5";
const char kOidEncrypted[] = "1.2.840.113549.1.7.6";
const char kOidRsa[] = "1.2.840.113549.1.1.1";
const char kOidContentTypeAttr[] = "1.2.840.113549.1.9.3";
const char kOidMessageDigestAttr[] = "1.2.840.113549.1.9.4";
const char kOidSigningTimeAttr[] = "1.2.840.113549.1.9.5";

namespace {

const char kOidDes[] = "1.3.14.3.2.7";
const char kOidDes3[] = "1.2.840.113549.3.7";
const char kOidRc2[] = "1.2.840.113549.3.2";
const char kOidRc4[] = "1.2.840.113549.3.4";
const char kOidSha1[] = "1.3.14.3.2.26";
const char kOidMd5[] = "1.2.840.113549.2.5";
const char kOidMd2[] = "1.2.840.113549.2.2";

// ---- BER to DER ---------------------------------------------------------

constexpr int kMaxDepth = 64;

void PutLength(std::string& out, size_t n) {
  if (n < 0x80) {
    out.push_back(static_cast<char>(n));
    return;
  }
  unsigned char digits[sizeof(size_t)];
  int k = 0;
  for (; n; n >>= 8) digits[k++] = static_cast<unsigned char>(n & 0xff);
  out.push_back(static_cast<char>(0x80 | k));
  while (k) out.push_back(static_cast<char>(digits[--k]));
}

// Reads one structure at in[pos..end) and appends its DER to out. pos is
// moved past it. For a segmented OCTET STRING only the value is appended when
// valueOnly is set (the caller joins the segments).
bool Normalise(const unsigned char* in, size_t end, size_t& pos, std::string& out, int depth,
               bool valueOnly) {
  if (depth > kMaxDepth || pos >= end) return false;
  const size_t tagStart = pos;
  const unsigned char first = in[pos++];
  if ((first & 0x1f) == 0x1f) {
    int count = 0;
    do {
      if (pos >= end || ++count > 5) return false;
    } while (in[pos++] & 0x80);
  }
  const size_t tagEnd = pos;
  if (pos >= end) return false;
  const unsigned char l0 = in[pos++];
  bool indefinite = false;
  size_t len = 0;
  if (l0 < 0x80) {
    len = l0;
  } else if (l0 == 0x80) {
    indefinite = true;
  } else {
    const int k = l0 & 0x7f;
    if (k > 4) return false;
    for (int i = 0; i < k; ++i) {
      if (pos >= end) return false;
      len = (len << 8) | in[pos++];
    }
  }
  const bool constructed = (first & 0x20) != 0;
  if (!constructed) {
    if (indefinite || len > end - pos) return false;
    if (valueOnly) {
      if (first != 0x04) return false;
    } else {
      out.append(reinterpret_cast<const char*>(in + tagStart), tagEnd - tagStart);
      PutLength(out, len);
    }
    out.append(reinterpret_cast<const char*>(in + pos), len);
    pos += len;
    return true;
  }
  // A universal constructed OCTET STRING is joined into one primitive string.
  const bool joinSegments = first == 0x24;
  if (valueOnly && !joinSegments) return false;
  size_t stop = end;
  if (!indefinite) {
    if (len > end - pos) return false;
    stop = pos + len;
  }
  std::string body;
  for (;;) {
    if (indefinite) {
      if (pos + 2 <= end && in[pos] == 0 && in[pos + 1] == 0) {
        pos += 2;
        break;
      }
      if (pos >= end) return false;
    } else if (pos == stop) {
      break;
    }
    if (!Normalise(in, stop, pos, body, depth + 1, joinSegments)) return false;
  }
  if (valueOnly) {
    out += body;
  } else if (joinSegments) {
    out.push_back(0x04);
    PutLength(out, body.size());
    out += body;
  } else {
    out.append(reinterpret_cast<const char*>(in + tagStart), tagEnd - tagStart);
    PutLength(out, body.size());
    out += body;
  }
  return true;
}

MiByte FromString(const std::string& s) {
  return MiByte(s.data(), static_cast<unsigned>(s.size()));
}

bool OidIs(const AsnOid* oid, const char* text) {
  return oid && oid->GetData().Equals(MiString(text));
}

MiByte Magnitude(const AsnInteger* i) {
  return i ? i->GetData().GetMagnitude() : MiByte();
}

int SessionKeyKind(const Cipher& c, unsigned keyLen) {
  switch (c.kind) {
    case KV_ALG_DES_CBC:
      return KV_KEY_DES;
    case KV_ALG_DES_EDE3_CBC:
      return keyLen == 16 ? KV_KEY_DES3_2KEY : KV_KEY_DES3;
    case KV_ALG_RC2_CBC:
      return KV_KEY_RC2;
    default:
      return KV_KEY_RC4;
  }
}

int PrepareCipher(const Cipher& c, const MiByte& key, const MiByte& iv, KV_P11_Alg& alg,
                  KV_P11_Key& k) {
  if (!KeyLengthFits(c, key.GetLength())) return KV_ERR_ARGUMENT;
  int rv = alg.setAlgType(c.kind);
  if (rv == 0 && c.ivLen) {
    MiByte copy(iv);
    rv = alg.setIV(copy);
  }
  if (rv == 0 && c.kind == KV_ALG_RC2_CBC) rv = alg.setEffectiveBits(c.bits);
  if (rv != 0) return rv;
  KV_PKCS11_SESSION_KEY sk;
  sk.key = const_cast<unsigned char*>(key.GetBytes());
  sk.keyLen = key.GetLength();
  sk.size = static_cast<int>(key.GetLength());
  rv = k.setSessionKey(&sk);
  if (rv == 0) rv = k.setKeyType(SessionKeyKind(c, key.GetLength()));
  return rv;
}

// Statuses that say the call itself was wrong rather than the data.
bool IsUsageStatus(int rv) {
  return rv == KV_ERR_UNSUPPORTED || rv == KV_ERR_RC2_SIZE || rv == KV_ERR_ARGUMENT ||
         rv == KV_ERR_MEMORY || rv == KV_ERR_NOTHING_HELD;
}

}  // namespace

bool BerToDer(const unsigned char* in, size_t n, MiByte& out) {
  if (in == nullptr || n == 0) return false;
  std::string der;
  size_t pos = 0;
  if (!Normalise(in, n, pos, der, 0, false)) return false;
  for (size_t i = pos; i < n; ++i)
    if (in[i] != 0) return false;
  out = FromString(der);
  return true;
}

const char* TypeOid(int type) {
  switch (type) {
    case PKCS7_TYPE_DATA:
      return kOidData;
    case PKCS7_TYPE_SIGNED:
      return kOidSigned;
    case PKCS7_TYPE_ENVELOPED:
      return kOidEnveloped;
    case PKCS7_TYPE_SIGNED_ENVELOPED:
      return kOidSignedEnveloped;
    case PKCS7_TYPE_DIGESTED:
      return kOidDigested;
    case PKCS7_TYPE_ENCRYPTED:
      return kOidEncrypted;
    default:
      return nullptr;
  }
}

int ReadContentInfo(const MiByte& der, ContentInfo& info, int& type) {
  type = 0;
  if (der.Empty()) return KV_ERR_ARGUMENT;
  MiByte norm;
  if (!BerToDer(der.GetBytes(), der.GetLength(), norm)) return KV_ERR_DECODE;
  if (info.DerDecode(norm, 0) != norm.GetLength()) return KV_ERR_DECODE;
  if (!info.GetContentType()) return KV_ERR_DECODE;
  for (int t = PKCS7_TYPE_DATA; t <= PKCS7_TYPE_ENCRYPTED; ++t)
    if (OidIs(info.GetContentType(), TypeOid(t))) type = t;
  return 0;
}

MiByte Der(const AsnObject& value) {
  MiByteBuffer buf;
  value.DerEncode(buf, 0);
  return buf.GetByte();
}

MiByte ContentsOctets(const MiByte& der) {
  const unsigned n = der.GetLength();
  const unsigned char* p = der.GetBytes();
  unsigned pos = 1;
  if (n && (p[0] & 0x1f) == 0x1f)
    while (pos < n && (p[pos++] & 0x80)) {
    }
  if (pos >= n) throw AsnDecodeExp();
  unsigned char l0 = p[pos++];
  if (l0 & 0x80) pos += l0 & 0x7f;
  if (pos > n) throw AsnDecodeExp();
  return MiByte(der.GetChars(), pos, n - pos);
}

MiByte WrapContentInfo(const char* oid, const AsnObject* content) {
  ContentInfo info;
  info.SetContentType(AsnOid(oid));
  if (content) info.SetContent(AsnAny(*content));
  return Der(info);
}

int EmbeddedData(const ContentInfo& info, MiByte& content, bool& detached) {
  content = MiByte();
  detached = false;
  if (!OidIs(info.GetContentType(), kOidData)) return KV_ERR_CONTENT_TYPE;
  const AsnAny* any = info.GetContent();
  if (!any || !any->HasData()) {
    detached = true;
    return 0;
  }
  AsnOctetString s;
  any->DecodeInto(s);
  content = s.GetData();
  return 0;
}

MiByte SignedOctets(const ContentInfo& info) {
  const AsnAny* any = info.GetContent();
  if (!any || !any->HasData()) return MiByte();
  if (OidIs(info.GetContentType(), kOidData)) {
    AsnOctetString s;
    any->DecodeInto(s);
    return s.GetData();
  }
  return ContentsOctets(any->GetEncoded());
}

int ParseCertificate(const MiByte& der, Certificate& cert) {
  if (der.Empty()) return KV_ERR_ARGUMENT;
  try {
    if (cert.DerDecode(der, 0) != der.GetLength()) return KV_ERR_DECODE;
  } catch (const MiException&) {
    return KV_ERR_DECODE;
  }
  const TBSCertificate* tbs = cert.GetTBSCertificate();
  if (!tbs || !tbs->GetIssuer() || !tbs->GetSerialNumber() || !tbs->GetSubject())
    return KV_ERR_DECODE;
  return 0;
}

IssuerAndSerialNumber IssuerAndSerialOf(const Certificate& cert) {
  IssuerAndSerialNumber id;
  id.SetIssuer(*cert.GetTBSCertificate()->GetIssuer());
  id.SetSerialNumber(*cert.GetTBSCertificate()->GetSerialNumber());
  return id;
}

bool Identifies(const IssuerAndSerialNumber& id, const Certificate& cert) {
  const TBSCertificate* tbs = cert.GetTBSCertificate();
  if (!id.GetIssuer() || !id.GetSerialNumber() || !tbs) return false;
  return id.GetSerialNumber()->GetData() == tbs->GetSerialNumber()->GetData() &&
         Der(*id.GetIssuer()) == Der(*tbs->GetIssuer());
}

int PublicKeyOf(const Certificate& cert, KV_P11_Key& key) {
  const SubjectPublicKeyInfo* spki = cert.GetTBSCertificate()->GetSubjectPublicKeyInfo();
  if (!spki || !spki->GetAlgorithm() || !spki->GetSubjectPublicKey()) return KV_ERR_DECODE;
  if (!OidIs(spki->GetAlgorithm()->GetAlgorithm(), kOidRsa)) return KV_ERR_UNSUPPORTED;
  RSAPublicKey rsa;
  const MiByte& bits = spki->GetSubjectPublicKey()->GetData().GetByte();
  if (rsa.DerDecode(bits, 0) != bits.GetLength()) return KV_ERR_DECODE;
  MiByte n = Magnitude(rsa.GetPkModulus());
  MiByte e = Magnitude(rsa.GetPublicExponent());
  if (n.Empty() || e.Empty()) return KV_ERR_DECODE;
  KV_PKCS11_RSA_PUBLIC_KEY pub;
  pub.modulus = const_cast<unsigned char*>(n.GetBytes());
  pub.modulusLen = n.GetLength();
  pub.exponent = const_cast<unsigned char*>(e.GetBytes());
  pub.exponentLen = e.GetLength();
  key.Reset();
  int rv = key.setPublicKey(&pub);
  if (rv == 0) rv = key.setKeyType(KV_KEY_RSA_PUBLIC);
  return rv;
}

int PrivateKeyFrom(const PKCS_PRIKEY* r, KV_P11_Key& key) {
  if (r == nullptr || r->modulus == nullptr || r->modulusLen == 0) return KV_ERR_ARGUMENT;
  KV_PKCS11_RSA_PRIVATE_KEY k;
  // Same component order and types on both sides.
  static_assert(sizeof(KV_PKCS11_RSA_PRIVATE_KEY) == sizeof(PKCS_PRIKEY), "layouts differ");
  std::memcpy(&k, r, sizeof k);
  key.Reset();
  int rv = key.setPrivateKey(&k);
  if (rv == 0) rv = key.setKeyType(KV_KEY_RSA_PRIVATE);
  return rv;
}

bool DigestSupported(int kind) {
  return kind == KV_ALG_SHA1 || kind == KV_ALG_MD5 || kind == KV_ALG_MD2;
}

const char* DigestOid(int kind) {
  switch (kind) {
    case KV_ALG_SHA1:
      return kOidSha1;
    case KV_ALG_MD5:
      return kOidMd5;
    case KV_ALG_MD2:
      return kOidMd2;
    default:
      return nullptr;
  }
}

int DigestKindOf(const AlgorithmIdentifier& alg) {
  for (int k : {KV_ALG_SHA1, KV_ALG_MD5, KV_ALG_MD2})
    if (OidIs(alg.GetAlgorithm(), DigestOid(k))) return k;
  return 0;
}

AlgorithmIdentifier DigestAlgorithm(int kind) {
  AlgorithmIdentifier alg;
  alg.SetAlgorithm(AsnOid(DigestOid(kind)));
  alg.SetParameters(AsnAny(AsnNull()));
  return alg;
}

AlgorithmIdentifier RsaAlgorithm() {
  AlgorithmIdentifier alg;
  alg.SetAlgorithm(AsnOid(kOidRsa));
  alg.SetParameters(AsnAny(AsnNull()));
  return alg;
}

int Digest(KV_P11_OP& op, int kind, const MiByte& in, MiByte& out) {
  if (!DigestSupported(kind)) return KV_ERR_UNSUPPORTED;
  KV_P11_Alg alg;
  int rv = alg.setAlgType(kind);
  MiByte data(in);
  if (rv == 0) rv = op.Digest(alg, data, out);
  return rv;
}

int SignDigest(KV_P11_OP& op, KV_P11_Key& key, int kind, const MiByte& digest, MiByte& sig) {
  DigestInfo info;
  info.SetDigestAlgorithm(DigestAlgorithm(kind));
  info.SetDigest(AsnOctetString(digest));
  MiByte block = Der(info);
  KV_P11_Alg alg;
  int rv = alg.setAlgType(KV_ALG_RSA);
  if (rv == 0) rv = op.Sign(alg, key, block, sig);
  return rv;
}

int VerifyDigest(KV_P11_OP& op, KV_P11_Key& key, int kind, const MiByte& digest,
                 const MiByte& sig) {
  KV_P11_Alg alg;
  int rv = alg.setAlgType(KV_ALG_RSA);
  if (rv != 0) return rv;
  MiByte s(sig), opened;
  rv = op.Decrypt(alg, key, s, opened);
  if (rv != 0) return IsUsageStatus(rv) ? rv : KV_ERR_SIGNATURE;
  DigestInfo info;
  try {
    if (info.DerDecode(opened, 0) != opened.GetLength()) return KV_ERR_SIGNATURE;
  } catch (const MiException&) {
    return KV_ERR_SIGNATURE;
  }
  if (!info.GetDigestAlgorithm() || DigestKindOf(*info.GetDigestAlgorithm()) != kind ||
      !info.GetDigest() || info.GetDigest()->GetData() != digest)
    return KV_ERR_SIGNATURE;
  return 0;
}

int EncryptKey(KV_P11_OP& op, KV_P11_Key& pub, const MiByte& cek, MiByte& out) {
  MiByte in(cek);
  return op.RSABigEncrypt(pub, in, out);
}

int DecryptKey(KV_P11_OP& op, KV_P11_Key& priv, const MiByte& wrapped, MiByte& cek) {
  MiByte in(wrapped);
  int rv = op.RSABigDecrypt(priv, in, cek);
  if (rv != 0) return IsUsageStatus(rv) ? rv : KV_ERR_DECRYPT;
  return 0;
}

int Random(KV_P11_OP& op, unsigned n, MiByte& out) {
  MiByte seed;
  int rv = op.GenerateRandom(out, static_cast<int>(n), seed);
  if (rv == 0 && out.GetLength() != n) return KV_ERR_ENCODE;
  return rv;
}

int CipherFor(int cipher, Cipher& c) {
  c = Cipher();
  switch (cipher) {
    case PKCS7_CIPHER_DES:
      c = {KV_ALG_DES_CBC, 8, 0, 8};
      return 0;
    case PKCS7_CIPHER_DES3:
      c = {KV_ALG_DES_EDE3_CBC, 24, 0, 8};
      return 0;
    case PKCS7_CIPHER_RC2_40:
      c = {KV_ALG_RC2_CBC, 5, 40, 8};
      return 0;
    case PKCS7_CIPHER_RC2_64:
      c = {KV_ALG_RC2_CBC, 8, 64, 8};
      return 0;
    case PKCS7_CIPHER_RC2_128:
      c = {KV_ALG_RC2_CBC, 16, 128, 8};
      return 0;
    case PKCS7_CIPHER_RC4:
      c = {KV_ALG_RC4, 16, 0, 0};
      return 0;
    default:
      return KV_ERR_UNSUPPORTED;
  }
}

// RFC 2268's version numbers of the three effective lengths we take.
AlgorithmIdentifier CipherAlgorithm(const Cipher& c, const MiByte& iv) {
  AlgorithmIdentifier alg;
  switch (c.kind) {
    case KV_ALG_DES_CBC:
      alg.SetAlgorithm(AsnOid(kOidDes));
      alg.SetParameters(AsnAny(AsnOctetString(iv)));
      break;
    case KV_ALG_DES_EDE3_CBC:
      alg.SetAlgorithm(AsnOid(kOidDes3));
      alg.SetParameters(AsnAny(AsnOctetString(iv)));
      break;
    case KV_ALG_RC2_CBC: {
      alg.SetAlgorithm(AsnOid(kOidRc2));
      RC2_CBC_parameter p;
      p.SetRc2ParameterVersion(AsnInteger(c.bits == 40 ? 160 : c.bits == 64 ? 120 : 58));
      p.SetIv(AsnOctetString(iv));
      alg.SetParameters(AsnAny(p));
      break;
    }
    default:
      // RC4 has no IV; the parameter is the empty IV other toolkits write
      // and expect (NULL or nothing is accepted when reading).
      alg.SetAlgorithm(AsnOid(kOidRc4));
      alg.SetParameters(AsnAny(AsnOctetString()));
      break;
  }
  return alg;
}

int CipherOf(const AlgorithmIdentifier& alg, Cipher& c, MiByte& iv) {
  c = Cipher();
  iv = MiByte();
  const AsnOid* oid = alg.GetAlgorithm();
  if (!oid) return KV_ERR_MISSING_FIELD;
  const AsnAny* params = alg.GetParameters();
  const bool haveParams = params && params->HasData();
  if (OidIs(oid, kOidDes) || OidIs(oid, kOidDes3)) {
    c.kind = OidIs(oid, kOidDes) ? KV_ALG_DES_CBC : KV_ALG_DES_EDE3_CBC;
    c.ivLen = 8;
    if (!haveParams) return KV_ERR_DECODE;
    AsnOctetString s;
    params->DecodeInto(s);
    iv = s.GetData();
  } else if (OidIs(oid, kOidRc2)) {
    c.kind = KV_ALG_RC2_CBC;
    c.ivLen = 8;
    if (!haveParams) return KV_ERR_RC2_NO_PARAMS;
    RC2_CBC_parameter p;
    params->DecodeInto(p);
    bool ok = false;
    int64_t v = p.GetRc2ParameterVersion() ? p.GetRc2ParameterVersion()->GetInt64(ok) : 0;
    if (!ok) return KV_ERR_DECODE;
    if (v == 160)
      c.bits = 40;
    else if (v == 120)
      c.bits = 64;
    else if (v == 58)
      c.bits = 128;
    else
      return KV_ERR_UNSUPPORTED;
    if (!p.GetIv()) return KV_ERR_DECODE;
    iv = p.GetIv()->GetData();
  } else if (OidIs(oid, kOidRc4)) {
    c.kind = KV_ALG_RC4;
  } else {
    return KV_ERR_UNSUPPORTED;
  }
  if (iv.GetLength() != static_cast<unsigned>(c.ivLen)) return KV_ERR_DECODE;
  return 0;
}

bool KeyLengthFits(const Cipher& c, unsigned n) {
  switch (c.kind) {
    case KV_ALG_DES_CBC:
      return n == 8;
    case KV_ALG_DES_EDE3_CBC:
      return n == 16 || n == 24;
    case KV_ALG_RC2_CBC:
      return n >= 1 && n <= 128;
    case KV_ALG_RC4:
      return n >= 1 && n <= 256;
    default:
      return false;
  }
}

// The token may or may not pad CBC itself; we pad here and keep only the
// blocks of our padded text, which CBC makes independent of any block the
// token adds after them.
int EncryptContent(KV_P11_OP& op, const Cipher& c, const MiByte& key, const MiByte& iv,
                   const MiByte& in, MiByte& out) {
  KV_P11_Alg alg;
  KV_P11_Key k;
  int rv = PrepareCipher(c, key, iv, alg, k);
  if (rv != 0) return rv;
  MiByte text(in);
  if (c.kind != KV_ALG_RC4) {
    const unsigned pad = 8 - in.GetLength() % 8;
    text.SetLength(in.GetLength() + pad);
    for (unsigned i = in.GetLength(); i < text.GetLength(); ++i)
      text.SetCharAt(i, static_cast<unsigned char>(pad));
  }
  rv = op.Encrypt(alg, k, text, out);
  if (rv != 0) return rv;
  if (out.GetLength() < text.GetLength()) return KV_ERR_ENCODE;
  out.SetLength(text.GetLength());
  return 0;
}

int DecryptContent(KV_P11_OP& op, const Cipher& c, const MiByte& key, const MiByte& iv,
                   const MiByte& in, MiByte& out) {
  if (c.kind != KV_ALG_RC4 && (in.Empty() || in.GetLength() % 8 != 0)) return KV_ERR_DECRYPT;
  KV_P11_Alg alg;
  KV_P11_Key k;
  int rv = PrepareCipher(c, key, iv, alg, k);
  if (rv != 0) return rv;
  MiByte text(in);
  rv = op.Decrypt(alg, k, text, out);
  if (rv != 0) return IsUsageStatus(rv) ? rv : KV_ERR_DECRYPT;
  if (c.kind == KV_ALG_RC4) return 0;
  if (out.GetLength() > in.GetLength()) return KV_ERR_DECRYPT;
  if (out.GetLength() < in.GetLength()) return 0;  // the token took the padding off
  const unsigned n = out.GetLength();
  const unsigned pad = out.GetBytes()[n - 1];
  bool bad = pad == 0 || pad > 8;
  for (unsigned i = 0; !bad && i < pad; ++i) bad = out.GetBytes()[n - 1 - i] != pad;
  if (bad) {
    out = MiByte();
    return KV_ERR_DECRYPT;
  }
  out.SetLength(n - pad);
  return 0;
}

int SealContent(KV_P11_OP& op, const Cipher& c, const MiByte& key, const MiByte& content,
                EncryptedContentInfo& eci) {
  MiByte iv, sealed;
  int rv = c.ivLen ? Random(op, c.ivLen, iv) : 0;
  if (rv == 0) rv = EncryptContent(op, c, key, iv, content, sealed);
  if (rv != 0) return rv;
  eci.SetContentType(AsnOid(kOidData));
  eci.SetContentEncryptionAlgorithm(CipherAlgorithm(c, iv));
  eci.SetEncryptedContent(AsnOctetString(sealed));
  return 0;
}

int OpenContent(KV_P11_OP& op, const EncryptedContentInfo& eci, const MiByte& key,
                MiByte& content) {
  content = MiByte();
  if (!eci.GetContentEncryptionAlgorithm()) return KV_ERR_DECODE;
  Cipher c;
  MiByte iv;
  int rv = CipherOf(*eci.GetContentEncryptionAlgorithm(), c, iv);
  if (rv != 0) return rv;
  if (!KeyLengthFits(c, key.GetLength())) return KV_ERR_DECRYPT;
  const AsnOctetString* enc = eci.GetEncryptedContent();
  if (!enc) return KV_ERR_MISSING_FIELD;
  MiByte sealed = enc->GetData();
  // BER writers may send the implicitly tagged string in segments.
  if (enc->GetAsnTagForm() == ASN_TAG_FORM_CONSTRUCTED) {
    std::string joined;
    size_t pos = 0;
    while (pos < sealed.GetLength())
      if (!Normalise(sealed.GetBytes(), sealed.GetLength(), pos, joined, 0, true))
        return KV_ERR_DECODE;
    sealed = FromString(joined);
  }
  return DecryptContent(op, c, key, iv, sealed, content);
}

int HandOut(const MiByte& data, unsigned char** out, unsigned int* outLen) {
  *out = static_cast<unsigned char*>(T_malloc(data.GetLength() ? data.GetLength() : 1));
  if (*out == nullptr) {
    *outLen = 0;
    return KV_ERR_MEMORY;
  }
  if (data.GetLength()) std::memcpy(*out, data.GetBytes(), data.GetLength());
  *outLen = data.GetLength();
  return 0;
}

}  // namespace kv::pkcs7
