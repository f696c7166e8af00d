// Loading modules, the failures of loading and of opening a store with their
// statuses and texts, the login and session bookkeeping, unloading, and the
// function list layout against the symbols SoftHSM2 exports.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <thread>

#include "crypto/internal/cryptoki.h"
#include "crypto/internal/p11_core.h"
#include "crypto/p11.h"
#include "softhsm_env.h"

namespace {

using namespace p11test;

constexpr CK_STATE kRwPublic = 2;  // CKS_RW_PUBLIC_SESSION
constexpr CK_STATE kRwUser = 3;    // CKS_RW_USER_FUNCTIONS

// Our own view of the module: dlopen of the same file gives the same instance
// as the binding's, so its sessions are visible here.
class ModuleView {
 public:
  ModuleView() {
    h_ = dlopen(kModule, RTLD_NOW | RTLD_LOCAL);
    if (h_ == nullptr) return;
    auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(h_, "C_GetFunctionList"));
    if (get != nullptr) get(&fl_);
  }
  ~ModuleView() {
    if (h_ != nullptr) dlclose(h_);
  }
  CK_FUNCTION_LIST_PTR fl() const { return fl_; }
  void* handle() const { return h_; }

  CK_SLOT_ID SlotOf(const char* label) const {
    CK_ULONG n = 0;
    fl_->C_GetSlotList(CK_TRUE, NULL_PTR, &n);
    std::vector<CK_SLOT_ID> slots(n);
    fl_->C_GetSlotList(CK_TRUE, slots.data(), &n);
    for (CK_ULONG i = 0; i < n; ++i) {
      CK_TOKEN_INFO info;
      fl_->C_GetTokenInfo(slots[i], &info);
      std::string l(reinterpret_cast<char*>(info.label), 32);
      if (l.substr(0, std::strlen(label)) == label &&
          l.find_first_not_of(' ', std::strlen(label)) == std::string::npos)
        return slots[i];
    }
    ADD_FAILURE() << "no token " << label;
    return ~0UL;
  }

  // The states of every open session of the process on the slot. SoftHSM
  // numbers sessions from 1, so a scan of the low handles finds them all.
  std::vector<CK_STATE> Sessions(CK_SLOT_ID slot) const {
    std::vector<CK_STATE> states;
    for (CK_SESSION_HANDLE h = 1; h < 512; ++h) {
      CK_SESSION_INFO info;
      if (fl_->C_GetSessionInfo(h, &info) == CKR_OK && info.slotID == slot)
        states.push_back(info.state);
    }
    return states;
  }

 private:
  void* h_ = nullptr;
  CK_FUNCTION_LIST_PTR fl_ = nullptr;
};

template <typename F>
const void* Addr(F f) {
  const void* p;
  static_assert(sizeof p == sizeof f, "pointer sizes");
  std::memcpy(&p, &f, sizeof p);
  return p;
}

TEST(FunctionList, EverySlotIsTheExportedFunctionOfThatName) {
  ModuleView v;
  ASSERT_NE(v.fl(), nullptr);
  CK_FUNCTION_LIST_PTR fl = v.fl();
#define KV_SLOT(name) \
  { #name, Addr(fl->name) }
  const std::pair<const char*, const void*> slots[] = {KV_SLOT(C_Initialize),
                                                       KV_SLOT(C_Finalize),
                                                       KV_SLOT(C_GetInfo),
                                                       KV_SLOT(C_GetFunctionList),
                                                       KV_SLOT(C_GetSlotList),
                                                       KV_SLOT(C_GetSlotInfo),
                                                       KV_SLOT(C_GetTokenInfo),
                                                       KV_SLOT(C_GetMechanismList),
                                                       KV_SLOT(C_GetMechanismInfo),
                                                       KV_SLOT(C_InitToken),
                                                       KV_SLOT(C_InitPIN),
                                                       KV_SLOT(C_SetPIN),
                                                       KV_SLOT(C_OpenSession),
                                                       KV_SLOT(C_CloseSession),
                                                       KV_SLOT(C_CloseAllSessions),
                                                       KV_SLOT(C_GetSessionInfo),
                                                       KV_SLOT(C_GetOperationState),
                                                       KV_SLOT(C_SetOperationState),
                                                       KV_SLOT(C_Login),
                                                       KV_SLOT(C_Logout),
                                                       KV_SLOT(C_CreateObject),
                                                       KV_SLOT(C_CopyObject),
                                                       KV_SLOT(C_DestroyObject),
                                                       KV_SLOT(C_GetObjectSize),
                                                       KV_SLOT(C_GetAttributeValue),
                                                       KV_SLOT(C_SetAttributeValue),
                                                       KV_SLOT(C_FindObjectsInit),
                                                       KV_SLOT(C_FindObjects),
                                                       KV_SLOT(C_FindObjectsFinal),
                                                       KV_SLOT(C_EncryptInit),
                                                       KV_SLOT(C_Encrypt),
                                                       KV_SLOT(C_EncryptUpdate),
                                                       KV_SLOT(C_EncryptFinal),
                                                       KV_SLOT(C_DecryptInit),
                                                       KV_SLOT(C_Decrypt),
                                                       KV_SLOT(C_DecryptUpdate),
                                                       KV_SLOT(C_DecryptFinal),
                                                       KV_SLOT(C_DigestInit),
                                                       KV_SLOT(C_Digest),
                                                       KV_SLOT(C_DigestUpdate),
                                                       KV_SLOT(C_DigestKey),
                                                       KV_SLOT(C_DigestFinal),
                                                       KV_SLOT(C_SignInit),
                                                       KV_SLOT(C_Sign),
                                                       KV_SLOT(C_SignUpdate),
                                                       KV_SLOT(C_SignFinal),
                                                       KV_SLOT(C_SignRecoverInit),
                                                       KV_SLOT(C_SignRecover),
                                                       KV_SLOT(C_VerifyInit),
                                                       KV_SLOT(C_Verify),
                                                       KV_SLOT(C_VerifyUpdate),
                                                       KV_SLOT(C_VerifyFinal),
                                                       KV_SLOT(C_VerifyRecoverInit),
                                                       KV_SLOT(C_VerifyRecover),
                                                       KV_SLOT(C_DigestEncryptUpdate),
                                                       KV_SLOT(C_DecryptDigestUpdate),
                                                       KV_SLOT(C_SignEncryptUpdate),
                                                       KV_SLOT(C_DecryptVerifyUpdate),
                                                       KV_SLOT(C_GenerateKey),
                                                       KV_SLOT(C_GenerateKeyPair),
                                                       KV_SLOT(C_WrapKey),
                                                       KV_SLOT(C_UnwrapKey),
                                                       KV_SLOT(C_DeriveKey),
                                                       KV_SLOT(C_SeedRandom),
                                                       KV_SLOT(C_GenerateRandom),
                                                       KV_SLOT(C_GetFunctionStatus),
                                                       KV_SLOT(C_CancelFunction),
                                                       KV_SLOT(C_WaitForSlotEvent)};
#undef KV_SLOT
  EXPECT_EQ(sizeof slots / sizeof slots[0], 68u);
  for (const auto& s : slots) {
    const void* exported = dlsym(v.handle(), s.first);
    ASSERT_NE(exported, nullptr) << s.first;
    EXPECT_EQ(s.second, exported) << s.first << " is not at its slot";
  }
  // Nothing follows the last slot.
  EXPECT_EQ(sizeof(CK_FUNCTION_LIST), reinterpret_cast<const char*>(&fl->C_WaitForSlotEvent + 1) -
                                          reinterpret_cast<const char*>(fl));
  EXPECT_EQ(fl->version.major, 2);
}

TEST(LoadModule, FailuresGiveTheirStatusAndText) {
  std::string text = Scratch().Write("not-a-module.so", "just text\n");
  struct Case {
    const char* what;
    const char* path;
    const char* label;
    const char* pin;
    int status;
    const char* text;
  } cases[] = {
      {"missing file", "/nonexistent/libnothing.so", nullptr, kPin, -17,
       "can not find the library\n"},
      {"null path", nullptr, nullptr, kPin, -17, "can not find the library\n"},
      {"text file", text.c_str(), nullptr, kPin, -17, "can not find the library\n"},
      {"library without the entry point", "libc.so.6", nullptr, kPin, -17,
       "can not find the library\n"},
      {"unknown token", kModule, "no-such-token", kPin, -15, "can not find the demanded token\n"},
      {"label is a prefix of a token's", kModule, "kv-op", kPin, -15,
       "can not find the demanded token\n"},
      {"wrong PIN", kModule, kPinToken, "9999", -9, "error at login,errno=a0(h)\n"},
  };
  for (const Case& c : cases) {
    DiagCapture diag;
    EXPECT_EQ(KV_P11_LoadModule(c.path, c.label, c.pin), c.status) << c.what;
    ASSERT_EQ(diag.Texts().size(), 1u) << c.what;
    EXPECT_EQ(diag.Texts()[0], c.text) << c.what;
    EXPECT_STREQ(KV_P11_LastDiagnostic(), c.text) << c.what;
  }
}

TEST(LoadModule, LoginFailureLeavesNoSessionAndTheRightPinStillWorks) {
  ASSERT_EQ(LoadToken(kOpsToken), 0);
  ModuleView v;
  CK_SLOT_ID slot = v.SlotOf(kPinToken);
  DiagCapture quiet;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(KV_P11_LoadModule(kModule, kPinToken, "0000"), -9);
    EXPECT_TRUE(v.Sessions(slot).empty());
  }
  EXPECT_EQ(KV_P11_LoadModule(kModule, kPinToken, kPin), 0);
  EXPECT_TRUE(v.Sessions(slot).empty()) << "the proving session must be closed";
  // A second load of the same path reuses the module and proves the PIN again.
  EXPECT_EQ(KV_P11_LoadModule(kModule, kPinToken, kPin), 0);
  EXPECT_EQ(quiet.Texts().size(), 3u);
}

TEST(OpenModuleStore, SessionsAreClosedAndTheLastLoginLogsOut) {
  ASSERT_EQ(LoadToken(kPinToken), 0);
  ModuleView v;
  CK_SLOT_ID slot = v.SlotOf(kPinToken);
  std::unique_ptr<kv::p11::Store> a, b, c;
  ASSERT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_AUTO, kPinToken, kPin, &a), 0);
  ASSERT_TRUE(a && a->OnModule());
  ASSERT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_MODULE, kPinToken, kPin, &b), 0);
  EXPECT_EQ(v.Sessions(slot), (std::vector<CK_STATE>{kRwUser, kRwUser}));
  a.reset();
  EXPECT_EQ(v.Sessions(slot), (std::vector<CK_STATE>{kRwUser})) << "b keeps its login";
  b.reset();
  EXPECT_TRUE(v.Sessions(slot).empty());
  // Without a PIN the new session is public: the last store logged out.
  ASSERT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_AUTO, kPinToken, "", &c), 0);
  EXPECT_EQ(v.Sessions(slot), (std::vector<CK_STATE>{kRwPublic}));
  c.reset();
  EXPECT_TRUE(v.Sessions(slot).empty());
}

TEST(OpenModuleStore, FailuresLeaveNothingOpen) {
  ASSERT_EQ(LoadToken(kPinToken), 0);
  ModuleView v;
  CK_SLOT_ID slot = v.SlotOf(kPinToken);
  std::unique_ptr<kv::p11::Store> s;
  {
    DiagCapture diag;
    EXPECT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_AUTO, kPinToken, "4321", &s), -9);
    EXPECT_EQ(s, nullptr);
    EXPECT_TRUE(v.Sessions(slot).empty());
    EXPECT_EQ(diag.Texts(), (std::vector<std::string>{"error at login,errno=a0(h)\n"}));
  }
  {
    DiagCapture diag;
    EXPECT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_MODULE, "absent", kPin, &s), -15);
    EXPECT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_AUTO, "absent", kPin, &s), -15);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(diag.Texts(), (std::vector<std::string>(2, "can not find the demanded token\n")));
  }
  EXPECT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_SOFT, kPinToken, kPin, &s), 1);
  EXPECT_EQ(s, nullptr);
  EXPECT_EQ(kv::p11::OpenModuleStore(7, kPinToken, kPin, &s), -2);
}

TEST(UnloadModules, OpenStoresLoseTheTokenNotTheSoftWorkAndReloadWorks) {
  ASSERT_EQ(LoadToken(kOpsToken), 0);
  std::unique_ptr<kv::p11::Store> s;
  ASSERT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_AUTO, kOpsToken, kPin, &s), 0);
  bool found = true;
  ASSERT_EQ(s->FindObject("nothing-here", KV_OBJ_CERTIFICATE, &found), 0);
  EXPECT_FALSE(found);

  KV_P11_UnloadModules();
  EXPECT_EQ(s->FindObject("nothing-here", KV_OBJ_CERTIFICATE, &found), -15);
  kv::p11::AlgInfo sha1;
  sha1.kind = KV_ALG_SHA1;
  kv::p11::Bytes digest;
  EXPECT_EQ(s->Digest(sha1, reinterpret_cast<const unsigned char*>("abc"), 3, digest), 0);
  EXPECT_EQ(Hex(digest), "a9993e364706816aba3e25717850c26c9cd0d89d");

  std::unique_ptr<kv::p11::Store> none;
  EXPECT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_AUTO, "", "", &none), 1) << "soft token";
  {
    DiagCapture diag;
    EXPECT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_MODULE, "", "", &none), -15);
    EXPECT_EQ(diag.Texts(), (std::vector<std::string>{"can not find the demanded token\n"}));
  }
  s.reset();  // closing after the unload must not touch the module

  ASSERT_EQ(LoadToken(kOpsToken), 0);
  ASSERT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_AUTO, "", kPin, &s), 0);
  EXPECT_EQ(s->FindObject("nothing-here", KV_OBJ_CERTIFICATE, &found), 0);
}

TEST(LoadModule, InitializeFailureIsReportedWithTheModulesValue) {
  KV_P11_UnloadModules();
  std::string bad = Scratch().Write("bad.conf",
                                    "directories.tokendir = /nonexistent/tokens\n"
                                    "objectstore.backend = nosuchbackend\n");
  ::setenv("SOFTHSM2_CONF", bad.c_str(), 1);
  int status;
  std::vector<std::string> texts;
  {
    DiagCapture diag;
    status = KV_P11_LoadModule(kModule, kOpsToken, kPin);
    texts = diag.Texts();
  }
  ::setenv("SOFTHSM2_CONF", ConfPath().c_str(), 1);
  EXPECT_EQ(status, -17);
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_EQ(texts[0].rfind("initialize fail...,errno=", 0), 0u) << texts[0];
  EXPECT_EQ(texts[0].substr(texts[0].size() - 4), "(h)\n");
  std::string hex = texts[0].substr(25, texts[0].size() - 29);
  EXPECT_FALSE(hex.empty());
  EXPECT_EQ(hex.find_first_not_of("0123456789abcdef"), std::string::npos) << hex;
  EXPECT_NE(hex, "0");
  // The failed module was not kept: loading again initialises it afresh.
  EXPECT_EQ(LoadToken(kOpsToken), 0);
}

// Redirects a standard stream into a file while it lives.
class Redirect {
 public:
  Redirect(int fd, const std::string& path) : fd_(fd) {
    std::fflush(nullptr);
    saved_ = dup(fd);
    FILE* f = std::fopen(path.c_str(), "w");
    dup2(fileno(f), fd);
    std::fclose(f);
  }
  ~Redirect() {
    std::fflush(nullptr);
    dup2(saved_, fd_);
    close(saved_);
  }

 private:
  int fd_;
  int saved_;
};

TEST(Diagnostics, DefaultSinkIsStandardErrorAndLastTextIsPerThread) {
  std::string out = Scratch() / "stdout.txt", err = Scratch() / "stderr.txt";
  {
    Redirect o(1, out), e(2, err);
    KV_P11_LoadModule("/nonexistent/lib.so", nullptr, kPin);
    KV_P11_LoadModule(kModule, kPinToken, "bad");
  }
  EXPECT_EQ(kvtest::ReadFile(out), "");
  EXPECT_EQ(kvtest::ReadFile(err), "can not find the library\nerror at login,errno=a0(h)\n");
  EXPECT_STREQ(KV_P11_LastDiagnostic(), "error at login,errno=a0(h)\n");

  std::string other = "unset";
  std::thread([&] { other = KV_P11_LastDiagnostic(); }).join();
  EXPECT_EQ(other, "");

  // A sink may replace the sink from inside the call.
  struct Swap {
    static void Fn(void* arg, const char* text) {
      *static_cast<std::string*>(arg) += text;
      KV_P11_SetDiagnostics(nullptr, nullptr);
    }
  };
  std::string got;
  KV_P11_SetDiagnostics(&Swap::Fn, &got);
  {
    Redirect e(2, err);
    KV_P11_LoadModule("/nonexistent/a.so", nullptr, kPin);
    KV_P11_LoadModule("/nonexistent/b.so", nullptr, kPin);
  }
  EXPECT_EQ(got, "can not find the library\n");
  EXPECT_EQ(kvtest::ReadFile(err), "can not find the library\n");
}

}  // namespace
