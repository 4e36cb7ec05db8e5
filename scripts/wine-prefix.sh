# Sourced by the scripts that run the Windows build: a Wine prefix of the build's own, so that neither the account's Wine
# nor a program that somebody runs in it is touched. Makes it where it is missing, and ends at exit what runs in it.
# shellcheck shell=bash

export WINEPREFIX=$KELTOP_ROOT/build/windows/wine/prefix WINEDEBUG=-all
# No window, and no offer to download what the program does not use.
export DISPLAY='' WINEDLLOVERRIDES='mscoree,mshtml='

make_wine_prefix() {
  rm -rf "$WINEPREFIX"
  mkdir -p "$WINEPREFIX"
  {
    wineboot -i
    # The oldest Windows that the program is for.
    wine reg add 'HKCU\Software\Wine' /v Version /d win10 /f
    wineserver -k -w
  } >"$WINEPREFIX.log" 2>&1 || {
    cat "$WINEPREFIX.log" >&2
    return 1
  }
  touch "$WINEPREFIX/ready"
}

if [ ! -f "$WINEPREFIX/ready" ]; then
  echo "keltop: making a Wine prefix" >&2
  make_wine_prefix
fi
trap 'wineserver -k -w || true' EXIT
# Wine's own processes are there before any test, and stay: started by one, they would hold its output open.
wineserver -p </dev/null >/dev/null 2>&1 || true  # one may be there
wine cmd /c exit </dev/null >/dev/null 2>&1
