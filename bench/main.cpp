// korvanta-bench [FILTER...]: runs every registered group whose name contains
// one of the filters (all groups when none is given).
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "bench.h"

namespace kvbench {
namespace {
std::vector<std::pair<std::string, void (*)()>>& groups() {
  static std::vector<std::pair<std::string, void (*)()>> g;
  return g;
}
}  // namespace

Registrar::Registrar(const char* name, void (*fn)()) { groups().emplace_back(name, fn); }

void report(const std::string& name, double ours, double openssl, bool higher_is_better) {
  if (openssl < 0) {
    std::printf("%s ours=%.4g openssl=n/a ratio=n/a\n", name.c_str(), ours);
  } else {
    double ratio = higher_is_better ? ours / openssl : openssl / ours;
    std::printf("%s ours=%.4g openssl=%.4g ratio=%.3f\n", name.c_str(), ours, openssl, ratio);
  }
  std::fflush(stdout);
}

double rate(const std::function<void()>& fn, double min_seconds) {
  fn();  // warm up
  long calls = 0;
  long batch = 1;
  auto start = Clock::now();
  double elapsed = 0;
  while ((elapsed = seconds_since(start)) < min_seconds) {
    for (long i = 0; i < batch; ++i) fn();
    calls += batch;
    if (batch < (1L << 20)) batch *= 2;
  }
  return calls / elapsed;
}

}  // namespace kvbench

int main(int argc, char** argv) {
  for (auto& [name, fn] : kvbench::groups()) {
    bool run = argc < 2;
    for (int i = 1; i < argc && !run; ++i) run = name.find(argv[i]) != std::string::npos;
    if (run) fn();
  }
  return 0;
}
