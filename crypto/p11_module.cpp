// Placeholder, replaced by the PKCS#11 binding: no module is ever loaded, so
// every chooser runs on the soft token. The diagnostics sink works as the real
// one does.
#include <cstdio>
#include <mutex>
#include <string>

#include "crypto/internal/p11_core.h"
#include "crypto/p11.h"

namespace {

std::mutex g_sinkMutex;
KV_P11_DIAG_FN g_sink = nullptr;
void* g_sinkArg = nullptr;

std::string& LastText() {
  thread_local std::string last;
  return last;
}

}  // namespace

namespace kv::p11 {

void Diagnose(const std::string& text) {
  try {
    LastText() = text;
  } catch (...) {
  }
  std::lock_guard<std::mutex> lock(g_sinkMutex);
  if (g_sink != nullptr) {
    g_sink(g_sinkArg, text.c_str());
  } else {
    std::fputs(text.c_str(), stderr);
  }
}

int OpenModuleStore(unsigned selector, const std::string&, const std::string&,
                    std::unique_ptr<Store>* out) {
  if (out != nullptr) out->reset();
  return selector == KV_P11_STORE_MODULE ? kChooserFailed : 1;
}

}  // namespace kv::p11

extern "C" {

int KV_P11_LoadModule(const char*, const char*, const char*) {
  kv::p11::Diagnose("can not find the library\n");
  return kv::p11::kInitFailed;
}

void KV_P11_UnloadModules(void) {}

void KV_P11_SetDiagnostics(KV_P11_DIAG_FN fn, void* arg) {
  std::lock_guard<std::mutex> lock(g_sinkMutex);
  g_sink = fn;
  g_sinkArg = fn ? arg : nullptr;
}

const char* KV_P11_LastDiagnostic(void) {
  return LastText().c_str();
}

}  // extern "C"
