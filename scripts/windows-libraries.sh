#!/usr/bin/env bash
# Builds the libraries that keltop.exe contains, from the distribution's own source packages, once.
#
# They are kept outside the source tree, in $KELTOP_WINDOWS_CACHE, else ${XDG_CACHE_HOME:-$HOME/.cache}/keltop-windows.
# Each is built in a folder named after its version and everything that it is built with; a change of either builds it
# anew, an interrupted build goes on where it stopped. With --update, newer source packages are looked for.
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

cache=${KELTOP_WINDOWS_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/keltop-windows}
toolchain=$KELTOP_ROOT/cmake/windows-toolchain.cmake
triplet=x86_64-w64-mingw32
compiler=$triplet-g++-posix

# The libraries' date, language and time zone: the same source gives the same bytes.
export SOURCE_DATE_EPOCH=0 LC_ALL=C TZ=UTC

quietly() {
  local log=$1
  shift
  nice -n 10 "$@" >>"$log" 2>&1 || {
    tail -n 40 "$log" >&2
    echo "keltop: failed: $* (the whole log is $log)" >&2
    return 1
  }
}

# --- source packages -------------------------------------------------------------------------------------------------

# apt_sources APT-GET-OR-APT-CACHE ARGUMENT...: runs it with an apt configuration of our own, which lists the source
# packages of the Debian archives that this machine takes its packages from. The machine's own stays as it is.
apt_sources() {
  APT_CONFIG=$cache/apt/apt.conf "$@"
}

# shellcheck disable=SC2016 # apt fills them in
debian_archives() {
  apt-get indextargets --format '$(ORIGIN) $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
    sed -n 's/^Debian //p' | sort -u
}

prepare_apt() {
  local apt=$cache/apt archives archive keyring=/usr/share/keyrings/debian-archive-keyring.gpg
  mkdir -p "$apt"/{lists/partial,archives/partial,sources.list.d}
  archives=$(debian_archives)
  if [ -z "$archives" ]; then
    as_root apt-get update -q >&2
    archives=$(debian_archives)
  fi
  while read -r archive; do
    echo "deb-src [signed-by=$keyring] $archive"
  done <<<"$archives" >"$apt/sources.list"
  cat >"$apt/apt.conf" <<END
Dir::Etc::sourcelist "$apt/sources.list";
Dir::Etc::sourceparts "$apt/sources.list.d";
Dir::State::lists "$apt/lists";
Dir::Cache "$apt";
APT::Sandbox::User "$(id -un)";
Acquire::Languages "none";
END
  echo "keltop: listing source packages" >&2
  apt_sources apt-get update -q >"$apt/update.log" 2>&1 || { cat "$apt/update.log" >&2; return 1; }
}

# choose_source PACKAGE: downloads the newest version that can be had (an archive may list one that it has lost) and
# notes it as the one to build.
choose_source() {
  local package=$1 version log=$cache/apt/$1.log
  : >"$log"
  for version in $(apt_sources apt-cache showsrc --only-source "$package" | sed -n 's/^Version: //p' | sort -rV -u); do
    if (cd "$cache/sources" && apt_sources apt-get source --download-only -q "$package=$version") >>"$log" 2>&1; then
      echo "$version" >"$cache/sources/$package.version"
      return 0
    fi
    echo "keltop: $package $version cannot be had, trying the next version" >&2
  done
  cat "$log" >&2
  return 1
}

choose_sources() {
  local package missing=()
  mkdir -p "$cache/sources"
  for package in "${!recipe_of[@]}"; do
    if $update || [ ! -f "$cache/sources/$package.version" ]; then
      missing+=("$package")
    fi
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  prepare_apt
  for package in "${missing[@]}"; do
    choose_source "$package"
  done
}

# unpack PACKAGE VERSION FOLDER: leaves the patched source in FOLDER, whole or not at all. The version in the file's name
# has no epoch.
unpack() {
  local folder=$3
  [ -d "$folder" ] && return 0
  rm -rf "$folder.partial"
  quietly "$(dirname "$folder")/log" dpkg-source --no-check --no-copy -x "$cache/sources/$1_${2#*:}.dsc" "$folder.partial"
  mv "$folder.partial" "$folder"
}

# --- recipes: each builds in the folder it is given, from $1/source to $1/install --------------------------------------

cmake_recipe() {
  local folder=$1 flags
  shift
  # No path of this machine gets into the program.
  flags="-O2 -ffile-prefix-map=$folder/source=."
  [ -f "$folder/build/build.ninja" ] ||
    quietly "$folder/log" cmake -G Ninja -S "$folder/source" -B "$folder/build" --toolchain "$toolchain" \
      -DCMAKE_BUILD_TYPE=None -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_INSTALL_LIBDIR=lib \
      -DCMAKE_INSTALL_PREFIX="$folder/install" -DBUILD_SHARED_LIBS=OFF "$@"
  quietly "$folder/log" cmake --build "$folder/build" -j2
  quietly "$folder/log" cmake --install "$folder/build"
}

# Built where the source lies, so that it holds no path. The folders that the finished library looks into are given to
# make: configured on this system, "C:/..." would be taken for a relative path. An ordinary account cannot write them.
openssl_recipe() {
  local folder=$1 common='C:/Program Files/Common Files/SSL'
  cd "$folder/source"
  if [ ! -f configured ]; then
    quietly "$folder/log" env CC="$triplet-gcc-posix" RC="$triplet-windres" AR="$triplet-ar" RANLIB="$triplet-ranlib" \
      ./Configure mingw64 no-shared no-tests no-module --libdir=lib --prefix="$folder/install"
    touch configured
  fi
  quietly "$folder/log" make -j2 build_libs OPENSSLDIR="$common" ENGINESDIR="$common/engines-3" \
    MODULESDIR="$common/ossl-modules"
  quietly "$folder/log" make install_dev
}

zeromq_recipe() {
  cmake_recipe "$1" -DPOLLER=select -DZMQ_HAVE_IPC=OFF -DBUILD_SHARED=OFF -DBUILD_STATIC=ON \
    -DWITH_LIBBSD=OFF -DBUILD_TESTS=OFF -DWITH_DOCS=OFF -DWITH_PERF_TOOL=OFF -DENABLE_CURVE=OFF -DENABLE_CPACK=OFF
}

# Foundation, Net, JSON, Crypto, NetSSL and what these need: Util and XML.
poco_recipe() {
  local off=() component
  for component in ACTIVERECORD ACTIVERECORD_COMPILER APACHECONNECTOR CPPPARSER DATA DATA_MYSQL DATA_ODBC DATA_POSTGRESQL \
    DATA_SQLITE ENCODINGS JWT MONGODB PAGECOMPILER PAGECOMPILER_FILE2PAGE PDF POCODOC REDIS SEVENZIP TESTS ZIP; do
    off+=("-DENABLE_$component=OFF")
  done
  # The source, its public headers too, spells two system headers as a file system without letter case lets it. The
  # second one's forwarding also drops a macro that is the name of a constant in the source.
  local headers=$1/install/include
  if [ ! -d "$headers" ]; then  # once: written anew, they would have everything compiled again
    mkdir -p "$headers.partial"
    echo '#include <winsock2.h>' >"$headers.partial/Winsock2.h"
    printf '#include <iphlpapi.h>\n#undef TIMESTAMP_REQUEST\n' >"$headers.partial/Iphlpapi.h"
    mv "$headers.partial" "$headers"
  fi
  CPLUS_INCLUDE_PATH=$headers cmake_recipe "$1" -DENABLE_CRYPTO=ON -DENABLE_NETSSL=ON -DFORCE_OPENSSL=ON "${off[@]}"
}

googletest_recipe() {
  cmake_recipe "$1" -DINSTALL_GTEST=ON
}

# --- building --------------------------------------------------------------------------------------------------------

# A library comes after the one that it needs.
order=(openssl zeromq3 poco googletest)
declare -A recipe_of=([openssl]=openssl_recipe [zeromq3]=zeromq_recipe [poco]=poco_recipe
  [googletest]=googletest_recipe)
declare -A need_of=([poco]=openssl)
declare -A name_of=()

# inputs_key PACKAGE: what stands for the recipe, the compiler and the library that it needs.
inputs_key() {
  local needed=${need_of[$1]:-}
  {
    declare -f "${recipe_of[$1]}" cmake_recipe
    cat "$toolchain"
    "$compiler" --version
    echo "${needed:+${name_of[$needed]}}"
  } | sha256sum | cut -c1-12
}

build_library() {
  local package=$1 version=$2 folder=$cache/$3
  if [ ! -f "$folder/done" ]; then
    echo "keltop: building $package $version for Windows" >&2
    mkdir -p "$folder"
    unpack "$package" "$version" "$folder/source"
    # Not in a condition: a recipe stops at its first failure.
    ("${recipe_of[$package]}" "$folder")
    rm -rf "$folder/source" "$folder/build"
    touch "$folder/done"
  fi
  ln -sfn "../$3/install" "$cache/current/$package"
}

update=false
[ "${1:-}" = --update ] && update=true

mkdir -p "$cache/current"
# One at a time: a second build waits for the first and then finds everything done.
exec 9>"$cache/lock"
flock 9
choose_sources
for package in "${order[@]}"; do
  version=$(<"$cache/sources/$package.version")
  name_of[$package]=$package-${version//:/_}-$(inputs_key "$package")
  build_library "$package" "$version" "${name_of[$package]}"
  echo "${name_of[$package]}"
done
