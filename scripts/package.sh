#!/usr/bin/env bash
# Builds both programs and packs them, in build/packages: a zip archive for Windows and a Debian package.
# The same sources and compilers give the same bytes.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

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

# depends FOLDER: the packages with the libraries that the program in it is linked to.
depends() {
  (
    cd "$1"
    mkdir debian
    echo 'Source: keltop' >debian/control
    found=$(dpkg-shlibdeps --warnings=0 -O -e"usr/bin/keltop") || exit
    rm -r debian
    [ -n "${found#shlibs:Depends=}" ] && echo "${found#shlibs:Depends=}"
  )
}

pack_deb() {
  local architecture dependencies archive folder documents
  architecture=$(dpkg --print-architecture)
  archive=$packages/keltop_${version}_$architecture.deb
  folder=$(mktemp -d)
  chmod 755 "$folder"
  DESTDIR=$folder cmake --install "$KELTOP_ROOT/build/release" --strip --prefix /usr >/dev/null
  gzip -9n "$folder/usr/share/man/man1/keltop.1"
  documents=$folder/usr/share/doc/keltop
  install -d "$documents"
  install -m 644 "$packaging/linux/copyright" "$documents/copyright"
  gzip -9nc "$KELTOP_ROOT/CHANGELOG.md" >"$documents/changelog.gz"
  install -d "$folder/DEBIAN"
  dependencies=$(depends "$folder")
  sed "s/@VERSION@/$version/; s/@ARCHITECTURE@/$architecture/; s/@DEPENDS@/$dependencies/
    s/@SIZE@/$(du -sk --apparent-size "$folder/usr" | cut -f1)/" \
    "$packaging/linux/control.in" >"$folder/DEBIAN/control"
  install -m 755 "$packaging/linux/postrm" "$folder/DEBIAN/postrm"
  dpkg-deb --root-owner-group -Zxz --build "$folder" "$archive" >/dev/null
  rm -r "$folder"
  echo "$archive"
}

need "${KELTOP_BUILD_PACKAGES[@]}" "dpkg-dev:finds what the package depends on" "python3:writes the archive"
"$KELTOP_ROOT/scripts/build-windows.sh"
echo "keltop: building (release)" >&2
build release
mkdir -p "$packages"
pack_zip
pack_deb
