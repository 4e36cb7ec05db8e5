#!/bin/sh
# Runs a program of the unit tests under Wine. About once in 2,000 starts of any program, Wine, or the loader of the system
# beneath it, loses the start before the program has a turn: nothing is printed, which no program of the tests does, and the
# exit code is 1 or 127. Such a start is made once more, and the output says so.
output=$(mktemp) || exit 1
trap 'rm -f "$output"' EXIT
wine "$@" >"$output"
code=$?
if [ ! -s "$output" ] && { [ $code -eq 1 ] || [ $code -eq 127 ]; }; then
  echo "Wine lost the start of this program (code $code, no output): started again"
  wine "$@" >"$output"
  code=$?
fi
cat "$output"
exit $code
