#!/usr/bin/env bash
# Headless Chromium and playwright-core (in build/node) for the demo
# enrolment and the bridge's browser tests.
set -euo pipefail
cd "$(dirname "$0")/.."
if ! command -v chromium >/dev/null; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get install -y --no-install-recommends chromium nodejs npm >/dev/null
fi
if [ ! -d build/node/node_modules/playwright-core ]; then
  mkdir -p build/node
  npm install --no-audit --no-fund --prefix build/node playwright-core >/dev/null
fi
