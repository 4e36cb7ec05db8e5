#!/usr/bin/env bash
# Lets testssl.sh look at both listeners behind TLS and writes what it found to docs/tls-report.md.
#
#   scripts/tls-report.sh            the page
#   scripts/tls-report.sh --check    only whether there is a finding that should not be; writes nothing
#
# Findings above LOW fail it, but those of the page's list.
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

need "${KELTOP_BUILD_PACKAGES[@]}" "${KELTOP_TEST_PACKAGES[@]}" "testssl.sh:examines the listeners behind TLS"
exec /usr/bin/python3 "$KELTOP_ROOT/tests/tls_report.py" "$KELTOP_ROOT" "$@"
