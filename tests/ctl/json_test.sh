#!/usr/bin/env bash
# The JSON of the commands: each noun has one shape in every command, read with jq.
#   json_test.sh BIN
set -uo pipefail
PATH=$1:$PATH
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
command -v jq >/dev/null || { echo "jq is missing: scripts/deps --tests" >&2; exit 1; }
run=$(mktemp -d)
export PINLAMP_SOCKET=$run/control.sock
trap 'kill $host 2>/dev/null; wait; rm -rf "$run"' EXIT
pinlampd --store memory: --agent libpinlamp.so --agent libpinlamp-policy.so & host=$!
pinlampctl --wait 10 load "$root/examples/switch-1u.json" >/dev/null

failed=0
# is TITLE EXPECTED FILTER COMMAND...: what the filter makes of the command's output.
is() {
  local title=$1 expected=$2 filter=$3 found
  shift 3
  found=$("$@" | jq -c "$filter") || found="exit $?: $found"
  [ "$found" = "$expected" ] && return
  printf 'FAILED: %s\n  expected %s\n  found    %s\n' "$title" "$expected" "$found"
  failed=1
}
led=hardware/led/config/leds/Fan1
keys='["mapped","name","path","pins","ready","setting","shows","stale"]'
pin='["colour","mapped","name","value"]'
is "led list: an array of LEDs" "$keys" '.[0]|keys' pinlampctl led list Fan1 --json
is "led set: the LEDs as they are now" "[[\"Fan1\",[\"red\"]]]" 'map([.name,.shows])' pinlampctl led set Fan1 red --json
is "led off, too" "$keys" '.[0]|keys' pinlampctl led off Fan1 --json
is "why: an LED and more" "$keys" "with_entries(select(.key|IN($keys|.[])))|keys" pinlampctl why Fan1 --json
is "the pins of an LED" "$pin" '.[0].pins[0]|keys' pinlampctl led list Fan1 --json
is "have the same keys in why" "$pin" ".pins[0]|with_entries(select(.key|IN($pin|.[])))|keys" pinlampctl why Fan1 --json
mapping='["name","path","pins","ready"]'
is "map list: an array of mappings" "[$mapping]" 'map(keys)|unique' pinlampctl map list --json
is "map set: the mapping as it is now" '[{"name":"New","path":"hardware/gpio/config/led/gpioLeds/New","pins":[{"colour":"red","name":"r9"}],"ready":true}]' . \
  pinlampctl map set New --red r9 --ready --json
is "map del: the mappings that are gone" '["New"]' 'map(.name)' pinlampctl map del New --json
request='["asks","lasts","leds","name","note","owner","path","priority","setting","since","skip","state"]'
for command in "identify Fan1" "request add mark Fan2 red" darken lamp-test "request list mark" "request del mark" "darken --stop" "lamp-test --stop" "identify --stop"; do
  is "$command: an array of requests" "[$request]" 'map(keys)|unique' pinlampctl $command --json
done
entity='["attributes","path","type"]'
is "get: an array of entities" "[$entity]" 'map(keys)|unique' pinlampctl get hardware/led --json
is "of one entity as well" "[\"$led\"]" 'map(.path)' pinlampctl get $led --json
is "set: the entity as it is now" "[$entity,\"night\"]" '.[0]|[keys,.attributes.theme]' pinlampctl set $led theme night --json
is "watch: an entity with op and time" '["attributes","op","path","time","type"]' keys pinlampctl watch $led --initial --for 0 --json
is "del: the entities that are gone" "[$entity]" 'map(keys)' pinlampctl del $led --json
is "load: what it did" '[58,true,1,0,0]' '[.entities,.written,(.added,.changed,.removed|length)]|.[0]-=89' \
  pinlampctl load "$root/examples/switch-1u.json" --json
is "check: findings" '[["note",["kind","path","text"]]]' 'map([.kind,keys])' pinlampctl check "$root/examples/switch-1u.json" --json
exit $failed
