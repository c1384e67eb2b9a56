# Sourced by what starts the machine: loads gpio-sim and makes the chips, or prints why it can't and returns 1.
mount -t debugfs debug /sys/kernel/debug 2>/dev/null; mount -t tracefs trace /sys/kernel/tracing 2>/dev/null
if ! insmod /gpiovm/configfs.ko || ! mount -t configfs cfg /sys/kernel/config || ! insmod /gpiovm/gpio-sim-oot.ko; then
  echo "gpiovm: gpio-sim did not load"
  return 1
fi
mkdir -p /run/gpiosim
while IFS=: read -r label lines; do
  gpio-add "$label" "$lines" || { echo "gpiovm: no chip $label:$lines"; return 1; }
done </gpiovm/chips
