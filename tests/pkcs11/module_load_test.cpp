// Loading modules and opening stores: the failures with their statuses and
// texts, session and login bookkeeping, unloading, and the function list
// layout against the symbols SoftHSM2 exports.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <thread>

#include "crypto/internal/cryptoki.h"
#include "crypto/internal/p11_core.h"
#include "crypto/p11.h"
#include "softhsm_env.h"

namespace {

using namespace p11test;
using StorePtr = std::unique_ptr<kv::p11::Store>;
using Texts = std::vector<std::string>;

constexpr CK_STATE kRwPublic = 2, kRwUser = 3;  // CKS_RW_PUBLIC_SESSION, CKS_RW_USER_FUNCTIONS

// Our own view of the module: dlopen of the same file gives the instance the
// binding uses, so its sessions are visible here.
class ModuleView {
 public:
  ModuleView() : h_(dlopen(kModule, RTLD_NOW | RTLD_LOCAL)) {
    auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(h_, "C_GetFunctionList"));
    if (get != nullptr) get(&fl_);
  }
  ~ModuleView() { dlclose(h_); }
  CK_FUNCTION_LIST_PTR fl() const { return fl_; }
  void* handle() const { return h_; }

  // The states of the process's open sessions on the token. SoftHSM numbers
  // sessions from 1, so a scan of the low handles finds them all.
  std::vector<CK_STATE> Sessions(const std::string& token) const {
    std::vector<CK_STATE> states;
    for (CK_SESSION_HANDLE h = 1; h < 512; ++h) {
      CK_SESSION_INFO s;
      CK_TOKEN_INFO t;
      if (fl_->C_GetSessionInfo(h, &s) == CKR_OK && fl_->C_GetTokenInfo(s.slotID, &t) == CKR_OK &&
          std::string(reinterpret_cast<char*>(t.label), 32).find(token + " ") == 0)
        states.push_back(s.state);
    }
    return states;
  }

 private:
  void* h_;
  CK_FUNCTION_LIST_PTR fl_ = nullptr;
};

template <typename F>
const void* Addr(F f) {
  const void* p;
  std::memcpy(&p, &f, sizeof p);
  return p;
}

// The 68 entry points in the standard's order.
// clang-format off
#define KV_EACH_FUNCTION(X)                                                                     \
  X(C_Initialize) X(C_Finalize) X(C_GetInfo) X(C_GetFunctionList) X(C_GetSlotList)              \
  X(C_GetSlotInfo) X(C_GetTokenInfo) X(C_GetMechanismList) X(C_GetMechanismInfo) X(C_InitToken) \
  X(C_InitPIN) X(C_SetPIN) X(C_OpenSession) X(C_CloseSession) X(C_CloseAllSessions)             \
  X(C_GetSessionInfo) X(C_GetOperationState) X(C_SetOperationState) X(C_Login) X(C_Logout)      \
  X(C_CreateObject) X(C_CopyObject) X(C_DestroyObject) X(C_GetObjectSize)                       \
  X(C_GetAttributeValue) X(C_SetAttributeValue) X(C_FindObjectsInit) X(C_FindObjects)           \
  X(C_FindObjectsFinal) X(C_EncryptInit) X(C_Encrypt) X(C_EncryptUpdate) X(C_EncryptFinal)      \
  X(C_DecryptInit) X(C_Decrypt) X(C_DecryptUpdate) X(C_DecryptFinal) X(C_DigestInit)            \
  X(C_Digest) X(C_DigestUpdate) X(C_DigestKey) X(C_DigestFinal) X(C_SignInit) X(C_Sign)         \
  X(C_SignUpdate) X(C_SignFinal) X(C_SignRecoverInit) X(C_SignRecover) X(C_VerifyInit)          \
  X(C_Verify) X(C_VerifyUpdate) X(C_VerifyFinal) X(C_VerifyRecoverInit) X(C_VerifyRecover)      \
  X(C_DigestEncryptUpdate) X(C_DecryptDigestUpdate) X(C_SignEncryptUpdate)                      \
  X(C_DecryptVerifyUpdate) X(C_GenerateKey) X(C_GenerateKeyPair) X(C_WrapKey) X(C_UnwrapKey)    \
  X(C_DeriveKey) X(C_SeedRandom) X(C_GenerateRandom) X(C_GetFunctionStatus)                     \
  X(C_CancelFunction) X(C_WaitForSlotEvent)
// clang-format on

TEST(FunctionList, EverySlotIsTheExportedFunctionOfThatNameInTheStandardsOrder) {
  ModuleView v;
  ASSERT_NE(v.fl(), nullptr);
  CK_FUNCTION_LIST_PTR fl = v.fl();
  size_t index = 0;
#define KV_CHECK(name)                                                                \
  EXPECT_EQ(Addr(fl->name), dlsym(v.handle(), #name)) << #name " is not at its slot"; \
  EXPECT_EQ(offsetof(CK_FUNCTION_LIST, name), sizeof(void*) * (1 + index++)) << #name;
  KV_EACH_FUNCTION(KV_CHECK)
#undef KV_CHECK
  EXPECT_EQ(index, 68u);
  EXPECT_EQ(sizeof(CK_FUNCTION_LIST), sizeof(void*) * 69);
}

TEST(LoadModule, FailuresGiveTheirStatusAndText) {
  std::string text = Scratch().Write("not-a-module.so", "just text\n");
  const struct {
    const char *path, *label, *pin;
    int status;
    const char* text;
  } cases[] = {
      {"/nonexistent/libnothing.so", nullptr, kPin, -17, "can not find the library\n"},
      {nullptr, nullptr, kPin, -17, "can not find the library\n"},
      {text.c_str(), nullptr, kPin, -17, "can not find the library\n"},
      {"libc.so.6", nullptr, kPin, -17, "can not find the library\n"},  // no C_GetFunctionList
      {kModule, "no-such-token", kPin, -15, "can not find the demanded token\n"},
      {kModule, "kv-op", kPin, -15, "can not find the demanded token\n"},  // a label's prefix
      {kModule, kPinToken, "9999", -9, "error at login,errno=a0(h)\n"},
  };
  for (const auto& c : cases) {
    DiagCapture diag;
    EXPECT_EQ(KV_P11_LoadModule(c.path, c.label, c.pin), c.status) << c.path << " " << c.label;
    EXPECT_EQ(diag.Texts(), Texts{c.text}) << c.path << " " << c.label;
    EXPECT_STREQ(KV_P11_LastDiagnostic(), c.text);
  }
}

TEST(LoadModule, InitializeFailureIsReportedWithTheModulesValue) {
  KV_P11_UnloadModules();
  ::setenv("SOFTHSM2_CONF", Scratch().Write("bad.conf", "objectstore.backend = none\n").c_str(), 1);
  DiagCapture diag;
  int status = KV_P11_LoadModule(kModule, kOpsToken, kPin);
  ::setenv("SOFTHSM2_CONF", ConfPath().c_str(), 1);
  EXPECT_EQ(status, -17);
  ASSERT_EQ(diag.Texts().size(), 1u);
  const std::string& t = diag.Texts()[0];
  ASSERT_EQ(t.rfind("initialize fail...,errno=", 0), 0u) << t;
  ASSERT_EQ(t.substr(t.size() - 4), "(h)\n");
  std::string hex = t.substr(25, t.size() - 29);
  EXPECT_EQ(hex.find_first_not_of("0123456789abcdef"), std::string::npos) << hex;
  EXPECT_NE(hex, "0");
  // The failed module was not kept: the next load initialises it afresh.
  EXPECT_EQ(LoadToken(kOpsToken), 0);
}

TEST(Sessions, FailuresLeaveNothingOpenAndTheLastLoginLogsOut) {
  ModuleView v;
  DiagCapture diag;
  StorePtr a, b, c;
  ASSERT_EQ(LoadToken(kOpsToken), 0);  // the module stays loaded through the failures
  EXPECT_EQ(KV_P11_LoadModule(kModule, kPinToken, "0000"), -9);
  EXPECT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_AUTO, kPinToken, "4321", &a), -9);
  EXPECT_EQ(a, nullptr);
  EXPECT_TRUE(v.Sessions(kPinToken).empty());
  EXPECT_EQ(diag.Texts(), Texts(2, "error at login,errno=a0(h)\n"));
  ASSERT_EQ(KV_P11_LoadModule(kModule, kPinToken, kPin), 0) << "the right PIN still works";
  EXPECT_TRUE(v.Sessions(kPinToken).empty()) << "the proving session is closed";

  EXPECT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_MODULE, "absent", kPin, &a), -15);
  EXPECT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_SOFT, kPinToken, kPin, &a), 1);
  EXPECT_EQ(kv::p11::OpenModuleStore(7, kPinToken, kPin, &a), -2);
  EXPECT_EQ(a, nullptr);

  ASSERT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_AUTO, kPinToken, kPin, &a), 0);
  ASSERT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_MODULE, kPinToken, kPin, &b), 0);
  ASSERT_TRUE(a->OnModule());
  EXPECT_EQ(v.Sessions(kPinToken), (std::vector<CK_STATE>{kRwUser, kRwUser}));
  a.reset();
  EXPECT_EQ(v.Sessions(kPinToken), std::vector<CK_STATE>{kRwUser}) << "b keeps its login";
  b.reset();
  EXPECT_TRUE(v.Sessions(kPinToken).empty());
  // Without a PIN a new session is public: the last store logged out.
  ASSERT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_AUTO, kPinToken, "", &c), 0);
  EXPECT_EQ(v.Sessions(kPinToken), std::vector<CK_STATE>{kRwPublic});
}

TEST(UnloadModules, OpenStoresLoseTheTokenNotTheSoftWorkAndReloadWorks) {
  ASSERT_EQ(LoadToken(kOpsToken), 0);
  StorePtr s, none;
  ASSERT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_AUTO, kOpsToken, kPin, &s), 0);
  bool found = true;
  ASSERT_EQ(s->FindObject("nothing-here", KV_OBJ_CERTIFICATE, &found), 0);
  KV_P11_UnloadModules();
  EXPECT_EQ(s->FindObject("nothing-here", KV_OBJ_CERTIFICATE, &found), -15);
  kv::p11::AlgInfo sha1;
  sha1.kind = KV_ALG_SHA1;
  kv::p11::Bytes digest;
  EXPECT_EQ(s->Digest(sha1, reinterpret_cast<const unsigned char*>("abc"), 3, digest), 0);
  EXPECT_EQ(Hex(digest), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_AUTO, "", "", &none), 1) << "soft token";
  {
    DiagCapture diag;
    EXPECT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_MODULE, "", "", &none), -15);
    EXPECT_EQ(diag.Texts(), Texts{"can not find the demanded token\n"});
  }
  s.reset();  // closing after the unload must not call into the module
  ASSERT_EQ(LoadToken(kOpsToken), 0);
  ASSERT_EQ(kv::p11::OpenModuleStore(KV_P11_STORE_AUTO, "", kPin, &s), 0);
  EXPECT_EQ(s->FindObject("nothing-here", KV_OBJ_CERTIFICATE, &found), 0);
}

// Redirects a standard stream into a file while it lives.
class Redirect {
 public:
  Redirect(int fd, const std::string& path) : fd_(fd), saved_((std::fflush(nullptr), dup(fd))) {
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
  int fd_, saved_;
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
}

}  // namespace
