#!/bin/sh
# Sets LEDs with pinlampctl and reads the lines back from the kernel; runs inside the virtual machine (see pinlampd.sh).
. /gpiovm/check.sh
. /gpiovm/hosts.sh
whole_host() { host state --store "sqlite:$run/state.db" --agent libpinlamp.so --agent libpinlamp-gpio.so; }
set_led() { pinlampctl led set "$@"; }
# The distinct levels written to a line of a chip since trace-on.
written() { echo "$writes" | trace-writes "$1" "$2" | tr ' ' '\n' | sort -u | xargs; }
edges() { trace-writes front 1 </sys/kernel/tracing/trace | wc -w; }
at_least() { [ "$("$2")" -ge "$1" ] && echo yes; }

cat >"$run/board.json" <<'J'
{
  "hardware/corvel/gpio/init": {"type": "Zel::Dir"},
  "hardware/corvel/gpio/init/y": {"type": "Hardware::Gpio::GpioLineInit", "chip": "front", "line": "0"},
  "hardware/corvel/gpio/init/g": {"type": "Hardware::Gpio::GpioLineInit", "chip": "front", "line": "1"},
  "hardware/corvel/gpio/init/r": {"type": "Hardware::Gpio::GpioLineInit", "chip": "front", "line": "2", "activeLow": true},
  "hardware/corvel/gpio/init/o": {"type": "Hardware::Gpio::GpioLineInit", "chip": "front", "line": "3"},
  "hardware/corvel/gpio/init/kept": {"type": "Hardware::Gpio::GpioLineInit", "chip": "rear", "line": "0"},
  "hardware/corvel/gpio/init/off": {"type": "Hardware::Gpio::GpioLineInit", "chip": "rear", "line": "1", "onExit": "off"},
  "hardware/corvel/gpio/init/shared": {"type": "Hardware::Gpio::GpioLineInit", "chip": "rear", "line": "2"},
  "hardware/corvel/gpio/init/late": {"type": "Hardware::Gpio::GpioLineInit", "line": "LAMP"},
  "hardware/gpio/config/led": {"type": "Hardware::Gpio::GpioLedSystemConfigDir"},
  "hardware/gpio/config/led/gpioLeds/Fan1": {"type": "Hardware::Gpio::GpioLedConfig", "gpioYellowName": ["y"],
    "gpioGreenName": ["g"], "gpioRedName": ["r"], "gpioOrangeName": ["o"], "ready": true},
  "hardware/gpio/config/led/gpioLeds/Rear": {"type": "Hardware::Gpio::GpioLedConfig", "gpioGreenName": ["kept", "off"], "ready": true},
  "hardware/gpio/config/led/gpioLeds/Shared": {"type": "Hardware::Gpio::GpioLedConfig", "gpioGreenName": ["shared"], "ready": true},
  "hardware/gpio/config/led/gpioLeds/Late": {"type": "Hardware::Gpio::GpioLedConfig", "gpioGreenName": ["late"], "ready": true},
  "hardware/led/config": {"type": "Hardware::Led::LedSystemConfigDir"},
  "hardware/led/config/leds/Fan1": {"type": "Hardware::Led::LedConfig"},
  "hardware/led/config/leds/Rear": {"type": "Hardware::Led::LedConfig", "lightSetting": {"green": true}},
  "hardware/led/config/leds/Late": {"type": "Hardware::Led::LedConfig", "lightSetting": {"green": true}}
}
J

gpio-keep 1
mkfifo /tmp/in /tmp/out
linesdriver other 1 rear 2 </tmp/in >/tmp/out 2>&1 & other=$!
exec 9>/tmp/in 8</tmp/out
read -r answer <&8

whole_host
pinlampctl load "$run/board.json" >/dev/null
await "an LED that is off is dark on every line, active-low lines included" 0010 gpio-levels front
while read -r colours levels; do
  set_led Fan1 $(echo "$colours" | tr + ' ')
  await "$colours shows on its line" "$levels" gpio-levels front
done <<'T'
yellow 1010
green 0110
red 0000
orange 0011
green+red 0100
T

trace-on
set_led Fan1 green yellow
await "a change of colour reaches the lines that change" 1110 gpio-levels front
writes=$(trace-off)
check "and shows no edge on one that stays lit" 1 "$(written front 1)"

trace-on
set_led Fan1 green --flash 0.2
await "flashing writes level after level" yes at_least 9 edges
writes=$(trace-off)
check "lit and dark in turn" "1 0 1 0 1 0 1 0" "$(echo "$writes" | trace-writes front 1 | sed 's/^\(1 \)*1 0/1 0/' | cut -d' ' -f1-8)"
check "at about its interval" yes "$(echo "$writes" | awk '
  { for (i = 1; i < NF; i++) if ($i ~ /^[0-9]+\.[0-9]+:$/ && (n == 0 || $i + 0 > last + 0.02)) { last = $i + 0; if (!n++) first = last } }
  END { mean = (last - first) / (n - 1); print (mean > 0.15 && mean < 0.4) ? "yes" : mean }')"

# Restart --------------------------------------------------------------------------------------------------------------
set_led Fan1 green red
await "steady again" 0100 gpio-levels front
trace-on
killed state
check "a killed host leaves the levels to the chip, which keeps them" 0100 "$(gpio-levels front)"
rm "$run/state.log"
whole_host
await "the next one takes over the lines" true line g driven
writes=$(trace-off)
check "without an edge" "0 1 0 0" "$(written front 0) $(written front 1) $(written front 2) $(written front 3)"

# Trouble --------------------------------------------------------------------------------------------------------------
busy="line 2 of gpiochip1 'rear' is busy: held by 'other'"
set_led Shared green
await "a busy line names its consumer" "$busy" line shared error
check "in the trace, once" 1 "$(grep -c "$busy" "$run/state.log")"
check "and does not affect other lines" "true false 111" "$(line kept driven) $(line shared driven) $(gpio-levels rear | cut -c1-3)"
echo end >&9
wait $other
await "it is driven once it is free" true line shared driven
absent="no line is named 'LAMP'"
check "a missing chip is reported" "$absent" "$(line late error | cut -c1-${#absent})"
gpio-add late 4 2=LAMP
await "and driven when it appears" 0010 gpio-levels late
gpio-remove late
set_led Late off
await "one that goes away is reported" false line late driven
set_led Late green
gpio-add late 4 2=LAMP
await "and driven again when it comes back" 0010 gpio-levels late

# Shutdown ---------------------------------------------------------------------------------------------------------------
ended state >"$run/statuses"
check "SIGTERM ends in order" 0 "$(cat "$run/statuses")"
check "lines are kept or darkened as configured" "0100 101" "$(gpio-levels front) $(gpio-levels rear | cut -c1-3)"

# Three processes --------------------------------------------------------------------------------------------------------
state_host; led_host; gpio_host
await "three processes drive the same lines" 111 sh -c 'gpio-levels rear | cut -c1-3'
await "and take all of them over" true line g driven
trace-on
killed led
check "without the LED agent every line stays as it is" "0100 111" "$(gpio-levels front) $(gpio-levels rear | cut -c1-3)"
check "held by the line agent" true "$(line g driven)"
led_host
set_led Rear off
await "its successor takes over" 001 sh -c 'gpio-levels rear | cut -c1-3'
writes=$(trace-off)
check "and changes no LED that was steady" "1 1" "$(gpio-levels front | cut -c2) $(written rear 2)"
check "not even for a moment" "" "$(echo "$writes" | trace-writes front 1 | tr -d '1 ')"
trace-on
killed state
check "without the state database every line stays as it is" "0100 001" "$(gpio-levels front) $(gpio-levels rear | cut -c1-3)"
state_host
await "its successor has lost nothing" 11 pins g shared
set_led Rear green
await "and settings reach the lines again" 111 sh -c 'gpio-levels rear | cut -c1-3'
writes=$(trace-off)
check "no steady LED blinked" "" "$(echo "$writes" | trace-writes front 1 | tr -d '1 ')$(echo "$writes" | trace-writes front 2 | tr -d '0 ')"
trace-on
killed gpio
gpio_host
await "a killed line agent's successor takes over the lines" true line g driven
writes=$(trace-off)
check "without an edge" "0 1 0 0" "$(written front 0) $(written front 1) $(written front 2) $(written front 3)"
gpio-keep 0
ended gpio led state >"$run/statuses"
check "all end in order" "0 0 0" "$(xargs <"$run/statuses")"
check "a chip that keeps no levels resets the lines to their pull" "0000 0000" "$(gpio-levels front) $(gpio-levels rear)"
[ "$failed" = 0 ] || tail -n 40 "$run"/*.log
finish
