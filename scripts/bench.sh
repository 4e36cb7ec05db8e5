#!/usr/bin/env bash
# Installs what the machine lacks, builds keltop and what it is compared with, and prints one table of ratios.
# Arguments go to bench/bench.py: --quick, --page FILE, or the names of parts. The Windows build takes part where there is one
# (scripts/build-windows.sh) and Wine to run it.
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

need "${KELTOP_BUILD_PACKAGES[@]}" "${KELTOP_BENCH_PACKAGES[@]}"
build bench

windows=()
if [ -f "$KELTOP_ROOT/build/windows/keltop.exe" ] && command -v wine >/dev/null; then
  source "$KELTOP_ROOT/scripts/wine-prefix.sh"
  windows=(--windows "$KELTOP_ROOT/build/windows/keltop.exe")
fi
/usr/bin/python3 "$KELTOP_ROOT/bench/bench.py" --build "$KELTOP_ROOT/build/bench" "${windows[@]}" "$@"
