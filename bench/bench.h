// The benchmark program's registry. Each group of figures registers one
// function with KV_BENCH; the function measures our code and OpenSSL's side by
// side and reports each figure with kvbench::report.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace kvbench {

using Clock = std::chrono::steady_clock;

// Prints "NAME ours=X openssl=Y ratio=R". Pass higher_is_better = true for
// rates (MB/s, operations per second), false for times; the ratio is always
// oriented so that a value above 1 means we are faster. A negative openssl
// value means OpenSSL has no counterpart: only our figure is printed.
void report(const std::string& name, double ours, double openssl, bool higher_is_better);

// Seconds since start.
inline double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Runs fn repeatedly for at least min_seconds and returns calls per second.
double rate(const std::function<void()>& fn, double min_seconds = 0.5);

struct Registrar {
  Registrar(const char* name, void (*fn)());
};

}  // namespace kvbench

#define KV_BENCH(name)                                              \
  static void kvbench_##name();                                     \
  static const kvbench::Registrar kvbench_reg_##name(#name, kvbench_##name); \
  static void kvbench_##name()
