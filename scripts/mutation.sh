#!/usr/bin/env bash
# Breaks the program in one place at a time, in a copy of the tree, and shows that the tests notice each time. The places
# are in tests/mutation/mutations.toml, the last result in docs/mutation-check.md.
#
#   scripts/mutation.sh               all of it
#   scripts/mutation.sh http raw-     only the mutations whose names begin so
#   scripts/mutation.sh --check       only whether the table still fits the sources and the tests; builds nothing
#   scripts/mutation.sh --resume      leaves out what was noticed before and has not changed
#   scripts/mutation.sh --jobs 2      two copies of the tree at once
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

need "${KELTOP_BUILD_PACKAGES[@]}" "${KELTOP_TEST_PACKAGES[@]}"
exec /usr/bin/python3 "$KELTOP_ROOT/tests/mutation/mutate.py" "$@"
