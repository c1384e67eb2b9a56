#!/usr/bin/env bash
# The state database, the LED agent and the line agent as three real processes; the lines are chips in memory.
#   processes_test.sh BIN TEST_AGENTS
set -uo pipefail
PATH=$1:$PATH
test_agents=$2
guest=$(dirname "${BASH_SOURCE[0]}")/../vm/guest/gpiovm
. "$guest/check.sh"
. "$guest/hosts.sh"
trap 'kill -KILL $(jobs -p) 2>/dev/null; wait 2>/dev/null; rm -rf "$run"' EXIT

mark() { pinlampctl set hardware/mark value "$1" --type Hardware::Gpio::CorvelPinConfig; }
# Records the changes under "hardware" from here to recorded.
record() {
  : >"$run/watched"
  pinlampctl watch hardware >>"$run/watched" & watcher=$!
  local n=1
  until grep -q mark "$run/watched" || [ $((n += 1)) -gt 500 ]; do mark $n; done
}
recorded() {
  mark 0
  for _ in $(seq 500); do ! grep -q "mark value=0" "$run/watched" || break; sleep 0.02; done
  kill $watcher; wait $watcher 2>/dev/null
  sed 's/^[^ ]* //; / hardware\/mark/d; s|hardware/corvel/gpio/||' "$run/watched"
}
fan1_covered() { pinlampctl why Fan1 | sed -n '/^covered/,/^base/p' | paste -sd' ' | tr -s ' '; }
handled() { grep -c 'handleHwLedConfig Status$' "$run/trace"; }

state_host
wire g sim0 3
wire r sim0 4 activeLow true
wire s sim7 0
pinlampctl map set Fan1 --green g --red r --ready
pinlampctl map set Status --green s --ready
pinlampctl led set Fan1 Status green
led_host
gpio_host :PinlampSim
await "pin values reach the state database" 101 pins g r s
await "and from there the lines" "line 3 of gpiochip0 'sim0'" line g place
no_chip="no GPIO chip has the label or the name 'sim7' (there are gpiochip0 'sim0', gpiochip1 'sim1', gpiochip2 'sim2')"
await "a missing chip is reported in the line's status" "$no_chip" line s error
pinlampctl led set Fan1 red
await "a setting goes all the way" 011 pins g r s

# What agents fill -----------------------------------------------------------------------------------------------------
pins=hardware/corvel/gpio/config
dir_for_a_pin="{\"$pins/g\": {\"type\": \"Zel::Dir\"}}"
check "a row of another type under a writable mount is refused" \
  "pinlampctl: standard input:1: $pins/g: is under '$pins', which process $led_pid ('$run/led.sock') publishes; nobody else writes there while it runs" \
  "$(echo "$dir_for_a_pin" | pinlampctl load - 2>&1)"
host second --store "unix:$PINLAMP_SOCKET" --agent libpinlamp.so
await "a second process that fills the same path waits" 1 grep -c "process $led_pid .* trying until it is free" "$run/second.log"
killed led
pinlampctl led set Fan1 green
await "and takes over when the first has gone" 101 pins g r s
ended second >/dev/null
led_host
pinlampctl led set Fan1 red
await "as does the first, restarted" 011 pins g r s

# What the host that keeps the state reports ---------------------------------------------------------------------------
part() { grep -oF -- "$1" | head -n 1; } # TEXT: prints it if standard input contains it
driven="2 configured, 2 mapped, 2 machines"
check "status counts what the processes drive" "$driven" "$(pinlampctl status | part "$driven")"
machine="machine    agent/configReactor/gpioLedStateMachine/Fan1, through --socket $run/led.sock"
check "why finds the LED agent in its process" "$machine" "$(pinlampctl why Fan1 | part "$machine")"
check "and reports a line's error" "green pin s has a line that is not driven: $no_chip" \
  "$(pinlampctl why Status | part "green pin s has a line that is not driven: $no_chip")"
kill -STOP "$led_pid"
hangs="did not answer within 2 s"
check "status reports a process that hangs" "$hangs" "$(pinlampctl status | part "$hangs")"
kill -CONT "$led_pid"
pinlampctl map set Fan1 --red r2
check "a pin that is added to a ready mapping is not driven" "red pin r2 was added to a ready mapping" \
  "$(pinlampctl why Fan1 | part "red pin r2 was added to a ready mapping")"
pinlampctl map set Fan1 --rewire
await "until it is re-wired" 01 pins g r2
pinlampctl map set Fan1 --red r --rewire
await "a pin that is added again, too" 01 pins g r

# The LED agent --------------------------------------------------------------------------------------------------------
killed led
check "the pin values outlive the LED agent" 011 "$(pins g r s)"
check "and the line agent still drives them" true "$(line r driven)"
check "status reports it" "0 machines" "$(pinlampctl status | part "0 machines")"
check "and why does" "no LED agent runs" "$(pinlampctl why Fan1 | part "no LED agent runs")"
check "and led list" "no LED agent runs" "$(pinlampctl led list 2>&1 | part "no LED agent runs")"
check "also as JSON" '"stale": true' "$(pinlampctl led list Fan1 --json 2>/dev/null | part '"stale": true')"
record
led_host
pinlampctl led set Fan1 green red
await "its successor takes over" 111 pins g r s
check "and publishes only what changed" "put led/config/leds/Fan1 lightSetting={\"green\": true, \"red\": true}
put config/g value=1" "$(recorded | sed 's|hardware/||')"
killed led
pinlampctl led set Fan1 off
host led --store "unix:$PINLAMP_SOCKET" --agent libpinlamp.so --trace 'Pinlamp/*' --trace-file "$run/trace" \
  --when-lost "50ms=Fan*=orange; Fan1=green red"
await "a setting made while it was away takes effect" 001 pins g r s

# The line agent -------------------------------------------------------------------------------------------------------
killed gpio
await "what the line agent published ends with it" "no entity at" sh -c "pinlampctl get hardware/corvel/gpio/status/r 2>&1 | grep -o 'no entity at'"
of_lines() { pinlampctl status | grep -A1 '^lines' | tr -s ' ' | paste -sd,; }
check "status reports it" "lines 0 driven, 3 not, g, r, s: no line agent runs" "$(of_lines)"
check "and the metrics count the lines as not driven" 'pinlamp_lines{driven="no"} 3' "$(pinlampctl metrics | grep '^pinlamp_lines.*no')"
gpio_host :PinlampSim
await "its successor drives them" true line r driven
check "and the status has the others" "lines 2 driven, 1 not, s: $no_chip" "$(of_lines)"

# The state database ---------------------------------------------------------------------------------------------------
before=$(handled)
pinlampctl map set Rear1 --green f --ready
pinlampctl led set Rear1 green --flash 0.05
killed state
live() { # HOST PIN...
  local of=$1 pin
  for pin in "${@:2}"; do pinlampctl --socket "$run/$of.sock" object get "$pins/$pin/value"; done | tr -d '\n'
}
await "while it is lost, the host shows the settings of --when-lost" 111 live led g r s
check "and logs it" 1 "$(grep -c "1 LED setting of --when-lost is shown" "$run/led.log")"
flashes() { for _ in $(seq 20); do live led f; echo; done | sort -u | paste -sd' '; }
await "and LEDs go on flashing" "0 1" flashes
host away --store "sqlite:$run/state.db"
pinlampctl --socket "$run/away.sock" led set Fan1 red
check "settings are on the disk, pin values are not" "no entity at" \
  "$(pinlampctl --socket "$run/away.sock" get hardware/corvel/gpio/config/s 2>&1 | grep -o 'no entity at')"
ended away >/dev/null
state_host
await "agents reconnect, receive what was set meanwhile, and publish all values again" 011 pins g r s
await "and the status of the lines" true line r driven
await "errors included" "$no_chip" line s error
check "an LED with an unchanged setting is not notified" "$before" "$(handled)"
pinlampctl map del Rear1
await "a flashing LED that is unmapped publishes no more" "no entity at" \
  sh -c "pinlampctl get $pins/f 2>&1 | grep -o 'no entity at'"
check "the loss and the return are logged once each" 2 "$(grep -c "state database unix:" "$run/gpio.log")"
record
pinlampctl led set Fan1 green
await "and go on as before" 101 pins g r s
check "publishing only what changes" "put led/config/leds/Fan1 lightSetting={\"green\": true}
put config/r value=0
put config/g value=1" "$(recorded | sed 's|hardware/||' | sort -r)"
ended gpio led state >"$run/statuses"
check "all end in order" "0 0 0" "$(xargs <"$run/statuses")"

# Covers ---------------------------------------------------------------------------------------------------------------
policy_host() { host "$1" --store "unix:$PINLAMP_SOCKET" --agent "$test_agents:Covering"; }
fan1=hardware/led/config/leds/Fan1
state_host
led_host
pinlampctl led set Fan1 green
await "before an agent covers an LED, it shows its setting" 101 pins g r s
policy_host policy
await "a cover shows over the setting" 011 pins g r s
check "get --under shows both" '{"red": true}
{"green": true}' "$(pinlampctl get $fan1 lightSetting --under)"
check "and why names both" "covered by process $policy_pid base green" "$(fan1_covered)"
policy_host second
await "a second process that covers the same waits" 1 grep -c "process $policy_pid .* trying until it is free" "$run/second.log"
pinlampctl led set Fan1 --flash 0
check "a command that reads, changes and writes a setting does not store the cover" '{"green": true}' \
  "$(pinlampctl get $fan1 lightSetting --under | tail -n 1)"
check "nor does a dump" 0 "$(pinlampctl dump | grep -c cover-mark)"
killed state
state_host
await "after the host was killed, the cover shows again" 011 pins g r s
pinlampctl led set Fan1 green red
check "a setting under it is stored" '{"red": true}
{"green": true, "red": true}' "$(pinlampctl get $fan1 lightSetting --under)"
killed policy
await "when its process is killed, the next one covers" 011 pins g r s
await "with its own" "covered by process $second_pid base green+red" fan1_covered
killed second
await "and when that is killed, the setting that was made meanwhile shows" 111 pins g r s
check "no file has ever had a cover" 0 "$(cat "$run"/state.db* | grep -c cover-mark)"
ended led state >/dev/null

# A server that hosts share --------------------------------------------------------------------------------------------
redis_server() {
  (exec -a redis-server redis-check-rdb --port 0 --unixsocket "$run/redis" --dir "$run" --appendonly yes --logfile log) &
  redis_pid=$!
}
rack() { pinlampctl --socket "$run/rack.sock" "$@"; }
redis_server
host rack --store "redis-unix:$run/redis" --agent libpinlamp.so --when-lost "50ms=Fan1=green red"
await "a setting is stored on the server" "" rack map set Fan1 --green g --red r --ready
rack led set Fan1 red
await "and takes effect" 01 live rack g r
killed redis
await "while the server is lost, the host shows the settings of --when-lost" 11 live rack g r
redis_server
await "and reverts them when it is back" 01 live rack g r
ended rack >/dev/null
killed redis
finish
