#!/usr/bin/env bash
# Compiles the sources that need no third-party library with the Windows cross compiler, every warning an error, and
# says which. Needs the packages cmake, ninja-build and g++-mingw-w64-x86-64-posix.
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

root=$KELTOP_ROOT
build=$root/build/windows-check
log=$build.log

mkdir -p "$root/build"
cmake -G Ninja -S "$root/cmake/windows-check" -B "$build" \
  -DCMAKE_CXX_COMPILER_LAUNCHER="$(compiler_cache)" \
  --toolchain "$root/cmake/windows-toolchain.cmake" >"$log" 2>&1 || { cat "$log" >&2; exit 1; }
cmake --build "$build" --target clean >"$log"
cmake --build "$build" --verbose -j2 >"$log" 2>&1 || { cat "$log" >&2; exit 1; }
# What was compiled, as the build itself lists it.
sed -n "s|.* -c $root/\(src/.*\)\$|compiled \1|p" "$log" | sort
count=$(grep -c ' -c ' "$log")
echo "$count sources compile for Windows"
