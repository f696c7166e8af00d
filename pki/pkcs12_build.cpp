// KV_GenPFX: certificate + RSA private key record + password -> DER PFX.
#include <cstring>

#include "asn1/asn1.h"
#include "pki/internal/context.h"
#include "pki/internal/pkcs12_asn.h"
#include "pki/internal/pkcs12_pbe.h"
#include "pki/pkcs12.h"

namespace {

using namespace kv::pki::p12;

constexpr int kDefaultIterations = 2048;
constexpr unsigned kSaltLen = 8;

// The record's integers as an RSAPrivateKey; -1003 when a component is
// missing.
int RecordToRsa(const PKCS_PRIKEY& k, RSAPrivateKey& rsa) {
  const unsigned char* parts[8] = {k.modulus, k.publicExponent, k.privateExponent, k.prime1,
                                   k.prime2,  k.exponent1,      k.exponent2,       k.coefficient};
  const unsigned lens[8] = {k.modulusLen,   k.publicExponentLen, k.privateExponentLen,
                            k.prime1Len,    k.prime2Len,         k.exponent1Len,
                            k.exponent2Len, k.coefficientLen};
  AsnInteger v[8];
  for (int i = 0; i < 8; ++i) {
    if (parts[i] == nullptr || lens[i] == 0) return KV_ERR_NOTHING_HELD;
    v[i].SetData(MiBigInteger::FromMagnitude(parts[i], lens[i]));
  }
  rsa.SetVersion(AsnInteger(0));
  rsa.SetPkModulus(v[0]);
  rsa.SetPublicExponent(v[1]);
  rsa.SetPrivateExponent(v[2]);
  rsa.SetPrime1(v[3]);
  rsa.SetPrime2(v[4]);
  rsa.SetExponent1(v[5]);
  rsa.SetExponent2(v[6]);
  rsa.SetCoefficient(v[7]);
  return 0;
}

AlgorithmIdentifier Algorithm(const char* oid, const AsnObject* params) {
  AlgorithmIdentifier alg;
  alg.SetAlgorithm(AsnOid(oid));
  if (params) alg.SetParameters(AsnAny(*params));
  return alg;
}

AlgorithmIdentifier PbeAlgorithm(const char* oid, const MiByte& salt, int iterations) {
  PKCS12PbeParams params;
  params.SetSalt(AsnOctetString(salt));
  params.SetIterations(AsnInteger(iterations));
  return Algorithm(oid, &params);
}

ContentInfo DataContent(const MiByte& octets) {
  ContentInfo ci;
  ci.SetContentType(AsnOid(kOidData));
  ci.SetContent(AsnAny(AsnOctetString(octets)));
  return ci;
}

int Random(KV_P11_OP& op, unsigned n, MiByte& out) {
  MiByte seed;
  int rv = op.GenerateRandom(out, static_cast<int>(n), seed);
  if (rv == 0 && out.GetLength() != n) rv = KV_ERR_ARGUMENT;
  return rv;
}

// The friendlyName as a BMPString; false for text that is not UTF-8 or has
// characters beyond the basic plane, which a BMPString cannot hold.
bool FriendlyName(const char* utf8, AsnBMPString& name) {
  try {
    name.SetUtf8(utf8);
  } catch (const MiException&) {
    return false;
  }
  for (unsigned i = 0; i < name.GetCount(); ++i)
    if (name.GetCode(i) > 0xFFFF) return false;
  return true;
}

// The attributes of the key and leaf bags: friendlyName, then localKeyId.
AsnSetOf<PKCS12Attribute> BagAttributes(const AsnBMPString* name, const MiByte& localKeyId) {
  AsnSetOf<PKCS12Attribute> attrs;
  if (name) {
    PKCS12Attribute* a = attrs.AddNew();
    a->SetAttrId(AsnOid(kOidFriendlyName));
    AsnSetOf<AsnAny> values;
    values.Add(AsnAny(*name));
    a->SetAttrValues(values);
  }
  if (!localKeyId.Empty()) {
    PKCS12Attribute* a = attrs.AddNew();
    a->SetAttrId(AsnOid(kOidLocalKeyId));
    AsnSetOf<AsnAny> values;
    values.Add(AsnAny(AsnOctetString(localKeyId)));
    a->SetAttrValues(values);
  }
  return attrs;
}

SafeBag CertSafeBag(const MiByte& cert, const AsnSetOf<PKCS12Attribute>* attrs) {
  CertBag cb;
  cb.SetCertId(AsnOid(kOidX509Certificate));
  cb.SetCertValue(AsnAny(AsnOctetString(cert)));
  SafeBag bag;
  bag.SetBagId(AsnOid(kOidCertBag));
  bag.SetBagValue(AsnAny(cb));
  if (attrs && !attrs->Empty()) bag.SetBagAttributes(*attrs);
  return bag;
}

bool IsCertificate(const MiByte& der) {
  Certificate c;
  try {
    DecodeAll(c, der);
  } catch (const MiException&) {
    return false;
  }
  return true;
}

int Build(KV_P11_OP& op, const MiByte& cert, const PKCS_PRIKEY& key, const char* password,
          const KV_PFX_OPTIONS& opt, MiByte& pfxDer) {
  const int iterations = opt.iterations == 0 ? kDefaultIterations : opt.iterations;
  if (iterations < 1) return KV_ERR_ARGUMENT;
  const char* certScheme = nullptr;
  switch (opt.certCipher) {
    case KV_PFX_CERT_RC2_40:
      certScheme = kPbeShaRc2_40;
      break;
    case KV_PFX_CERT_3DES:
      certScheme = kPbeSha3Des;
      break;
    case KV_PFX_CERT_NONE:
      break;
    default:
      return KV_ERR_ARGUMENT;
  }
  if (opt.localKeyId == nullptr && opt.localKeyIdLen != 0) return KV_ERR_ARGUMENT;
  AsnBMPString name;
  const bool named = opt.friendlyName && *opt.friendlyName;
  if (named && !FriendlyName(opt.friendlyName, name)) return KV_ERR_ARGUMENT;
  if (!IsCertificate(cert)) return KV_ERR_DECODE;
  std::vector<MiByte> cas;
  if (opt.caCerts) {
    unsigned n = 0;
    KV_ListCount(opt.caCerts, &n);
    for (unsigned i = 0; i < n; ++i) {
      const unsigned char* p = nullptr;
      unsigned len = 0;
      KV_ListGet(opt.caCerts, i, &p, &len);
      MiByte ca(reinterpret_cast<const char*>(p), len);
      if (!IsCertificate(ca)) return KV_ERR_ARGUMENT;
      cas.push_back(ca);
    }
  }

  MiByte bmp;
  if (!PasswordToBmp(password, bmp)) return KV_ERR_ARGUMENT;
  struct WipeOnExit {
    MiByte& b;
    ~WipeOnExit() { Wipe(b); }
  } wipeBmp{bmp};

  // The private key as PKCS #8.
  RSAPrivateKey rsa;
  int rv = RecordToRsa(key, rsa);
  if (rv != 0) return rv;
  PrivateKeyInfo pki;
  pki.SetVersion(AsnInteger(0));
  AsnNull null;
  pki.SetPrivateKeyAlgorithm(Algorithm(kOidRsaEncryption, &null));
  MiByte rsaDer = Der(rsa);
  pki.SetPrivateKey(AsnOctetString(rsaDer));
  Wipe(rsaDer);
  MiByte pkiDer = Der(pki);
  pki.SetPrivateKey(AsnOctetString());

  MiByte localKeyId;
  if (opt.localKeyId) {
    localKeyId = MiByte(reinterpret_cast<const char*>(opt.localKeyId), opt.localKeyIdLen);
  } else {
    KV_P11_Alg sha1;
    sha1.setAlgType(KV_ALG_SHA1);
    MiByte in(cert);
    if ((rv = op.Digest(sha1, in, localKeyId)) != 0) return rv;
  }
  AsnSetOf<PKCS12Attribute> attrs = BagAttributes(named ? &name : nullptr, localKeyId);

  // The shrouded key bag.
  MiByte keySalt, encryptedKey;
  if ((rv = Random(op, kSaltLen, keySalt)) != 0) return rv;
  rv = PbeCrypt(op, *FindPbe(kPbeSha3Des), bmp, keySalt, iterations, true, pkiDer, encryptedKey);
  Wipe(pkiDer);
  if (rv != 0) return rv;
  EncryptedPrivateKeyInfo epki;
  epki.SetEncryptionAlgorithm(PbeAlgorithm(kPbeSha3Des, keySalt, iterations));
  epki.SetEncryptedData(AsnOctetString(encryptedKey));
  AsnSequenceOf<SafeBag> keySafe;
  SafeBag* keyBag = keySafe.AddNew();
  keyBag->SetBagId(AsnOid(kOidShroudedKeyBag));
  keyBag->SetBagValue(AsnAny(epki));
  if (!attrs.Empty()) keyBag->SetBagAttributes(attrs);

  // The certificates: the leaf first, with the key's attributes.
  AsnSequenceOf<SafeBag> certSafe;
  certSafe.Add(CertSafeBag(cert, &attrs));
  for (const MiByte& ca : cas) certSafe.Add(CertSafeBag(ca, nullptr));
  MiByte certSafeDer = Der(certSafe);

  AsnSequenceOf<ContentInfo> authSafe;
  if (certScheme) {
    MiByte certSalt, encrypted;
    if ((rv = Random(op, kSaltLen, certSalt)) != 0) return rv;
    rv =
        PbeCrypt(op, *FindPbe(certScheme), bmp, certSalt, iterations, true, certSafeDer, encrypted);
    if (rv != 0) return rv;
    EncryptedContentInfo eci;
    eci.SetContentType(AsnOid(kOidData));
    eci.SetContentEncryptionAlgorithm(PbeAlgorithm(certScheme, certSalt, iterations));
    eci.SetEncryptedContent(AsnOctetString(encrypted));
    EncryptedData ed;
    ed.SetVersion(AsnInteger(0));
    ed.SetEncryptedContentInfo(eci);
    ContentInfo* ci = authSafe.AddNew();
    ci->SetContentType(AsnOid(kOidEncryptedData));
    ci->SetContent(AsnAny(ed));
  } else {
    authSafe.Add(DataContent(certSafeDer));
  }
  authSafe.Add(DataContent(Der(keySafe)));
  MiByte authSafeDer = Der(authSafe);

  // Integrity: HMAC-SHA-1 over the authenticated safe's octets.
  MiByte macSalt, macKey, mac;
  if ((rv = Random(op, kSaltLen, macSalt)) != 0) return rv;
  rv = DeriveKey(op, bmp, macSalt, iterations, kIdMac, 20, macKey);
  if (rv == 0) rv = HmacSha1(op, macKey, authSafeDer, mac);
  Wipe(macKey);
  if (rv != 0) return rv;
  DigestInfo di;
  di.SetDigestAlgorithm(Algorithm(kOidSha1, &null));
  di.SetDigest(AsnOctetString(mac));
  MacData md;
  md.SetMac(di);
  md.SetMacSalt(AsnOctetString(macSalt));
  // DER leaves out a value equal to the DEFAULT of 1.
  if (iterations != 1) md.SetIterations(AsnInteger(iterations));

  PFX pfx;
  pfx.SetVersion(AsnInteger(3));
  pfx.SetAuthSafe(DataContent(authSafeDer));
  pfx.SetMacData(md);
  pfxDer = Der(pfx);
  return 0;
}

}  // namespace

extern "C" {

int KV_GenPFXEx(PKCS_CTX ctx, const unsigned char* cert, unsigned int certLen,
                const PKCS_PRIKEY* key, const char* password, const KV_PFX_OPTIONS* options,
                unsigned char** pfx, unsigned int* pfxLen) {
  if (pfx) *pfx = nullptr;
  if (pfxLen) *pfxLen = 0;
  if (!kv::pki::LibraryInitialized()) return KV_ERR_NOT_INITIALIZED;
  KV_P11_OP* op = kv::pki::ContextOp(ctx);
  if (op == nullptr) return KV_ERR_BAD_CONTEXT;
  if (cert == nullptr || certLen == 0 || key == nullptr || pfx == nullptr || pfxLen == nullptr)
    return KV_ERR_ARGUMENT;
  return kv::pki::Guard([&]() -> int {
    KV_PFX_OPTIONS defaults{};
    MiByte certDer(reinterpret_cast<const char*>(cert), certLen), der;
    int rv = Build(*op, certDer, *key, password, options ? *options : defaults, der);
    if (rv != 0) return rv;
    auto* buf = static_cast<unsigned char*>(T_malloc(der.GetLength()));
    if (buf == nullptr) return KV_ERR_MEMORY;
    std::memcpy(buf, der.GetChars(), der.GetLength());
    *pfx = buf;
    *pfxLen = der.GetLength();
    return 0;
  });
}

int KV_GenPFX(PKCS_CTX ctx, const unsigned char* cert, unsigned int certLen, const PKCS_PRIKEY* key,
              const char* password, unsigned char** pfx, unsigned int* pfxLen) {
  return KV_GenPFXEx(ctx, cert, certLen, key, password, nullptr, pfx, pfxLen);
}

}  // extern "C"
