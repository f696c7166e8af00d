#!/usr/bin/env bash
# The main job: installs what is needed, builds, and dumps a certificate with
# the korvanta command. With no argument it dumps a system root certificate
# that every Debian machine has; any DER, PEM or Base64 file may be given.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j "$(nproc)" --target korvanta_cli >/dev/null
input=${1:-/usr/share/ca-certificates/mozilla/ISRG_Root_X1.crt}
if [ $# -eq 0 ] && [ ! -f "$input" ]; then
  input=$(ls /usr/share/ca-certificates/mozilla/*.crt | head -n 1)
fi
exec build/tools/korvanta dump "$input"
