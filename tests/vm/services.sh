#!/usr/bin/env bash
# services.sh: the packages under systemd, on real kernel chips, from the first boot of an image to their removal.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
. "$vm/system.sh"
. "$vm/guest/gpiovm/check.sh"
machine_or_skip
system_or_skip
new_system

for unit in "$system"/lib/systemd/system/pinlamp*.service; do
  unit=$(basename "$unit")
  check "$unit has an exposure under 1.5" "" \
    "$(inside systemd-analyze security --offline=yes --threshold=15 --no-pager "$unit" 2>&1 >/dev/null || echo more)"
  check "$unit has no faults" "" "$(inside systemd-analyze verify --man=no "$unit" 2>&1)"
done
[ "$failed" = 0 ] || finish

cp "$vm/services-inside.sh" "$system/usr/bin/"
"$vm/run.sh" -r -s 2 -t 1500 -c front:4 -c rear:2 "$system" services-inside.sh
