#!/usr/bin/env bash
# Installs the build tree BUILD at PREFIX, and checks the installed headers: exactly those that
# platform/pinlamp.h includes, and platform/forward.h declares only classes that exist.
#   prefix.sh SOURCE BUILD PREFIX
set -euo pipefail
source=$1 build=$2 prefix=$3
fail() { echo "FAILED: $*" >&2; exit 1; }

rm -rf "$prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
cd "$prefix/include/pinlamp"

compile() { "${CXX:-g++}" -std=c++20 -Wall -Wextra -Wpedantic -Werror -I. "$@"; }
reached=$(printf '#include "platform/pinlamp.h"\n#include "platform/forward.h"\n#include "utils/lampwise.h"\n' |
  compile -x c++ - -MM -MF - -MT x | tr -d '\\' | tr ' ' '\n' | grep '\.h$' | sed 's|^\./||' | sort)
installed=$(find . -name '*.h' | sed 's|^\./||' | sort)
[ "$reached" = "$installed" ] ||
  fail "installed headers that platform/pinlamp.h does not reach (<), reached ones that are not installed (>):
$(diff <(echo "$installed") <(echo "$reached"))"

# Agents that were built before must run or be refused: see ZEL_ABI.
abi="$(sed -n 's/^#define ZEL_ABI "\(.*\)"/\1/p' platform/zel/core/export.h) $(
  echo "$installed" | xargs cat | sed 's|//.*||; s/[[:space:]]*$//; /^$/d' | sha256sum | cut -c1-16)"
[ "$abi" = "$(cat "$source/platform/abi")" ] ||
  fail "the installed headers have changed. If agents that were built before break, raise ZEL_ABI in
platform/zel/core/export.h. Then write into platform/abi: $abi"

# forward.h must not declare a class that is never defined.
awk '
  /^namespace/ { space = $2 }
  /^(class|struct) .*;/ && !template { sub(/;/, "", $2); print "static_assert(sizeof(" space "::" $2 ") > 0);" }
  { template = /^template/ }
' platform/forward.h |
  { printf '#include "platform/forward.h"\n#include "platform/pinlamp.h"\n'; cat; } | compile -x c++ - -fsyntax-only
