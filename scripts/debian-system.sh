#!/usr/bin/env bash
# What scripts/test-debian.sh runs in the fresh system; no use by itself.
#
#   debian-system.sh enter ROOT CACHE COMMAND...   from outside, in namespaces of its own: goes into the system
#   debian-system.sh commands | windows | run ...  inside: the trials
set -euo pipefail

# --- from outside ----------------------------------------------------------------------------------------------------

# enter ROOT CACHE COMMAND...: gives the system in ROOT the kernel's file systems and the caches, makes it the root of this
# mount namespace, and runs the command there.
enter() {
  local root=$1 cache=$2 device
  shift 2
  mount --bind "$root" "$root"
  mount -t proc proc "$root/proc"
  mount -t tmpfs -o mode=755 dev "$root/dev"
  for device in null zero full random urandom tty; do
    touch "$root/dev/$device"
    mount --bind "/dev/$device" "$root/dev/$device"
  done
  mkdir "$root/dev/pts" "$root/dev/shm"
  mount -t devpts -o newinstance,mode=620,gid=5,ptmxmode=666 devpts "$root/dev/pts"
  mount -t tmpfs -o mode=1777 shm "$root/dev/shm"
  ln -s pts/ptmx "$root/dev/ptmx"
  ln -s /proc/self/fd "$root/dev/fd"
  ln -s fd/0 "$root/dev/stdin"
  ln -s fd/1 "$root/dev/stdout"
  ln -s fd/2 "$root/dev/stderr"
  mount --bind "$cache/archives" "$root/var/cache/apt/archives"
  mkdir "$root/var/cache/ccache"
  mount --bind "$cache/ccache" "$root/var/cache/ccache"
  mkdir "$root/outside"
  cd "$root"
  pivot_root . outside
  umount -l /outside
  rmdir /outside
  cd /
  exec env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
    CCACHE_DIR=/var/cache/ccache "$@"
}

# --- inside ----------------------------------------------------------------------------------------------------------

say() {
  echo "keltop: $*" >&2
}

failed=()

# step WHAT COMMAND...: runs a part of the trial, and says how long it took. The parts after one that failed are run too.
step() {
  local what=$1 begin=$SECONDS code
  shift
  say "=== $what"
  set +e
  (
    set -e
    "$@"
  )
  code=$?
  set -e
  if [ "$code" -eq 0 ]; then
    say "=== $what: done after $((SECONDS - begin)) s"
  else
    failed+=("$what")
    say "=== $what: FAILED after $((SECONDS - begin)) s"
  fi
}

listener=

fail() {
  say "FAILED: $*"
  [ -z "$listener" ] || kill -KILL "$listener" 2>/dev/null || true
  exit 1
}

free_port() {
  local port
  for ((port = 20000 + RANDOM % 20000; ; ++port)); do
    if ! grep -qi "^ *[0-9]*: [0-9A-F]*:$(printf %04X "$port") " /proc/net/tcp; then
      echo "$port"
      return
    fi
  done
}

# start OUTPUT COMMAND...: starts a listener and waits until it listens; its process is then in $listener. Job control: what
# a script starts in the background would ignore Ctrl-C otherwise.
start() {
  local output=$1
  shift
  set -m
  "$@" >"$output" &
  listener=$!
  set +m
  until grep -q '^Listening on' "$output"; do
    kill -0 "$listener" 2>/dev/null || fail "it ended: $(cat "$output")"
    sleep 0.1
  done
  # It says so before it does so.
  for ((tries = 0; tries < 100; ++tries)); do
    ! (: <>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || return 0
    kill -0 "$listener" 2>/dev/null || fail "it ended: $(cat "$output")"
    sleep 0.1
  done
  fail "it does not listen: $(cat "$output")"
}

# stop: Ctrl-C; the exit code must be 0.
stop() {
  local code=0
  kill -INT "$listener"
  wait "$listener" || code=$?
  [ "$code" -eq 0 ] || fail "exit code $code after Ctrl-C"
}

request() {
  local answer
  exec 3<>"/dev/tcp/127.0.0.1/$port"
  printf 'GET /%s HTTP/1.0\r\n\r\n' "$1" >&3
  answer=$(cat <&3)
  exec 3>&-
  [[ $answer == 'HTTP/1.0 200 OK'* ]] || fail "the answer is not 200: $answer"
}

# listens COMMAND...: it serves a request, stops by Ctrl-C, and starts again at once on the same port.
listens() {
  local output round
  output=$(mktemp)
  port=$(free_port)
  for round in first second; do
    start "$output" "$@" -p "$port"
    request "$round"
    stop
    grep -q "Path: /$round" "$output" || fail "the request is not shown: $(cat "$output")"
  done
  rm "$output"
}

traces=/var/lib/vs/TRACELOGS

apt() {
  DEBIAN_FRONTEND=noninteractive apt-get -y -q -o Dpkg::Use-Pty=0 "$@" </dev/null
}

# Everything below the trace folder, in one line.
trace_files() {
  (cd "$traces" && find . -mindepth 1 -printf '%P\n' | LC_ALL=C sort | xargs)
}

# The package is installed, tried, removed and purged. Other programs keep their traces in the same folder.
tries_package() {
  local package others='ARCHIVE ARCHIVE/LINE007-20260101000000000.ltt LINE007.ltt LOG10671.ltt'
  package=$(scripts/package.sh deb)
  apt install "$package"
  listens keltop
  # Read to its end: without a reader the program would end by a signal.
  keltop -h </dev/null | grep '^Options:' >/dev/null || fail "the installed program shows no help"
  [ "$(trace_files)" = LOG1067.ltt ] || fail "traces: $(trace_files)"
  mkdir -p "$traces/ARCHIVE"
  touch "$traces"/{LINE007,LOG10671}.ltt "$traces"/ARCHIVE/{LINE007,LOG1067}-20260101000000000.ltt
  touch "$traces/LOG1067-20260102000000000.ltt"
  apt remove keltop
  [ ! -e /usr/bin/keltop ] || fail "a removal left the program"
  [ -s "$traces/LOG1067.ltt" ] || fail "a removal took the traces"
  apt purge keltop
  [ "$(trace_files)" = "$others" ] || fail "a purge left $(trace_files)"

  rm -r "$traces"
  apt install "$package"
  keltop -h >/dev/null </dev/null
  apt purge keltop
  [ ! -e /var/lib/vs ] || fail "a purge left $(find /var/lib/vs)"
}

checks_package() {
  apt install --no-install-recommends lintian
  lintian --fail-on error,warning build/packages/*.deb
}

try_commands() {
  step "scripts/run.sh -p" listens scripts/run.sh
  step "scripts/test.sh" scripts/test.sh
  step "the package" tries_package
  step "lintian" checks_package
}

try_windows() {
  source scripts/setup.sh
  need "${KELTOP_BUILD_PACKAGES[@]}" "${KELTOP_TEST_PACKAGES[@]}" "${KELTOP_WINE_PACKAGES[@]}"
  # The build names the modules of the cmake that configured it, which has another version here.
  modules=$(sed -n 's/^CMAKE_ROOT:INTERNAL=//p' build/windows/CMakeCache.txt)
  [ -e "$modules" ] || ln -s /usr/share/cmake-* "$modules"
  say "building (release), to compare with"
  build release keltop
  say "$(wine --version 2>/dev/null)"
  source scripts/wine-prefix.sh
  step "tests under Wine" run_tests windows
}

task=$1
shift
case $task in
  enter) enter "$@" ;;
  commands | windows | run)
    cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.."
    case $task in
      run) "$@" ;;
      *)
        "try_$task"
        [ ${#failed[@]} -eq 0 ] || {
          printf 'keltop: FAILED: %s\n' "${failed[@]}" >&2
          exit 1
        }
        ;;
    esac
    ;;
esac
