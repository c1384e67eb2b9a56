#!/bin/sh
# The packages under systemd; runs inside the virtual machine (see services.sh), which boots an image with an earlier version.
. /gpiovm/check.sh
pause=0.4  # commands are slow here, and those that wait keep the services from running
state=/var/lib/pinlamp/state.db
one=pinlampd.service
three="pinlamp-state.service pinlamp-led.service pinlamp-gpio.service"
deciders="pinlamp-facts.service pinlamp-policy.service"

value() { systemctl show -P "$@"; } # PROPERTY UNIT...
# The process of a unit, which has one. Asking systemctl is slow here.
process() { read -r pid <"/sys/fs/cgroup/system.slice/$1/cgroup.procs" && echo "$pid"; } 2>/dev/null
is_active() { systemctl is-active "$@" | sort -u | xargs; }
is_new() { # UNIT PROCESS: whether the unit runs again, in another process than this one
  [ "$(started "$@")" ] && systemctl is-active --quiet "$1" && echo yes
}
started() { # UNIT PROCESS: whether the unit has another process than this one, ready or not
  now=$(process "$1")
  case $now in '' | "$2") ;; *) echo yes ;; esac
}
enabled() { systemctl list-unit-files --no-legend --plain --state=enabled 'pinlamp*' | cut -d' ' -f1 | xargs; }
front() { gpio-levels front; }
driven() { pinlampctl get hardware/corvel/gpio/status/status_r driven; }
failed_units() { systemctl list-units --failed --plain --no-legend | cut -d' ' -f1 | xargs; }
logged() { journalctl -u "$1" -o cat -p "$2" | grep -c -- "$3"; } # UNIT PRIORITY TEXT
steady() { # TITLE LINE=LEVEL...: since trace-on every line of `front` was written the level that it should have, and no other
  check "$1, without an edge" "$2" "$(trace-off | trace-writes front | tr ' ' '\n' | grep -x '[0-3]=.' | sort -u | xargs)"
}
section() { echo "---- $1, $(cut -d. -f1 /proc/uptime) s after the start of the machine"; }
led() { pinlampctl --wait 20 led set "$@" >/dev/null; }
# install_current [FOLDER]: with the commands of FOLDER in the place of others.
install_current() {
  PATH=${1:+$1:}$PATH dpkg -i /root/current/*.deb >/tmp/install.log 2>&1 || check "the packages are installed" "" "$(cat /tmp/install.log)"
}

section "Boot with an empty state"
gpio-keep 1
await "the LEDs show the board file's defaults" 0111 front
check "no unit has failed" "" "$(failed_units)"
check "the first boot enables the services of one process" "pinlamp-board.service pinlampd.service" "$(enabled)"
check "the lines' device is the service's" "root:pinlamp 660" "$(stat -c '%U:%G %a' /dev/gpiochip0)"
check "the service runs as its own user" pinlamp "$(stat -c %U "/proc/$(process $one)")"
check "and shows what it does" "Serving, with the state database sqlite:$state" "$(value StatusText $one)"
pinlampctl set hardware/corvel/gpio/init/spare chip absent
led Spare green
await "a line that is not there is a warning in the journal" 1 logged $one 4..4 "no GPIO chip has the label or the name 'absent'"

section "Upgrade"
before=$(process $one)
check "the earlier version runs" "Pinlamp LED agent, earlier" "$(value Description $one)"
trace-on
install_current
await "an upgrade restarts the service" yes is_new $one "$before"
await "and the lines are driven again" true driven
check "by the new version" "Pinlamp LED agent" "$(value Description $one)"
check "which enables no other unit" "pinlamp-board.service pinlampd.service" "$(enabled)"
steady "LEDs stay as they were" "0=0 1=1 2=1 3=1"

section "Restart and faults"
trace-on
before=$(process $one)
systemctl restart $one
check "a restart is another process" yes "$(is_new $one "$before")"
before=$(process $one)
systemctl kill --signal=KILL $one
await "killed, it comes back" yes is_new $one "$before"
pause=0.05
for i in 1 2 3 4 5 6; do # more than systemd's limit of starts, within its ten seconds
  before=$(process $one)
  [ -z "$before" ] || kill -KILL "$before"
  await "killed, it is started again ($i)" yes started $one "$before"
done
pause=0.4
await "and runs in the end" active is_active $one
before=$(process $one)
kill -STOP "$before"
await "hanging, it is ended by the watchdog and comes back" yes is_new $one "$before"
await "and the lines are driven again" true driven
steady "LEDs stay as they were" "0=0 1=1 2=1 3=1"
led Fan1 green
await "and follow settings" 1011 front

section "A full disk"
big() { pinlampctl set hardware/led/config/leds/Spare ledAttribute "\"$(head -c 100000 /dev/zero | tr '\0' x)\"" 2>&1; }
fill() { cat /dev/zero >/var/lib/pinlamp/fill; } 2>/dev/null
systemctl stop $one
check "stopped, LEDs stay" 1011 "$(front)"
cp -a /var/lib/pinlamp /root/kept
mount -t tmpfs -o size=512k,mode=755 disk /var/lib/pinlamp && chown pinlamp:pinlamp /var/lib/pinlamp
cp -a /root/kept/. /var/lib/pinlamp/
systemctl start $one
fill
check "a setting is refused with the reason" full "$(big | grep -o full)"
check "and the service goes on" "active 1011" "$(is_active $one) $(front)"
before=$(process $one)
systemctl kill --signal=KILL $one
await "killed, it comes back" yes is_new $one "$before"
await "and drives the lines" true driven
rm /var/lib/pinlamp/fill
led Fan1 green red
await "with room again, settings are stored and shown" 1111 front
systemctl stop $one
umount /var/lib/pinlamp
systemctl start $one
led Fan1 green
await "with the disk's own file again" 1011 front

section "A damaged state file"
systemctl stop $one
rm -f $state-wal
head -c 5000 /dev/urandom >$state
cp $state /root/damaged
before=$(value NRestarts $one)
systemctl start --no-block $one
await "is an error in the journal" 1 logged $one 3 "is not a database"
await "and in the status" yes sh -c "systemctl show -P StatusText $one | grep -q 'The start is refused.*is not a database' && echo yes"
check "it is left as it is, and so are the LEDs" "same 1011" "$(cmp -s $state /root/damaged && echo same) $(front)"
mv $state $state.damaged
await "moved aside, the service starts by itself" active is_active $one
check "after one line in the journal, and no restart" "1 $before" "$(logged $one 3 "is not a database") $(value NRestarts $one)"
systemctl restart pinlamp-board.service
await "and the board file's defaults are there again" 0111 front

section "A process an agent"
trace-on
systemctl disable --quiet --now $one
systemctl enable --quiet --now $three
await "three processes drive the same lines" true driven
check "all of them" "active" "$(is_active $three)"
for unit in $three; do
  before=$(process $unit)
  systemctl kill --signal=KILL $unit
  await "$unit comes back" yes is_new $unit "$before"
done
led=$(process pinlamp-led.service)
systemctl restart pinlamp-state.service
await "the LED agent goes on while the state database restarts" "$led" process pinlamp-led.service
led=$(process pinlamp-led.service) gpio=$(process pinlamp-gpio.service)
# The enabling was checked with the first upgrade, and takes a minute.
mkdir /tmp/without && ln -s /bin/true /tmp/without/deb-systemd-helper
install_current /tmp/without
await "an upgrade restarts the LED agent" yes is_new pinlamp-led.service "$led"
await "and the line agent" yes is_new pinlamp-gpio.service "$gpio"
check "and not the one" "inactive" "$(is_active $one)"
await "and the lines are driven again" true driven
steady "LEDs stay as they were" "0=0 1=1 2=1 3=1"
systemctl start $deciders
check "the agents for facts and policy run beside them" active "$(is_active $three $deciders)"
await "with facts about the links, of which there are none" 0 pinlampctl get facts/source/links facts
echo '{"hardware/led/request/find": {"type": "Hardware::Led::LightRequest", "leds": ["Fan1"], "lightSetting": {"green": true}}}' |
  pinlampctl load - >/dev/null
await "a request is shown" 1011 front
pinlampctl del hardware/led/request/find
await "and withdrawn" 0111 front
check "the two sets replace each other" "" "$(systemctl start $one 2>&1)"
check "the one takes the place of the three, beside the other two" "inactive active" "$(is_active $three) $(is_active $deciders)"
check "without a failure" "" "$(systemctl start $three 2>&1)"
check "and they take its place" "inactive active" "$(is_active $one) $(is_active $three)"
systemctl disable --quiet --now $three $deciders
echo 'PINLAMPD_OPTIONS="--agent libpinlamp-policy.so"' >>/etc/default/pinlamp
systemctl enable --quiet --now $one
await "one process drives the lines" true driven
check "with the agent that /etc/default/pinlamp adds" 0 "$(pinlampctl status | grep -q libpinlamp-policy; echo $?)"

section "Removal"
led Fan1 green
await "LEDs follow settings" 1011 front
dpkg -r pinlamp >/dev/null 2>&1
check "nothing runs and the LEDs stay" "0 1011" "$(ls -l /proc/*/exe 2>/dev/null | grep -c pinlampd) $(front)"
check "the state is kept" yes "$([ -s $state ] && echo yes)"
check "the folder for sockets is gone" no "$([ -e /run/pinlamp ] && echo yes || echo no)"
dpkg -P pinlamp >/dev/null 2>&1
check "purged, state, settings and units are gone" "" \
  "$(ls -d /var/lib/pinlamp /etc/default/pinlamp /etc/systemd/system/*/pinlamp* /lib/systemd/system/pinlamp* 2>/dev/null)"
check "the user stays, without a login" "/usr/sbin/nologin" "$(getent passwd pinlamp | cut -d: -f7)"
check "no unit has failed" "" "$(failed_units)"
section "End"
[ "$failed" = 0 ] || { echo "The end of the journal:"; journalctl -b --no-pager -o short-monotonic | tail -n 120; }
finish
