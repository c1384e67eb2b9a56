# Sourced by what starts the machine.
# Reports the exit code of the command, and /out where it is wanted, and turns the machine off.
end() {
  stty -opost -echo </dev/ttyS0 # returns only when the console has been printed
  echo 0 >/proc/sys/kernel/printk
  stty raw -echo </dev/ttyS1; echo "exit $1" >/dev/ttyS1
  [ ! -e /gpiovm/want-out ] || { stty raw -echo </dev/ttyS2; tar c -C /out . >/dev/ttyS2; }
  sync; reboot -f; sleep 60
}
