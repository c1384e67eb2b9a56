#!/usr/bin/env bash
# facts.sh PROGRAM...: the state of a real kernel's network card and temperature sensor shows on real GPIO lines.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
machine_or_skip
tree_with "$@" "$vm/facts-inside.sh"
"$vm/run.sh" -t 400 -n -c front:4 "$tree" facts-inside.sh
