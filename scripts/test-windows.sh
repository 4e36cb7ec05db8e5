#!/usr/bin/env bash
# Builds keltop for Windows and runs every test under Wine. Further arguments go to ctest.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

"$KELTOP_ROOT/scripts/build-windows.sh"
need "${KELTOP_TEST_PACKAGES[@]}" "${KELTOP_WINE_PACKAGES[@]}"
source "$KELTOP_ROOT/scripts/wine-prefix.sh"

cd "$KELTOP_ROOT"
ctest --test-dir build/windows --output-on-failure -j 4 "$@"
