#!/usr/bin/env bash
# Checks the source: format, lint, the second compiler, the Windows sources.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

need "${KELTOP_BUILD_PACKAGES[@]}" "${KELTOP_CHECK_PACKAGES[@]}"
cd "$KELTOP_ROOT"
mapfile -t sources < <(git ls-files '*.h' '*.cpp')

echo "keltop: format" >&2
clang-format --dry-run -Werror "${sources[@]}"

echo "keltop: build with clang" >&2
build dev

echo "keltop: lint" >&2
mapfile -t units < <(git ls-files 'src/*.cpp' ':!src/platform/windows')
printf '%s\0' "${units[@]}" | xargs -0 -n 4 -P 2 clang-tidy --quiet -p build/dev 2>/dev/null

echo "keltop: Windows sources" >&2
scripts/check-windows-sources.sh
