#!/usr/bin/env bash
# Builds examples/policy-agent of SOURCE against the installed copy at PREFIX, in a folder under BUILDS, and lights an LED
# through both agents in one real pinlampd.
#   policyagent.sh PREFIX SOURCE BUILDS
set -euo pipefail
prefix=$1 source=$2 builds=$3
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

plugin=$(built policy-agent "$source/examples/policy-agent/.")/libpolicy-agent.so
start_led_agent --agent "$plugin:Policy"

pinlampctl load "$source/tests/install/facts.json" >/dev/null
await "a link that is up lights green" 1 pin g49
await "the LED of a failed fan is set to red" true sh -c 'pinlampctl get hardware/led/config/leds/Fan1 lightSetting --json | grep -q "\"red\": *true" && echo true'
await "a forced megabit mode is yellow" 1 pin y3
await "a link that is down has its fault colour" 1 pin r4
await "and only that" 0 pin g4
pinlampctl set interface/status/Ethernet4 up true
await "a link that comes up turns green" 1 pin g4
await "and loses its fault colour" 0 pin r4
pinlampctl del interface/status/Ethernet49%2F2
await "removing a lane darkens the LED of its port" 0 pin g49
stop
echo "the policy agent, built from an installed copy, lights LEDs through the LED agent"
