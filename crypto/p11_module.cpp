// The PKCS#11 binding: loading modules at run time, the process-wide table of
// loaded modules, the diagnostics sink, and the key store that runs token keys
// and token objects on a module while everything else goes to a soft store.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include "crypto/internal/cryptoki.h"
#include "crypto/internal/p11_certinfo.h"
#include "crypto/internal/p11_core.h"
#include "crypto/internal/wipe.h"
#include "crypto/p11.h"
#include "crypto/rsa.h"

namespace kv::p11 {
namespace {

// ---------------------------------------------------------------- diagnostics

struct DiagSink {
  std::mutex mu;
  KV_P11_DIAG_FN fn = nullptr;
  void* arg = nullptr;
};

DiagSink& Sink() {
  static DiagSink* sink = new DiagSink;  // outlives every static destructor
  return *sink;
}

thread_local std::string t_lastDiagnostic;

std::string HexText(const char* format, CK_RV rv) {
  char buf[96];
  std::snprintf(buf, sizeof buf, format, static_cast<unsigned long>(rv));
  return buf;
}

void DiagnoseRv(const char* format, CK_RV rv) {
  try {
    Diagnose(HexText(format, rv));
  } catch (...) {
  }
}

const char kNoLibrary[] = "can not find the library\n";
const char kInitFail[] = "initialize fail...,errno=%lx(h)\n";
const char kNoToken[] = "can not find the demanded token\n";
const char kOpenFail[] = "error at opening sesseion,errno=%lx(h)\n";
const char kLoginFail[] = "error at login,errno=%lx(h)\n";

// ------------------------------------------------------------ shared library

class Library {
 public:
  static std::unique_ptr<Library> Open(const char* path) {
#if defined(_WIN32)
    HMODULE h = LoadLibraryA(path);
#else
    void* h = dlopen(path, RTLD_NOW | RTLD_LOCAL);
#endif
    if (h == nullptr) return nullptr;
    return std::unique_ptr<Library>(new Library(h));
  }
  ~Library() {
#if defined(_WIN32)
    FreeLibrary(handle_);
#else
    dlclose(handle_);
#endif
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  // Loading the same file again yields the same handle.
  const void* Handle() const {
    return reinterpret_cast<const void*>(handle_);
  }

  CK_C_GetFunctionList GetFunctionListEntry() const {
    CK_C_GetFunctionList fn = nullptr;
#if defined(_WIN32)
    FARPROC p = GetProcAddress(handle_, "C_GetFunctionList");
#else
    void* p = dlsym(handle_, "C_GetFunctionList");
#endif
    static_assert(sizeof fn == sizeof p, "function and data pointers differ in size");
    std::memcpy(&fn, &p, sizeof fn);
    return fn;
  }

 private:
#if defined(_WIN32)
  explicit Library(HMODULE h) : handle_(h) {}
  HMODULE handle_;
#else
  explicit Library(void* h) : handle_(h) {}
  void* handle_;
#endif
};

// ------------------------------------------------------------- loaded modules

struct Module {
  std::unique_ptr<Library> lib;
  CK_C_GetFunctionList getFunctionList = nullptr;
  CK_FUNCTION_LIST_PTR fl = nullptr;
  bool finalizeAtUnload = false;  // false when someone else initialised it
  CK_SLOT_ID defaultSlot = 0;     // the token chosen by the last load

  // Calls into the module hold `gate` shared; unloading holds it exclusively,
  // so no call can run into an unloaded library.
  std::shared_mutex gate;
  bool alive = true;

  // Our logged-in sessions per slot: the login state is shared by all sessions
  // of the process on a token, so only the last one logs out.
  std::mutex loginMu;
  std::vector<std::pair<CK_SLOT_ID, int>> logins;

  void Shutdown() {
    std::unique_lock<std::shared_mutex> lock(gate);
    if (!alive) return;
    alive = false;
    if (finalizeAtUnload && fl != nullptr) fl->C_Finalize(NULL_PTR);
    fl = nullptr;
    lib.reset();
  }
  ~Module() { Shutdown(); }

  void AddLogin(CK_SLOT_ID slot) {
    std::lock_guard<std::mutex> lock(loginMu);
    for (auto& e : logins) {
      if (e.first == slot) {
        ++e.second;
        return;
      }
    }
    logins.emplace_back(slot, 1);
  }
  // True when the caller held the last login on the slot.
  bool DropLogin(CK_SLOT_ID slot) {
    std::lock_guard<std::mutex> lock(loginMu);
    for (auto it = logins.begin(); it != logins.end(); ++it) {
      if (it->first == slot) {
        if (--it->second > 0) return false;
        logins.erase(it);
        return true;
      }
    }
    return false;
  }
};

// A session on a module; the caller holds the module's gate while the session
// is made and destroyed.
class Session {
 public:
  Session(std::shared_ptr<Module> m, CK_SLOT_ID slot) : m_(std::move(m)), slot_(slot) {}
  ~Session() { Close(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  CK_RV Open(CK_FLAGS flags) { return m_->fl->C_OpenSession(slot_, flags, NULL_PTR, nullptr, &h_); }

  // CKR_USER_ALREADY_LOGGED_IN counts as success: another session of this
  // process has logged in to the same token.
  CK_RV Login(const std::string& pin) {
    std::string copy(pin);
    CK_RV rv = m_->fl->C_Login(
        h_, CKU_USER, copy.empty() ? NULL_PTR : reinterpret_cast<CK_UTF8CHAR_PTR>(&copy[0]),
        static_cast<CK_ULONG>(copy.size()));
    kv::internal::Wipe(&copy[0], copy.size());
    if (rv == CKR_OK || rv == CKR_USER_ALREADY_LOGGED_IN) {
      m_->AddLogin(slot_);
      loggedIn_ = true;
      return CKR_OK;
    }
    return rv;
  }

  void Close() {
    if (h_ == 0 && !loggedIn_) return;
    if (m_->alive && m_->fl != nullptr) {
      if (loggedIn_ && m_->DropLogin(slot_)) m_->fl->C_Logout(h_);
      m_->fl->C_CloseSession(h_);
    }
    h_ = 0;
    loggedIn_ = false;
  }

  CK_SESSION_HANDLE Handle() const { return h_; }
  Module& module() const { return *m_; }

 private:
  std::shared_ptr<Module> m_;
  CK_SLOT_ID slot_;
  CK_SESSION_HANDLE h_ = 0;
  bool loggedIn_ = false;
};

class Registry {
 public:
  std::mutex mu;
  // In the order of their last successful load: the last is the default.
  std::vector<std::shared_ptr<Module>> modules;

  std::shared_ptr<Module> FindByHandle(const void* handle) const {
    for (const auto& m : modules)
      if (m->lib && m->lib->Handle() == handle) return m;
    return nullptr;
  }
  void MoveToBack(const std::shared_ptr<Module>& m) {
    modules.erase(std::remove(modules.begin(), modules.end(), m), modules.end());
    modules.push_back(m);
  }
  void UnloadAll() {
    std::lock_guard<std::mutex> lock(mu);
    for (auto it = modules.rbegin(); it != modules.rend(); ++it) (*it)->Shutdown();
    modules.clear();
  }
};

// Never destroyed: unloading at exit runs from an atexit handler registered
// after each module is loaded, so it runs before the module's own static
// destructors (handlers run in reverse order of registration).
Registry& TheRegistry() {
  static Registry* r = new Registry;
  return *r;
}

extern "C" void UnloadAtExit() {
  TheRegistry().UnloadAll();
}

// The slots holding a token; empty on failure.
std::vector<CK_SLOT_ID> TokenSlots(CK_FUNCTION_LIST_PTR fl) {
  std::vector<CK_SLOT_ID> slots;
  for (int attempt = 0; attempt < 4; ++attempt) {
    CK_ULONG count = 0;
    if (fl->C_GetSlotList(CK_TRUE, NULL_PTR, &count) != CKR_OK || count == 0) return {};
    slots.resize(count);
    CK_RV rv = fl->C_GetSlotList(CK_TRUE, slots.data(), &count);
    if (rv == CKR_OK) {
      slots.resize(count);
      return slots;
    }
    if (rv != CKR_BUFFER_TOO_SMALL) return {};
  }
  return {};
}

// Token labels are 32 octets padded with blanks; compare without the padding.
bool LabelMatches(const CK_UTF8CHAR (&tokenLabel)[32], const std::string& wanted) {
  size_t n = sizeof tokenLabel;
  while (n > 0 && (tokenLabel[n - 1] == ' ' || tokenLabel[n - 1] == '\0')) --n;
  size_t w = wanted.size();
  while (w > 0 && wanted[w - 1] == ' ') --w;
  return n == w && std::memcmp(tokenLabel, wanted.data(), n) == 0;
}

// The slot whose token carries the label (the first token when label is empty).
bool FindTokenSlot(CK_FUNCTION_LIST_PTR fl, const std::string& label, CK_SLOT_ID* slot) {
  for (CK_SLOT_ID s : TokenSlots(fl)) {
    if (label.empty()) {
      *slot = s;
      return true;
    }
    CK_TOKEN_INFO info;
    std::memset(&info, 0, sizeof info);
    if (fl->C_GetTokenInfo(s, &info) == CKR_OK && LabelMatches(info.label, label)) {
      *slot = s;
      return true;
    }
  }
  return false;
}

int LoadModule(const char* path, const char* tokenLabel, const char* pin) {
  Registry& reg = TheRegistry();
  std::lock_guard<std::mutex> lock(reg.mu);
  std::unique_ptr<Library> lib = (path != nullptr && *path != '\0') ? Library::Open(path) : nullptr;
  if (!lib) {
    Diagnose(kNoLibrary);
    return kInitFailed;
  }
  std::shared_ptr<Module> m = reg.FindByHandle(lib->Handle());
  if (m) {
    lib.reset();  // drops the extra reference only
  } else {
    m = std::make_shared<Module>();
    m->getFunctionList = lib->GetFunctionListEntry();
    m->lib = std::move(lib);
    if (m->getFunctionList == nullptr) {
      Diagnose(kNoLibrary);
      return kInitFailed;
    }
    CK_FUNCTION_LIST_PTR fl = nullptr;
    CK_RV rv = m->getFunctionList(&fl);
    if (rv != CKR_OK || fl == nullptr) {
      DiagnoseRv(kInitFail, rv != CKR_OK ? rv : CKR_GENERAL_ERROR);
      return kInitFailed;
    }
    CK_C_INITIALIZE_ARGS args;
    std::memset(&args, 0, sizeof args);
    args.flags = CKF_OS_LOCKING_OK;
    rv = fl->C_Initialize(&args);
    if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
      DiagnoseRv(kInitFail, rv);
      return kInitFailed;
    }
    m->fl = fl;
    m->finalizeAtUnload = rv == CKR_OK;
  }
  // A module that fails below and was not loaded before is finalised and
  // unloaded when `m` goes.
  std::shared_lock<std::shared_mutex> gate(m->gate);
  if (!m->alive) return kInitFailed;
  CK_SLOT_ID slot = 0;
  if (!FindTokenSlot(m->fl, tokenLabel != nullptr ? tokenLabel : "", &slot)) {
    Diagnose(kNoToken);
    return kChooserFailed;
  }
  {
    Session s(m, slot);
    CK_RV rv = s.Open(CKF_SERIAL_SESSION);
    if (rv != CKR_OK) {
      DiagnoseRv(kOpenFail, rv);
      return kChooserFailed;
    }
    rv = s.Login(pin != nullptr ? pin : "");
    if (rv != CKR_OK) {
      DiagnoseRv(kLoginFail, rv);
      return kModuleFailed;
    }
  }
  m->defaultSlot = slot;
  bool isNew = std::find(reg.modules.begin(), reg.modules.end(), m) == reg.modules.end();
  reg.MoveToBack(m);
  if (isNew) std::atexit(UnloadAtExit);
  return kOk;
}

// ------------------------------------------------------------ the module store

using kv::internal::Wipe;

// DigestInfo prefixes of RFC 8017, section 9.2, note 1.
const unsigned char kMd2Prefix[] = {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48,
                                    0x86, 0xf7, 0x0d, 0x02, 0x02, 0x05, 0x00, 0x04, 0x10};
const unsigned char kMd5Prefix[] = {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48,
                                    0x86, 0xf7, 0x0d, 0x02, 0x05, 0x05, 0x00, 0x04, 0x10};
const unsigned char kSha1Prefix[] = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e,
                                     0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14};

// A failing module call as a status of the soft token's table.
int FromRv(CK_RV rv, int fallback) {
  switch (rv) {
    case CKR_HOST_MEMORY:
    case CKR_DEVICE_MEMORY:
      return kNoMemory;
    case CKR_DATA_LEN_RANGE:
    case CKR_ENCRYPTED_DATA_LEN_RANGE:
      return kBadLength;
    case CKR_DATA_INVALID:
    case CKR_ENCRYPTED_DATA_INVALID:
      return kRsaFailed;
    case CKR_SIGNATURE_INVALID:
    case CKR_SIGNATURE_LEN_RANGE:
      return kBadSignature;
    case CKR_MECHANISM_INVALID:
      return kAlgNotSupported;
    case CKR_KEY_HANDLE_INVALID:
    case CKR_KEY_TYPE_INCONSISTENT:
    case CKR_KEY_FUNCTION_NOT_PERMITTED:
      return kBadKeyObject;
    default:
      return fallback;
  }
}

CK_OBJECT_CLASS ClassOf(int cls) {
  switch (cls) {
    case KV_OBJ_CERTIFICATE:
      return CKO_CERTIFICATE;
    case KV_OBJ_PUBLIC_KEY:
      return CKO_PUBLIC_KEY;
    default:
      return CKO_PRIVATE_KEY;
  }
}

Bytes StripZeros(const Bytes& v) {
  size_t i = 0;
  while (i < v.size() && v[i] == 0) ++i;
  return Bytes(v.begin() + static_cast<std::ptrdiff_t>(i), v.end());
}

class ModuleStore final : public Store {
 public:
  ModuleStore(std::shared_ptr<Module> m, std::unique_ptr<Session> s, std::unique_ptr<Store> soft)
      : m_(std::move(m)), session_(std::move(s)), soft_(std::move(soft)) {}
  ~ModuleStore() override {
    std::lock_guard<std::mutex> lock(mu_);
    std::shared_lock<std::shared_mutex> gate(m_->gate);
    session_->Close();
  }

  bool OnModule() const override { return true; }

  int Digest(const AlgInfo& alg, const unsigned char* in, size_t n, Bytes& out) override {
    std::lock_guard<std::mutex> lock(mu_);
    return soft_->Digest(alg, in, n, out);
  }
  int Random(unsigned char* out, size_t n, const unsigned char* seed, size_t seedLen) override {
    std::lock_guard<std::mutex> lock(mu_);
    return soft_->Random(out, n, seed, seedLen);
  }

  int Encrypt(const AlgInfo& alg, const KeyInfo& key, const unsigned char* in, size_t n,
              Bytes& out) override {
    Guard g(*this);
    if (!key.onToken) return soft_->Encrypt(alg, key, in, n, out);
    if (!g.ok()) return kChooserFailed;
    if (alg.kind != KV_ALG_RSA) return kAlgNotSupported;
    if (TokenClass(alg, key) == CKO_PUBLIC_KEY) {
      KeyInfo pub;
      int rc = PublicPartLocked(key.label, CKO_PUBLIC_KEY, &pub);
      return rc != kOk ? rc : soft_->Encrypt(alg, pub, in, n, out);
    }
    return PrivateOpLocked(key.label, in, n, /*decrypt=*/false, &out);  // block type 1
  }

  int Decrypt(const AlgInfo& alg, const KeyInfo& key, const unsigned char* in, size_t n,
              Bytes& out) override {
    Guard g(*this);
    if (!key.onToken) return soft_->Decrypt(alg, key, in, n, out);
    if (!g.ok()) return kChooserFailed;
    if (alg.kind != KV_ALG_RSA) return kAlgNotSupported;
    if (TokenClass(alg, key) == CKO_PUBLIC_KEY) {
      KeyInfo pub;
      int rc = PublicPartLocked(key.label, CKO_PUBLIC_KEY, &pub);
      return rc != kOk ? rc : soft_->Decrypt(alg, pub, in, n, out);
    }
    return PrivateOpLocked(key.label, in, n, /*decrypt=*/true, &out);
  }

  int Sign(const AlgInfo& alg, const KeyInfo& key, const unsigned char* in, size_t n,
           Bytes& out) override {
    Guard g(*this);
    if (!key.onToken) return soft_->Sign(alg, key, in, n, out);
    if (!g.ok()) return kChooserFailed;
    return TokenSignLocked(alg, key, in, n, &out);
  }

  int Verify(const AlgInfo& alg, const KeyInfo& key, const unsigned char* data, size_t n,
             const unsigned char* sig, size_t sigLen) override {
    Guard g(*this);
    if (!key.onToken) return soft_->Verify(alg, key, data, n, sig, sigLen);
    if (!g.ok()) return kChooserFailed;
    KeyInfo pub;
    int rc = PublicPartLocked(key.label, TokenClass(alg, key), &pub);
    return rc != kOk ? rc : soft_->Verify(alg, pub, data, n, sig, sigLen);
  }

  int SignRecover(const AlgInfo& alg, const KeyInfo& key, const unsigned char* in, size_t n,
                  Bytes& out) override {
    Guard g(*this);
    if (!key.onToken) return soft_->SignRecover(alg, key, in, n, out);
    if (!g.ok()) return kChooserFailed;
    return TokenSignLocked(alg, key, in, n, &out);
  }

  int BigEncrypt(const KeyInfo& key, const unsigned char* in, size_t n, unsigned char* out,
                 size_t* outLen) override {
    Guard g(*this);
    if (!key.onToken) return soft_->BigEncrypt(key, in, n, out, outLen);
    if (!g.ok()) return kChooserFailed;
    KeyInfo pub;
    int rc = PublicPartLocked(
        key.label, key.accessKind == KV_AK_PUBLIC ? CKO_PUBLIC_KEY : CKO_PRIVATE_KEY, &pub);
    return rc != kOk ? rc : soft_->BigEncrypt(pub, in, n, out, outLen);
  }

  int BigDecrypt(const KeyInfo& key, const unsigned char* in, size_t n, unsigned char* out,
                 size_t* outLen) override {
    Guard g(*this);
    if (!key.onToken) return soft_->BigDecrypt(key, in, n, out, outLen);
    if (!g.ok()) return kChooserFailed;
    if (outLen == nullptr || (in == nullptr && n != 0)) return kBadArgument;
    KeyInfo pub;
    int rc = PublicPartLocked(key.label, CKO_PRIVATE_KEY, &pub);
    if (rc != kOk) return rc;
    size_t k = StripZeros(pub.comp[0]).size();
    if (k < 12 || n % k != 0) return kBadLength;
    if (out == nullptr) {  // an upper bound, as the soft token gives
      *outLen = n / k * (k - 11);
      return kOk;
    }
    Bytes plain;
    for (size_t off = 0; off < n; off += k) {
      Bytes block;
      rc = PrivateOpLocked(key.label, in + off, k, /*decrypt=*/true, &block);
      if (rc != kOk) {
        Wipe(plain.data(), plain.size());
        return rc;
      }
      plain.insert(plain.end(), block.begin(), block.end());
      Wipe(block.data(), block.size());
    }
    if (*outLen < plain.size()) {
      Wipe(plain.data(), plain.size());
      return kBadLength;
    }
    if (!plain.empty()) std::memcpy(out, plain.data(), plain.size());
    *outLen = plain.size();
    Wipe(plain.data(), plain.size());
    return kOk;
  }

  int FindObject(const std::string& label, int cls, bool* found) override {
    Guard g(*this);
    if (found == nullptr) return kBadArgument;
    *found = false;
    if (!g.ok()) return kChooserFailed;
    CK_OBJECT_HANDLE h = 0;
    return FindLocked(ClassOf(cls), label, &h, found);
  }

  int GetPublicKey(const std::string& label, Bytes* modulus, Bytes* exponent) override {
    Guard g(*this);
    if (modulus == nullptr || exponent == nullptr) return kBadArgument;
    if (!g.ok()) return kChooserFailed;
    KeyInfo pub;
    int rc = PublicPartLocked(label, CKO_PUBLIC_KEY, &pub);
    if (rc != kOk) return rc;
    *modulus = pub.comp[0];
    *exponent = pub.comp[1];
    return kOk;
  }

  int GetCertificate(const std::string& label, Bytes* der, bool* found) override {
    Guard g(*this);
    if (der == nullptr || found == nullptr) return kBadArgument;
    der->clear();
    *found = false;
    if (!g.ok()) return kChooserFailed;
    CK_OBJECT_HANDLE h = 0;
    int rc = FindLocked(CKO_CERTIFICATE, label, &h, found);
    if (rc != kOk || !*found) return rc;
    CK_RV rv = GetAttrLocked(h, CKA_VALUE, der);
    return rv == CKR_OK ? kOk : FromRv(rv, kAttributeFailed);
  }

  int PutCertificate(const std::string& label, const unsigned char* der, size_t n) override {
    Guard g(*this);
    if (der == nullptr || n == 0 || label.empty()) return kBadArgument;
    if (!g.ok()) return kChooserFailed;
    CK_OBJECT_CLASS cls = CKO_CERTIFICATE;
    CK_CERTIFICATE_TYPE type = CKC_X_509;
    CK_BBOOL yes = CK_TRUE, no = CK_FALSE;
    std::string lbl(label);
    std::vector<CK_ATTRIBUTE> t = {
        {CKA_CLASS, &cls, sizeof cls},
        {CKA_CERTIFICATE_TYPE, &type, sizeof type},
        {CKA_TOKEN, &yes, sizeof yes},
        {CKA_PRIVATE, &no, sizeof no},
        {CKA_LABEL, &lbl[0], static_cast<CK_ULONG>(lbl.size())},
        {CKA_VALUE, const_cast<unsigned char*>(der), static_cast<CK_ULONG>(n)},
    };
    // Tokens require the subject of an X.509 object; the ID ties the
    // certificate to the key pair made for its key.
    CertFields f;
    Bytes id;
    if (ReadCertFields(der, n, &f)) {
      t.push_back({CKA_SUBJECT, f.subject.data(), static_cast<CK_ULONG>(f.subject.size())});
      t.push_back({CKA_ISSUER, f.issuer.data(), static_cast<CK_ULONG>(f.issuer.size())});
      t.push_back({CKA_SERIAL_NUMBER, f.serial.data(), static_cast<CK_ULONG>(f.serial.size())});
      if (!f.modulus.empty()) {
        id = KeyIdOfModulus(f.modulus);
        t.push_back({CKA_ID, id.data(), static_cast<CK_ULONG>(id.size())});
      }
    }
    CK_OBJECT_HANDLE h = 0;
    CK_RV rv = fl()->C_CreateObject(sh(), t.data(), static_cast<CK_ULONG>(t.size()), &h);
    return rv == CKR_OK ? kOk : FromRv(rv, kModuleFailed);
  }

  int CheckKeyPair(const Bytes& modulus, const Bytes& exponent,
                   const std::string& privLabel) override {
    Guard g(*this);
    if (!g.ok()) return kChooserFailed;
    Bytes n = StripZeros(modulus), e = StripZeros(exponent);
    if (n.empty() || e.empty()) return kBadArgument;
    CK_OBJECT_HANDLE h = 0;
    bool found = false;
    int rc = FindLocked(CKO_PRIVATE_KEY, privLabel, &h, &found);
    if (rc != kOk) return rc;
    if (!found) return kObjectNotFound;
    Bytes tn, te;
    if (GetAttrLocked(h, CKA_MODULUS, &tn) == CKR_OK &&
        GetAttrLocked(h, CKA_PUBLIC_EXPONENT, &te) == CKR_OK && !tn.empty() && !te.empty())
      return (StripZeros(tn) == n && StripZeros(te) == e) ? kOk : kBadKeyPair;
    // The token hides the components: sign a random block there and open the
    // signature with the given public key.
    unsigned char block[32];
    if (KV_RSA_OsRandom(nullptr, block, sizeof block) != 0) return kOtherError;
    Bytes sig;
    rc = PrivateOpLocked(privLabel, block, sizeof block, /*decrypt=*/false, &sig);
    if (rc != kOk) return kBadKeyPair;
    return OpensTo(n, e, sig, block, sizeof block) ? kOk : kBadKeyPair;
  }

  int GenerateKeyPair(int bits, bool onToken, const std::string& pubLabel,
                      const std::string& privLabel, Bytes comp[8]) override {
    Guard g(*this);
    if (!onToken) return soft_->GenerateKeyPair(bits, false, pubLabel, privLabel, comp);
    if (!g.ok()) return kChooserFailed;
    if (pubLabel.empty() || privLabel.empty() || bits <= 0) return kBadArgument;
    // A provisional shared ID; replaced by the modulus-derived one below.
    unsigned char tmpId[20];
    if (KV_RSA_OsRandom(nullptr, tmpId, sizeof tmpId) != 0) return kOtherError;
    CK_OBJECT_CLASS pubCls = CKO_PUBLIC_KEY, privCls = CKO_PRIVATE_KEY;
    CK_KEY_TYPE kt = CKK_RSA;
    CK_BBOOL yes = CK_TRUE, no = CK_FALSE;
    CK_ULONG modBits = static_cast<CK_ULONG>(bits);
    unsigned char e[] = {0x01, 0x00, 0x01};
    std::string pl(pubLabel), vl(privLabel);
    CK_ATTRIBUTE pubT[] = {
        {CKA_CLASS, &pubCls, sizeof pubCls},
        {CKA_KEY_TYPE, &kt, sizeof kt},
        {CKA_TOKEN, &yes, sizeof yes},
        {CKA_PRIVATE, &no, sizeof no},
        {CKA_LABEL, &pl[0], static_cast<CK_ULONG>(pl.size())},
        {CKA_ID, tmpId, sizeof tmpId},
        {CKA_MODULUS_BITS, &modBits, sizeof modBits},
        {CKA_PUBLIC_EXPONENT, e, sizeof e},
        {CKA_ENCRYPT, &yes, sizeof yes},
        {CKA_VERIFY, &yes, sizeof yes},
    };
    CK_ATTRIBUTE privT[] = {
        {CKA_CLASS, &privCls, sizeof privCls},
        {CKA_KEY_TYPE, &kt, sizeof kt},
        {CKA_TOKEN, &yes, sizeof yes},
        {CKA_PRIVATE, &yes, sizeof yes},
        {CKA_SENSITIVE, &yes, sizeof yes},
        {CKA_LABEL, &vl[0], static_cast<CK_ULONG>(vl.size())},
        {CKA_ID, tmpId, sizeof tmpId},
        {CKA_DECRYPT, &yes, sizeof yes},
        {CKA_SIGN, &yes, sizeof yes},
    };
    CK_MECHANISM mech = {CKM_RSA_PKCS_KEY_PAIR_GEN, NULL_PTR, 0};
    CK_OBJECT_HANDLE hPub = 0, hPriv = 0;
    CK_RV rv = fl()->C_GenerateKeyPair(sh(), &mech, pubT, sizeof pubT / sizeof pubT[0], privT,
                                       sizeof privT / sizeof privT[0], &hPub, &hPriv);
    if (rv != CKR_OK) return FromRv(rv, kKeyGenFailed);
    Bytes n;
    if (GetAttrLocked(hPub, CKA_MODULUS, &n) == CKR_OK && !n.empty()) {
      Bytes id = KeyIdOfModulus(n);
      CK_ATTRIBUTE newId = {CKA_ID, id.data(), static_cast<CK_ULONG>(id.size())};
      if (fl()->C_SetAttributeValue(sh(), hPub, &newId, 1) == CKR_OK &&
          fl()->C_SetAttributeValue(sh(), hPriv, &newId, 1) != CKR_OK) {
        CK_ATTRIBUTE oldId = {CKA_ID, tmpId, sizeof tmpId};
        fl()->C_SetAttributeValue(sh(), hPub, &oldId, 1);  // keep the pair's IDs equal
      }
    }
    return kOk;
  }

 private:
  // Serialises use of the session and keeps the module loaded meanwhile.
  class Guard {
   public:
    explicit Guard(ModuleStore& s) : lock_(s.mu_), gate_(s.m_->gate), m_(*s.m_) {}
    // False once the module has been unloaded: token work is over, soft work
    // goes on.
    bool ok() const { return m_.alive && m_.fl != nullptr; }

   private:
    std::lock_guard<std::mutex> lock_;
    std::shared_lock<std::shared_mutex> gate_;
    Module& m_;
  };

  CK_FUNCTION_LIST_PTR fl() const { return m_->fl; }
  CK_SESSION_HANDLE sh() const { return session_->Handle(); }

  // The class of object a token key names: public for the public access kind,
  // private for the private one and for RSA work with no kind given.
  static CK_OBJECT_CLASS TokenClass(const AlgInfo& alg, const KeyInfo& key) {
    if (key.accessKind == KV_AK_PUBLIC) return CKO_PUBLIC_KEY;
    if (key.accessKind == KV_AK_PRIVATE) return CKO_PRIVATE_KEY;
    return alg.kind >= KV_ALG_RSA ? CKO_PRIVATE_KEY : CKO_SECRET_KEY;
  }

  int FindLocked(CK_OBJECT_CLASS cls, const std::string& label, CK_OBJECT_HANDLE* h, bool* found) {
    *found = false;
    std::string lbl(label);
    CK_ATTRIBUTE t[] = {
        {CKA_CLASS, &cls, sizeof cls},
        {CKA_LABEL, lbl.empty() ? NULL_PTR : &lbl[0], static_cast<CK_ULONG>(lbl.size())}};
    CK_RV rv = fl()->C_FindObjectsInit(sh(), t, 2);
    if (rv != CKR_OK) return FromRv(rv, kObjectNotFound);
    CK_ULONG count = 0;
    rv = fl()->C_FindObjects(sh(), h, 1, &count);
    fl()->C_FindObjectsFinal(sh());
    if (rv != CKR_OK) return FromRv(rv, kObjectNotFound);
    *found = count > 0;
    return kOk;
  }

  CK_RV GetAttrLocked(CK_OBJECT_HANDLE h, CK_ATTRIBUTE_TYPE type, Bytes* out) {
    CK_ATTRIBUTE a = {type, NULL_PTR, 0};
    CK_RV rv = fl()->C_GetAttributeValue(sh(), h, &a, 1);
    if (rv != CKR_OK) return rv;
    if (a.ulValueLen == CK_UNAVAILABLE_INFORMATION) return CKR_ATTRIBUTE_SENSITIVE;
    out->assign(a.ulValueLen, 0);
    a.pValue = out->empty() ? NULL_PTR : out->data();
    rv = fl()->C_GetAttributeValue(sh(), h, &a, 1);
    if (rv == CKR_OK) out->resize(a.ulValueLen);
    return rv;
  }

  // Modulus and exponent of the token key under the label as an in-memory
  // public key. A private key object that hides them falls back to the public
  // key object of the same label.
  int PublicPartLocked(const std::string& label, CK_OBJECT_CLASS cls, KeyInfo* pub) {
    CK_OBJECT_HANDLE h = 0;
    bool found = false;
    int rc = FindLocked(cls, label, &h, &found);
    if (rc != kOk) return rc;
    Bytes n, e;
    bool have = found && GetAttrLocked(h, CKA_MODULUS, &n) == CKR_OK &&
                GetAttrLocked(h, CKA_PUBLIC_EXPONENT, &e) == CKR_OK && !n.empty() && !e.empty();
    if (!have && cls == CKO_PRIVATE_KEY) {
      rc = FindLocked(CKO_PUBLIC_KEY, label, &h, &found);
      if (rc != kOk) return rc;
      have = found && GetAttrLocked(h, CKA_MODULUS, &n) == CKR_OK &&
             GetAttrLocked(h, CKA_PUBLIC_EXPONENT, &e) == CKR_OK && !n.empty() && !e.empty();
    }
    if (!found) return kObjectNotFound;
    if (!have) return kAttributeFailed;
    pub->accessKind = KV_AK_PUBLIC;
    pub->kind = KV_KEY_RSA_PUBLIC;
    pub->onToken = false;
    pub->comp[0] = StripZeros(n);
    pub->comp[1] = StripZeros(e);
    return kOk;
  }

  // CKM_RSA_PKCS with the private key under the label: a type-1 block over the
  // input (signing) or the opening of a type-2 block (decryption).
  int PrivateOpLocked(const std::string& label, const unsigned char* in, size_t n, bool decrypt,
                      Bytes* out) {
    if (in == nullptr && n != 0) return kBadArgument;
    CK_OBJECT_HANDLE h = 0;
    bool found = false;
    int rc = FindLocked(CKO_PRIVATE_KEY, label, &h, &found);
    if (rc != kOk) return rc;
    if (!found) return kObjectNotFound;
    CK_MECHANISM mech = {CKM_RSA_PKCS, NULL_PTR, 0};
    CK_RV rv = decrypt ? fl()->C_DecryptInit(sh(), &mech, h) : fl()->C_SignInit(sh(), &mech, h);
    if (rv != CKR_OK) return FromRv(rv, kModuleFailed);
    Bytes input(in, in + n);
    unsigned char* ip = input.empty() ? nullptr : input.data();
    // One call with the largest possible output (the modulus length, at most
    // the engine's limit) instead of asking first, which would end the
    // operation on tokens that mishandle the size query.
    CK_ULONG len = KV_RSA_MAX_MODULUS_BYTES;
    out->assign(len, 0);
    rv = decrypt ? fl()->C_Decrypt(sh(), ip, static_cast<CK_ULONG>(input.size()), out->data(), &len)
                 : fl()->C_Sign(sh(), ip, static_cast<CK_ULONG>(input.size()), out->data(), &len);
    Wipe(input.data(), input.size());
    if (rv != CKR_OK) {
      out->clear();
      return FromRv(rv, decrypt ? kRsaFailed : kModuleFailed);
    }
    out->resize(len);
    return kOk;
  }

  int TokenSignLocked(const AlgInfo& alg, const KeyInfo& key, const unsigned char* in, size_t n,
                      Bytes* out) {
    if (TokenClass(alg, key) != CKO_PRIVATE_KEY) return kBadKeyObject;
    const unsigned char* prefix = nullptr;
    size_t prefixLen = 0;
    int digestKind = 0;
    switch (alg.kind) {
      case KV_ALG_RSA:
        return PrivateOpLocked(key.label, in, n, /*decrypt=*/false, out);
      case KV_ALG_SHA1_RSA:
        prefix = kSha1Prefix, prefixLen = sizeof kSha1Prefix, digestKind = KV_ALG_SHA1;
        break;
      case KV_ALG_MD5_RSA:
        prefix = kMd5Prefix, prefixLen = sizeof kMd5Prefix, digestKind = KV_ALG_MD5;
        break;
      case KV_ALG_MD2_RSA:
        prefix = kMd2Prefix, prefixLen = sizeof kMd2Prefix, digestKind = KV_ALG_MD2;
        break;
      default:
        return kAlgNotSupported;
    }
    // Digest here and sign the DigestInfo with plain CKM_RSA_PKCS: every RSA
    // token has that mechanism, few have MD2 or MD5 with RSA.
    AlgInfo d;
    d.kind = digestKind;
    Bytes digest;
    int rc = soft_->Digest(d, in, n, digest);
    if (rc != kOk) return rc;
    Bytes info(prefix, prefix + prefixLen);
    info.insert(info.end(), digest.begin(), digest.end());
    return PrivateOpLocked(key.label, info.data(), info.size(), /*decrypt=*/false, out);
  }

  // True when sig, opened with (n, e), is a type-1 block holding `block`.
  static bool OpensTo(const Bytes& n, const Bytes& e, const Bytes& sig, const unsigned char* block,
                      size_t blockLen) {
    KV_RSA_COMPONENT comps[2] = {
        {const_cast<unsigned char*>(n.data()), static_cast<unsigned int>(n.size())},
        {const_cast<unsigned char*>(e.data()), static_cast<unsigned int>(e.size())}};
    KV_RSA_CTX* raw = nullptr;
    if (KV_RSA_LoadKey(comps, KV_RSA_PUBLIC_BLOCK_SIZE, &raw) != 0) return false;
    std::unique_ptr<KV_RSA_CTX, kv::RsaCtxDeleter> ctx(raw);
    if (sig.size() != KV_RSA_ModulusLength(ctx.get())) return false;
    Bytes plain(sig.size());
    unsigned int len = static_cast<unsigned int>(plain.size());
    if (KV_RSA_Decrypt(ctx.get(), sig.data(), plain.data(), static_cast<unsigned int>(sig.size()),
                       &len) != 0)
      return false;
    return len == blockLen && std::memcmp(plain.data(), block, blockLen) == 0;
  }

  std::mutex mu_;
  std::shared_ptr<Module> m_;
  std::unique_ptr<Session> session_;
  std::unique_ptr<Store> soft_;
};

int OpenStore(unsigned selector, const std::string& label, const std::string& pin,
              std::unique_ptr<Store>* out) {
  if (out == nullptr) return kBadArgument;
  out->reset();
  if (selector == KV_P11_STORE_SOFT) return 1;
  if (selector != KV_P11_STORE_AUTO && selector != KV_P11_STORE_MODULE) return kBadArgument;
  Registry& reg = TheRegistry();
  std::lock_guard<std::mutex> lock(reg.mu);
  if (reg.modules.empty() && selector == KV_P11_STORE_AUTO) return 1;
  std::shared_ptr<Module> m;
  CK_SLOT_ID slot = 0;
  for (auto it = reg.modules.rbegin(); it != reg.modules.rend() && !m; ++it) {
    std::shared_lock<std::shared_mutex> gate((*it)->gate);
    if (!(*it)->alive) continue;
    if (label.empty()) {
      m = *it;
      slot = m->defaultSlot;
    } else if (FindTokenSlot((*it)->fl, label, &slot)) {
      m = *it;
    }
  }
  if (!m) {
    Diagnose(kNoToken);
    return kChooserFailed;
  }
  std::shared_lock<std::shared_mutex> gate(m->gate);
  CK_FUNCTION_LIST_PTR fl = nullptr;
  CK_RV rv = m->getFunctionList(&fl);
  if (rv != CKR_OK || fl == nullptr) {
    DiagnoseRv(kInitFail, rv != CKR_OK ? rv : CKR_GENERAL_ERROR);
    return kInitFailed;
  }
  auto session = std::make_unique<Session>(m, slot);
  rv = session->Open(CKF_SERIAL_SESSION | CKF_RW_SESSION);
  if (rv != CKR_OK) {
    DiagnoseRv(kOpenFail, rv);
    return kChooserFailed;
  }
  // Without a PIN the session stays public (or shares a login made earlier).
  if (!pin.empty()) {
    rv = session->Login(pin);
    if (rv != CKR_OK) {
      DiagnoseRv(kLoginFail, rv);
      return kModuleFailed;
    }
  }
  std::unique_ptr<Store> soft = OpenSoftStore();
  if (!soft) return kNoMemory;
  *out = std::make_unique<ModuleStore>(m, std::move(session), std::move(soft));
  return kOk;
}

}  // namespace

void Diagnose(const std::string& text) {
  try {
    t_lastDiagnostic = text;
  } catch (...) {
  }
  DiagSink& s = Sink();
  KV_P11_DIAG_FN fn;
  void* arg;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    fn = s.fn;
    arg = s.arg;
  }
  // Called outside the lock so that a sink may change the sink.
  if (fn != nullptr) {
    fn(arg, text.c_str());
  } else {
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
  }
}

int OpenModuleStore(unsigned selector, const std::string& label, const std::string& pin,
                    std::unique_ptr<Store>* out) {
  try {
    return OpenStore(selector, label, pin, out);
  } catch (const std::bad_alloc&) {
    if (out) out->reset();
    return kNoMemory;
  } catch (...) {
    if (out) out->reset();
    return kOtherError;
  }
}

}  // namespace kv::p11

extern "C" {

int KV_P11_LoadModule(const char* modulePath, const char* tokenLabel, const char* pin) {
  try {
    return kv::p11::LoadModule(modulePath, tokenLabel, pin);
  } catch (const std::bad_alloc&) {
    return kv::p11::kNoMemory;
  } catch (...) {
    return kv::p11::kOtherError;
  }
}

void KV_P11_UnloadModules(void) {
  try {
    kv::p11::TheRegistry().UnloadAll();
  } catch (...) {
  }
}

void KV_P11_SetDiagnostics(KV_P11_DIAG_FN fn, void* arg) {
  try {
    kv::p11::DiagSink& s = kv::p11::Sink();
    std::lock_guard<std::mutex> lock(s.mu);
    s.fn = fn;
    s.arg = fn != nullptr ? arg : nullptr;
  } catch (...) {
  }
}

const char* KV_P11_LastDiagnostic(void) {
  return kv::p11::t_lastDiagnostic.c_str();
}

}  // extern "C"
