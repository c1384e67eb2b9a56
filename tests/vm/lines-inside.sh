#!/bin/sh
# The line layer on real kernel chips; runs inside the virtual machine (see lines.sh).
. /gpiovm/check.sh
mkfifo /tmp/in /tmp/out

# One linesdriver runs in the background: start it, send it a command, read its answer.
start() { # ARGUMENTS OF linesdriver
  linesdriver "$@" </tmp/in >/tmp/out 2>&1 & driver=$!
  exec 9>/tmp/in 8</tmp/out
  read -r answer <&8
}
send() { echo "$@" >&9; read -r answer <&8; }
ended() { exec 9>&- 8<&-; wait $driver 2>/dev/null; }
killed() { kill -9 $driver; ended; }
end() { echo end >&9; ended; }
refusal() { linesdriver "$@" </dev/null; }

start lamps 10110010 sim8 0 1 2 3 4 5 6 7
check "lines show their first values" "ok 10110010" "$answer $(gpio-levels sim8)"
send set 01001101
check "a set reaches every line" "ok 01001101" "$answer $(gpio-levels sim8)"
trace-on
send set 01010101; send set 01010101; send set 01100101
writes=$(trace-off)
check "a line that stays lit has no edge" "1 1" "$(echo "$writes" | trace-writes sim8 1)"
check "two sets that change something are two writes of all lines" \
  "0=0 1=1 2=0 3=1 4=0 5=1 6=0 7=1 0=0 1=1 2=1 3=0 4=0 5=1 6=0 7=1" "$(echo "$writes" | trace-writes sim8)"
check "a busy line names its consumer" "line 2 of gpiochip0 'sim8' is busy: held by 'lamps'" "$(refusal other 1 gpiochip0 2)"
check "and is left alone" 01100101 "$(gpio-levels sim8)"
end

gpio-keep 1
start lamps 0000 sim8 7 6:low 1 0:low
check "active-low lines are dark when high, whatever their order" "ok 10" "$answer $(gpio-levels sim8 | cut -c1-2)"
send set 1111
check "and lit when low" "01 01" "$(gpio-levels sim8 | cut -c1-2) $(gpio-levels sim8 | cut -c7-8)"
end

start lamps 1111 sim8 0 1:off 2:low 3:low:off
send release
check "released lines are kept or darkened as configured" "ok 1001" "$answer $(gpio-levels sim8 | cut -c1-4)"
end

start lamps 1010 sim8 0 1 2 3
trace-on
killed
check "a killed process leaves the levels to the chip, which keeps them" 1010 "$(gpio-levels sim8 | cut -c1-4)"
start lamps 1010 sim8 0 1 2 3
writes=$(trace-off)
check "its successor takes over the lines without an edge" "0=1 1=0 2=1 3=0" "$(echo "$writes" | trace-writes sim8)"
gpio-keep 0
killed
check "or resets them to their pull" 0000 "$(gpio-levels sim8 | cut -c1-4)"

check "a missing chip" "no GPIO chip has the label or the name 'late' (there are gpiochip0 'sim8')" "$(refusal lamps 1 late LAMP)"
gpio-add late 4 2=LAMP 3=TWICE
start lamps 1 late LAMP
check "is found by its label, and its line by name, once it appears" "ok 0010" "$answer $(gpio-levels late)"
gpio-remove late
send set 0
check "a chip removed under a request" "line 2 of gpiochip1 'late' cannot be set: No such device" "$answer"
end
gpio-add late 4 2=LAMP 3=TWICE
start lamps 1 late LAMP
check "is driven again when it comes back" "ok 0010" "$answer $(gpio-levels late)"
end

gpio-add twin 5 label=late 4=TWICE
first=$(cat /run/gpiosim/late.chip) second=$(cat /run/gpiosim/twin.chip)
check "two chips of one label are refused, naming both" \
  "the GPIO chip 'late' may be $first 'late' or $second 'late'; give the name of the right one" "$(refusal lamps 1 late 0)"
check "and so are two lines of one name" \
  "the line 'TWICE' may be line 3 'TWICE' of $first 'late' or line 4 'TWICE' of $second 'late'; give the chip and the offset of the right one" \
  "$(refusal lamps 1 '' TWICE)"
finish
