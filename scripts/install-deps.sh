#!/usr/bin/env bash
# Installs, from Debian's archive and without prompting, what building and
# testing Korvanta needs. Does nothing when everything is already there.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang libclang-rt-14-dev pkg-config
  libgtest-dev libgmock-dev libssl-dev openssl ca-certificates
  python3 python3-cryptography python3-cryptography-vectors python3-pycryptodome
  golang-golang-x-crypto-dev
  softhsm2 opensc gnutls-bin libnss3-tools
  mingw-w64 mingw-w64-tools
  nlohmann-json3-dev libboost-dev
  locales
)
# Wine needs its recommended packages (fonts, support libraries) to run the
# Windows module's tests headless.
full_packages=(wine wine64 libwine-dev)

# The Windows module is tested under a Chinese ANSI code page too.
ensure_locale() {
  if ! locale -a 2>/dev/null | grep -qi '^zh_CN\.utf-\?8$'; then
    $sudo localedef -i zh_CN -f UTF-8 zh_CN.UTF-8
  fi
}
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }
missing=()
for p in "${packages[@]}"; do installed "$p" || missing+=("$p"); done
missing_full=()
for p in "${full_packages[@]}"; do installed "$p" || missing_full+=("$p"); done

if [ ${#missing[@]} -gt 0 ] || [ ${#missing_full[@]} -gt 0 ]; then
  echo "installing: ${missing[*]} ${missing_full[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  if [ ${#missing[@]} -gt 0 ]; then
    $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
  fi
  if [ ${#missing_full[@]} -gt 0 ]; then
    $sudo apt-get install -y -qq "${missing_full[@]}"
  fi
fi
ensure_locale
