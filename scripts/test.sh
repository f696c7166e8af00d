#!/usr/bin/env bash
# Runs every test on a fresh Debian machine: installs what is needed, builds
# with g++ and runs ctest; builds the library for Windows with mingw-w64;
# builds again with clang under AddressSanitizer and UndefinedBehaviorSanitizer
# and runs ctest; builds the libFuzzer targets and runs each for a short fixed
# time on its seed corpus.
#
#   KV_FUZZ_SECONDS  seconds per fuzz target (default 20; 0 skips fuzzing)
#   KV_JOBS          parallel build and test jobs (default: number of cores)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

bash scripts/install-deps.sh

jobs=${KV_JOBS:-$(nproc)}
fuzz_seconds=${KV_FUZZ_SECONDS:-20}

step() { printf '\n==== %s\n' "$*"; }

# Every ctest run is logged so that one closing line can count them all.
summary=$(mktemp)
trap 'rm -f "$summary"' EXIT
run_ctest() {
  ctest "$@" --output-on-failure -j "$jobs" 2>&1 | tee -a "$summary"
  return "${PIPESTATUS[0]}"
}

step "build (g++, release)"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DKV_WERROR=ON
cmake --build build -j "$jobs"
step "browser for the bridge's demo tests (chromium, playwright-core)"
bash scripts/browser-deps.sh
step "tests (g++, release)"
run_ctest --test-dir build

step "korvanta.dll for x86-64 Windows (mingw-w64), under Wine: registration, COM client, scripted enrolments"
KV_JOBS="$jobs" KV_WINE_BUILD="$root/build-mingw" bash tests/wine/run.sh

step "build (clang, ASan + UBSan)"
cmake -S . -B build-san -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_COMPILER=clang++ -DKV_SANITIZE=ON -DKV_WERROR=ON \
  -DKV_BUILD_BENCH=OFF -DKV_BUILD_TOOLS=ON
cmake --build build-san -j "$jobs"
step "tests (clang, ASan + UBSan)"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  run_ctest --test-dir build-san

if [ "$fuzz_seconds" -gt 0 ]; then
  step "fuzz targets (clang, libFuzzer)"
  cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_COMPILER=clang++ -DKV_BUILD_FUZZ=ON -DKV_WERROR=ON \
    -DKV_BUILD_TESTS=OFF -DKV_BUILD_TOOLS=OFF -DKV_BUILD_BENCH=OFF
  cmake --build build-fuzz -j "$jobs"
  shopt -s nullglob
  for bin in build-fuzz/fuzz/fuzz_*; do
    [ -x "$bin" ] || continue
    name=$(basename "$bin"); name=${name#fuzz_}
    corpus="$root/fuzz/corpus/$name"
    work=$(mktemp -d)
    seeds=()
    [ -d "$corpus" ] && seeds=("$corpus")
    echo "fuzzing $name for ${fuzz_seconds}s"
    "$bin" -max_total_time="$fuzz_seconds" -max_len=4096 -timeout=10 -rss_limit_mb=2048 \
      -print_final_stats=0 "$work" "${seeds[@]}" 2>"$work.log" || {
        tail -n 60 "$work.log"; echo "fuzz target $name found a failure"; exit 1; }
    rm -rf "$work" "$work.log"
  done
fi
step "all tests passed"
# "N passed, N failed" over every ctest run above.
awk '/tests passed, [0-9]+ tests failed out of/ { total += $NF; failed += $4 }
     END { printf "ctest: %d passed, %d failed\n", total - failed, failed }' "$summary"
