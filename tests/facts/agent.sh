#!/usr/bin/env bash
# The facts agent in a real pinlampd, in a network namespace of the test's own.
#   agent.sh BIN
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
. "$here/namespace.sh"
. "$here/../daemon.sh"
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/nobus
start_facts() { start --store "sqlite:$work/state.db" --agent "libpinlamp-facts.so$1"; } # OPTIONS
# seen PATH PATTERN: until the entity's attributes match
seen() {
  grep -qm1 "$2" < <(pinlampctl watch "$1" --initial --for 20s 2>/dev/null) ||
    fail "$1: no '$2'; there is: $(pinlampctl get "$1" 2>&1)"
}

ip link add v0 type veth peer name v1
ip link set v0 up
start_facts ""
seen facts/link/v0 "up=true"
ip link set v1 up
seen facts/link/v0 "carrier=true"
seen facts/link/v0 "speed=10000"
ip link set v1 down
seen facts/link/v0 "carrier=false"
seen facts/source/units 'error="the system bus, connecting: No such file or directory"'
[ "$(grep -c 'units: the system bus' "$work/log")" = 1 ] || fail "an absent bus is logged once"
seen facts/source/links "working=true"
pinlampctl set facts/link/v0 up false 2>"$work/refused" && fail "others may write under facts"
ip link set v1 name port1
seen facts/link/port1 "up=false"
pinlampctl get facts/link/v1 2>/dev/null && fail "a link is still there under its old name"
ip link del v0
stop
ip link add v0 type veth peer name v1
start_facts "?sources=links&poll=0.1"
seen facts/link/v1 "up=false"
pinlampctl get facts/source | grep -q links || fail "a source has no status"
pinlampctl get facts/source | grep -q units && fail "a source that is not wanted has a status"
stop
for wrong in "poll=0|a number from 0.1 to 3600" "sources=link|links, sensors, units" "pol=1|there is no option 'pol'"; do
  status=0
  pinlampd --store memory: --agent "libpinlamp-facts.so?${wrong%|*}" 2>"$work/log" || status=$?
  [ $status = 1 ] && grep -q "${wrong#*|}" "$work/log" || fail "${wrong%|*} is refused with its reason ($status)"
done
echo "links of a network namespace are published as they change"
