#include "control/portable/internal/tokens.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <sstream>

#include "control/portable/internal/files.h"
#include "control/portable/portable_platform.h"
#include "crypto/internal/cryptoki.h"
#include "crypto/sha1.h"

namespace kv::control::portable {

namespace {

// Attributes and flags the binding's header leaves out.
const CK_ATTRIBUTE_TYPE kPrivateExponent = 0x123, kPrime1 = 0x124, kPrime2 = 0x125,
                        kExponent1 = 0x126, kExponent2 = 0x127, kCoefficient = 0x128,
                        kApplication = 0x10;
const CK_FLAGS kWriteProtected = 0x2;

std::string Trim(std::string s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  size_t e = s.find_last_not_of(" \t\r\n");
  return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

std::string LabelText(const CK_UTF8CHAR (&label)[32]) {
  std::string s(reinterpret_cast<const char*>(label), sizeof label);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\0')) s.pop_back();
  return s;
}

// p11-kit resolves a bare module name in its own module folder.
std::string ResolveModule(const std::string& name) {
  if (name.empty() || name[0] == '/') return name;
  for (const char* dir : {"/usr/lib/x86_64-linux-gnu/pkcs11", "/usr/lib/aarch64-linux-gnu/pkcs11",
                          "/usr/lib64/pkcs11", "/usr/lib/pkcs11"}) {
    std::string path = std::string(dir) + "/" + name;
    if (IsRegularFile(path)) return path;
  }
  return name;
}

CK_ATTRIBUTE Attr(CK_ATTRIBUTE_TYPE type, const void* value, size_t len) {
  return CK_ATTRIBUTE{type, const_cast<void*>(value), static_cast<CK_ULONG>(len)};
}

// The TLV spans of a certificate's TBSCertificate that a certificate object
// carries: serial number, issuer and subject, as encoded.
struct TlvReader {
  const uint8_t* p;
  size_t n;
  // The next element: its whole encoding into *tlv, its content into *body.
  bool Next(Bytes* tlv, const uint8_t** body, size_t* bodyLen) {
    if (n < 2) return false;
    size_t hdr = 2, len = p[1];
    if (len & 0x80) {
      size_t k = len & 0x7f;
      if (k == 0 || k > 4 || n < 2 + k) return false;
      len = 0;
      for (size_t i = 0; i < k; ++i) len = (len << 8) | p[2 + i];
      hdr += k;
    }
    if (len > n - hdr) return false;
    if (tlv) tlv->assign(p, p + hdr + len);
    if (body) *body = p + hdr;
    if (bodyLen) *bodyLen = len;
    p += hdr + len;
    n -= hdr + len;
    return true;
  }
};

bool CertificateNames(const uint8_t* der, size_t len, Bytes* serial, Bytes* issuer,
                      Bytes* subject) {
  TlvReader outer{der, len};
  const uint8_t* body;
  size_t bodyLen;
  if (!outer.Next(nullptr, &body, &bodyLen)) return false;
  TlvReader cert{body, bodyLen};
  if (!cert.Next(nullptr, &body, &bodyLen)) return false;
  TlvReader tbs{body, bodyLen};
  if (bodyLen && body[0] == 0xA0 && !tbs.Next(nullptr, nullptr, nullptr)) return false;
  Bytes skip;
  return tbs.Next(serial, nullptr, nullptr) && tbs.Next(&skip, nullptr, nullptr) &&
         tbs.Next(issuer, nullptr, nullptr) && tbs.Next(&skip, nullptr, nullptr) &&
         tbs.Next(subject, nullptr, nullptr);
}

Bytes RandomId() {
  std::random_device rd;
  Bytes id(16);
  for (auto& b : id) b = static_cast<uint8_t>(rd());
  return id;
}

}  // namespace

std::vector<TokenModule> ReadP11KitModules(const std::vector<std::string>& dirs) {
  std::vector<TokenModule> out;
  for (const std::string& dir : dirs) {
    for (const std::string& file : ListFolder(dir, ".module")) {
      std::ifstream in(dir + "/" + file);
      std::string line;
      while (std::getline(in, line)) {
        line = Trim(line);
        if (line.rfind("module:", 0) != 0) continue;
        TokenModule m;
        m.path = ResolveModule(Trim(line.substr(7)));
        if (!m.path.empty()) out.push_back(m);
      }
    }
  }
  return out;
}

std::vector<TokenModule> ReadTokenConfig(const std::string& path) {
  std::vector<TokenModule> out;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    line = Trim(line);
    if (line.empty() || line[0] == '#') continue;
    size_t sp = line.find_first_of(" \t");
    std::string key = line.substr(0, sp);
    std::string value = sp == std::string::npos ? std::string() : Trim(line.substr(sp));
    if (key == "module") {
      out.push_back(TokenModule());
      out.back().path = value;
    } else if (out.empty()) {
      continue;  // settings before any module belong to none
    } else if (key == "token") {
      out.back().tokenLabel = value;
    } else if (key == "pin") {
      out.back().pin = value;
    } else if (key == "pin-file") {
      Bytes pin;
      if (ReadAll(value, 256, &pin)) out.back().pin = Trim(std::string(pin.begin(), pin.end()));
    }
  }
  return out;
}

// ------------------------------------------------------------------ modules

namespace {

class Library {
 public:
  explicit Library(const std::string& path) : h_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {}
  ~Library() {
    if (h_) dlclose(h_);
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  CK_FUNCTION_LIST_PTR Functions() const {
    if (!h_) return nullptr;
    void* sym = dlsym(h_, "C_GetFunctionList");
    if (!sym) return nullptr;
    CK_C_GetFunctionList get;
    static_assert(sizeof get == sizeof sym, "function and data pointers differ in size");
    std::memcpy(&get, &sym, sizeof get);
    CK_FUNCTION_LIST_PTR fl = nullptr;
    return get(&fl) == CKR_OK ? fl : nullptr;
  }

 private:
  void* h_;
};

struct LoadedModule {
  std::unique_ptr<Library> lib;
  CK_FUNCTION_LIST_PTR fl = nullptr;
  bool finalize = false;  // we initialised it
  ~LoadedModule() {
    if (fl && finalize) fl->C_Finalize(nullptr);
  }
};

struct Token {
  size_t module;
  std::string label;       // the provider's name
  std::string configured;  // PIN from the configuration
  bool askedPin = false;   // a PIN the chooser gave, kept for the process
  std::string pin;
};

}  // namespace

struct TokenSet::Impl {
  std::vector<TokenModule> specs;
  SigningChooser* chooser;
  bool discovered = false;
  std::vector<std::unique_ptr<LoadedModule>> modules;
  std::vector<Token> tokens;
  std::vector<std::string> names;
  std::recursive_mutex mutex;

  void Discover() {
    if (discovered) return;
    discovered = true;
    std::vector<std::string> paths;
    for (const TokenModule& spec : specs) {
      // One load per library; several entries may name tokens of one module.
      size_t index = std::find(paths.begin(), paths.end(), spec.path) - paths.begin();
      if (index == paths.size()) {
        auto m = std::make_unique<LoadedModule>();
        m->lib = std::make_unique<Library>(spec.path);
        m->fl = m->lib->Functions();
        if (m->fl) {
          CK_C_INITIALIZE_ARGS args{};
          args.flags = CKF_OS_LOCKING_OK;
          CK_RV rv = m->fl->C_Initialize(&args);
          if (rv == CKR_OK)
            m->finalize = true;
          else if (rv != CKR_CRYPTOKI_ALREADY_INITIALIZED)
            m->fl = nullptr;
        }
        paths.push_back(spec.path);
        modules.push_back(std::move(m));
      }
      CK_FUNCTION_LIST_PTR fl = modules[index]->fl;
      if (!fl) continue;
      CK_ULONG count = 0;
      if (fl->C_GetSlotList(CK_TRUE, nullptr, &count) != CKR_OK) continue;
      std::vector<CK_SLOT_ID> slots(count);
      if (count && fl->C_GetSlotList(CK_TRUE, slots.data(), &count) != CKR_OK) continue;
      slots.resize(count);
      for (CK_SLOT_ID slot : slots) {
        CK_TOKEN_INFO info;
        if (fl->C_GetTokenInfo(slot, &info) != CKR_OK) continue;
        // Uninitialised and read-only tokens cannot hold containers.
        if (!(info.flags & CKF_TOKEN_INITIALIZED) || (info.flags & kWriteProtected)) continue;
        std::string label = LabelText(info.label);
        if (label.empty() || (!spec.tokenLabel.empty() && label != spec.tokenLabel)) continue;
        if (std::find(names.begin(), names.end(), label) != names.end()) continue;
        tokens.push_back(Token{index, label, spec.pin, false, std::string()});
        names.push_back(label);
      }
    }
  }

  // A logged-in read-write session on a token, found again by its label so
  // that a token taken away meanwhile is noticed.
  class Session {
   public:
    Session(Impl& impl, int token) {
      if (token < 0 || static_cast<size_t>(token) >= impl.tokens.size()) {
        error_ = KV_NTE_KEYSET_NOT_DEF;
        return;
      }
      Token& t = impl.tokens[static_cast<size_t>(token)];
      fl_ = impl.modules[t.module]->fl;
      CK_ULONG count = 0;
      std::vector<CK_SLOT_ID> slots;
      if (fl_->C_GetSlotList(CK_TRUE, nullptr, &count) == CKR_OK) {
        slots.resize(count);
        if (count && fl_->C_GetSlotList(CK_TRUE, slots.data(), &count) != CKR_OK) count = 0;
        slots.resize(count);
      }
      bool found = false;
      CK_SLOT_ID slot = 0;
      for (CK_SLOT_ID s : slots) {
        CK_TOKEN_INFO info;
        if (fl_->C_GetTokenInfo(s, &info) == CKR_OK && LabelText(info.label) == t.label) {
          slot = s;
          found = true;
          break;
        }
      }
      if (!found || fl_->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr,
                                       &h_) != CKR_OK) {
        error_ = kScardNoSmartcard;
        return;
      }
      open_ = true;
      std::string pin = t.configured;
      if (pin.empty() && t.askedPin) pin = t.pin;
      if (pin.empty()) {
        if (!impl.chooser || !impl.chooser->AskPin(t.label, &pin) || pin.empty()) {
          error_ = kScardCancelled;
          return;
        }
        t.askedPin = true;
        t.pin = pin;
      }
      CK_RV rv = fl_->C_Login(h_, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(&pin[0]),
                              static_cast<CK_ULONG>(pin.size()));
      if (rv == CKR_PIN_INCORRECT && t.askedPin) {
        t.askedPin = false;  // ask again next time
        t.pin.clear();
      }
      if (rv != CKR_OK && rv != CKR_USER_ALREADY_LOGGED_IN)
        error_ = rv == CKR_PIN_INCORRECT ? kScardWrongPin : kScardNoSmartcard;
    }
    ~Session() {
      if (open_) fl_->C_CloseSession(h_);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    uint32_t Error() const { return error_; }
    CK_FUNCTION_LIST_PTR F() const { return fl_; }
    CK_SESSION_HANDLE H() const { return h_; }

    std::vector<CK_OBJECT_HANDLE> Find(std::vector<CK_ATTRIBUTE> tmpl) {
      std::vector<CK_OBJECT_HANDLE> out;
      if (fl_->C_FindObjectsInit(h_, tmpl.data(), static_cast<CK_ULONG>(tmpl.size())) != CKR_OK)
        return out;
      CK_OBJECT_HANDLE buf[32];
      CK_ULONG n = 0;
      while (fl_->C_FindObjects(h_, buf, 32, &n) == CKR_OK && n > 0)
        out.insert(out.end(), buf, buf + n);
      fl_->C_FindObjectsFinal(h_);
      return out;
    }
    std::vector<CK_OBJECT_HANDLE> Labelled(const std::string& label, CK_OBJECT_CLASS cls,
                                           bool anyClass = false) {
      std::vector<CK_ATTRIBUTE> t{Attr(CKA_LABEL, label.data(), label.size())};
      if (!anyClass) t.push_back(Attr(CKA_CLASS, &cls, sizeof cls));
      return Find(t);
    }
    bool Get(CK_OBJECT_HANDLE obj, CK_ATTRIBUTE_TYPE type, Bytes* value) {
      CK_ATTRIBUTE a = Attr(type, nullptr, 0);
      if (fl_->C_GetAttributeValue(h_, obj, &a, 1) != CKR_OK ||
          a.ulValueLen == CK_UNAVAILABLE_INFORMATION)
        return false;
      value->resize(a.ulValueLen);
      a.pValue = value->data();
      return fl_->C_GetAttributeValue(h_, obj, &a, 1) == CKR_OK;
    }
    bool DestroyAll(const std::vector<CK_OBJECT_HANDLE>& objs) {
      bool ok = true;
      for (CK_OBJECT_HANDLE o : objs) ok = fl_->C_DestroyObject(h_, o) == CKR_OK && ok;
      return ok;
    }

   private:
    CK_FUNCTION_LIST_PTR fl_ = nullptr;
    CK_SESSION_HANDLE h_ = 0;
    bool open_ = false;
    uint32_t error_ = 0;
  };
};

TokenSet::TokenSet(std::vector<TokenModule> modules, SigningChooser* chooser) : impl_(new Impl) {
  impl_->specs = std::move(modules);
  impl_->chooser = chooser;
}

TokenSet::~TokenSet() = default;

const std::vector<std::string>& TokenSet::Names() {
  std::lock_guard<std::recursive_mutex> lock(impl_->mutex);
  impl_->Discover();
  return impl_->names;
}

int TokenSet::Find(const std::string& name) {
  const std::vector<std::string>& names = Names();
  auto it = std::find(names.begin(), names.end(), name);
  return it == names.end() ? -1 : static_cast<int>(it - names.begin());
}

#define KV_TOKEN_SESSION(s, token)                          \
  std::lock_guard<std::recursive_mutex> lock(impl_->mutex); \
  impl_->Discover();                                        \
  Impl::Session s(*impl_, token);                           \
  if (s.Error()) return s.Error()

uint32_t TokenSet::Exists(int token, const std::string& container, bool* exists) {
  KV_TOKEN_SESSION(s, token);
  *exists = !s.Labelled(container, 0, true).empty();
  return 0;
}

uint32_t TokenSet::Create(int token, const std::string& container) {
  KV_TOKEN_SESSION(s, token);
  if (!s.Labelled(container, 0, true).empty()) return KV_NTE_EXISTS;
  // An empty container still needs an object to carry its name.
  CK_OBJECT_CLASS cls = CKO_DATA;
  CK_BBOOL yes = CK_TRUE, no = CK_FALSE;
  const char app[] = "korvanta container";
  std::vector<CK_ATTRIBUTE> t{
      Attr(CKA_CLASS, &cls, sizeof cls), Attr(CKA_TOKEN, &yes, 1), Attr(CKA_PRIVATE, &no, 1),
      Attr(CKA_LABEL, container.data(), container.size()), Attr(kApplication, app, sizeof app - 1)};
  CK_OBJECT_HANDLE obj;
  if (s.F()->C_CreateObject(s.H(), t.data(), static_cast<CK_ULONG>(t.size()), &obj) != CKR_OK)
    return KV_NTE_FAIL;
  return 0;
}

uint32_t TokenSet::Delete(int token, const std::string& container) {
  KV_TOKEN_SESSION(s, token);
  auto objs = s.Labelled(container, 0, true);
  if (objs.empty()) return KV_NTE_BAD_KEYSET;
  return s.DestroyAll(objs) ? 0u : uint32_t{KV_NTE_FAIL};
}

uint32_t TokenSet::GetKey(int token, const std::string& container, RsaKey* pub, Bytes* id) {
  KV_TOKEN_SESSION(s, token);
  if (s.Labelled(container, 0, true).empty()) return KV_NTE_BAD_KEYSET;
  auto priv = s.Labelled(container, CKO_PRIVATE_KEY);
  auto pubs = s.Labelled(container, CKO_PUBLIC_KEY);
  if (priv.empty() || pubs.empty()) return KV_NTE_NO_KEY;
  if (!s.Get(pubs[0], CKA_MODULUS, &pub->n) || !s.Get(pubs[0], CKA_PUBLIC_EXPONENT, &pub->e) ||
      !s.Get(priv[0], CKA_ID, id))
    return KV_NTE_FAIL;
  return 0;
}

uint32_t TokenSet::Generate(int token, const std::string& container, unsigned bits, RsaKey* pub,
                            Bytes* id) {
  KV_TOKEN_SESSION(s, token);
  if (s.Labelled(container, 0, true).empty()) return KV_NTE_BAD_KEYSET;
  *id = RandomId();
  CK_BBOOL yes = CK_TRUE, no = CK_FALSE;
  CK_ULONG modBits = bits;
  const uint8_t exponent[] = {1, 0, 1};
  std::vector<CK_ATTRIBUTE> pubT{Attr(CKA_TOKEN, &yes, 1),
                                 Attr(CKA_LABEL, container.data(), container.size()),
                                 Attr(CKA_ID, id->data(), id->size()),
                                 Attr(CKA_MODULUS_BITS, &modBits, sizeof modBits),
                                 Attr(CKA_PUBLIC_EXPONENT, exponent, sizeof exponent),
                                 Attr(CKA_VERIFY, &yes, 1),
                                 Attr(CKA_ENCRYPT, &yes, 1)};
  std::vector<CK_ATTRIBUTE> privT{Attr(CKA_TOKEN, &yes, 1),
                                  Attr(CKA_PRIVATE, &yes, 1),
                                  Attr(CKA_SENSITIVE, &yes, 1),
                                  Attr(CKA_EXTRACTABLE, &no, 1),
                                  Attr(CKA_LABEL, container.data(), container.size()),
                                  Attr(CKA_ID, id->data(), id->size()),
                                  Attr(CKA_SIGN, &yes, 1),
                                  Attr(CKA_DECRYPT, &yes, 1)};
  CK_MECHANISM mech{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
  CK_OBJECT_HANDLE hPub, hPriv;
  // The old pair goes only once the new one exists.
  auto old = s.Labelled(container, CKO_PRIVATE_KEY);
  auto oldPub = s.Labelled(container, CKO_PUBLIC_KEY);
  auto oldCert = s.Labelled(container, CKO_CERTIFICATE);
  CK_RV rv =
      s.F()->C_GenerateKeyPair(s.H(), &mech, pubT.data(), static_cast<CK_ULONG>(pubT.size()),
                               privT.data(), static_cast<CK_ULONG>(privT.size()), &hPub, &hPriv);
  if (rv != CKR_OK)
    return rv == CKR_KEY_SIZE_RANGE ? uint32_t{KV_NTE_BAD_FLAGS} : uint32_t{KV_NTE_FAIL};
  s.DestroyAll(old);
  s.DestroyAll(oldPub);
  s.DestroyAll(oldCert);
  if (!s.Get(hPub, CKA_MODULUS, &pub->n) || !s.Get(hPub, CKA_PUBLIC_EXPONENT, &pub->e))
    return KV_NTE_FAIL;
  return 0;
}

uint32_t TokenSet::Import(int token, const std::string& container, const RsaKey& key, Bytes* id) {
  KV_TOKEN_SESSION(s, token);
  if (s.Labelled(container, 0, true).empty()) return KV_NTE_BAD_KEYSET;
  uint8_t digest[Sha1::kDigestSize];
  Sha1::Digest(key.n.data(), key.n.size(), digest);
  id->assign(digest, digest + sizeof digest);
  CK_OBJECT_CLASS privCls = CKO_PRIVATE_KEY, pubCls = CKO_PUBLIC_KEY;
  CK_KEY_TYPE type = CKK_RSA;
  CK_BBOOL yes = CK_TRUE, no = CK_FALSE;
  auto old = s.Labelled(container, CKO_PRIVATE_KEY);
  auto oldPub = s.Labelled(container, CKO_PUBLIC_KEY);
  auto oldCert = s.Labelled(container, CKO_CERTIFICATE);
  std::vector<CK_ATTRIBUTE> privT{Attr(CKA_CLASS, &privCls, sizeof privCls),
                                  Attr(CKA_KEY_TYPE, &type, sizeof type),
                                  Attr(CKA_TOKEN, &yes, 1),
                                  Attr(CKA_PRIVATE, &yes, 1),
                                  Attr(CKA_SENSITIVE, &yes, 1),
                                  Attr(CKA_EXTRACTABLE, &no, 1),
                                  Attr(CKA_SIGN, &yes, 1),
                                  Attr(CKA_DECRYPT, &yes, 1),
                                  Attr(CKA_LABEL, container.data(), container.size()),
                                  Attr(CKA_ID, id->data(), id->size()),
                                  Attr(CKA_MODULUS, key.n.data(), key.n.size()),
                                  Attr(CKA_PUBLIC_EXPONENT, key.e.data(), key.e.size()),
                                  Attr(kPrivateExponent, key.d.data(), key.d.size()),
                                  Attr(kPrime1, key.p.data(), key.p.size()),
                                  Attr(kPrime2, key.q.data(), key.q.size()),
                                  Attr(kExponent1, key.dp.data(), key.dp.size()),
                                  Attr(kExponent2, key.dq.data(), key.dq.size()),
                                  Attr(kCoefficient, key.qinv.data(), key.qinv.size())};
  std::vector<CK_ATTRIBUTE> pubT{Attr(CKA_CLASS, &pubCls, sizeof pubCls),
                                 Attr(CKA_KEY_TYPE, &type, sizeof type),
                                 Attr(CKA_TOKEN, &yes, 1),
                                 Attr(CKA_VERIFY, &yes, 1),
                                 Attr(CKA_ENCRYPT, &yes, 1),
                                 Attr(CKA_LABEL, container.data(), container.size()),
                                 Attr(CKA_ID, id->data(), id->size()),
                                 Attr(CKA_MODULUS, key.n.data(), key.n.size()),
                                 Attr(CKA_PUBLIC_EXPONENT, key.e.data(), key.e.size())};
  CK_OBJECT_HANDLE hPriv, hPub;
  if (s.F()->C_CreateObject(s.H(), privT.data(), static_cast<CK_ULONG>(privT.size()), &hPriv) !=
      CKR_OK)
    return KV_NTE_BAD_DATA;
  if (s.F()->C_CreateObject(s.H(), pubT.data(), static_cast<CK_ULONG>(pubT.size()), &hPub) !=
      CKR_OK) {
    s.F()->C_DestroyObject(s.H(), hPriv);
    return KV_NTE_FAIL;
  }
  s.DestroyAll(old);
  s.DestroyAll(oldPub);
  s.DestroyAll(oldCert);
  return 0;
}

uint32_t TokenSet::PutCertificate(int token, const std::string& container, const Bytes& id,
                                  const uint8_t* der, size_t len) {
  KV_TOKEN_SESSION(s, token);
  Bytes serial, issuer, subject;
  if (!CertificateNames(der, len, &serial, &issuer, &subject)) return KV_NTE_BAD_DATA;
  auto keys = s.Labelled(container, CKO_PRIVATE_KEY);
  Bytes keyId;
  // The key must still be the one the caller holds.
  if (keys.empty()) return KV_NTE_NO_KEY;
  if (!s.Get(keys[0], CKA_ID, &keyId) || keyId != id) return KV_NTE_BAD_KEY;
  auto old = s.Labelled(container, CKO_CERTIFICATE);
  CK_OBJECT_CLASS cls = CKO_CERTIFICATE;
  CK_CERTIFICATE_TYPE ctype = CKC_X_509;
  CK_BBOOL yes = CK_TRUE, no = CK_FALSE;
  std::vector<CK_ATTRIBUTE> t{Attr(CKA_CLASS, &cls, sizeof cls),
                              Attr(CKA_CERTIFICATE_TYPE, &ctype, sizeof ctype),
                              Attr(CKA_TOKEN, &yes, 1),
                              Attr(CKA_PRIVATE, &no, 1),
                              Attr(CKA_LABEL, container.data(), container.size()),
                              Attr(CKA_ID, id.data(), id.size()),
                              Attr(CKA_SUBJECT, subject.data(), subject.size()),
                              Attr(CKA_ISSUER, issuer.data(), issuer.size()),
                              Attr(CKA_SERIAL_NUMBER, serial.data(), serial.size()),
                              Attr(CKA_VALUE, der, len)};
  CK_OBJECT_HANDLE obj;
  if (s.F()->C_CreateObject(s.H(), t.data(), static_cast<CK_ULONG>(t.size()), &obj) != CKR_OK)
    return KV_NTE_FAIL;
  s.DestroyAll(old);
  return 0;
}

uint32_t TokenSet::SignSha1(int token, const std::string& container, const uint8_t digest[20],
                            Bytes* sig) {
  KV_TOKEN_SESSION(s, token);
  auto keys = s.Labelled(container, CKO_PRIVATE_KEY);
  if (keys.empty()) return KV_NTE_NO_KEY;
  static const uint8_t kPrefix[] = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e,
                                    0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14};
  Bytes info(kPrefix, kPrefix + sizeof kPrefix);
  info.insert(info.end(), digest, digest + 20);
  CK_MECHANISM mech{CKM_RSA_PKCS, nullptr, 0};
  if (s.F()->C_SignInit(s.H(), &mech, keys[0]) != CKR_OK) return KV_NTE_BAD_KEY;
  CK_ULONG len = 0;
  if (s.F()->C_Sign(s.H(), info.data(), static_cast<CK_ULONG>(info.size()), nullptr, &len) !=
      CKR_OK)
    return KV_NTE_FAIL;
  sig->resize(len);
  if (s.F()->C_Sign(s.H(), info.data(), static_cast<CK_ULONG>(info.size()), sig->data(), &len) !=
      CKR_OK)
    return KV_NTE_FAIL;
  sig->resize(len);
  return 0;
}

std::vector<TokenSet::Certificate> TokenSet::Certificates() {
  std::vector<Certificate> out;
  std::lock_guard<std::recursive_mutex> lock(impl_->mutex);
  impl_->Discover();
  for (size_t i = 0; i < impl_->tokens.size(); ++i) {
    Impl::Session s(*impl_, static_cast<int>(i));
    if (s.Error()) continue;
    CK_OBJECT_CLASS cls = CKO_CERTIFICATE;
    for (CK_OBJECT_HANDLE c : s.Find({Attr(CKA_CLASS, &cls, sizeof cls)})) {
      Bytes label, der;
      if (!s.Get(c, CKA_LABEL, &label) || !s.Get(c, CKA_VALUE, &der)) continue;
      std::string name(label.begin(), label.end());
      if (s.Labelled(name, CKO_PRIVATE_KEY).empty()) continue;
      out.push_back(Certificate{static_cast<int>(i), name, der});
    }
  }
  return out;
}

}  // namespace kv::control::portable
