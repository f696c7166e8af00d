#include "control/internal/toolkit.h"

#include <cstring>

#include "asn1/asn1.h"
#include "asn1/types/types.h"
#include "control/internal/codes.h"
#include "control/internal/support.h"
#include "crypto/p11.h"
#include "pki/flat.h"

namespace kv::control {

namespace {

// The placeholder module path and token label of the MAC's token layer (a
// two-character GB2312 word): no module of that name exists, so the layer
// goes on on the soft token.
const char kPlaceholder[] = "\xCB\xE6\xB1\xE3";

// A soft-token session for one step.
int OpenSoftToken(KV_P11_OP* op) {
  KV_P11_LoadModule(kPlaceholder, kPlaceholder, nullptr);
  KV_PKCS11_S chooser{};
  chooser.selector = KV_P11_STORE_SOFT;
  chooser.label = reinterpret_cast<unsigned char*>(const_cast<char*>(kPlaceholder));
  chooser.labelLen = static_cast<unsigned>(std::strlen(kPlaceholder));
  return op->createChooser(&chooser);
}

// An RC4 key holding a private copy of the key bytes.
int Rc4Key(const uint8_t* bytes, size_t len, KV_P11_Key* key) {
  if (key->setKeyType(KV_KEY_RC4) != 0) return -1;
  KV_PKCS11_SESSION_KEY session{};
  session.key = const_cast<unsigned char*>(bytes);
  session.keyLen = static_cast<unsigned>(len);
  session.size = static_cast<int>(len);
  return key->setSessionKey(&session);
}

template <typename T>
bool Decode(const Bytes& der, T* obj) {
  try {
    MiByte in(reinterpret_cast<const char*>(der.data()), static_cast<unsigned>(der.size()));
    return obj->DerDecode(in, 0) == der.size();
  } catch (const MiException&) {
    return false;
  }
}

Bytes Encode(const AsnObject& obj) {
  MiByteBuffer out;
  unsigned n = obj.DerEncode(out, 0);
  const unsigned char* p = out.GetBytes();
  return p ? Bytes(p, p + n) : Bytes();
}

}  // namespace

Library::~Library() {
  if (ctx_) PKCS_DestroyCtx(ctx_);
  if (initialized_) PKCS_Finalize();
}

int Library::Open() {
  if (PKCS_Initialize() != 0) return kLibraryInit;
  initialized_ = true;
  if (PKCS_CreateCtx(&ctx_) != 0) {
    ctx_ = nullptr;
    return kLibraryContext;
  }
  return 0;
}

int PrivateKey::Init(PKCS_CTX ctx) {
  Free();
  if (PKCS_InitPriKey(ctx, &key_) != 0) return kPrivateKeyRecord;
  ctx_ = ctx;
  live_ = true;
  return 0;
}

void PrivateKey::Free() {
  if (live_) PKCS_FreePriKey(ctx_, &key_);
  live_ = false;
}

int MacOf(const std::string& text, const std::string& key, std::string* base64) {
  KV_P11_OP op;
  if (OpenSoftToken(&op) != 0) return kMacDigest;
  // Scratch blocks are zeroed before use.
  MiByte digest(10240, 0);
  MiByte mac(10240, 0);
  KV_P11_Alg sha1;
  MiByte in(text.data(), static_cast<unsigned>(text.size()));
  if (sha1.setAlgType(KV_ALG_SHA1) != 0 || op.Digest(sha1, in, digest) != 0 ||
      digest.GetLength() != 20) {
    return kMacDigest;
  }
  KV_P11_Alg rc4;
  KV_P11_Key rc4Key;
  if (key.empty() || rc4.setAlgType(KV_ALG_RC4) != 0 ||
      Rc4Key(reinterpret_cast<const uint8_t*>(key.data()), key.size(), &rc4Key) != 0 ||
      op.Encrypt(rc4, rc4Key, digest, mac) != 0 || mac.GetLength() != 20) {
    return kMacCipher;
  }
  *base64 = Base64Encode(mac.GetBytes(), mac.GetLength());
  return 0;
}

int Rc4Decrypt(const Bytes& key, const Bytes& in, Bytes* out) {
  if (key.empty() || in.empty()) return kCipherNoInput;
  KV_P11_OP op;
  if (OpenSoftToken(&op) != 0) return -1;
  KV_P11_Key rc4Key;
  if (Rc4Key(key.data(), key.size(), &rc4Key) != 0) return -1;  // "Error in RC4 ICK"
  KV_P11_Alg rc4;
  MiByte data(reinterpret_cast<const char*>(in.data()), static_cast<unsigned>(in.size()));
  MiByte plain;
  if (rc4.setAlgType(KV_ALG_RC4) != 0 || op.Decrypt(rc4, rc4Key, data, plain) != 0) return -1;
  if (plain.GetLength() == 0) return kCipherNoLength;
  out->assign(plain.GetBytes(), plain.GetBytes() + plain.GetLength());
  return 0;
}

int PublicBlobToP1(const Bytes& blob, Bytes* der) {
  unsigned len = 0;
  int rc = KV_MSPubKeyToP1Der(blob.data(), nullptr, &len);
  if (rc != 0) return rc;
  der->assign(len, 0);
  rc = KV_MSPubKeyToP1Der(blob.data(), der->data(), &len);
  if (rc != 0) return rc;
  der->resize(len);
  return 0;
}

bool CertificateNotAfter(const Bytes& cert, int64_t* when) {
  Certificate c;
  if (!Decode(cert, &c)) return false;
  const TBSCertificate* tbs = c.GetTBSCertificate();
  const Validity* v = tbs ? tbs->GetValidity() : nullptr;
  const X509Time* t = v ? v->GetNotAfter() : nullptr;
  if (!t) return false;
  if (const AsnGeneralizedTime* g = t->GetGeneralizedTime(); g && !g->GetTime().IsEmpty()) {
    *when = g->GetTime().ToTimeT();
    return true;
  }
  if (const AsnUTCTime* u = t->GetUtcTime(); u && !u->GetTime().IsEmpty()) {
    *when = u->GetTime().ToTimeT();
    return true;
  }
  return false;
}

bool CertificatePublicKeyInfo(const Bytes& cert, Bytes* spki) {
  try {
    Certificate c;
    if (!Decode(cert, &c)) return false;
    const TBSCertificate* tbs = c.GetTBSCertificate();
    const SubjectPublicKeyInfo* info = tbs ? tbs->GetSubjectPublicKeyInfo() : nullptr;
    if (!info) return false;
    *spki = Encode(*info);
    return !spki->empty();
  } catch (const MiException&) {
    return false;
  }
}

}  // namespace kv::control
