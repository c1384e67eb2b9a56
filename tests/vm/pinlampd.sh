#!/usr/bin/env bash
# pinlampd.sh PROGRAM...: the real host with both agents on real kernel chips, alone and in three processes.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
machine_or_skip
tree_with "$@" "$vm/pinlampd-inside.sh"
"$vm/run.sh" -t 400 -c front:4 -c rear:4 "$tree" pinlampd-inside.sh
