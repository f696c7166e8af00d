#include "control/internal/toolkit.h"

#include <algorithm>
#include <cstring>

#include "asn1/asn1.h"
#include "asn1/types/types.h"
#include "control/internal/codes.h"
#include "control/internal/support.h"
#include "crypto/p11.h"
#include "pki/dn.h"
#include "pki/flat.h"
#include "pki/pkcs10.h"
#include "pki/pkcs12.h"
#include "pki/pkcs7.h"

namespace kv::control {

namespace {

// The placeholder module path and token label of the MAC's token layer (a
// two-character GB2312 word): no module of that name exists, so the layer
// goes on on the soft token.
const char kPlaceholder[] = "\xCB\xE6\xB1\xE3";

// A soft-token session for one step.
int OpenSoftToken(KV_P11_OP* op) {
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
  // The token layer is initialised with the placeholder module, which is
  // not found; the MAC runs on the soft token.
  KV_P11_LoadModule(kPlaceholder, kPlaceholder, nullptr);
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

// ---- Certificate bundles, names, requests and PFX files ----

namespace {

struct ListOwner {
  KV_LIST* list = nullptr;
  ~ListOwner() { KV_DestroyList(list); }
};

// A block of T_malloc released on every path.
struct TBlock {
  unsigned char* data = nullptr;
  unsigned int len = 0;
  ~TBlock() { T_free(data); }
  Bytes bytes() const { return data ? Bytes(data, data + len) : Bytes(); }
};

// The certificates of a bundle into a fresh list: 0 or the inner code.
int ReadBundle(const Bytes& p7, PKCS_CTX* ctxOut, Library* library, ListOwner* list) {
  if (p7.empty()) return kEmptyCertificates;
  if (library->Open() != 0) return kLibraryContext;
  *ctxOut = library->ctx();
  if (KV_CreateList(&list->list) != 0) return kCertificateList;
  if (PKCS7_ReadSignedDataMsg(library->ctx(), p7.data(), static_cast<unsigned>(p7.size()),
                              list->list) != 0) {
    return kLeafCertificate;
  }
  unsigned count = 0;
  if (KV_ListCount(list->list, &count) != 0 || count == 0) return kListEmpty;
  return 0;
}

std::u16string NameText(const AsnObject& name) {
  Bytes der = Encode(name);
  unsigned len = 0;
  if (KV_NameToText(der.data(), static_cast<unsigned>(der.size()), nullptr, &len) != 0) {
    return std::u16string();
  }
  std::string text(len, '\0');
  if (KV_NameToText(der.data(), static_cast<unsigned>(der.size()), &text[0], &len) != 0) {
    return std::u16string();
  }
  text.resize(len > 0 ? len - 1 : 0);
  return Utf8ToUtf16(text);
}

struct SignerState {
  const RequestSigner* sign;
  bool failed = false;
};

int SignTrampoline(void* arg, const unsigned char* info, unsigned int infoLen, unsigned char* sig,
                   unsigned int* sigLen) {
  auto* state = static_cast<SignerState*>(arg);
  Bytes signature;
  try {
    if (!(*state->sign)(Bytes(info, info + infoLen), &signature) || signature.size() > *sigLen) {
      state->failed = true;
      return -1;
    }
  } catch (...) {
    state->failed = true;
    return -1;
  }
  std::copy(signature.begin(), signature.end(), sig);
  *sigLen = static_cast<unsigned>(signature.size());
  return 0;
}

}  // namespace

int BundleCertificates(const Bytes& p7, std::vector<Bytes>* certs) {
  Library library;
  ListOwner list;
  PKCS_CTX ctx = nullptr;
  if (int inner = ReadBundle(p7, &ctx, &library, &list)) return inner;
  unsigned count = 0;
  KV_ListCount(list.list, &count);
  certs->clear();
  for (unsigned i = 0; i < count; ++i) {
    const unsigned char* data = nullptr;
    unsigned n = 0;
    if (KV_ListGet(list.list, i, &data, &n) != 0) return kLeafCertificate;
    certs->emplace_back(data, data + n);
  }
  return 0;
}

int BundleLeaf(const Bytes& p7, Bytes* leaf) {
  Library library;
  ListOwner list;
  PKCS_CTX ctx = nullptr;
  if (int inner = ReadBundle(p7, &ctx, &library, &list)) return inner;
  unsigned len = 0;
  if (PKCS7_GetLeafCert(ctx, list.list, nullptr, &len) != 0 || len == 0) return kLeafCertificate;
  leaf->assign(len, 0);
  if (PKCS7_GetLeafCert(ctx, list.list, leaf->data(), &len) != 0) return kLeafCertificate;
  leaf->resize(len);
  return 0;
}

bool CertificateNames(const Bytes& cert, std::u16string* subject, std::u16string* issuer) {
  try {
    Certificate c;
    if (!Decode(cert, &c)) return false;
    const TBSCertificate* tbs = c.GetTBSCertificate();
    if (!tbs || !tbs->GetSubject() || !tbs->GetIssuer()) return false;
    *subject = NameText(*tbs->GetSubject());
    *issuer = NameText(*tbs->GetIssuer());
    return true;
  } catch (const MiException&) {
    return false;
  }
}

bool IsNameText(const std::string& utf8) {
  unsigned len = 0;
  return KV_ParseDN(utf8.c_str(), nullptr, &len) == 0;
}

int BuildRequest(const std::string& subject, const Bytes& publicKey, const RequestSigner& sign,
                 Bytes* request) {
  Library library;
  if (library.Open() != 0) return kRequestBuild;
  PKCS_PUBKEY key{};
  PKCS_InitPubKey(library.ctx(), &key);
  struct Release {
    PKCS_CTX ctx;
    PKCS_PUBKEY* key;
    ~Release() { PKCS_FreePubKey(ctx, key); }
  } release{library.ctx(), &key};
  if (KV_PKCS1PubKeyDecode(library.ctx(), publicKey.data(), static_cast<unsigned>(publicKey.size()),
                           &key) != 0) {
    return kRequestBuild;
  }
  SignerState state{&sign};
  TBlock der;
  int rc = KVPKCS_GenPKCS10(library.ctx(), subject.c_str(), &key, nullptr, SignTrampoline, &state,
                            &der.data, &der.len);
  if (state.failed) return kSignRequest;
  if (rc != 0) return kRequestBuild;
  *request = der.bytes();
  return 0;
}

int RequestPublicKey(PKCS_CTX ctx, const Bytes& request, PKCS_PUBKEY* key) {
  ListOwner parts;
  int rc = KV_CreateList(&parts.list);
  if (rc != 0) return rc;
  return KVPKCS_DecomposePKCS10(ctx, request.data(), static_cast<unsigned>(request.size()),
                                parts.list, key);
}

int BuildPfx(const Bytes& cert, const PKCS_PRIKEY& key, const std::string& password, Bytes* pfx) {
  if (cert.empty()) return kNoCertificate;
  if (PKCS_Initialize() != 0) return kLibraryInit;
  struct Finalize {
    ~Finalize() { PKCS_Finalize(); }
  } finalize;
  PKCS_CTX ctx = nullptr;
  if (PKCS_CreateCtx(&ctx) != 0) return kLibraryContext;
  struct Destroy {
    PKCS_CTX ctx;
    ~Destroy() { PKCS_DestroyCtx(ctx); }
  } destroy{ctx};
  TBlock der;
  if (KV_GenPFX(ctx, cert.data(), static_cast<unsigned>(cert.size()), &key, password.c_str(),
                &der.data, &der.len) != 0) {
    return kPfxBuild;
  }
  *pfx = der.bytes();
  return 0;
}

}  // namespace kv::control
