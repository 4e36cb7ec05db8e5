#!/usr/bin/env bash
# Installs what the machine lacks, builds keltop and runs it with the switches given.
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

need "${KELTOP_BUILD_PACKAGES[@]}"
[ -x "$KELTOP_ROOT/build/release/keltop" ] || echo "keltop: building, about a minute the first time" >&2
build release keltop

# A run from the source tree keeps its traces there, unless somebody says where. In a tree that this account cannot write
# they go where an installed keltop's go.
data=$KELTOP_ROOT/build/data
if [ -z "${KELTOP_DATA_LOCATION:-}" ] && mkdir -p "$data/TRACELOGS" 2>/dev/null && [ -w "$data/TRACELOGS" ]; then
  export KELTOP_DATA_LOCATION=$data
fi

# exec: signals and the exit code are keltop's own.
exec "$KELTOP_ROOT/build/release/keltop" "$@"
