#!/usr/bin/env bash
# Installs the build tree BUILD under a new prefix, builds examples/policy-agent from a copy outside SOURCE against it,
# and lights an LED through both agents in one real pinlampd.
#   policyagent.sh BUILD SOURCE
set -euo pipefail
build=$1 source=$2

work=$(mktemp -d)
daemon=
cleanup() {
  [ -z "$daemon" ] || { kill -TERM "$daemon" 2>/dev/null && wait "$daemon" || true; }
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAILED: $*" >&2; [ ! -s "$work/log" ] || cat "$work/log" >&2; exit 1; }

cmake --install "$build" --prefix "$work/prefix" >/dev/null
cp -r "$source/examples/policy-agent" "$work/policy"
cmake -S "$work/policy" -B "$work/policy/build" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/policy/build" >/dev/null
if grep -rq "$source" "$work/policy/build/CMakeFiles"; then fail "the example was built from the source tree"; fi

export LD_LIBRARY_PATH=$work/prefix/lib PINLAMP_SOCKET=$work/control.sock
PATH=$work/prefix/bin:$PATH
pinlampd --store memory: --socket "$PINLAMP_SOCKET" --agent "$work/prefix/lib/libpinlamp.so" \
  --agent "$work/policy/build/libpolicy-agent.so:Policy" 2>"$work/log" &
daemon=$!
for _ in $(seq 200); do pinlampctl status >/dev/null 2>&1 && break; sleep 0.05; done

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

pinlampctl load "$source/tests/install/facts.json" >/dev/null
await "a link that is up lights green" 1 pin g49
await "the fan that fails is red or dark while it flashes" true sh -c 'pinlampctl get hardware/led/config/leds/Fan1 lightSetting --json | grep -q "\"red\": *true" && echo true'
await "a forced megabit mode is yellow" 1 pin y3
await "a link that is down has its fault colour" 1 pin r4
await "and no other" 0 pin g4
pinlampctl set interface/status/Ethernet4 up true
await "a link that comes up turns green" 1 pin g4
await "and loses its fault colour" 0 pin r4
pinlampctl del interface/status/Ethernet49%2F2
await "a lane that goes darkens its port's LED" 0 pin g49
kill -TERM "$daemon"
wait "$daemon" || fail "pinlampd ended with $?"
daemon=
echo "the policy agent, built from an installed copy, lights LEDs through the LED agent"
