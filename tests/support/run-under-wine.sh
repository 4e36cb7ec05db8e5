#!/bin/sh
# Runs a program of the unit tests under Wine. About once in 2,000 starts of any program, Wine, or the loader of the system
# beneath it, loses the start before the program has a turn: it fails and nothing is printed, where every program of
# the tests prints something first, or Wine says in its place that it could not start it. Such a start is made once more,
# and the output says so.
output=$(mktemp) || exit 1
trap 'rm -f "$output"' EXIT
wine "$@" >"$output"
code=$?
if [ $code -ne 0 ] && { [ ! -s "$output" ] || grep -q 'ShellExecuteEx failed: Internal error' "$output"; }; then
  echo "Wine lost the start of this program (code $code): started again"
  wine "$@" >"$output"
  code=$?
fi
cat "$output"
exit $code
