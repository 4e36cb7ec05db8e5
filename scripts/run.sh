#!/usr/bin/env bash
# Installs what the machine lacks, builds keltop and runs it with the switches given.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

need "${KELTOP_BUILD_PACKAGES[@]}"
[ -x "$KELTOP_ROOT/build/release/keltop" ] || echo "keltop: building, about a minute the first time" >&2
build release keltop

# A run from the source tree keeps its traces there, unless somebody says where.
if [ -z "${KELTOP_DATA_LOCATION:-}" ]; then
  export KELTOP_DATA_LOCATION="$KELTOP_ROOT/build/data"
  mkdir -p "$KELTOP_DATA_LOCATION/TRACELOGS"
fi

# exec: signals and the exit code are keltop's own.
exec "$KELTOP_ROOT/build/release/keltop" "$@"
