#!/usr/bin/env bash
# The main job on its built-in default: installs what is needed and builds
# the library, the tools and the benchmark program.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release
cmake --build build -j "$(nproc)"
