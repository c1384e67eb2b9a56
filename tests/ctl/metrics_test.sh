#!/usr/bin/env bash
# The metrics of a host and of an agent's process, read with the parser of Prometheus' own Python client.
#   metrics_test.sh BIN
set -euo pipefail
PATH=$1:$PATH
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
/usr/bin/python3 -c 'import prometheus_client' || { echo "python3-prometheus-client is missing: scripts/deps --tests" >&2; exit 1; }
run=$(mktemp -d)
export PINLAMP_SOCKET=$run/control.sock
trap 'kill ${led:-} ${host:-} 2>/dev/null || true; wait; rm -rf "$run"' EXIT
pinlampd --store memory: & host=$!
pinlampctl --wait 10 load "$root/examples/switch-1u.json" "$root/examples/switch-1u-wiring.json" >/dev/null
pinlampd --store "unix:$PINLAMP_SOCKET" --socket "$run/led.sock" --agent libpinlamp.so --agent libpinlamp-gpio.so:PinlampSim & led=$!
pinlampctl --socket "$run/led.sock" --wait 10 status >/dev/null
pinlampctl set hardware/corvel/gpio/init/fan1_g line 9999
pinlampctl led set Beacon green --flash 0.01
pinlampctl watch hardware/corvel/gpio/config/beacon_front --count 10 >/dev/null
pinlampctl metrics >"$run/page"
pinlampctl metrics --file "$run/page.prom"
kill $led
wait $led || true
kill $host
wait $host || true
if pinlampctl metrics --file "$run/down.prom" 2>/dev/null; then echo "FAILED: metrics of no host"; exit 1; fi
[ "$(ls "$run"/*.prom*)" = "$run/down.prom"$'\n'"$run/page.prom" ] || { echo "FAILED: a file is left: $(ls "$run")"; exit 1; }
/usr/bin/python3 - "$run" <<'PYTHON'
import sys
from prometheus_client.parser import text_string_to_metric_families as parse

run = sys.argv[1]
def read(name):
    values, kinds = {}, {}
    for family in parse(open(f"{run}/{name}").read()):
        assert family.documentation, family.name
        kinds[family.name] = family.type
        for sample in family.samples:
            key = (sample.name, sample.labels.get("socket", "")[len(run) + 1:], sample.labels.get("le") or sample.labels.get("driven"))
            assert key not in values, key
            values[key] = sample.value
    return values, kinds

values, kinds = read("page")
assert kinds["pinlamp_wakeup_lateness_seconds"] == "histogram", kinds
assert kinds["pinlamp_deliveries"] == "counter", kinds
expected = {"pinlamp_leds": 58, "pinlamp_mappings": 58, "pinlamp_machines": 58, "pinlamp_pins": 141, "pinlamp_store_reached": 1}
for name, value in expected.items():
    assert values[name, "", None] == value, (name, values[name, "", None])
assert values["pinlamp_lines", "", "no"] == 1 and values["pinlamp_lines", "", "yes"] > 100
for socket in "control.sock", "led.sock":
    assert values["pinlamp_up", socket, None] == 1
    buckets = [value for key, value in values.items() if key[:2] == ("pinlamp_wakeup_lateness_seconds_bucket", socket)]
    assert len(buckets) > 10 and buckets == sorted(buckets), buckets
    assert buckets[-1] == values["pinlamp_wakeup_lateness_seconds_count", socket, None]
    assert values["pinlamp_wakeup_lateness_seconds_sum", socket, None] >= 0
# Ten values of the pin are nine or ten ticks.
assert values["pinlamp_wakeup_lateness_seconds_count", "led.sock", None] >= 9
assert values["pinlamp_wakeups_total", "led.sock", None] >= 9
assert values["pinlamp_deliveries_total", "led.sock", None] > 58
assert values["pinlamp_reconnects_total", "led.sock", None] == 0
assert read("page.prom")[1] == kinds
assert read("down.prom")[0] == {("pinlamp_up", "control.sock", None): 0}, read("down.prom")[0]
PYTHON
