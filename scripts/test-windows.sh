#!/usr/bin/env bash
# Builds keltop for Windows and runs every test under Wine. Further arguments go to ctest.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

"$KELTOP_ROOT/scripts/build-windows.sh"
need "${KELTOP_TEST_PACKAGES[@]}" "${KELTOP_WINE_PACKAGES[@]}"

# A prefix of the build's own: neither the account's Wine nor a program that somebody runs in it is touched.
export WINEPREFIX=$KELTOP_ROOT/build/windows/wine/prefix WINEDEBUG=-all WINEDLLOVERRIDES='mscoree,mshtml=' DISPLAY=
if [ ! -f "$WINEPREFIX/ready" ]; then
  echo "keltop: making a Wine prefix" >&2
  rm -rf "$WINEPREFIX"
  mkdir -p "$WINEPREFIX"
  {
    wineboot -i
    # The oldest Windows that the program is for.
    wine reg add 'HKCU\Software\Wine' /v Version /d win10 /f
    wineserver -k -w
  } >"$WINEPREFIX.log" 2>&1 || { cat "$WINEPREFIX.log" >&2; exit 1; }
  touch "$WINEPREFIX/ready"
fi
trap 'wineserver -k -w || true' EXIT

cd "$KELTOP_ROOT"
ctest --test-dir build/windows --output-on-failure -j 4 "$@"
