#!/usr/bin/env bash
# identify, lamp-test, darken and request on real hosts with the LED agent and the policy agent: in one process with a
# file, which is killed, and in three processes, of which the policy agent's is killed.
#   commands.sh BIN
set -uo pipefail
PATH=$1:$PATH
run=$(mktemp -d)
export PINLAMP_SOCKET=$run/control.sock
pids=()
trap 'kill "${pids[@]}" 2>/dev/null; wait; rm -rf "$run"' EXIT

failed=0
is() { # WHAT EXPECTED FOUND
  [ "$2" = "$3" ] || { printf 'FAILED: %s\n  expected %s\n  found    %s\n' "$@"; failed=1; }
}
# refused WHAT STATUS TEXT COMMAND…
refused() {
  local what=$1 status=$2 text=$3 error rc=0
  shift 3
  error=$("$@" 2>&1) || rc=$?
  [ "$rc" = "$status" ] && grep -qF -- "$text" <<<"$error" || is "$what" "exit $status: $text" "exit $rc: $error"
}
shows() { is "$1" "$3" "$(pinlampctl led list $2 | awk 'NR > 1 { print $3 }' | paste -sd ' ')"; } # WHAT LEDS COLOURS
becomes() { # WHAT LED COLOUR…
  local what=$1
  shift
  pinlampctl wait "$@" --for 20 || is "$what" "$*" "see above"
}
start() { # NAME SOCKET ARGUMENTS…: sets NAME to the process
  local name=$1 socket=$2
  shift 2
  pinlampd --socket "$socket" "$@" 2>>"$run/log" &
  printf -v "$name" '%s' $!
  pids+=($!)
  pinlampctl --socket "$socket" --wait 20 status >/dev/null || cat "$run/log"
}
killed() { kill -KILL "$1"; wait "$1" 2>/dev/null; }
names() { jq -r 'map(.name) | join(" ")'; }
ends() { # REQUEST: while it flashes, its LED may look as before
  for _ in $(seq 400); do
    pinlampctl request list "$1" --json | grep -q '"ended"' && return
    sleep 0.05
  done
  is "$1 ends" ended "$(pinlampctl request list "$1")"
}
wait_for_policy() { # Until the agent's process covers LEDs.
  for _ in $(seq 400); do
    pinlampctl status --json | grep -q '"hardware/led/requestStatus"' && return
    sleep 0.05
  done
}

cat >"$run/board.json" <<'END'
{"hardware/led/config/leds/A": {"type": "Hardware::Led::LedConfig", "lightSetting": {"green": true}},
 "hardware/led/config/leds/B": {"type": "Hardware::Led::LedConfig", "lightSetting": {"red": true}},
 "hardware/led/config/leds/Volts": {"type": "Hardware::Led::LedConfig"},
 "hardware/led/configInit/leds/Volts": {"type": "Hardware::Led::LedConfig", "lightSetting": {"green": true}},
 "hardware/gpio/config/led/gpioLeds/A": {"type": "Hardware::Gpio::GpioLedConfig", "gpioGreenName": ["ag"], "gpioRedName": ["ar"], "ready": true},
 "hardware/gpio/config/led/gpioLeds/B": {"type": "Hardware::Gpio::GpioLedConfig", "gpioGreenName": ["bg"], "gpioRedName": ["br"], "ready": true},
 "hardware/gpio/config/led/gpioLeds/Volts": {"type": "Hardware::Gpio::GpioLedConfig", "gpioGreenName": ["vg"], "gpioRedName": ["vr"], "ready": true},
 "hardware/led/lampTest": {"type": "Hardware::Led::LightRequest", "skip": ["Volts"]},
 "hardware/led/rule/hot": {"type": "Hardware::Led::LightRule", "fact": "facts/temperature/*", "attribute": "value",
   "comparison": "above", "value": 70, "led": "B", "lightSetting": {"red": true}, "priority": 150}}
END

# Without a policy agent ----------------------------------------------------------------------------------------------
start host "$PINLAMP_SOCKET" --store memory: --agent libpinlamp.so
for command in "identify A" lamp-test darken "request add x A red" "request add x A red --stored"; do
  refused "$command needs a policy agent" 1 "no policy agent runs" pinlampctl $command
done
is "and leaves nothing" "[]" "$(pinlampctl request list --json)"
killed "$host"

# One process ---------------------------------------------------------------------------------------------------------
one() { start host "$PINLAMP_SOCKET" --store "sqlite:$run/state.db" --agent libpinlamp.so --agent libpinlamp-policy.so; }
one
pinlampctl load "$run/board.json" >/dev/null
shows "an LED that nobody set shows its initial setting" "A B Volts" "green red green"
is "why tells that" '["hardware/led/configInit/leds/Volts",[]]' "$(pinlampctl why Volts --json | jq -c '[.basePath,.claims]')"

is "identify makes a request for each LED" "identify-A identify-B" "$(pinlampctl identify A B --json | names)"
becomes "an LED that is found flashes in its colours" A red green
is "which nothing else does" 0.1 "$(pinlampctl led list A --json | jq '.[0].setting.flashInterval')"
is "identify --stop takes some" identify-A "$(pinlampctl identify A --stop --json | names)"
is "or all" identify-B "$(pinlampctl identify --stop --json | names)"
shows "and shows what was before" "A B" "green red"
pinlampctl identify A --for 0.1
ends identify-A
becomes "identify ends by itself" A green
pinlampctl identify B --for 60
is "and its row is gone with the next" identify-B "$(pinlampctl request list --json | names)"
pinlampctl identify --stop

pinlampctl darken --except Volts
shows "darken" "A B Volts" "dark dark green"
pinlampctl set facts/temperature/t value 90 --type Facts::Sensor 2>/dev/null ||
  pinlampctl load - >/dev/null <<<'{"facts/temperature/t": {"type": "Facts::Sensor", "value": 90}}'
becomes "a fault stays lit" B red
is "why has the winner and those that wait" \
  '{"claims":[["hardware/led/rule/hot",150],["hardware/led/request/darken",149]],"base":{"red":true}}' \
  "$(pinlampctl why B --json | jq -c '{claims: [.claims[] | [.path, .priority]], base}')"
pinlampctl request add mark A red --for 1h
shows "and what a person asks for" "A B" "red red"
pinlampctl request del mark
pinlampctl darken --stop
shows "the night is over" "A B Volts" "green red green"

# A test of four seconds: green, red and both.
pinlampctl lamp-test --for 4 --json | jq -r 'map("\(.priority) \(.lasts * 1)") | join(", ")' >"$run/test"
becomes "the lamp test shows green" B green
is "in a request for each colour that there is" "402 1.3333333333333333, 401 2.6666666666666665, 400 4" "$(cat "$run/test")"
pinlampctl led set A off
becomes "then red" A red
shows "not on an LED that the board excludes" Volts green
becomes "then all" A green red
becomes "and what was set meanwhile afterwards" A off
shows "on the others, too" "B Volts" "red green"

pinlampctl lamp-test --for 600
becomes "a long test" B green
killed "$host"
one
shows "kill -9 ends it" "A B Volts" "dark red green"
is "and leaves no request" "[]" "$(pinlampctl request list --json)"
pinlampctl request add keep A red --stored
pinlampctl lamp-test
pinlampctl lamp-test --stop
killed "$host"
one
shows "a request that is stored stays" "A B" "red red"
refused "a name that no LED has" 1 "no LED is named 'Z'" pinlampctl identify Z
pinlampctl map set Bare --green xg --ready
pinlampctl identify Bare
becomes "an LED that only a mapping has is found" Bare green
pinlampctl identify --stop
shows "and is dark again" Bare dark
pinlampctl map del Bare
pinlampctl del hardware/led/config/leds/Bare
refused "nor one that is to be left alone" 1 "no LED is named 'Vlots'" pinlampctl lamp-test --skip Vlots
refused "a bad priority" 1 'expected "base", "policy"' pinlampctl request add bad A red --priority 500
refused "a negative time" 1 "request/bad lasts: found a number (-1), expected seconds" pinlampctl request add bad A red --for=-1
is "a pattern that fits nothing is noted" "note: hardware/led/request/vain: no LED matches 'Z*'" \
  "$(pinlampctl request add vain 'Z*' red 2>&1)"
is "and stops no other" "keep vain" "$(pinlampctl request list --json 2>/dev/null | names)"
pinlampctl request del vain
kill "$host"
wait "$host"
is "a host stops in order while a request is shown" 0 $?
one
shows "which is stored" "A B" "red red"
pinlampctl request del keep
shows "until it is withdrawn" "A B" "dark red"
killed "$host"
refused "a file shows nothing" 2 "identify works on a running pinlampd" pinlampctl --store "sqlite:$run/state.db" identify A
is "but lists what is in it" "[]" "$(pinlampctl --store "sqlite:$run/state.db" request list --json)"

# Three processes -----------------------------------------------------------------------------------------------------
start state "$PINLAMP_SOCKET" --store memory:
pinlampctl load "$run/board.json" >/dev/null
start leds "$run/led.sock" --store "unix:$PINLAMP_SOCKET" --agent libpinlamp.so
policy() { start agent "$run/policy.sock" --store "unix:$PINLAMP_SOCKET" --agent libpinlamp-policy.so; wait_for_policy; }
policy
becomes "three processes: the initial setting" Volts green
pinlampctl lamp-test --for 600
becomes "the lamp test" B green
is "why names the process" "covered by process $agent" "$(pinlampctl why B | awk '$1 == "covered" { print $1, $2, $3, $4 }')"
killed "$agent"
becomes "kill -9 of the policy agent shows the base" B red
refused "which is noticed" 1 "no policy agent runs" pinlampctl identify A
policy
becomes "the test goes on when it is back" B green
pinlampctl lamp-test --stop
becomes "until it is ended" B red
exit $failed
