#!/usr/bin/env bash
# Builds keltop for Windows and runs every test under Wine. Further arguments go to ctest.
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

"$KELTOP_ROOT/scripts/build-windows.sh"
need "${KELTOP_BUILD_PACKAGES[@]}" "${KELTOP_TEST_PACKAGES[@]}" "${KELTOP_WINE_PACKAGES[@]}"
echo "keltop: building (release), to compare with" >&2
build release keltop
source "$KELTOP_ROOT/scripts/wine-prefix.sh"

run_tests windows "$@"
