# Sourced after check.sh by the scripts that run pinlampd. Hosts have names: $run/NAME.sock is the control socket of one,
# $run/NAME.log its log. pinlampctl talks to the host `state`, which keeps the state database.
run=$(mktemp -d)
PINLAMP_SOCKET=$run/state.sock
export PINLAMP_SOCKET

host() { # NAME ARGUMENTS...
  host=$1
  shift
  pinlampd --socket "$run/$host.sock" "$@" 2>>"$run/$host.log" &
  eval "${host}_pid=$!"
  tries=400
  until pinlampctl --socket "$run/$host.sock" status >/dev/null 2>&1; do
    [ $((tries -= 1)) -gt 0 ] || { echo "FAIL host $host did not start:"; cat "$run/$host.log"; exit 1; }
    sleep 0.05
  done
}

# In three processes, so that a fault of one leaves the others running.
state_host() { host state --store "sqlite:$run/state.db"; }
led_host() { host led --store "unix:$PINLAMP_SOCKET" --agent libpinlamp.so; }
gpio_host() { host gpio --store "unix:$PINLAMP_SOCKET" --agent "libpinlamp-gpio.so${1:-}"; } # [:NAMESPACE]

pid_of() { eval "echo \$${1}_pid"; }
killed() { # NAME...
  for host; do kill -KILL "$(pid_of "$host")"; wait "$(pid_of "$host")" 2>/dev/null; done
}
ended() { # NAME...: in order; prints the exit statuses
  for host; do kill -TERM "$(pid_of "$host")"; wait "$(pid_of "$host")"; echo $?; done
}

pin() { pinlampctl get "hardware/corvel/gpio/config/$1" value; }
pins() { for pin; do pin "$pin"; done | tr -d '\n'; }
line() { pinlampctl get "hardware/corvel/gpio/status/$1" "$2"; } # PIN driven|place|error
wire() { # PIN CHIP LINE [ATTRIBUTE VALUE]...
  at=hardware/corvel/gpio/init/$1
  pinlampctl set "$at" chip "$2" --type Hardware::Gpio::GpioLineInit
  pinlampctl set "$at" line "\"$3\""
  shift 3
  while [ $# -gt 0 ]; do pinlampctl set "$at" "$1" "$2"; shift 2; done
}
