#!/usr/bin/env bash
# Builds the one-task examples of SOURCE against the installed copy at PREFIX, in folders under BUILDS, and runs them
# together in one pinlampd. COMPILER: instead of the default one.
#   examples.sh PREFIX SOURCE BUILDS [COMPILER]
set -euo pipefail
prefix=$1 source=$2 builds=$3 compiler=${4:-}
if [ -n "$compiler" ] && ! command -v "$compiler" >/dev/null; then
  echo "SKIPPED: there is no $compiler"
  exit 77
fi
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

for example in light-an-led follow publish; do
  lines=$(cat "$source/examples/$example/"*.cpp | wc -l)
  [ "$lines" -lt 60 ] || fail "$example has $lines lines; the limit is 59"
  built "$example" "$source/examples/$example/." >/dev/null
done
start_led_agent --agent "$builds/light-an-led/build/liblight-an-led.so:LightAnLed" \
  --agent "$builds/follow/build/libfollow.so:Follow" --agent "$builds/publish/build/libpublish.so:Publish" \
  --trace Follow/1 --trace-file "$work/trace"

pinlampctl map set Status --green gpio17 --red gpio27 --ready >/dev/null
await "the LED is lit" 1 pin gpio17
await "in its colour only" 0 pin gpio27
await "the follower logs the setting" 1 grep -c 'Follow 1 .*: {green}' "$work/trace"
await "the published entity has its type" Publish::Uptime \
  sh -c 'pinlampctl get example/uptime --json | sed -n "s/.*\"type\": *\"\([^\"]*\)\".*/\1/p"'
await "and its attribute counts" 1 sh -c 'pinlampctl get example/uptime seconds | grep -c "^[1-9]"'
stop
echo "the examples work"
