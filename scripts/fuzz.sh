#!/usr/bin/env bash
# Builds the fuzz targets and runs them, one after the other, each on a copy of its corpus in fuzz/corpus/.
#
#   scripts/fuzz.sh                      replays the corpus and goes on for a few seconds: a check that is soon over
#   scripts/fuzz.sh SECONDS [TARGET...]  fuzzes every target, or those named, for so long each
#
# What is found is left in build/fuzz/findings. Everything else that a run makes is in a folder of its own, which goes
# with it. KELTOP_FUZZ_KEEP=1 adds what was learnt to the corpus in the repository, as few files as do.
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

# For the check that is soon over.
replay_seconds=3
# One input may take so long at most, or it counts as a hang.
input_seconds=60

need "${KELTOP_BUILD_PACKAGES[@]}" "${KELTOP_FUZZ_PACKAGES[@]}"
seconds=${1:-$replay_seconds}
shift || true
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
  echo "keltop: not a number of seconds: $seconds" >&2
  exit 2
fi
if [ $# -eq 0 ]; then
  for source in "$KELTOP_ROOT"/fuzz/*Fuzz.cpp; do
    set -- "$@" "$(basename "$source" .cpp)"
  done
fi

echo "keltop: building (fuzz)" >&2
build fuzz "$@"

programs="$KELTOP_ROOT/build/fuzz/fuzz"
findings="$KELTOP_ROOT/build/fuzz/findings"
mkdir -p "$findings"
# In memory where there is room for it: some targets make and remove many files.
scratch=$(mktemp -d "$([ -w /dev/shm ] && echo /dev/shm || echo "${TMPDIR:-/tmp}")/keltop-fuzz.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

# fuzz TARGET: runs it; its report is shown in full only when there is a finding.
fuzz() {
  local target=$1 corpus="$scratch/$1" log="$scratch/$1.log" seeds="$KELTOP_ROOT/fuzz/corpus/$1" options=()
  mkdir -p "$corpus" "$scratch/tmp"
  [ ! -f "$KELTOP_ROOT/fuzz/$target.dict" ] || options+=("-dict=$KELTOP_ROOT/fuzz/$target.dict")
  if ! TMPDIR="$scratch/tmp" "$programs/$target" "$corpus" "$seeds" "${options[@]}" -max_total_time="$seconds" \
    -timeout="$input_seconds" -max_len=4096 -rss_limit_mb=2048 -detect_leaks=1 -print_final_stats=1 \
    -artifact_prefix="$findings/$target-" >"$log" 2>&1; then
    tail -n 100 "$log" | cut -c 1-2000 >&2
    echo "keltop: $target has a finding, see $findings" >&2
    return 1
  fi
  echo "$target: $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") executions," \
    "$(find "$seeds" -type f | wc -l) seeds, no finding"
  if [ "${KELTOP_FUZZ_KEEP:-0}" = 1 ]; then
    TMPDIR="$scratch/tmp" "$programs/$target" -merge=1 -max_len=4096 "$seeds" "$corpus" >"$log" 2>&1
  fi
}

result=0
for target in "$@"; do
  fuzz "$target" || result=1
done
exit "$result"
