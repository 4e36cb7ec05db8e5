#!/usr/bin/env bash
# Installs what the machine lacks, builds the libraries for Windows once and then keltop.exe and its test programs with
# them, in build/windows. With --update, newer source packages of the libraries are looked for.
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

need "${KELTOP_WINDOWS_PACKAGES[@]}"
libraries=$("$KELTOP_ROOT/scripts/windows-libraries.sh" "$@")

# Other libraries: nothing that was built with the earlier ones may stay.
folder=$KELTOP_ROOT/build/windows
if [ -d "$folder" ] && [ "$libraries" != "$(cat "$folder/libraries" 2>/dev/null)" ]; then
  rm -rf "$folder"
fi
mkdir -p "$folder"
echo "$libraries" >"$folder/libraries"

echo "keltop: building (windows)" >&2
build windows
