#!/bin/sh
# A temperature crosses its limit, a cable is pulled, and lines of a GPIO chip follow; runs inside the virtual machine (see
# facts.sh). The sensor is an lm75 on a bus without hardware (i2c-stub); its registers are set as the chip would.
. /gpiovm/check.sh
. /gpiovm/hosts.sh

modprobe i2c-stub chip_addr=0x48 && modprobe i2c-dev && modprobe lm75 || exit 125
bus=$(grep -l 'SMBus stub' /sys/bus/i2c/devices/i2c-*/name | sed 's|.*/i2c-\([0-9]*\)/name|\1|')
# A register of degrees has its high byte first; SMBus words have their low byte first.
degrees() { i2cset -f -y "$bus" 0x48 "$1" "$2" w; } # REGISTER WORD
degrees 0 0x0019
degrees 3 0x0050
echo lm75 0x48 >"/sys/bus/i2c/devices/i2c-$bus/new_device"
sensor=facts/temperature/lm75-i2c-$bus-48.temp1

cable in
ip link set eth0 up

cat >"$run/board.json" <<J
{
  "hardware/corvel/gpio/init": {"type": "Zel::Dir"},
  "hardware/corvel/gpio/init/fault": {"type": "Hardware::Gpio::GpioLineInit", "chip": "front", "line": "0"},
  "hardware/corvel/gpio/init/link_g": {"type": "Hardware::Gpio::GpioLineInit", "chip": "front", "line": "1"},
  "hardware/corvel/gpio/init/link_y": {"type": "Hardware::Gpio::GpioLineInit", "chip": "front", "line": "2"},
  "hardware/gpio/config/led": {"type": "Hardware::Gpio::GpioLedSystemConfigDir"},
  "hardware/gpio/config/led/gpioLeds/Fault": {"type": "Hardware::Gpio::GpioLedConfig", "gpioRedName": ["fault"], "ready": true},
  "hardware/gpio/config/led/gpioLeds/Ethernet0": {"type": "Hardware::Gpio::GpioLedConfig", "gpioGreenName": ["link_g"],
    "gpioYellowName": ["link_y"], "ready": true},
  "hardware/led/config": {"type": "Hardware::Led::LedSystemConfigDir"},
  "hardware/led/config/leds/Fault": {"type": "Hardware::Led::LedConfig"},
  "hardware/led/config/leds/Ethernet0": {"type": "Hardware::Led::LedConfig"},
  "hardware/led/rule/hot": {"type": "Hardware::Led::LightRule", "fact": "facts/temperature/*", "attribute": "alarm",
    "comparison": "is", "value": true, "led": "Fault", "lightSetting": {"red": true}},
  "hardware/led/rule/broken": {"type": "Hardware::Led::LightRule", "fact": "$sensor", "comparison": "missing", "led": "Fault",
    "lightSetting": {"red": true}},
  "hardware/led/rule/link": {"type": "Hardware::Led::LightRule", "fact": "facts/link/eth*", "attribute": "carrier",
    "comparison": "is", "value": true, "led": "Ethernet*", "lightSetting": {"green": true}},
  "hardware/led/rule/no-link": {"type": "Hardware::Led::LightRule", "fact": "facts/link/eth*", "attribute": "carrier",
    "comparison": "is", "value": false, "led": "Ethernet*", "lightSetting": {"yellow": true}}
}
J

host state --store "sqlite:$run/state.db" --agent libpinlamp.so --agent libpinlamp-gpio.so --agent libpinlamp-policy.so \
  --agent 'libpinlamp-facts.so?sources=links,sensors&poll=0.1'
pinlampctl load "$run/board.json" >/dev/null
await "a link with a cable is green, a cool machine has no fault" 0100 gpio-levels front
fact() { pinlampctl get "$@"; }
check "the sensor is the chip's" "25.0 80.0 false" "$(fact "$sensor" value) $(fact "$sensor" high) $(fact "$sensor" alarm)"
cable out
await "a pulled cable shows" 0010 gpio-levels front
cable in
await "and a cable that is plugged in" 0100 gpio-levels front
degrees 0 0x8050
await "above the limit the fault shows" 1100 gpio-levels front
check "by the fact" "80.5 true" "$(fact "$sensor" value) $(fact "$sensor" alarm)"
degrees 0 0x0019
await "and not below it" 0100 gpio-levels front
echo 0x48 >"/sys/bus/i2c/devices/i2c-$bus/delete_device"
await "a sensor that is gone is a fault" 1100 gpio-levels front
echo lm75 0x48 >"/sys/bus/i2c/devices/i2c-$bus/new_device"
await "until it is back" 0100 gpio-levels front
ip link set eth0 down
await "a link that is set down has no carrier" 0010 gpio-levels front
killed state
host state --store "sqlite:$run/state.db" --agent libpinlamp.so --agent libpinlamp-gpio.so --agent libpinlamp-policy.so \
  --agent 'libpinlamp-facts.so?sources=links,sensors&poll=0.1'
await "after a kill the next host shows it again" 0010 gpio-levels front
ended state >"$run/statuses"
check "SIGTERM ends in order" 0 "$(cat "$run/statuses")"
[ "$failed" = 0 ] || { pinlampctl get facts; tail -n 40 "$run"/*.log; }
finish
