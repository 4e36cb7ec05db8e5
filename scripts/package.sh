#!/usr/bin/env bash
# Builds the programs and packs them, in build/packages: a zip archive for Windows and a Debian package for the release of
# Debian that this runs on. The same sources and compilers give the same bytes.
#
#   scripts/package.sh [zip | deb]   one of the two, else both
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

version=$(sed -n 's/^project(keltop VERSION \([0-9.]*\).*/\1/p' "$KELTOP_ROOT/CMakeLists.txt")
packages=$KELTOP_ROOT/build/packages
packaging=$KELTOP_ROOT/packaging
# The release's date, for every file in the packages.
export SOURCE_DATE_EPOCH=1705276800 TZ=UTC LC_ALL=C
umask 022

pack_zip() {
  local archive=$packages/keltop-$version-windows-x64.zip folder
  folder=$(mktemp -d)
  DESTDIR=$folder cmake --install "$KELTOP_ROOT/build/windows" --strip --prefix /stage >/dev/null
  mkdir "$folder/content"
  mv "$folder/stage/bin/keltop.exe" "$folder/content"
  # Windows line ends, for whatever shows the text.
  sed "s/@VERSION@/$version/; s/\$/\r/" "$packaging/windows/how-to.txt" >"$folder/content/how-to.txt"
  (cd "$folder/content" && sha256sum how-to.txt keltop.exe | sed 's/$/\r/' >../SHA256SUMS.txt && mv ../SHA256SUMS.txt .)
  python3 "$packaging/write_zip.py" "$archive" "$folder/content"
  rm -r "$folder"
  echo "$archive"
}

pack_deb() {
  local folder
  folder=$(mktemp -d)
  cpack --config "$KELTOP_ROOT/build/release/CPackConfig.cmake" -B "$folder" >"$folder/log" 2>&1 || {
    cat "$folder/log" >&2
    return 1
  }
  # One package, for this release: none of an earlier version stays beside it.
  rm -f "$packages"/keltop_*.deb
  mv "$folder"/keltop_*.deb "$packages"
  echo "$packages"/keltop_*.deb
  rm -r "$folder"
}

mkdir -p "$packages"
case ${1:-all} in
  all | zip | deb) ;;
  *)
    echo "keltop: no such package: $1" >&2
    exit 2
    ;;
esac
if [ "${1:-all}" != deb ]; then
  need "python3:writes the archive"
  "$KELTOP_ROOT/scripts/build-windows.sh"
  pack_zip
fi
if [ "${1:-all}" != zip ]; then
  need "${KELTOP_BUILD_PACKAGES[@]}" "${KELTOP_DEB_PACKAGES[@]}"
  echo "keltop: building (release)" >&2
  build release keltop
  pack_deb
fi
