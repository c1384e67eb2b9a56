# Sourced by the scripts in this folder: runs pinlampd of the installed copy at $prefix. Sets $work, a temporary folder.
export CMAKE_PREFIX_PATH=$prefix
PATH=$prefix/bin:$PATH

work=$(mktemp -d)
export PINLAMP_SOCKET=$work/control.sock
daemon=
cleanup() {
  [ -z "$daemon" ] || { kill -TERM "$daemon" 2>/dev/null && wait "$daemon" || true; }
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAILED: $*" >&2; [ ! -s "$work/log" ] || cat "$work/log" >&2; exit 1; }

# built NAME SOURCE...: builds an agent's project from a copy of its files, and prints the build folder. The copy is always
# in the folder NAME, so that ccache hits.
built() {
  local folder=$builds/$1
  shift
  rm -rf "$folder"
  mkdir -p "$folder"
  cp -r "$@" "$folder"
  { cmake -S "$folder" -B "$folder/build" ${compiler:+-DCMAKE_CXX_COMPILER="$compiler"} \
      -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Werror" &&
    cmake --build "$folder/build"; } >"$work/log" 2>&1 || fail "$folder does not build"
  if [ -n "${source:-}" ] && grep -rq "$source/platform" "$folder/build/CMakeFiles"; then fail "built from the source tree"; fi
  echo "$folder/build"
}

start() { # ARGUMENTS...
  pinlampd --store memory: --socket "$PINLAMP_SOCKET" --agent libpinlamp.so "$@" 2>"$work/log" &
  daemon=$!
  pinlampctl --wait 20 status >/dev/null || fail "pinlampd does not start"
}
stop() {
  kill -TERM "$daemon"
  wait "$daemon" || fail "pinlampd ended with $?"
  daemon=
}

# await WHAT EXPECTED COMMAND...: until the command prints it
await() {
  local what=$1 expected=$2 found=
  shift 2
  for _ in $(seq 200); do
    found=$("$@" 2>&1) || true
    [ "$found" != "$expected" ] || return 0
    sleep 0.05
  done
  fail "$what: expected $expected, got $found"
}
pin() { pinlampctl get "hardware/corvel/gpio/config/$1" value; }
