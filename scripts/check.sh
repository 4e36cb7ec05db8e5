#!/usr/bin/env bash
# Checks the source: format, scripts, the second compiler, lint, the Windows sources. A finding of cppcheck that is none is
# marked in the source, with the reason; that of unused members is off, since it sees no use through an iterator.
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

need "${KELTOP_BUILD_PACKAGES[@]}" "${KELTOP_CHECK_PACKAGES[@]}"
cd "$KELTOP_ROOT"
listed=$(git ls-files '*.h' '*.cpp')
mapfile -t sources <<<"$listed"

echo "keltop: format" >&2
clang-format --dry-run -Werror "${sources[@]}"

echo "keltop: scripts" >&2
listed=$(git ls-files '*.sh' .ci/run packaging/linux/postrm)
mapfile -t scripts <<<"$listed"
shellcheck "${scripts[@]}"
shellcheck --shell=bash packaging/linux/keltop.bash

echo "keltop: build with clang" >&2
build dev

echo "keltop: lint" >&2
listed=$(git ls-files 'src/*.cpp' ':!src/platform/windows')
# On standard error it counts what it leaves out; what it finds is on standard output.
xargs -d '\n' -n 4 -P 2 clang-tidy --quiet -p build/dev <<<"$listed" 2>build/clang-tidy.log || {
  cat build/clang-tidy.log >&2
  exit 1
}

echo "keltop: cppcheck" >&2
for platform in unix64 win64; do
  other=windows
  [ "$platform" = unix64 ] || other=linux
  mkdir -p "build/cppcheck-$platform"
  cppcheck --quiet --std=c++20 --language=c++ --platform="$platform" --enable=warning,performance,portability,style \
    --inline-suppr --suppress=unusedStructMember --error-exitcode=1 --cppcheck-build-dir="build/cppcheck-$platform" -j 2 -I src \
    -i "src/platform/$other" src
done

echo "keltop: Windows sources" >&2
scripts/check-windows-sources.sh
