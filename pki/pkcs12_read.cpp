// Reading a PFX: MAC first, then every SafeContents and bag.
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "asn1/asn1.h"
#include "crypto/internal/wipe.h"
#include "pki/internal/context.h"
#include "pki/internal/pkcs12_asn.h"
#include "pki/internal/pkcs12_pbe.h"
#include "pki/pkcs12.h"

namespace {

using namespace kv::pki::p12;

// Nested SafeContents bags deeper than this are refused: a file cannot make
// the reader recurse without end.
constexpr int kMaxNesting = 8;
// Writers use 1 to a few hundred thousand rounds; a file asking for more would
// hold the reader for minutes, so it is refused as outside what we support.
constexpr int kMaxIterations = 1000000;

std::string OidText(const AsnOid* oid) {
  if (oid == nullptr) return std::string();
  const MiString& s = oid->GetData();
  return std::string(s.GetChars() ? s.GetChars() : "", s.GetLength());
}

// The octets of an OCTET STRING held by an open type.
MiByte Octets(const AsnAny* any) {
  if (any == nullptr || !any->HasData()) throw AsnDecodeExp();
  AsnOctetString os;
  any->DecodeInto(os);
  return os.GetData();
}

bool SameOctets(const MiByte& a, const MiByte& b) {
  if (a.GetLength() != b.GetLength()) return false;
  unsigned char diff = 0;
  for (unsigned i = 0; i < a.GetLength(); ++i) diff |= a.GetBytes()[i] ^ b.GetBytes()[i];
  return diff == 0;
}

class Reader {
 public:
  Reader(KV_P11_OP& op, std::vector<KV_PFX_BAG>& bags) : op_(op), bags_(bags) {}
  ~Reader() { Wipe(password_); }

  int Run(const MiByte& der, const char* password, std::string& integrity) {
    PFX pfx;
    DecodeAll(pfx, der);
    // The decoder reads by position; the version pins the structure down.
    if (pfx.GetVersion() == nullptr || pfx.GetVersion()->Int32Value() != 3) return KV_ERR_DECODE;
    const ContentInfo* auth = pfx.GetAuthSafe();
    if (auth == nullptr) return KV_ERR_MISSING_FIELD;
    // Public-key integrity mode (signedData) needs the signer's key; not ours.
    if (OidText(auth->GetContentType()) != kOidData) return KV_ERR_UNSUPPORTED;
    MiByte authOctets = Octets(auth->GetContent());

    if (!PasswordToBmp(password, password_)) return KV_ERR_ARGUMENT;
    int rv = 0;
    if (const MacData* md = pfx.GetMacData()) {
      if ((rv = CheckMac(*md, authOctets, integrity)) != 0) return rv;
    } else {
      integrity = "none";
    }

    AsnSequenceOf<ContentInfo> safes;
    DecodeAll(safes, authOctets);
    for (unsigned i = 0; i < safes.Size(); ++i)
      if ((rv = ReadSafe(*safes.Get(i))) != 0) return rv;
    return 0;
  }

 private:
  int CheckMac(const MacData& md, const MiByte& data, std::string& integrity) {
    const DigestInfo* di = md.GetMac();
    if (di == nullptr || di->GetDigestAlgorithm() == nullptr || md.GetMacSalt() == nullptr ||
        di->GetDigest() == nullptr)
      return KV_ERR_MISSING_FIELD;
    // Files of the newer profiles MAC with SHA-2, which the token lacks.
    if (OidText(di->GetDigestAlgorithm()->GetAlgorithm()) != kOidSha1) return KV_ERR_UNSUPPORTED;
    int iterations = 1;
    if (const AsnInteger* it = md.GetIterations()) iterations = it->Int32Value();
    if (iterations < 1) return KV_ERR_DECODE;
    if (iterations > kMaxIterations) return KV_ERR_UNSUPPORTED;
    const MiByte& salt = md.GetMacSalt()->GetData();
    const MiByte& expected = di->GetDigest()->GetData();
    int rv = MacMatches(password_, salt, iterations, data, expected);
    if (rv == 1 && password_.GetLength() == 2) {
      // Some writers take an empty password as no octets at all rather than
      // the two terminating zeros; that form is tried as well.
      MiByte none;
      rv = MacMatches(none, salt, iterations, data, expected);
      if (rv == 0) password_ = none;
    }
    if (rv == 1) return KV_ERR_MAC;
    if (rv != 0) return rv;
    integrity = "HMAC-SHA-1, " + std::to_string(iterations) + " iterations";
    return 0;
  }

  // 0 when the MAC matches, 1 when it does not, else a token status.
  int MacMatches(const MiByte& pw, const MiByte& salt, int iterations, const MiByte& data,
                 const MiByte& expected) {
    MiByte key, mac;
    int rv = DeriveKey(op_, pw, salt, iterations, kIdMac, 20, key);
    if (rv == 0) rv = HmacSha1(op_, key, data, mac);
    Wipe(key);
    if (rv != 0) return rv;
    return SameOctets(mac, expected) ? 0 : 1;
  }

  // Decrypts with the scheme named by alg; fills protection.
  int Decrypt(const AlgorithmIdentifier* alg, const MiByte& in, MiByte& out,
              std::string& protection) {
    if (alg == nullptr) return KV_ERR_MISSING_FIELD;
    std::string oid = OidText(alg->GetAlgorithm());
    const PbeScheme* scheme = FindPbe(oid.c_str());
    // PBES2 (PBKDF2 with HMAC-SHA-256 and AES-CBC, the default of newer
    // writers) needs ciphers the token does not offer.
    if (scheme == nullptr) return KV_ERR_UNSUPPORTED;
    PKCS12PbeParams params;
    const AsnAny* p = alg->GetParameters();
    if (p == nullptr || !p->HasData()) return KV_ERR_MISSING_FIELD;
    p->DecodeInto(params);
    if (params.GetSalt() == nullptr || params.GetIterations() == nullptr)
      return KV_ERR_MISSING_FIELD;
    int iterations = params.GetIterations()->Int32Value();
    if (iterations < 1) return KV_ERR_DECODE;
    if (iterations > kMaxIterations) return KV_ERR_UNSUPPORTED;
    protection = std::string(scheme->name) + ", " + std::to_string(iterations) + " iterations";
    return PbeCrypt(op_, *scheme, password_, params.GetSalt()->GetData(), iterations, false, in,
                    out);
  }

  int ReadSafe(const ContentInfo& ci) {
    std::string type = OidText(ci.GetContentType());
    if (type == kOidData) return ReadSafeContents(Octets(ci.GetContent()), "none", 0);
    if (type != kOidEncryptedData) return KV_ERR_UNSUPPORTED;
    const AsnAny* content = ci.GetContent();
    if (content == nullptr || !content->HasData()) return KV_ERR_MISSING_FIELD;
    EncryptedData ed;
    content->DecodeInto(ed);
    const EncryptedContentInfo* eci = ed.GetEncryptedContentInfo();
    if (eci == nullptr) return KV_ERR_MISSING_FIELD;
    if (eci->GetEncryptedContent() == nullptr) return 0;  // nothing inside
    MiByte plain;
    std::string protection;
    int rv = Decrypt(eci->GetContentEncryptionAlgorithm(), eci->GetEncryptedContent()->GetData(),
                     plain, protection);
    if (rv != 0) return rv;
    return ReadSafeContents(plain, protection, 0);
  }

  int ReadSafeContents(const MiByte& der, const std::string& protection, int depth) {
    if (depth > kMaxNesting) return KV_ERR_DECODE;
    AsnSequenceOf<SafeBag> list;
    try {
      DecodeAll(list, der);
    } catch (const MiException&) {
      // Without a MAC, a wrong password shows here: padding that happened to
      // look right over octets that are not DER.
      return protection == "none" ? KV_ERR_DECODE : KV_ERR_DECRYPT;
    }
    for (unsigned i = 0; i < list.Size(); ++i) {
      int rv = ReadBag(*list.Get(i), protection, depth);
      if (rv != 0) return rv;
    }
    return 0;
  }

  int ReadBag(const SafeBag& bag, const std::string& protection, int depth) {
    KV_PFX_BAG out;
    out.bagId = OidText(bag.GetBagId());
    out.protection = protection;
    const AsnAny* value = bag.GetBagValue();
    if (value == nullptr || !value->HasData()) return KV_ERR_MISSING_FIELD;
    if (const AsnSetOf<PKCS12Attribute>* attrs = bag.GetBagAttributes())
      ReadAttributes(*attrs, out);

    if (out.bagId == kOidSafeContentsBag) {
      // A SafeContents nested as a bag: its bags count as the file's own.
      AsnSequenceOf<SafeBag> inner;
      value->DecodeInto(inner);
      return ReadSafeContents(Der(inner), protection, depth + 1);
    }
    if (out.bagId == kOidKeyBag) {
      PrivateKeyInfo pki;
      value->DecodeInto(pki);
      out.kind = KV_PFX_BAG::KEY;
      out.value = Der(pki);
    } else if (out.bagId == kOidShroudedKeyBag) {
      EncryptedPrivateKeyInfo epki;
      value->DecodeInto(epki);
      if (epki.GetEncryptedData() == nullptr) return KV_ERR_MISSING_FIELD;
      MiByte plain;
      int rv = Decrypt(epki.GetEncryptionAlgorithm(), epki.GetEncryptedData()->GetData(), plain,
                       out.protection);
      if (rv != 0) return rv;
      PrivateKeyInfo pki;
      try {
        DecodeAll(pki, plain);
      } catch (const MiException&) {
        Wipe(plain);
        return KV_ERR_DECRYPT;
      }
      out.kind = KV_PFX_BAG::SHROUDED_KEY;
      out.value = std::move(plain);
    } else if (out.bagId == kOidCertBag) {
      CertBag cb;
      value->DecodeInto(cb);
      out.kind = KV_PFX_BAG::CERT;
      // Other certificate types (SDSI) are kept as their open value.
      if (OidText(cb.GetCertId()) == kOidX509Certificate)
        out.value = Octets(cb.GetCertValue());
      else
        out.value = value->GetEncoded();
    } else {
      out.kind = out.bagId == kOidCrlBag      ? KV_PFX_BAG::CRL
                 : out.bagId == kOidSecretBag ? KV_PFX_BAG::SECRET
                                              : KV_PFX_BAG::OTHER;
      out.value = value->GetEncoded();
    }
    bags_.push_back(std::move(out));
    return 0;
  }

  static void ReadAttributes(const AsnSetOf<PKCS12Attribute>& attrs, KV_PFX_BAG& out) {
    for (unsigned i = 0; i < attrs.Size(); ++i) {
      const PKCS12Attribute* a = attrs.Get(i);
      const AsnSetOf<AsnAny>* values = a->GetAttrValues();
      if (values == nullptr || values->Empty()) continue;
      std::string id = OidText(a->GetAttrId());
      const AsnAny* v = values->Get(0);
      if (id == kOidFriendlyName) {
        AsnBMPString name;
        v->DecodeInto(name);
        MiString utf8 = name.GetUtf8();
        out.friendlyName.assign(utf8.GetChars() ? utf8.GetChars() : "", utf8.GetLength());
      } else if (id == kOidLocalKeyId) {
        out.localKeyId = Octets(v);
      }
    }
  }

  KV_P11_OP& op_;
  std::vector<KV_PFX_BAG>& bags_;
  MiByte password_;
};

// T_malloc copy of the magnitude of an INTEGER.
bool TakeMagnitude(const AsnInteger* v, unsigned char*& p, unsigned& len) {
  if (v == nullptr) return false;
  MiByte m = v->GetData().GetMagnitude();
  p = static_cast<unsigned char*>(T_malloc(m.GetLength() ? m.GetLength() : 1));
  if (p == nullptr) throw std::bad_alloc();
  if (m.GetLength()) std::memcpy(p, m.GetChars(), m.GetLength());
  len = m.GetLength();
  Wipe(m);
  return true;
}

// An rsaEncryption PrivateKeyInfo into the record; false for other keys.
bool KeyRecord(const MiByte& pkiDer, PKCS_PRIKEY& k) {
  PrivateKeyInfo pki;
  DecodeAll(pki, pkiDer);
  const AlgorithmIdentifier* alg = pki.GetPrivateKeyAlgorithm();
  if (alg == nullptr || OidText(alg->GetAlgorithm()) != kOidRsaEncryption ||
      pki.GetPrivateKey() == nullptr)
    return false;
  RSAPrivateKey rsa;
  DecodeAll(rsa, pki.GetPrivateKey()->GetData());
  return TakeMagnitude(rsa.GetPkModulus(), k.modulus, k.modulusLen) &&
         TakeMagnitude(rsa.GetPublicExponent(), k.publicExponent, k.publicExponentLen) &&
         TakeMagnitude(rsa.GetPrivateExponent(), k.privateExponent, k.privateExponentLen) &&
         TakeMagnitude(rsa.GetPrime1(), k.prime1, k.prime1Len) &&
         TakeMagnitude(rsa.GetPrime2(), k.prime2, k.prime2Len) &&
         TakeMagnitude(rsa.GetExponent1(), k.exponent1, k.exponent1Len) &&
         TakeMagnitude(rsa.GetExponent2(), k.exponent2, k.exponent2Len) &&
         TakeMagnitude(rsa.GetCoefficient(), k.coefficient, k.coefficientLen);
}

// True when the certificate's RSA modulus is the key's.
bool CertMatchesKey(const MiByte& certDer, const PKCS_PRIKEY& k) {
  try {
    Certificate c;
    DecodeAll(c, certDer);
    const TBSCertificate* tbs = c.GetTBSCertificate();
    const SubjectPublicKeyInfo* spki = tbs ? tbs->GetSubjectPublicKeyInfo() : nullptr;
    if (spki == nullptr || spki->GetSubjectPublicKey() == nullptr) return false;
    RSAPublicKey pub;
    DecodeAll(pub, spki->GetSubjectPublicKey()->GetData().GetByte());
    MiByte n = pub.GetPkModulus()->GetData().GetMagnitude();
    return n.GetLength() == k.modulusLen &&
           std::memcmp(n.GetChars(), k.modulus, n.GetLength()) == 0;
  } catch (const MiException&) {
    return false;
  }
}

unsigned char* CopyOut(const MiByte& b) {
  auto* p = static_cast<unsigned char*>(T_malloc(b.GetLength() ? b.GetLength() : 1));
  if (p == nullptr) throw std::bad_alloc();
  if (b.GetLength()) std::memcpy(p, b.GetChars(), b.GetLength());
  return p;
}

int Fill(const std::vector<KV_PFX_BAG>& bags, KV_PFX_CONTENTS& out) {
  const KV_PFX_BAG* keyBag = nullptr;
  for (const KV_PFX_BAG& b : bags) {
    if (b.kind != KV_PFX_BAG::KEY && b.kind != KV_PFX_BAG::SHROUDED_KEY) continue;
    if (KeyRecord(b.value, out.key)) {
      out.hasKey = 1;
      keyBag = &b;
      break;
    }
    PKCS_FreePriKey(nullptr, &out.key);
  }
  std::vector<const KV_PFX_BAG*> certs;
  for (const KV_PFX_BAG& b : bags)
    if (b.kind == KV_PFX_BAG::CERT && !b.value.Empty()) certs.push_back(&b);
  if (!out.hasKey && certs.empty()) return KV_ERR_NOTHING_HELD;

  size_t leaf = certs.size();
  if (keyBag && !keyBag->localKeyId.Empty()) {
    for (size_t i = 0; i < certs.size() && leaf == certs.size(); ++i)
      if (certs[i]->localKeyId == keyBag->localKeyId) leaf = i;
  }
  if (keyBag) {
    for (size_t i = 0; i < certs.size() && leaf == certs.size(); ++i)
      if (CertMatchesKey(certs[i]->value, out.key)) leaf = i;
  }
  if (leaf == certs.size() && !certs.empty()) leaf = 0;

  int rv = KV_CreateList(&out.others);
  if (rv != 0) return rv;
  for (size_t i = 0; i < certs.size(); ++i) {
    if (i == leaf) {
      out.cert = CopyOut(certs[i]->value);
      out.certLen = certs[i]->value.GetLength();
    } else if ((rv = KV_ListAppend(out.others, certs[i]->value.GetBytes(),
                                   certs[i]->value.GetLength())) != 0) {
      return rv;
    }
  }
  const std::string* name = nullptr;
  if (keyBag && !keyBag->friendlyName.empty()) name = &keyBag->friendlyName;
  if (name == nullptr && leaf < certs.size() && !certs[leaf]->friendlyName.empty())
    name = &certs[leaf]->friendlyName;
  if (name) {
    out.friendlyName = static_cast<char*>(T_malloc(name->size() + 1));
    if (out.friendlyName == nullptr) return KV_ERR_MEMORY;
    std::memcpy(out.friendlyName, name->c_str(), name->size() + 1);
  }
  return 0;
}

}  // namespace

int KV_PFX::Read(KV_P11_OP& op, const MiByte& der, const char* password) {
  bags_.clear();
  integrity_.clear();
  int rv = kv::pki::Guard([&]() -> int {
    Reader reader(op, bags_);
    return reader.Run(der, password, integrity_);
  });
  if (rv != 0) {
    for (KV_PFX_BAG& b : bags_) Wipe(b.value);
    bags_.clear();
    integrity_.clear();
  }
  return rv;
}

extern "C" {

int KV_InitPFXContents(KV_PFX_CONTENTS* contents) {
  if (contents == nullptr) return KV_ERR_ARGUMENT;
  std::memset(contents, 0, sizeof *contents);
  return 0;
}

int KV_FreePFXContents(KV_PFX_CONTENTS* contents) {
  if (contents == nullptr) return 0;
  PKCS_FreePriKey(nullptr, &contents->key);
  T_free(contents->cert);
  KV_DestroyList(contents->others);
  T_free(contents->friendlyName);
  std::memset(contents, 0, sizeof *contents);
  return 0;
}

int KV_ParsePFX(PKCS_CTX ctx, const unsigned char* pfx, unsigned int pfxLen, const char* password,
                KV_PFX_CONTENTS* contents) {
  if (contents == nullptr) return KV_ERR_ARGUMENT;
  KV_FreePFXContents(contents);
  if (!kv::pki::LibraryInitialized()) return KV_ERR_NOT_INITIALIZED;
  KV_P11_OP* op = kv::pki::ContextOp(ctx);
  if (op == nullptr) return KV_ERR_BAD_CONTEXT;
  if (pfx == nullptr || pfxLen == 0) return KV_ERR_ARGUMENT;
  int rv = kv::pki::Guard([&]() -> int {
    KV_PFX file;
    MiByte der(reinterpret_cast<const char*>(pfx), pfxLen);
    int r = file.Read(*op, der, password);
    if (r == 0) r = Fill(file.Bags(), *contents);
    return r;
  });
  if (rv != 0) KV_FreePFXContents(contents);
  return rv;
}

}  // extern "C"
