#!/usr/bin/env bash
# Installs what the machine lacks, builds keltop and runs every test. Further arguments go to ctest.
#
# KELTOP_PRESET names another build to test: dev, asan or tsan.
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

preset=${KELTOP_PRESET:-release}
need "${KELTOP_BUILD_PACKAGES[@]}" "${KELTOP_TEST_PACKAGES[@]}" "${KELTOP_DEB_PACKAGES[@]}"
echo "keltop: building ($preset)" >&2
build "$preset"
run_tests "$preset" "$@"
