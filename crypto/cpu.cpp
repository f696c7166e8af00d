#include <atomic>
#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include "crypto/internal/cpu.h"

namespace kv::internal {
namespace {
std::atomic<bool> g_allowed{true};
}

bool CpuHasShaNi() {
#if defined(__x86_64__) || defined(__i386__)
  static const bool has = [] {
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (!__get_cpuid(1, &a, &b, &c, &d)) return false;
    bool sse41 = (c >> 19) & 1;
    if (!__get_cpuid_count(7, 0, &a, &b, &c, &d)) return false;
    return sse41 && ((b >> 29) & 1);  // leaf 7 EBX bit 29: SHA
  }();
  return has;
#else
  return false;
#endif
}

void SetAccelerationAllowed(bool allowed) {
  g_allowed.store(allowed, std::memory_order_relaxed);
}
bool AccelerationAllowed() {
  return g_allowed.load(std::memory_order_relaxed);
}

}  // namespace kv::internal
