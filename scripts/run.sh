#!/usr/bin/env bash
# The main job: installs what is needed, builds, and runs a demo enrolment:
# the demo CA/KMC and korvanta-bridge start on loopback, headless Chromium
# enrols a signing and an encryption certificate on the demo page, and the
# installed signing certificate is dumped. Everything it starts is stopped,
# and the enrolment's keys and stores live in a scratch folder.
#
#   scripts/run.sh          the demo enrolment
#   scripts/run.sh FILE     dump FILE (DER, PEM or Base64) with korvanta dump
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null

if [ $# -gt 0 ]; then
  cmake --build build -j "$(nproc)" --target korvanta_cli >/dev/null
  exec build/tools/korvanta dump "$1"
fi

cmake --build build -j "$(nproc)" --target korvanta_cli korvanta_bridge >/dev/null
bash scripts/browser-deps.sh

work=$(mktemp -d)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# Reads "port N" from a starting server's first output line.
port_of() {
  local i
  for i in $(seq 100); do
    [ -s "$1" ] && { awk 'NR==1{print $2}' "$1"; return; }
    sleep 0.1
  done
  echo "run.sh: $1: the server did not start" >&2
  exit 1
}

/usr/bin/python3 bridge/demo/democa.py --port 0 --ca-dir "$work/ca" >"$work/ca.port" 2>"$work/ca.log" &
pids+=($!)
ca=$(port_of "$work/ca.port")
page="http://127.0.0.1:$ca"

export XDG_CONFIG_HOME="$work/config"
build/bridge/korvanta-bridge allow "$page"
build/bridge/korvanta-bridge serve --port 0 --data-dir "$work/data" --home "$work" \
  --signer-cancel >"$work/bridge.port" 2>"$work/bridge.log" &
pids+=($!)
bridge=$(port_of "$work/bridge.port")
echo "demo CA on $page, bridge on 127.0.0.1:$bridge"

if ! NODE_PATH=build/node/node_modules node tests/bridge/e2e/enrol.mjs enrol \
    "$page/?bridge=$bridge" "$work/demo.png" 2>"$work/browser.log"; then
  cat "$work/browser.log" "$work/bridge.log" >&2
  exit 1
fi
echo
build/tools/korvanta stores MY --data-dir "$work/data"
echo
# The signing certificate is the first one the enrolment installed.
thumb=$(build/tools/korvanta stores MY --data-dir "$work/data" | awk '/^MY /{print $2; exit}')
build/tools/korvanta dump "$work/data/stores/MY/$thumb.der"
