#!/usr/bin/env bash
# Installs what the machine lacks, builds keltop and runs each of its modes once under valgrind.
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

need "${KELTOP_BUILD_PACKAGES[@]}" "${KELTOP_TEST_PACKAGES[@]}" "${KELTOP_VALGRIND_PACKAGES[@]}"
echo "keltop: building (release)" >&2
build release keltop
# Patience: everything takes some fifty times as long.
exec env PYTHONDONTWRITEBYTECODE=1 KELTOP_TEST_PATIENCE=120 /usr/bin/python3 "$KELTOP_ROOT/tests/soak/valgrind.py" \
  --keltop "$KELTOP_ROOT/build/release/keltop"
