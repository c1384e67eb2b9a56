#!/usr/bin/env bash
# Links of network namespaces of the test's own light the ports of examples/switch-1u.json: they go up and down, traffic
# flows, the process of the facts agent is killed. Then the facts of fans, supplies and units, written by hand, light theirs.
#   links.sh BIN SOURCE
set -uo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
. "$here/namespace.sh"
source=$2
guest=$here/../vm/guest/gpiovm
. "$guest/check.sh"
. "$guest/hosts.sh"
trap 'kill -KILL $(jobs -p) 2>/dev/null; wait 2>/dev/null; rm -rf "$run"' EXIT
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$run/nobus

facts_host() { host facts --store "unix:$PINLAMP_SOCKET" --agent 'libpinlamp-facts.so?sources=links&poll=0.2'; }
# What the LED should show: its colours, how it flashes, the priority.
shows() { # LED
  pinlampctl get "hardware/led/config/leds/$1" lightSetting | jq -r '[(to_entries[] | select(.value == true) | .key),
    (select(.flashInterval > 0) | "flash \(.flashInterval)"), .priority] | join(" ")'
}
rule() { pinlampctl set "hardware/led/rule/$1" "$2" "$3"; }            # NAME ATTRIBUTE VALUE
port_up="green 100" port_down=130 port_gone="yellow flash 1 150"

# The other ends of the cables are in a namespace of their own.
unshare -n sleep 600 &
far_pid=$!
far() { nsenter -t $far_pid -n "$@"; }
await "there is a second namespace" yes sh -c "[ \$(readlink /proc/$far_pid/ns/net) != \$(readlink /proc/self/ns/net) ] && echo yes"
for port in 1 2 3; do
  # The kernel delays the loss of a carrier by up to a second where both ends have one number.
  ip link add swp$port index 10$port type veth peer name far$port netns $far_pid
  # Without addresses, the kernel sends nothing by itself.
  ip link set swp$port addrgenmode none up
  far ip link set far$port addrgenmode none
done

host state --store "sqlite:$run/state.db" --agent libpinlamp.so --agent libpinlamp-policy.so
check "the example is right" 0 "$(pinlampctl check "$source/examples/switch-1u.json" >/dev/null; echo $?)"
pinlampctl load "$source/examples/switch-1u.json" >/dev/null
facts_host

# Links ----------------------------------------------------------------------------------------------------------------
await "a link without a carrier is dark" "$port_down" shows Ethernet1%2F1
far ip link set far1 up
await "a link that comes up is green, after a second yellow: a veth has 10 Gbit/s" \
  "yellow 120" shows Ethernet1%2F1
rule port-slow value 10000
await "and green where that is its full speed" "$port_up" shows Ethernet1%2F1
await "on its pin" 1 pin port01_g

pinlampctl watch hardware/corvel/gpio/config/port01_g --initial --for 60s >"$run/watched" & watcher=$!
changes() { grep -c 'value=' "$run/watched"; }
await "a client watches the pin" 1 changes
lines=1
for to in down up down up down up down up down up down up down up down up down up down up; do
  echo "$EPOCHREALTIME" >>"$run/asked"
  far ip link set far1 $to
  lines=$((lines + 1))
  await "the pin follows link $to ($lines)" $lines changes >"$run/await"
  grep -q '^ok' "$run/await" || { cat "$run/await"; failed=$((failed + 1)); break; }
done
kill $watcher
check "each change shows as one of the pin" "$(yes '0 1' | head -10 | xargs)" "$(sed -n '2,$s/.*value=//p' "$run/watched" | xargs)"
sed 1d "$run/watched" | cut -d' ' -f1 | TZ=UTC date -f - +%s.%6N | paste "$run/asked" - |
  awk '{ printf "%.1f\n", ($2 - $1) * 1000 }' | sort -n >"$run/delays"
median=$(sed -n 10p "$run/delays")
echo "from the request to the pin at a client: median $median ms, most $(tail -n1 "$run/delays") ms;" \
  "$(awk '$1 <= 50' "$run/delays" | wc -l) of $(wc -l <"$run/delays") within 50 ms"
check "in good time, on a busy machine too" yes "$(awk -v m="$median" 'BEGIN { print (m > 0 && m < 1000) ? "yes" : m }')"

# Traffic --------------------------------------------------------------------------------------------------------------
far ip link set far2 up
ip addr add 10.77.0.1/24 dev swp2
far ip addr add 10.77.0.2/24 dev far2
await "an idle link is steady" "$port_up" shows Ethernet2%2F1
mkfifo "$run/pause"
(until read -rt 0.02; do printf '%01400d' 0 >/dev/udp/10.77.0.2/9; done <>"$run/pause" 2>/dev/null) & sender=$!
await "one with traffic flashes" "green flash 0.25 110" shows Ethernet2%2F1
check "on its pin" 3 "$(pinlampctl watch hardware/corvel/gpio/config/port02_g --count 3 --for 20s | wc -l)"
kill $sender
await "until the traffic ends" "$port_up" shows Ethernet2%2F1

# Facts that go --------------------------------------------------------------------------------------------------------
rule port-gone for 0
ip link del swp3
await "a port whose interface is gone flashes yellow" "$port_gone" shows Ethernet3%2F1
check "and no other that has one" "$port_up" "$(shows Ethernet1%2F1)"
killed facts
await "facts of a process that was killed are gone" "$port_gone" shows Ethernet1%2F1
check "all of them" "" "$(pinlampctl get facts --json | grep -o '"path": "facts/[^"]*"')"
facts_host
await "until the next one has published them" "$port_up" shows Ethernet1%2F1
ended facts >/dev/null
await "the same where it was ended" "$port_gone" shows Ethernet1%2F1

# What this machine has not --------------------------------------------------------------------------------------------
check "no rule of the example is refused, or without its LED" "" "$(pinlampctl get hardware/led/ruleStatus --json |
  jq -r '.[] | select((.attributes.note // "") != "") | .path + ": " + .attributes.note')"
while IFS='|' read -r fact type attributes led expected; do
  echo "{\"facts/$fact\": {\"type\": \"Facts::$type\", $attributes}}" | pinlampctl load - >/dev/null
  await "$fact $attributes: $led" "$expected" shows "$led"
done <<'T'
link/swp5|Link|"carrier": true, "speed": 25000|Ethernet5%2F1|green 100
link/swp51|Link|"carrier": true, "speed": 100000|Ethernet51%2F1|green 100
link/swp51|Link|"carrier": true, "speed": 40000|Ethernet51%2F1|orange 121
fan/emc2305-i2c-3-2e.fan2|Sensor|"value": 5400|Fan2|green 100
fan/emc2305-i2c-3-2e.fan2|Sensor|"value": 900, "alarm": true|Fan2|red 150
fan/emc2305-i2c-3-2e.fan2|Sensor|"fault": true|Fan2|red flash 0.5 151
voltage/pmbus-i2c-4-58.in1|Sensor|"value": 229.5|PowerSupply1|green 100
temperature/pmbus-i2c-4-58.temp2|Sensor|"value": 95, "alarm": true|PowerSupply1|yellow 150
voltage/pmbus-i2c-4-58.in2|Sensor|"value": 3, "alarm": true|PowerSupply1|red 152
voltage/pmbus-i2c-4-59.in1|Sensor|"value": 229.5|PowerSupply2|green 100
fan/pmbus-i2c-4-59.fan1|Sensor|"alarm": true|PowerSupply2|yellow flash 0.5 151
temperature/pmbus-i2c-4-58.temp2|Sensor|"value": 95, "alarm": false|Status|yellow flash 1 152
source/links|SourceStatus|"working": true|Status|green 100
unit/sshd.service|Unit|"activeState": "failed"|Status|yellow 150
temperature/lm75-i2c-0-48.temp1|Sensor|"alarm": true|Status|red 153
T
ended state >"$run/statuses"
check "the host ends in order" 0 "$(cat "$run/statuses")"
[ "$failed" = 0 ] || tail -n 20 "$run"/*.log
finish
