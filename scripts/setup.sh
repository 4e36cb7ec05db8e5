# Sourced by the other scripts: installs the Debian packages that a task needs and this machine lacks.
# Nothing is printed and nothing is run with privilege when all are there.
# shellcheck shell=bash
# shellcheck disable=SC2034 # the lists are for the scripts that source this

KELTOP_ROOT=$(readlink -f "$(dirname "${BASH_SOURCE[0]}")/..")
# Somebody's own search path for cd: with it, cd goes elsewhere and prints where.
unset CDPATH
# Where servers are installed, which an ordinary account's path may lack: peers in tests and benchmarks.
export PATH=$PATH:/usr/sbin:/sbin

# What building the program needs, with the reason that is shown when it has to be installed.
KELTOP_BUILD_PACKAGES=(
  "g++:the compiler"
  "cmake:the build system"
  "ninja-build:runs the build"
  "ccache:keeps what was compiled"
  "pkg-config:finds libraries"
  "libpoco-dev:network library"
  "libssl-dev:TLS for the network library"
  "libzmq3-dev:message library"
  "libgtest-dev:unit tests"
  "libgmock-dev:unit tests"
)

# What the tests need besides.
KELTOP_TEST_PACKAGES=(
  "python3:runs the tests of the whole program"
  "python3-pytest:runs the tests of the whole program"
  "python3-pytest-xdist:runs them side by side"
  "curl:peer in tests"
  "netcat-openbsd:peer in tests"
  "nginx-light:peer in tests"
  "openssl:peer in tests"
  "nodejs:peer in tests"
  "libxml2-utils:independent reader of the XML that the program writes"
  "procps:looks at processes in tests"
  "util-linux:runs tests as another account and in namespaces of their own"
  "iproute2:takes the way to a peer away in tests"
  "man-db:reads the manual in tests"
  "chromium:the browser in tests of the live page"
  "chromium-driver:drives that browser"
  "python3-selenium:drives that browser"
  "node-har-schema:the published schema of the archive that the page gives"
  "python3-jsonschema:checks the archive against it"
)

# What the checks of the source need besides.
KELTOP_CHECK_PACKAGES=(
  "git:lists the sources"
  "clang:the second compiler"
  "clang-format:format check"
  "clang-tidy:lint check"
  "cppcheck:lint check"
  "shellcheck:checks the scripts"
  "g++-mingw-w64-x86-64-posix:compiles the Windows sources"
)

# What measuring the coverage needs besides.
KELTOP_COVERAGE_PACKAGES=(
  "gcovr:counts the lines that the tests reach"
)

# What the runs under valgrind need besides what the tests need.
KELTOP_VALGRIND_PACKAGES=(
  "valgrind:looks for invalid accesses and lost memory"
  "libc6-dbg:lets valgrind replace the run-time library's functions"
)

# What building for Windows needs.
KELTOP_WINDOWS_PACKAGES=(
  "g++-mingw-w64-x86-64-posix:the compiler for Windows"
  "ccache:keeps what was compiled"
  "cmake:the build system"
  "ninja-build:runs the build"
  "ccache:keeps what was compiled"
  "dpkg-dev:unpacks the libraries' source packages"
  "perl:configures the TLS library"
  "make:builds the TLS library"
  "pkg-config:finds libraries"
)

# What testing that build needs besides.
KELTOP_WINE_PACKAGES=(
  "wine:runs Windows programs"
  "wine64:runs 64-bit Windows programs"
  "binutils-mingw-w64-x86-64:reads the program file in tests"
  "python3-pytest-rerunfailures:runs a test again in which Wine lost the start of a program"
)

# What fuzzing needs besides.
KELTOP_FUZZ_PACKAGES=(
  "clang:the compiler with the fuzzer"
  "libclang-rt-14-dev:the fuzzer and the sanitizers"
  "libexpat1-dev:independent reader of the XML that the program writes"
)

# What the benchmarks need besides.
KELTOP_BENCH_PACKAGES=(
  "libbenchmark-dev:micro-benchmarks"
  "nodejs:peer to compare with"
  "socat:peer to compare with"
  "netcat-openbsd:peer to compare with"
  "curl:peer to compare with"
  "wrk:HTTP load"
  "python3:runs the comparison"
  "nginx-light:server to post to"
  "openssl:certificate of that server"
  "libtinyxml2-dev:XML writer to compare with"
  "libspdlog-dev:logger to compare with"
)

# What making the Debian package needs besides.
KELTOP_DEB_PACKAGES=(
  "dpkg-dev:finds what the package depends on"
  "file:finds what the package depends on"
)

# What the trial in a fresh Debian system needs.
KELTOP_DEBIAN_PACKAGES=(
  "debootstrap:makes the system"
  "util-linux:runs it in namespaces of its own"
)

# as_root COMMAND...: runs a command with privilege, through sudo where this account is not root.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    echo "keltop: cannot install packages: not root, and there is no sudo" >&2
    return 1
  fi
}

# is_installed PACKAGE: whether it is installed, or what it provides is there by other means.
is_installed() {
  local package=$1
  case $package in
    nodejs) command -v node >/dev/null && return 0 ;;
  esac
  [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ]
}

# need LIST...: installs what is missing of the "package:reason" entries.
need() {
  local entry missing=() reasons=()
  local status
  status=$(dpkg-query -W -f='${Package} ${db:Status-Status}\n' 2>/dev/null)
  for entry in "$@"; do
    if ! grep -qx "${entry%%:*} installed" <<<"$status" && ! is_installed "${entry%%:*}"; then
      case " ${missing[*]} " in
        *" ${entry%%:*} "*) ;;
        *)
          missing+=("${entry%%:*}")
          reasons+=("  ${entry%%:*}: ${entry#*:}")
          ;;
      esac
    fi
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  {
    echo "keltop: installing ${#missing[@]} Debian packages that this machine lacks:"
    printf '%s\n' "${reasons[@]}"
  } >&2
  install_packages "${missing[@]}"
}

# install_packages PACKAGE...: installs them without starting any service that they bring. One script at a time: the
# policy that keeps the services from starting must neither stay behind nor go before the other is done.
install_packages() (
  policy=/usr/sbin/policy-rc.d
  flock 9
  if [ ! -e "$policy" ]; then
    trap 'as_root rm -f "$policy"' EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    printf '#!/bin/sh\nexit 101\n' | as_root tee "$policy" >/dev/null && as_root chmod 755 "$policy"
  fi
  as_root env DEBIAN_FRONTEND=noninteractive apt-get update -q -o DPkg::Lock::Timeout=600 >&2 </dev/null &&
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q -o DPkg::Lock::Timeout=600 \
      --no-install-recommends "$@" >&2 </dev/null
) 9</var/lib/dpkg

# The compiler cache: where its objects are follows CCACHE_DIR. Work trees share them: sources are named from the root.
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$KELTOP_ROOT} CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-1}

# compiler_cache: the program that stands before the compiler; nothing where it is not installed.
compiler_cache() {
  echo "${CMAKE_CXX_COMPILER_LAUNCHER-$(command -v ccache || true)}"
}

configure() {
  (cd "$KELTOP_ROOT" && cmake --preset "$1" -DCMAKE_CXX_COMPILER_LAUNCHER="$(compiler_cache)")
}

# is_configured FOLDER: whether what the build was made from is unchanged, and the compiler cache that it uses still there.
is_configured() {
  local launcher
  [ "$1/build.ninja" -nt "$KELTOP_ROOT/CMakePresets.json" ] || return 1
  launcher=$(sed -n 's/^CMAKE_CXX_COMPILER_LAUNCHER:[A-Z]*=//p' "$1/CMakeCache.txt")
  [ -z "$launcher" ] || command -v "$launcher" >/dev/null
}

# is_built FOLDER [TARGET...]: whether there is nothing to build; writes nothing.
is_built() {
  local folder=$1
  shift
  [ -f "$folder/build.ninja" ] && ninja -n -C "$folder" "$@" 2>/dev/null | grep -q '^ninja: no work to do'
}

# build PRESET [TARGET...]: configures where needed and builds; silent when all goes well, on standard error when not.
# A second one waits: two windows may start keltop at once. In a tree that this account cannot write, nothing may have to be
# built.
build() {
  local preset=$1 folder="$KELTOP_ROOT/build/$1" log result=0
  shift
  if ! mkdir -p "$folder" 2>/dev/null || ! [ -w "$folder" ] || ! : 2>/dev/null >>"$folder.lock"; then
    is_built "$folder" "$@" && return 0
    echo "keltop: something has to be built, and this account cannot write $folder" >&2
    return 1
  fi
  log=$(mktemp)
  {
    flock 9 && { is_configured "$folder" || configure "$preset"; } &&
      if [ $# -gt 0 ]; then
        cmake --build "$folder" --target "$@"
      else
        cmake --build "$folder"
      fi
  } 9>"$folder.lock" >"$log" 2>&1 || result=$?
  [ "$result" -eq 0 ] || cat "$log" >&2
  rm -f "$log"
  return "$result"
}

# run_tests PRESET ARGUMENT...: runs every test of the build, by ctest with the arguments; shows at the end how many tests
# of the whole program passed, and which were left out and why.
run_tests() {
  local folder="$KELTOP_ROOT/build/$1" result=0
  shift
  if [[ $KELTOP_ROOT =~ [[:space:]] ]]; then
    echo "keltop: the tests cannot run in a folder with a blank in its path: $KELTOP_ROOT" >&2
    return 1
  fi
  ctest --test-dir "$folder" --no-tests=error --output-on-failure -j 4 "$@" || result=$?
  sed -n '/short test summary info/,/ in [0-9.]*s/p' "$folder/Testing/Temporary/LastTest.log"
  return "$result"
}
