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
  nlohmann-json3-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
