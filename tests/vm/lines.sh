#!/usr/bin/env bash
# lines.sh LINESDRIVER: the line layer on real kernel chips.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
machine_or_skip
tree_with "$1" "$vm/lines-inside.sh"
"$vm/run.sh" -c sim8:8 "$tree" lines-inside.sh
