#!/usr/bin/env bash
# Board files on real hosts: the defaults at the first boot, a new version of a file, an image swap that loses the
# state, and two hosts that bring in the same files into a shared database at once.
#   board_test.sh BIN
set -euo pipefail
PATH=$1:$PATH
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
run=$(mktemp -d)
export PINLAMP_SOCKET=$run/control.sock
pids=()
trap 'kill "${pids[@]}" 2>/dev/null || true; wait; rm -rf "$run"' EXIT

failed=0
is() { # WHAT EXPECTED FOUND
  [ "$2" = "$3" ] || { printf 'FAILED: %s\n  expected %s\n  found    %s\n' "$@"; failed=1; }
}
board() { pinlampctl --wait 10 board "$@" --folder "$run/board.d"; }
shows() { pinlampctl led list "$@" | awk 'NR > 1 { print $1, $3 }' | paste -sd ' '; }
boot() {
  pinlampd --store "sqlite:$run/state.db" --agent libpinlamp.so & host=$!
  pids+=("$host")
  board apply >"$run/out"
}
halt() { kill "$host"; wait "$host"; }

# The second version of the file: another default, other pins for an LED that is lit, and an LED less.
led=hardware/led/config/leds map=hardware/gpio/config/led/gpioLeds
newer() {
  jq ".[\"$led/Fan1\", \"$led/PowerSupply1\"].lightSetting = {yellow: true} | del(.[\"$led/Fan2\"])
    | .[\"$map/PowerSupply2\"].gpioRedName = [\"psu2_new\"]" "$root/examples/switch-1u.json"
}

mkdir "$run/board.d"
cp "$root/examples/switch-1u.json" "$run/board.d/10-switch.json"
boot
is "the first boot lights the defaults" "Fan1 green Fan2 green PowerSupply1 green PowerSupply2 red" "$(shows 'Fan?' 'Power*')"
pinlampctl led set Fan1 red
halt
boot
is "nothing is new at the second" "10-switch.json: unchanged" "$(cat "$run/out")"
is "and what people set stays" "Fan1 red" "$(shows Fan1)"
newer >"$run/board.d/10-switch.json"
board apply >"$run/out"
is "a new version changes and removes its rows, and keeps people's" \
  "10-switch.json: changed; 2 changed, 1 removed, 1 kept as people set them" "$(cat "$run/out")"
is "which shows" "Fan1 red PowerSupply1 yellow PowerSupply2 red" "$(shows Fan1 'Power*')"
is "on the new pins" 1 "$(pinlampctl get hardware/corvel/gpio/config/psu2_new value)"
is "status tells what people changed" "changed $led/Fan1" "$(board status | awk '/^  / { print $1, $2 }')"
halt
rm "$run/state.db"
boot
is "an empty state is filled from the new version" "Fan1 yellow PowerSupply1 yellow PowerSupply2 red" "$(shows Fan1 'Power*')"
halt

rm "$run/state.db"
pinlampctl --store "sqlite:$run/state.db" load "$root/examples/switch-1u.json" >"$run/out"
is "load makes a state file" "147 entities loaded" "$(sed 's/.*: //' "$run/out")"
pinlampd --store "sqlite:$run/state.db" --agent libpinlamp.so & host=$!
pids+=("$host")
pinlampctl --wait 10 status >/dev/null
is "which the first start shows" "Fan1 green" "$(shows Fan1)"
halt
rm "$run/state.db"
is "and board apply as well" "10-switch.json: new; 146 added" \
  "$(pinlampctl --store "sqlite:$run/state.db" board apply --folder "$run/board.d")"

# A shared database.
(exec -a redis-server redis-check-rdb --port 0 --unixsocket "$run/redis.sock" --dir "$run" --appendonly yes --save "" >/dev/null) &
redis=$!
pids+=("$redis")
for _ in $(seq 100); do [ -S "$run/redis.sock" ] && break; sleep 0.05; done
results=()
for name in a b; do
  pinlampd --store "redis-unix:$run/redis.sock" --socket "$run/$name.sock" 2>"$run/$name.log" &
  pids+=($!)
done
for name in a b; do
  (pinlampctl --socket "$run/$name.sock" --wait 20 board apply --folder "$run/board.d" >"$run/$name.out" 2>&1) &
  results+=($!)
done
for job in "${results[@]}"; do wait "$job" || { echo "FAILED: one of two hosts: $(cat "$run"/?.out)"; failed=1; }; done
is "two hosts bring in the same files at once" "10-switch.json: unchanged" "$(pinlampctl --store "redis-unix:$run/redis.sock" board apply --folder "$run/board.d")"
is "and the rows are there once" 0 "$(pinlampctl --store "redis-unix:$run/redis.sock" board status --folder "$run/board.d" | grep -c '^  ')"
exit $failed
