#!/usr/bin/env bash
# Measures what the tests cover of src/: installs what the machine lacks, builds with counters, runs every test, and shows
# a table of the files with the lines and the branches that no test reached. Fails below the limits, and where a test
# fails. Further arguments go to ctest.
#
# Not counted are src/platform/windows, which this build does not have (its tests run under Wine), and the branches that
# the compiler adds for exceptions and on lines without code of their own.
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

LEAST_LINES=95
LEAST_BRANCHES=85

need "${KELTOP_BUILD_PACKAGES[@]}" "${KELTOP_TEST_PACKAGES[@]}" "${KELTOP_COVERAGE_PACKAGES[@]}"
cd "$KELTOP_ROOT"
folder=build/coverage
echo "keltop: building (coverage)" >&2
build coverage
find "$folder" -name '*.gcda' -delete

# Tests run programs as other accounts too, and what those count belongs into the same files: each program is run once
# so that its files are there, and writable for all.
(
  umask 0
  for program in keltop_tests keltop_refused_access_tests keltop_refused_call_tests; do
    "$folder/$program" --gtest_list_tests
  done
  export KELTOP_OBJECT_DIR=$folder/objects KELTOP_DATA_LOCATION=$folder/data
  for program in keltop keltop_object_agent keltop_trace_agent keltop_trace_order; do
    timeout 20 "$folder/$program" </dev/null
  done
) >/dev/null 2>&1 || true

failed=0
ctest --test-dir "$folder" --no-tests=error --output-on-failure -j 4 "$@" || failed=$?

# The counters are read once; every view is made of that.
counted=$folder/coverage.json
gcovr --root . --filter src/ --exclude src/platform/windows/ --object-directory "$folder" \
  --exclude-throw-branches --exclude-unreachable-branches --json "$counted" "$folder"
view() {
  gcovr --root . --add-tracefile "$counted" "$@"
}
echo "Lines:"
view --txt
echo "Branches:"
view --branches --txt
view --print-summary --fail-under-line "$LEAST_LINES" --fail-under-branch "$LEAST_BRANCHES" --txt "$folder/coverage.txt"
exit "$failed"
