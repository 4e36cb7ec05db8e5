#!/usr/bin/env bash
# Installs what the machine lacks, builds keltop and puts it under load and faults at once for a time (20 minutes, or as
# many as the first argument says). Prints a table; the exit code says whether anything was lost or has grown.
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

need "${KELTOP_BUILD_PACKAGES[@]}" "${KELTOP_TEST_PACKAGES[@]}"
echo "keltop: building (release)" >&2
build release keltop keltop_trace_agent
# Patience: the load is meant to slow everything down.
exec env PYTHONDONTWRITEBYTECODE=1 KELTOP_TEST_PATIENCE=120 /usr/bin/python3 "$KELTOP_ROOT/tests/soak/soak.py" "${1:-20}" \
  --keltop "$KELTOP_ROOT/build/release/keltop" --trace-agent "$KELTOP_ROOT/build/release/keltop_trace_agent"
