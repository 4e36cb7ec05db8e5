#!/usr/bin/env bash
# Makes the pictures of the live page in docs/images anew, from a real run with real peers in a real browser.
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

need "${KELTOP_BUILD_PACKAGES[@]}" "${KELTOP_TEST_PACKAGES[@]}"
echo "keltop: building (release)" >&2
build release keltop
PYTHONDONTWRITEBYTECODE=1 exec /usr/bin/python3 "$KELTOP_ROOT/tests/browser/pictures.py" "$KELTOP_ROOT/build/release/keltop" \
  "$KELTOP_ROOT/docs/images"
