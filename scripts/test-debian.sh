#!/usr/bin/env bash
# Tries keltop in a fresh minimal system of a Debian release: what the README says, from its first command on.
#
#   scripts/test-debian.sh SUITE               bookworm, trixie or sid: run.sh, the whole test suite, the Debian package
#   scripts/test-debian.sh SUITE --windows     the tests of the Windows build under that release's Wine; the build is this
#                                              tree's (scripts/build-windows.sh)
#   scripts/test-debian.sh SUITE -- COMMAND... runs a command there, in a copy of this tree with its Windows build
#
# As root or with sudo. The system is unpacked for the run and removed at its end, however that comes. It is entered in
# namespaces of its own, which take with them what is mounted and what runs there. It uses the machine's network, and
# Debian's archives from where this machine takes its packages.
#
# The exit code is 77 where the machine does not let anybody make such namespaces, as in many containers.
#
# Kept in ${KELTOP_DEBIAN_CACHE:-${XDG_CACHE_HOME:-~/.cache}/keltop-debian}, for each release: the base system, for a week;
# downloaded packages; compiled objects. The system is unpacked there, too.
set -euo pipefail
source "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/setup.sh"

BASE_DAYS=7
CANNOT_TRY=77

usage() {
  sed -n '/^#   /s/^# *//p' "$KELTOP_ROOT/scripts/test-debian.sh" >&2
  exit 2
}

arguments=("$@")
suite=${1:-}
[[ $suite =~ ^[a-z]+$ ]] || usage
shift
case ${1:-} in
  '') trial=commands ;;
  --windows) trial=windows ;;
  --) trial=run ;;
  *) usage ;;
esac
shift $(($# > 0))

export KELTOP_DEBIAN_CACHE=${KELTOP_DEBIAN_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/keltop-debian}
if [ "$(id -u)" -ne 0 ]; then
  exec sudo env KELTOP_DEBIAN_CACHE="$KELTOP_DEBIAN_CACHE" "$KELTOP_ROOT/scripts/test-debian.sh" "${arguments[@]}"
fi

need "${KELTOP_DEBIAN_PACKAGES[@]}"
unshare --mount --pid --ipc --fork true 2>/dev/null || {
  echo "keltop: this machine lets nobody make namespaces: no fresh system can be tried here" >&2
  exit "$CANNOT_TRY"
}
cache=$KELTOP_DEBIAN_CACHE/$suite
base=$cache/base.tar
mkdir -p "$cache/archives/partial" "$cache/ccache"

# One at a time for each release: they share the cache.
exec 8>"$cache/lock"
flock --nonblock 8 || {
  echo "keltop: waiting for another run in $suite" >&2
  flock 8
}

work=$cache/work
rm -rf --one-file-system "$work"  # of a run that was killed
mkdir "$work"
system=
# Ends what runs in the system, then removes it. Its mounts are gone with its processes.
clean_up() {
  trap '' HUP INT TERM
  if [ -n "$system" ]; then
    kill -KILL "$system" 2>/dev/null || true
    wait "$system" 2>/dev/null || true
  fi
  rm -rf --one-file-system "$work"
}
trap clean_up EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

# in_background COMMAND...: runs it to its end in a process group of its own, so that a signal at the terminal comes to this
# script alone, which ends the command.
in_background() {
  local result=0
  set -m
  # Should this script be killed, the command goes with it.
  setpriv --pdeathsig KILL "$@" 8>&- </dev/null &
  system=$!
  set +m
  wait "$system" || result=$?
  system=
  return "$result"
}

# archive LABEL: the address of the archive of this label that this machine takes packages from; nothing where it has none.
# shellcheck disable=SC2016 # apt fills them in
archive() {
  apt-get indextargets --format '$(ORIGIN)|$(LABEL)|$(REPO_URI)' 'Created-By: Packages' |
    sed -n "s/^Debian|$1|//p" | sort -u | head -n 1
}

# Everything of this machine's apt configuration that is about reaching an archive.
archive_settings() {
  apt-config dump | grep -E '^Acquire::(https?::|Check-|Retries|ForceIPv)' || true
}

make_base() {
  local debian security
  debian=$(archive Debian)
  if [ -z "$debian" ]; then
    apt-get update -q >&2
    debian=$(archive Debian)
  fi
  [ -n "$debian" ] || {
    echo "keltop: this machine's apt configuration names no Debian archive" >&2
    return 1
  }
  security=$(archive Debian-Security)
  echo "keltop: making a base system ($suite)" >&2
  mkdir "$work/base"
  in_background unshare --mount --pid --fork --kill-child \
    debootstrap --variant=minbase "$suite" "$work/base" "$debian" >"$work/log" 2>&1 || {
    tail -n 40 "$work/log" >&2
    return 1
  }
  rm -f "$work"/base/var/cache/apt/archives/*.deb
  {
    echo "deb $debian $suite main"
    if [ "$suite" != sid ]; then
      echo "deb $debian $suite-updates main"
      [ -z "$security" ] || echo "deb $security $suite-security main"
    fi
  } >"$work/base/etc/apt/sources.list"
  tar -C "$work/base" -cf "$base.partial" .
  mv "$base.partial" "$base"
  rm -rf "$work/base"
}

if [ ! -f "$base" ] || [ -n "$(find "$base" -mtime +"$BASE_DAYS")" ]; then
  make_base
fi

root=$work/system
mkdir "$root"
tar -C "$root" -xf "$base"
archive_settings >"$root/etc/apt/apt.conf.d/90machine"
# It lives for minutes: nothing has to be safe from a power failure.
echo force-unsafe-io >"$root/etc/dpkg/dpkg.cfg.d/unsafe-io"
cp -L /etc/resolv.conf /etc/hosts /etc/hostname "$root/etc/"
# The sources, as they are now, at the same place: a build names the folder that it was made in.
mkdir -p "$root$KELTOP_ROOT"
tar -C "$KELTOP_ROOT" --exclude-vcs --exclude='./build*' -cf - . | tar -C "$root$KELTOP_ROOT" --no-same-owner -xf -
if [ "$trial" = windows ] && [ ! -f "$KELTOP_ROOT/build/windows/keltop.exe" ]; then
  echo "keltop: no Windows build in this tree: scripts/build-windows.sh makes it" >&2
  exit 1
fi
if [ "$trial" != commands ] && [ -d "$KELTOP_ROOT/build/windows" ]; then
  mkdir "$root$KELTOP_ROOT/build"
  tar -C "$KELTOP_ROOT/build" --exclude=windows/wine -cf - windows | tar -C "$root$KELTOP_ROOT/build" -xf -
fi

in_background unshare --mount --pid --ipc --fork --kill-child \
  "$KELTOP_ROOT/scripts/debian-system.sh" enter "$root" "$cache" "$KELTOP_ROOT/scripts/debian-system.sh" "$trial" "$@"
