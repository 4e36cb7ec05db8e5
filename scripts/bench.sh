#!/usr/bin/env bash
# Installs what the machine lacks, builds keltop and what it is compared with, and prints one table of ratios.
# Arguments go to bench/bench.py: --quick, or the names of parts.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

need "${KELTOP_BUILD_PACKAGES[@]}" "${KELTOP_BENCH_PACKAGES[@]}"
build bench
exec /usr/bin/python3 "$KELTOP_ROOT/bench/bench.py" --build "$KELTOP_ROOT/build/bench" "$@"
