# Sourced by tests that run one pinlampd at a time: sets $work, a temporary folder, and PINLAMP_SOCKET.
work=$(mktemp -d)
export PINLAMP_SOCKET=$work/control.sock
daemon=
cleanup() {
  [ -z "$daemon" ] || { kill -TERM "$daemon" 2>/dev/null && wait "$daemon" || true; }
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAILED: $*" >&2; [ ! -s "$work/log" ] || cat "$work/log" >&2; exit 1; }

start() { # ARGUMENTS...
  pinlampd "$@" 2>>"$work/log" &
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
