#!/usr/bin/env bash
# Tests korvanta.dll under Wine: builds the module and the test programs with
# mingw-w64, then, once with the default code page and once with
# LANG=zh_CN.UTF-8 (code page 936), in a fresh Wine prefix each time:
#   - registration with regsvr32: every registry entry, then unregistration
#     removes them all;
#   - the C++ client (wine_client.exe): type library, creation, aggregation,
#     object safety, IDispatch, the 29 methods' status codes, control traits;
#   - scripts run by cscript (enrol.js, providers.vbs) drive enrolments with
#     the reference CA/KMC on the host (tests/refca/refca.py), and
#     wine_stores.exe checks with CryptoAPI what ended up in the stores.
# Where Wine differs from Windows the differences are listed in
# tests/wine/WINE-NOTES.md.
#
#   KV_WINE_BUILD  build folder (default build-wine under the source tree)
#   KV_WINE_KEEP   1 keeps the Wine prefixes for inspection
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${KV_WINE_BUILD:-$root/build-wine}
refca="$root/tests/refca/refca.py"
data="$root/tests/data/wine"

CLSID='{2860C255-DDFD-4684-8E21-D7610DB2FC9B}'
LIBID='{61D996A7-EBEB-43D0-B248-29104F3F4116}'
ENHANCED='Microsoft Enhanced Cryptographic Provider v1.0'

failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
pass() { echo "ok: $*"; }

echo "== build (mingw-w64)"
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64.cmake" -DKV_WERROR=ON \
  -DKV_BUILD_TESTS=OFF -DKV_BUILD_TOOLS=OFF -DKV_BUILD_BENCH=OFF -DKV_BUILD_WINE_TESTS=ON \
  "${launcher[@]}" >/dev/null
cmake --build "$build" -j "${KV_JOBS:-2}" --target korvanta_com wine_client wine_stores
bin="$build/control/win32"

# ---- helpers (inside one prefix) ----

# Runs a Windows program; its output without carriage returns.
w() { wine "$@" 2>/dev/null | tr -d '\r'; }

# reg.exe in English, whatever locale the test runs in.
reg() { LANG=C.UTF-8 LC_ALL=C.UTF-8 wine reg "$@"; }

# The data of a registry value ("" = the default value), or "<missing>".
reg_value() {
  local key=$1 name=$2 out
  if [ -z "$name" ]; then
    out=$(reg query "HKCR\\$key" /ve 2>/dev/null | tr -d '\r') || { echo "<missing>"; return; }
    name='(Default)'
  else
    out=$(reg query "HKCR\\$key" /v "$name" 2>/dev/null | tr -d '\r') ||
      { echo "<missing>"; return; }
  fi
  printf '%s\n' "$out" | awk -v n="$name" '
    { line = $0; sub(/^ +/, "", line) }
    index(line, n "    REG_SZ    ") == 1 { print substr(line, length(n) + 15); found = 1 }
    END { if (!found) print "<missing>" }'
}

key_exists() { reg query "HKCR\\$1" >/dev/null 2>&1; }

# Every entry of registry.txt, present (mode=present) or gone (mode=absent).
check_registry() {
  local mode=$1 dll=$2 key name want got
  while IFS='|' read -r key name want; do
    case "$key" in '#'* | '') continue ;; esac
    key=${key//\{CLSID\}/$CLSID}; key=${key//\{LIBID\}/$LIBID}
    want=${want//\{CLSID\}/$CLSID}; want=${want//\{LIBID\}/$LIBID}; want=${want//\{DLL\}/$dll}
    if [ "$mode" = absent ]; then
      if key_exists "$key"; then fail "still registered: HKCR\\$key"; fi
      continue
    fi
    if [ "$want" = "<key>" ]; then
      key_exists "$key" || fail "missing key HKCR\\$key"
      continue
    fi
    got=$(reg_value "$key" "$name")
    [ "$got" = "$want" ] || fail "HKCR\\$key ${name:-(default)}: got '$got', want '$want'"
  done <"$data/registry.txt"
}

# Runs one step of enrol.js; true when it printed "<step> OK".
enrol() {
  local step=$1 out
  shift
  out=$(w cscript //nologo 'C:\kvtest\enrol.js' "$step" 'C:\kvtest\work' "$@") || true
  printf '%s\n' "$out" | grep -v '^can not find the library' | sed 's/^/  /'
  printf '%s\n' "$out" | grep -qx "$step OK"
}

der_of_pem() { openssl x509 -in "$1" -outform DER -out "$2"; }

# The leaf is in MY, bound to its key: check_leaf NAME.der KEYSPEC yes|no.
check_leaf() {
  local out
  out=$(w 'C:\kvtest\wine_stores.exe' leaf "C:\\kvtest\\work\\$1" "$2" "$ENHANCED" "$3") || true
  printf '%s\n' "$out" | sed 's/^/  /'
  printf '%s\n' "$out" | grep -qx "leaf OK" || fail "$1 in MY, key spec $2, exportable $3"
}

# OpenSSL opens pfx.b64 with the page's password and finds the key of the
# certificate: check_pfx LEAF.der.
check_pfx() {
  base64 -d "$work/pfx.b64" >"$work/out.pfx"
  openssl pkcs12 -in "$work/out.pfx" -passin pass:pfx-pass -nodes -out "$work/pfx.pem" \
    2>/dev/null || openssl pkcs12 -legacy -in "$work/out.pfx" -passin pass:pfx-pass -nodes \
    -out "$work/pfx.pem" 2>/dev/null || { fail "OpenSSL cannot read the PFX"; return; }
  local cert_mod key_mod
  cert_mod=$(openssl x509 -inform DER -in "$work/$1" -noout -modulus)
  key_mod=$(openssl rsa -in "$work/pfx.pem" -noout -modulus 2>/dev/null) || true
  [ -n "$key_mod" ] && [ "$cert_mod" = "$key_mod" ] || fail "the PFX key is not that of $1"
}

# OpenSSL checks the request in p10.b64 (the reference CA's library refuses
# SHA-1 signatures on requests); the CA then certifies the request's key:
# issue_for_request SUBJECT LEAF.der.
issue_for_request() {
  base64 -d "$work/p10.b64" >"$work/p10.req"
  openssl req -inform DER -in "$work/p10.req" -noout -verify 2>&1 | grep -q "verify OK" ||
    fail "the request's signature"
  openssl req -inform DER -in "$work/p10.req" -noout -pubkey |
    openssl rsa -pubin -RSAPublicKey_out -outform DER 2>/dev/null | base64 -w0 >"$work/p10key.b64"
  /usr/bin/python3 "$refca" issue --pubkey "$work/p10key.b64" --out "$work/p7.b64" --ca-dir "$ca" \
    --subject "$1" --leaf-out "$work/$2"
}

# ---- one full run in a fresh prefix ----

run_prefix() {
  local label=$1 want_acp=$2 authcode=$3 codepage=$4
  echo
  echo "== Wine, $label"
  export WINEPREFIX
  WINEPREFIX=$(mktemp -d /tmp/kv-wine.XXXXXX)
  export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" WINEARCH=win64
  wine wineboot -i >/dev/null 2>&1
  # Headless: the null graphics driver still lets windows be created.
  wine reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f >/dev/null 2>&1
  wineserver -k >/dev/null 2>&1 || true

  local kv="$WINEPREFIX/drive_c/kvtest" work
  work="$kv/work"
  mkdir -p "$work"
  cp "$bin/korvanta.dll" "$bin/wine_client.exe" "$bin/wine_stores.exe" \
    "$here/enrol.js" "$here/providers.vbs" "$data/methods.txt" "$kv/"
  local dll='C:\kvtest\korvanta.dll'

  local acp
  acp=$(w 'C:\kvtest\wine_client.exe' acp)
  [ "$acp" = "ACP $want_acp" ] && pass "$acp" || fail "code page: $acp, want $want_acp"

  # Registration.
  local rc=0
  wine regsvr32 /s "$dll" >/dev/null 2>&1 || rc=$?
  [ "$rc" = 0 ] && pass "regsvr32" || fail "regsvr32 exit $rc"
  check_registry present "$dll"

  # The C++ client.
  local section out
  for section in "typelib C:\\kvtest\\methods.txt" "identity $dll" statuses traits; do
    # shellcheck disable=SC2086
    out=$(w 'C:\kvtest\wine_client.exe' $section) || true
    printf '%s\n' "$out" | grep -v '^can not find the library' | grep -v '^$' | tail -n 40 |
      sed 's/^/  /'
    printf '%s\n' "$out" | grep -qE "^${section%% *}: [0-9]+ checks, 0 failed" ||
      fail "client ${section%% *}"
  done
  # The statuses section leaves a chooser that matches nothing.
  wine reg delete 'HKCU\Software\Korvanta' /f >/dev/null 2>&1 || true

  # VBScript: the provider list.
  out=$(w cscript //nologo 'C:\kvtest\providers.vbs') || true
  printf '%s\n' "$out" | sed 's/^/  /'
  printf '%s\n' "$out" | grep -qx "providers OK" || fail "providers.vbs"

  local ca="$WINEPREFIX/ca"
  # Client enrolment: key, MAC request, certificate, installation.
  if enrol client-request "$authcode"; then
    /usr/bin/python3 "$refca" check-mac --message "$work/message.xml" --authcode "$authcode" \
      --codepage "$codepage" || fail "the client request's MAC"
    /usr/bin/python3 "$refca" issue --pubkey "$work/pubkey.b64" --out "$work/p7.b64" \
      --subject "CN=Korvanta Client,O=Korvanta,C=CN" --intermediates 2 --order shuffle \
      --ca-dir "$ca" --leaf-out "$work/client.der"
    if enrol client-install; then
      check_leaf client.der 2 yes
      local i chain=()
      for i in 0 1 2; do
        der_of_pem "$ca/ca$i.pem" "$work/ca$i.der"
        chain+=("C:\\kvtest\\work\\ca$i.der")
      done
      out=$(w 'C:\kvtest\wine_stores.exe' chain "${chain[@]}") || true
      printf '%s\n' "$out" | sed 's/^/  /'
      printf '%s\n' "$out" | grep -qx "chain OK" || fail "client chain in ROOT and CA"
    else
      fail "client-install"
    fi
  else
    fail "client-request"
  fi

  # A signed ("DS") request with the chooser configured for the client
  # certificate.
  if [ -f "$work/client.der" ]; then
    local thumb
    thumb=$(openssl x509 -inform DER -in "$work/client.der" -noout -fingerprint -sha1 | cut -d= -f2)
    wine reg add 'HKCU\Software\Korvanta' /v SigningCertificate /d "$thumb" /f >/dev/null 2>&1
    if enrol revoke; then
      /usr/bin/python3 "$refca" check-ds --message "$work/revoke.xml" || fail "the revocation's signature"
      grep -q "<type>EEREVOKECERT</type>" "$work/revoke.xml" || fail "revocation message type"
      /usr/bin/python3 "$refca" check-ds --message "$work/update.xml" || fail "the update's signature"
      grep -q "<type>EEUPDATECERT</type>" "$work/update.xml" || fail "update message type"
    else
      fail "revoke"
    fi
    wine reg delete 'HKCU\Software\Korvanta' /f >/dev/null 2>&1 || true
  fi

  # A request with a subject of the page's choosing.
  if enrol p10-request; then
    issue_for_request "CN=Korvanta P10,C=CN" p10.der
    openssl req -inform DER -in "$work/p10.req" -noout -subject -nameopt RFC2253 |
      grep -qx "subject=CN=Korvanta P10,C=CN" || fail "the request's subject"
    enrol p10-install && check_leaf p10.der 2 yes || fail "p10-install"
  else
    fail "p10-request"
  fi

  # An exchange key: bound under key specification 1.
  if enrol kex-request; then
    issue_for_request "CN=Korvanta Kex,C=CN" kex.der
    enrol kex-install && check_leaf kex.der 1 yes || fail "kex-install"
  else
    fail "kex-request"
  fi

  # Without protection: the copied key cannot be exported.
  if enrol key-request; then
    /usr/bin/python3 "$refca" issue --pubkey "$work/pubkey.b64" --out "$work/p7.b64" --ca-dir "$ca" \
      --subject "CN=Korvanta Noprotect,C=CN" --leaf-out "$work/noprotect.der"
    enrol noprotect-install && check_leaf noprotect.der 2 no || fail "noprotect-install"
  else
    fail "key-request"
  fi

  # leavingMostRecentCert: three certificates of one subject and issuer,
  # expiring 2040, 2042 and 2041; only the 2042 one stays.
  local leave_dn="CN=Korvanta 离开,C=CN" year issuer_dn
  for year in 2040 2042 2041; do
    if enrol key-request; then
      /usr/bin/python3 "$refca" issue --pubkey "$work/pubkey.b64" --out "$work/p7.b64" --ca-dir "$ca" \
        --subject "$leave_dn" --not-after "${year}0101000000" --leaf-out "$work/leave$year.der"
      enrol noprotect-install || fail "install of the $year certificate"
    else
      fail "key-request ($year)"
    fi
  done
  issuer_dn=$(openssl x509 -inform DER -in "$work/leave2040.der" -noout -issuer \
    -nameopt RFC2253,-esc_msb | sed 's/^issuer=//')
  if enrol leave "$leave_dn" "$issuer_dn"; then
    check_leaf leave2042.der 2 no
    for year in 2040 2041; do
      out=$(w 'C:\kvtest\wine_stores.exe' absent "C:\\kvtest\\work\\leave$year.der") || true
      printf '%s\n' "$out" | grep -qx "absent OK" || fail "the $year certificate is still there"
    done
  else
    fail "leave"
  fi

  # PFX export: the certificate with its key, under the page's password.
  if enrol key-request; then
    /usr/bin/python3 "$refca" issue --pubkey "$work/pubkey.b64" --out "$work/p7.b64" --ca-dir "$ca" \
      --subject "CN=Korvanta PFX,C=CN" --leaf-out "$work/pfx-leaf.der"
    if enrol pfx-install; then
      check_pfx pfx-leaf.der
    else
      fail "pfx-install"
    fi
  else
    fail "key-request (PFX)"
  fi

  # KMC enrolment: temporary key, wrapped encryption key, PFX import.
  if enrol kmc-request "$authcode"; then
    /usr/bin/python3 "$refca" check-mac --message "$work/message.xml" --authcode "$authcode" \
      --codepage "$codepage" || fail "the KMC request's MAC"
    /usr/bin/python3 "$refca" kmc --tempkey "$work/tempkey.b64" --bits 2048 --out-dir "$work" \
      --ca-dir "$ca"
    enrol kmc-install && check_leaf leaf.der 1 yes || fail "kmc-install"
    # Recovery and PFX export with the same temporary key, each for a new
    # KMC key.
    /usr/bin/python3 "$refca" kmc --tempkey "$work/tempkey.b64" --bits 1024 --out-dir "$work" \
      --ca-dir "$ca"
    enrol kmc-restore && check_leaf leaf.der 1 yes || fail "kmc-restore"
    /usr/bin/python3 "$refca" kmc --tempkey "$work/tempkey.b64" --bits 2048 --out-dir "$work" \
      --ca-dir "$ca"
    enrol kmc-pfx && check_pfx leaf.der || fail "kmc-pfx"
    /usr/bin/python3 "$refca" kmc --tempkey "$work/tempkey.b64" --bits 1536 --out-dir "$work" \
      --ca-dir "$ca"
    enrol kmc-refused || fail "kmc-refused"
  else
    fail "kmc-request"
  fi

  # Unregistration removes every entry.
  rc=0
  wine regsvr32 /u /s "$dll" >/dev/null 2>&1 || rc=$?
  [ "$rc" = 0 ] && pass "regsvr32 /u" || fail "regsvr32 /u exit $rc"
  check_registry absent "$dll"
  key_exists "TypeLib\\$LIBID" && fail "type library still registered"

  wineserver -k >/dev/null 2>&1 || true
  if [ "${KV_WINE_KEEP:-0}" = 1 ]; then
    echo "prefix kept: $WINEPREFIX"
  else
    rm -rf "$WINEPREFIX"
  fi
}


LANG=C.UTF-8 run_prefix "default code page" 1252 "Auth-1é" cp1252
if locale -a 2>/dev/null | grep -qi '^zh_CN\.utf-\?8$'; then
  LANG=zh_CN.UTF-8 LC_ALL=zh_CN.UTF-8 run_prefix "LANG=zh_CN.UTF-8" 936 "授权码-1" cp936
else
  fail "locale zh_CN.UTF-8 is not installed (localedef -i zh_CN -f UTF-8 zh_CN.UTF-8)"
fi

echo
if [ "$failures" -eq 0 ]; then
  echo "wine tests: all passed"
else
  echo "wine tests: $failures failure(s)"
  exit 1
fi
