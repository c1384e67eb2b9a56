#!/usr/bin/env bash
# Runs the real pinlampd with the real agent on a SQLite file, drives it through pinlampctl, and checks pin values and
# traces: steady, flashing, remap, removal, bad input, and a restart after kill -9.
#   appliance.sh BIN SOURCE
set -euo pipefail
bin=$1 source=$2
PATH=$bin:$PATH

work=$(mktemp -d)
export PINLAMP_SOCKET=$work/control.sock
daemon=
cleanup() {
  [ -z "$daemon" ] || { kill -TERM "$daemon" 2>/dev/null && wait "$daemon" || true; }
  rm -rf "$work"
}
trap cleanup EXIT

failures=0
fail() {
  echo "FAILED: $*"
  failures=$((failures + 1))
}
# is WHAT EXPECTED ACTUAL
is() { if [ "$2" = "$3" ]; then echo "ok: $1"; else fail "$1: expected '$2', got '$3'"; fi; }
# await WHAT EXPECTED COMMAND…: until the command prints it
await() {
  local what=$1 expected=$2 found=
  shift 2
  for _ in $(seq 200); do
    found=$("$@" 2>&1) || true
    [ "$found" != "$expected" ] || { echo "ok: $what"; return 0; }
    sleep 0.05
  done
  fail "$what: expected '$expected', got '$found'"
}
# contains WHAT PART WHOLE
contains() { if grep -qF -- "$2" <<<"$3"; then echo "ok: $1"; else fail "$1: '$2' is not in '$3'"; fi; }
# refused WHAT STATUS TEXT COMMAND…: exits with STATUS and one line of errors that contains TEXT
refused() {
  local what=$1 status=$2 text=$3 error rc=0
  shift 3
  error=$("$@" 2>&1 >/dev/null) || rc=$?
  if [ "$rc" = "$status" ] && grep -qF -- "$text" <<<"$error" && [ "$(wc -l <<<"$error")" = 1 ]; then
    echo "ok: $what"
  else
    fail "$what: expected exit $status with '$text', got exit $rc with '$error'"
  fi
}
start() { # OPTION…: more options of pinlampd
  pinlampd --store "sqlite:$work/state.db" --agent libpinlamp.so --socket "$PINLAMP_SOCKET" --trace 'Pinlamp/*' \
    --trace-file "$work/trace" "$@" 2>>"$work/log" &
  daemon=$!
  for _ in $(seq 200); do pinlampctl status >/dev/null 2>&1 && return; sleep 0.05; done
  cat "$work/log"
  exit 1
}
pins() { for pin in "$@"; do pinlampctl get "hardware/corvel/gpio/config/$pin" value; done | tr -d '\n'; }
# The messages traced since the last call, without their prefixes.
traced() {
  local from
  from=$(cat "$work/traced" 2>/dev/null || echo 0)
  wc -l <"$work/trace" >"$work/traced"
  tail -n "+$((from + 1))" "$work/trace" | sed 's/^[^ ]* Pinlamp [0-9]* [^ ]* [^ ]*: //'
}
# traces WHAT TEXT: the lines of TEXT were traced one after another since the last call
traces() {
  local found
  found=$(traced)
  if [[ $'\n'$found$'\n' == *$'\n'$2$'\n'* ]]; then echo "ok: $1"; else fail "$1: not in: $found"; fi
}

start
# Steady ------------------------------------------------------------------------------------------------------------
pinlampctl map set Ethernet3/1 --yellow y --green g --red r1 r2 --ready
traces "a mapping without an LED creates pins and no machine" \
  "createLedConfig Ethernet3/1
created yellow pin 'y'
created green pin 'g'
created red pin 'r1'
created red pin 'r2'
createDriver Ethernet3/1
Deleting Gpio Led SM for Ethernet3/1"
pinlampctl led set Ethernet3/1 green
is "steady green" 0100 "$(pins y g r1 r2)"
traces "the machine is created with the LED" "Creating Gpio Led SM for Ethernet3/1
handleInitialized for Ethernet3/1
handleHwLedConfig Ethernet3/1"
pinlampctl led set Ethernet3/1 green red
is "two colours at once, every pin of a colour" 0111 "$(pins y g r1 r2)"
traces "all dark before any is lit, and only changes are traced" "handleCorvelGpioYellow Ethernet3/1
handleCorvelGpioGreen Ethernet3/1
Corvel Green Pin: g  OldValue: 1 NewValue: 0
handleCorvelGpioRed Ethernet3/1
handleCorvelGpioOrange Ethernet3/1
handleCorvelGpioGreen Ethernet3/1
Corvel Green Pin: g  OldValue: 0 NewValue: 1
handleCorvelGpioRed Ethernet3/1
Corvel Red Pin: r1  OldValue: 0 NewValue: 1
Corvel Red Pin: r2  OldValue: 0 NewValue: 1"

# Flashing ----------------------------------------------------------------------------------------------------------
pinlampctl led set Ethernet3/1 yellow --flash 0.05
await "flashing is lit" 1000 pins y g r1 r2
await "and dark" 0000 pins y g r1 r2
await "and lit again" 1000 pins y g r1 r2
contains "why reports its next tick" "next tick in " "$(pinlampctl why Ethernet3/1)"
traces "each toggle is traced" "handleClockTimeout for Ethernet3/1
Led Ethernet3/1 is now 0"
pinlampctl led set Ethernet3/1 red
is "steady at once" 0011 "$(pins y g r1 r2)"
ticks() { pinlampctl object get --json agent/configReactor/gpioLedStateMachine/Ethernet3%2F1 | grep -c wakesIn; }
await "and the pending tick is the last" 0 ticks

# Remap -------------------------------------------------------------------------------------------------------------
pinlampctl map set Ethernet3/1 --green g g2 --ready
is "a pin that is added to a ready mapping is not created yet" "" "$(pinlampctl get hardware/corvel/gpio/config/g2 value 2>/dev/null || true)"
traced >/dev/null
pinlampctl map set Ethernet3/1 --no-ready
is "ready going false changes nothing" "createLedConfig Ethernet3/1" "$(traced)"
pinlampctl map set Ethernet3/1 --ready
is "ready going true creates it" 0 "$(pins g2)"
pinlampctl led set Ethernet3/1 green
is "and it is lit with its colour" 11 "$(pins g g2)"

pinlampctl map set Ethernet3/1 --green g2
contains "a pin that was removed from the mapping is still driven, and shown" "green  green:g2=1 red:r1=0 red:r2=0 yellow:y=0 green:g=1(no longer mapped)" \
  "$(pinlampctl led list Ethernet3/1)"
contains "and why reports it" "green pin g was removed from a ready mapping" "$(pinlampctl why Ethernet3/1)"
pinlampctl map set Ethernet3/1 --green g2 g3 --rewire
is "re-wiring drives the pins of the mapping" 11 "$(pins g2 g3)"
refused "and no other" 1 "no entity at" pinlampctl get hardware/corvel/gpio/config/g
contains "and leaves no obstacle" "because    it is set to green" "$(pinlampctl why Ethernet3/1)"

# Removal -----------------------------------------------------------------------------------------------------------
traced >/dev/null
pinlampctl map del Ethernet3/1
refused "a removed mapping takes its pins along" 1 "no entity at" pinlampctl get hardware/corvel/gpio/config/g
traces "in this order" "handleGpioConfigCleanup Ethernet3/1
createDriver Ethernet3/1
Deleting Gpio Led SM for Ethernet3/1"
pinlampctl map set Never --green n1
pinlampctl map del Never
traces "so is one that was never ready" "createLedConfig Never
handleGpioConfigCleanup Never
createDriver Never
Deleting Gpio Led SM for Never"

long=$(printf '/%.0s' {1..255})
pinlampctl map set Long --green "$long" --ready
pinlampctl led set Long green
is "a pin's name may be as long as any, and three times that in its path" 1 "$(pins "${long//\//%2F}")"
pinlampctl map del Long; pinlampctl del hardware/led/config/leds/Long

# Bad input ---------------------------------------------------------------------------------------------------------
pinlampctl led set Ethernet3/1 green
led=hardware/led/config/leds/Ethernet3%2F1
refused "an unknown colour" 1 "blue" pinlampctl led set Ethernet3/1 blue
refused "an unknown path" 1 "no entity at" pinlampctl set "$led/none" theme x
refused "an unknown attribute" 1 "'colour' is no attribute" pinlampctl set "$led" colour red
refused "an unknown type" 1 "'No::Such' is unknown" pinlampctl set x/y a 1 --type No::Such
refused "a value of the wrong kind" 1 "expected true or false" pinlampctl set "$led" lightSetting '{"green": "yes"}'
refused "a negative interval" 1 "finite and not negative" pinlampctl set "$led" lightSetting '{"flashInterval": -1}'
refused "an infinite interval" 1 "flash" pinlampctl led set Ethernet3/1 green --flash inf
refused "an interval that is no number" 1 "flash" pinlampctl led set Ethernet3/1 green --flash nan
refused "a second pinlampd on the socket" 1 "another pinlampd" pinlampd --socket "$PINLAMP_SOCKET"
refused "a second pinlampd on the store" 1 "state.db" pinlampd --store "sqlite:$work/state.db" --socket "$work/other.sock"
is "nothing that was there is lost" '{"green": true}' \
  "$(pinlampctl get "$led" lightSetting --json | tr -d '\n ' | grep -o '"green":true' | sed 's/^/{/; s/$/}/; s/:/: /')"

refused "a client that invokes an object's procedure" 1 "start pinlampd with --allow-object-writes" \
  pinlampctl object call agent doInit

# A restart ---------------------------------------------------------------------------------------------------------
pinlampctl load "$source/examples/switch-1u.json" >/dev/null
pinlampctl led set Status red
pinlampctl dump >"$work/before"
kill -KILL "$daemon"
wait "$daemon" 2>/dev/null || true
start --allow-object-writes
refused "an object's procedure may be invoked, but starts no agent" 1 "only the host starts an agent" \
  pinlampctl object call agent doInit
pinlampctl dump >"$work/after"
is "kill -9 loses nothing that was acknowledged" "" "$(diff "$work/before" "$work/after")"
is "and the lights come back" red "$(pinlampctl led list Status --json | tr -d '\n ' | sed 's/.*"shows":\["\([a-z]*\)"\].*/\1/')"
kill -TERM "$daemon"
rc=0
wait "$daemon" || rc=$?
daemon=
is "SIGTERM ends it in order" 0 "$rc"

[ "$failures" = 0 ] || { echo "$failures checks failed"; exit 1; }
