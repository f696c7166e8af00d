#!/usr/bin/env bash
# Headless Chromium and playwright-core (in build/node) for the demo
# enrolment and the bridge's browser tests.
set -euo pipefail
cd "$(dirname "$0")/.."
sudo=""
[ "$(id -u)" -eq 0 ] || sudo=sudo
need=()
command -v chromium >/dev/null || need+=(chromium)
# A machine may already carry its own Node.js (with npm); Debian's packages
# would conflict with it, so they are only added where node is missing.
command -v node >/dev/null || need+=(nodejs)
command -v npm >/dev/null || need+=(npm)
if [ ${#need[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null ||
    { $sudo apt-get update -qq && $sudo apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null; }
fi
if [ ! -d build/node/node_modules/playwright-core ]; then
  mkdir -p build/node
  npm install --no-audit --no-fund --prefix build/node playwright-core >/dev/null
fi
