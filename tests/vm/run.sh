#!/usr/bin/env bash
# run.sh - runs a command in a throw-away virtual machine that has real kernel GPIO chips: Debian's own kernel in qemu,
# with the kernel's gpio-sim driver built from the source of that same kernel.
#
#   run.sh [OPTIONS] TREE COMMAND [ARG...]
#     TREE      folder that is copied to / of the machine, with the shared libraries that its programs need
#     COMMAND   runs inside as root; its exit code becomes ours
#   run.sh -r [OPTIONS] TREE COMMAND [ARG...]
#     TREE      a whole Debian system (root.sh makes one), whose systemd is the first process of the machine; the chips are
#               there before other services start, COMMAND runs as a service after them
#   options
#     -t SECS        time-out (default 120)
#     -a tcg|kvm     accelerator (default tcg; that /dev/kvm opens does not prove that it works)
#     -c LABEL:N     add a GPIO chip of N lines (repeatable; default sim8:8)
#     -e NAME=VALUE  environment of COMMAND (repeatable)
#     -o DIR         afterwards bring the machine's /out back into DIR
#     -n             add a network card, eth0, whose cable the guest's `cable in` and `cable out` plug and pull
#     -s CPUS  -m MiB  (default 1, 512)
#     -v             kernel messages on the console
#   run.sh prepare   only fills the cache
#   run.sh check     checks whether a run is possible, installing nothing; exit 0 if it is
#   GPIOVM_CACHE     the cache folder (default: cache/ beside this script)
#
# The first run fetches about 210 MB of Debian packages and needs root for it, later ones need neither.
# Exit: COMMAND's code; 124 time-out; 125 the machine ended without a result; 2 usage; 3 the cache cannot be filled.
# guest/bin has the commands available to COMMAND.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
cache=${GPIOVM_CACHE:-$here/cache}

die() { echo "run.sh: $2" >&2; exit "$1"; }

# ---- the cache: kernel, gpio-sim.ko and busybox

packages=(qemu-system-x86 seabios busybox-static cpio xz-utils make gcc)
# Of Debian's kernel, for modprobe, with those that they depend on.
modules=(i2c-dev i2c-stub lm75 e1000)

missing_packages() { # PACKAGE...
  local p
  for p in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$p" 2>/dev/null)" = installed ] || echo "$p"
  done
}

ready() { [ "$(tail -n1 "$cache/ready" 2>/dev/null)" = "${modules[*]}" ] && command -v qemu-system-x86_64 >/dev/null && command -v cpio >/dev/null; }

install_packages() { # PACKAGE...
  local need; mapfile -t need < <(missing_packages "$@")
  [ ${#need[@]} = 0 ] && return
  [ "$(id -u)" = 0 ] || { echo "not installed: ${need[*]}; run this once as root"; return 1; }
  apt-get install -y --no-install-recommends "${need[@]}"
}

# Uncompressed, because the emulated processor is slow at unpacking.
unpack_kernel() { # VMLINUZ TO
  local at
  at=$(LC_ALL=C grep -obUaP '\xfd7zXZ\x00' "$1" | head -n1 | cut -d: -f1)
  [ -z "$at" ] || tail -c "+$((at + 1))" "$1" | xz -dc --single-stream >"$2" 2>/dev/null || true
  if [ "$(head -c4 "$2" 2>/dev/null | tail -c3)" != ELF ] || [ "$(wc -c <"$2")" -lt 20000000 ]; then cp "$1" "$2"; fi
}

# gpio-sim and irq_sim, which Debian does not build, as one module in the current folder.
build_module() { # KERNEL-VERSION SOURCE-PACKAGE
  dpkg-deb --fsys-tarfile "$2" | tar xO --wildcards './usr/src/linux-source-*.tar.xz' |
    tar xJ --strip-components=1 --wildcards '*/drivers/gpio/gpio-sim.c' '*/drivers/gpio/gpiolib.h' '*/kernel/irq/irq_sim.c'
  cp drivers/gpio/gpio-sim.c drivers/gpio/gpiolib.h kernel/irq/irq_sim.c .
  cat >oot-compat.h <<'H'
/* irq_to_desc() is not exported to modules; irq_get_irq_data() is. */
#include <linux/irq.h>
#include <linux/irqdesc.h>
#define irq_to_desc(n) irq_data_to_desc(irq_get_irq_data(n))
H
  cat >Makefile <<'H'
obj-m := gpio-sim-oot.o
gpio-sim-oot-y := gpio-sim.o irq_sim.o
CFLAGS_irq_sim.o := -include $(src)/oot-compat.h
H
  # gpio-sim resets a released line to its pull; most register chips keep the level.
  # keep_on_release=1 selects that.
  sed -i -e '/^static void gpio_sim_free(/i static bool keep_on_release;\nmodule_param(keep_on_release, bool, 0644);\n' \
    -e '/^static void gpio_sim_free(/,/^}/ s/^\tmutex_lock(&chip->lock);/\tif (keep_on_release)\n\t\treturn;\n&/' gpio-sim.c
  grep -q 'if (keep_on_release)' gpio-sim.c
  make -C "/usr/src/linux-headers-$1" M="$PWD" modules
  strip --strip-debug gpio-sim-oot.ko
}

# -R 0:0 gives all to root; a whole system has owners of its own.
pack() { (cd "$1" && find . -mindepth 1 | LC_ALL=C sort | cpio -o -H newc ${2--R 0:0} --quiet); }

# Copies modules of a kernel, and those that they depend on, to a folder.
copy_modules() { # FROM TO MODULE...
  local from=$1 to=$2 name file
  shift 2
  for name; do
    file=$(find "$from" -name "${name//[-_]/[-_]}.ko")
    [ -n "$file" ] || { echo "the kernel has no module $name"; return 1; }
    [ ! -e "$to/${file##*/}" ] || continue
    cp "$file" "$to"
    copy_modules "$from" "$to" $(tr '\0' '\n' <"$file" | sed -n 's/^depends=//p' | tr , ' ')
  done
}

base_tree() { # FOLDER KERNEL-VERSION KERNEL-IMAGE
  local base=$1 applet
  mkdir -p "$base"/{bin,sbin,usr/bin,usr/sbin,lib,lib64,proc,sys,dev,run,tmp,etc,root,out,gpiovm}
  cp "$(command -v busybox)" "$base/bin/busybox"
  for applet in $(busybox --list); do [ "$applet" = busybox ] || ln -s busybox "$base/bin/$applet"; done
  cp "$3/lib/modules/$2/kernel/fs/configfs/configfs.ko" gpio-sim-oot.ko "$base/gpiovm/"
  mkdir -p "$base/lib/modules/$2"
  copy_modules "$3/lib/modules/$2" "$base/lib/modules/$2" "${modules[@]}"
  busybox depmod -b "$base" "$2"
  printf 'root:x:0:0:root:/root:/bin/sh\n' >"$base/etc/passwd"
  printf 'root:x:0:\n' >"$base/etc/group"
}

fill_cache() {
  export DEBIAN_FRONTEND=noninteractive
  local image kernel version work=$cache/work
  [ "$(id -u)" != 0 ] || apt-get update || true
  image=$(apt-cache depends linux-image-amd64 | sed -n 's/^ *Depends: \(linux-image-[0-9].*\)$/\1/p' | head -n1)
  [ -n "$image" ] || { echo "apt knows no linux-image-amd64: this needs Debian on amd64"; return 1; }
  kernel=${image#linux-image-}
  version=$(apt-cache policy "$image" | sed -n 's/^ *Candidate: //p')
  install_packages "${packages[@]}" "linux-headers-$kernel"
  rm -rf "$work"; mkdir -p "$work"; cd "$work"
  apt-get download "$image=$version" "linux-source-$(echo "$kernel" | cut -d. -f1,2)=$version"
  dpkg-deb -x linux-image-*.deb image
  unpack_kernel "image/boot/vmlinuz-$kernel" "$cache/kernel"
  build_module "$kernel" linux-source-*.deb
  base_tree base "$kernel" image
  pack base >"$cache/base.cpio"
  cd /; rm -rf "$work"
  printf '%s\n' "$image $version" "${modules[*]}" >"$cache/ready"
}

prepare() {
  ready && return
  mkdir -p "$cache"
  exec 8>"$cache/.lock"; flock 8
  if ! ready; then
    rm -f "$cache/ready"
    # A subshell, because -e is ignored in a function whose status is tested.
    set +e; (set -e; fill_cache) >"$cache/prepare.log" 2>&1 </dev/null; local code=$?; set -e
    [ $code = 0 ] || { tail -n 20 "$cache/prepare.log" >&2; die 3 "the cache cannot be filled; see $cache/prepare.log"; }
  fi
  flock -u 8; exec 8>&-
}

check() {
  ready && return
  local need; need=$(missing_packages "${packages[@]}")
  die 3 "no virtual machine here (${need:+not installed: ${need//$'\n'/ }; }cache folder: $cache); '$here/run.sh prepare' makes one"
}

# ---- the run

# Copies the libraries that the programs of a tree need: the system libraries to the same path, the others to a folder
# in LD_LIBRARY_PATH, because their own path may be under a file system that the machine mounts.
add_libraries() { # TREE TO
  local file lib to
  while IFS= read -r -d '' file; do
    [ "$(head -c4 "$file" | tr -d '\0')" = $'\x7fELF' ] || continue
    { ldd "$file" 2>/dev/null || true; } | sed -n -e 's/^.*=> \(\/[^ ]*\) (.*$/\1/p' -e 's/^[[:space:]]*\(\/[^ ]*\) (.*$/\1/p'
  done < <(find "$1" -type f -size +3c -print0) | sort -u | while IFS= read -r lib; do
    case $lib in "$1"/*) continue ;; esac
    case $lib in /lib* | /usr/lib*) to=$2$lib ;; *) to=$2/gpiovm/lib/$(basename "$lib") ;; esac
    mkdir -p "$(dirname "$to")"; cp -L "$lib" "$to"
  done
}

# masked TREE ETC: masks what systemd starts in TREE and nothing here needs, its generators included, which run at each reload.
masked() {
  local unit generator
  mkdir -p "$2"/{system,system-generators}
  for generator in "$1"/lib/systemd/system-generators/*; do ln -s /dev/null "$2/system-generators/${generator##*/}"; done
  for unit in {dpkg-db-backup,fstrim,systemd-tmpfiles-clean}.timer systemd-ask-password-{console,wall}.path \
    {dev-hugepages,dev-mqueue,sys-fs-fuse-connections}.mount proc-sys-fs-binfmt_misc.automount getty@tty1.service \
    systemd-{binfmt,firstboot,journal-flush,logind,modules-load,pcrphase,pcrphase-sysinit,pstore,random-seed,repart,sysctl}.service \
    systemd-{tmpfiles-setup-dev,udev-trigger,update-utmp,update-utmp-runlevel,user-sessions}.service kmod-static-nodes.service; do
    ln -s /dev/null "$2/system/$unit"
  done
}

quoted() { local a; for a in "$@"; do printf "'%s' " "${a//\'/\'\\\'\'}"; done; }

case ${1:-} in
  prepare) prepare; cat "$cache/ready"; exit 0 ;;
  check) check; exit 0 ;;
esac
timeout=120 accel=tcg cpus=1 memory=512 out="" level=3 system="" chips=() environment=() network=""
while getopts rt:a:c:e:no:s:m:v flag; do
  case $flag in
    r) system=yes memory=1536 ;; t) timeout=$OPTARG ;; a) accel=$OPTARG ;; c) chips+=("$OPTARG") ;; e) environment+=("$OPTARG") ;;
    n) network=yes ;; o) out=$OPTARG ;; s) cpus=$OPTARG ;; m) memory=$OPTARG ;; v) level=7 ;; *) exit 2 ;;
  esac
done
shift $((OPTIND - 1))
[ $# -ge 2 ] || die 2 "usage: run.sh [OPTIONS] TREE COMMAND [ARG...]"
[ -d "$1" ] || die 2 "no folder $1 to copy into the machine"
tree=$(cd "$1" && pwd); shift
[ ${#chips[@]} -gt 0 ] || chips=(sim8:8)
case $accel in tcg | kvm) ;; *) die 2 "-a $accel: expected tcg or kvm" ;; esac
prepare

tmp=$(mktemp -d "${TMPDIR:-/tmp}/gpiovm.XXXXXX") qemu="" console=""
cleanup() {
  trap - EXIT
  # $qemu is timeout(1), which hands TERM on to qemu and kills it 2 s later.
  local p; for p in $qemu $console; do kill -TERM "$p" 2>/dev/null || true; wait "$p" 2>/dev/null || true; done
  rm -rf "$tmp"
}
trap cleanup EXIT
trap 'exit 129' HUP; trap 'exit 130' INT; trap 'exit 143' TERM

own=$tmp/own; mkdir -p "$own/gpiovm"
[ -n "$system" ] || add_libraries "$tree" "$own"
printf '%s\n' "${chips[@]}" >"$own/gpiovm/chips"
{ [ -n "$system" ] || echo 'export LD_LIBRARY_PATH=/gpiovm/lib'; } >"$own/gpiovm/env"
for e in "${environment[@]}"; do printf 'export %s=%s\n' "${e%%=*}" "$(quoted "${e#*=}")"; done >>"$own/gpiovm/env"
{ printf 'exec '; quoted "$@"; echo; } >"$own/gpiovm/cmd"
[ -z "$out" ] || : >"$own/gpiovm/want-out"
if [ -n "$system" ]; then
  # A Debian system has links in place of the folders of the base: only the modules and the guest's own files go beside it.
  (cd "$own" && cpio -id --quiet 'gpiovm/*.ko') <"$cache/base.cpio"
  cp -r "$here/guest/gpiovm" "$here/guest-systemd/." "$own/"
  mkdir -p "$own/usr/bin" "$own/gpiovm/bin"
  cp "$here/guest/bin/"* "$own/usr/bin/"
  cp "$(command -v busybox)" "$own/gpiovm/bin/insmod"  # the system has none
  masked "$tree" "$own/etc/systemd"
  { pack "$tree" ""; pack "$own"; } >"$tmp/initrd"
  init="/sbin/init systemd.show_status=0"
else
  { cat "$cache/base.cpio"; pack "$here/guest"; pack "$tree"; pack "$own"; } >"$tmp/initrd"
  init=/gpiovm/init
fi

: >"$tmp/result"; mkfifo "$tmp/console"
sed -u 's/\r$//' <"$tmp/console" & console=$!
serial=(-chardev stdio,id=con,signal=off -serial chardev:con -serial "file:$tmp/result")
[ -z "$out" ] || serial+=(-serial "file:$tmp/out.tar")
card=()
if [ -n "$network" ]; then
  # The guest's fourth serial port is the monitor's input: `cable` writes set_link there.
  mkfifo "$tmp/guest.in" "$tmp/guest.out" "$tmp/monitor.out"
  ln -s guest.out "$tmp/monitor.in"
  card=(-netdev hubport,id=cable,hubid=0 -device e1000,netdev=cable,romfile= -chardev "pipe,id=guest,path=$tmp/guest"
    -device isa-serial,index=3,chardev=guest -chardev "pipe,id=monitor,path=$tmp/monitor" -mon monitor)
fi
# Emulated, code is translated once for each address that it is at (norandmaps), and clearing memory is slow (init_on_alloc).
fast="norandmaps init_on_alloc=0 apparmor=0 audit=0 lsm= mitigations=off no_timer_check random.trust_cpu=on"
quiet=quiet; [ "$level" = 3 ] || quiet=
timeout -k 2 "$timeout" qemu-system-x86_64 -M pc -accel "$accel" -cpu max -smp "$cpus" -m "$memory" \
  -nodefaults -no-user-config -display none -no-reboot -kernel "$cache/kernel" -initrd "$tmp/initrd" "${serial[@]}" "${card[@]}" \
  -append "console=ttyS0 rdinit=$init panic=-1 oops=panic $fast $quiet loglevel=$level" \
  </dev/null >"$tmp/console" 2>"$tmp/qemu.err" & qemu=$!

ended=0; wait "$qemu" || ended=$?
qemu=
wait "$console" || true; console=
grep -v 'hub 0 is not connected to host network' "$tmp/qemu.err" >&2 || true
code=$(sed -n 's/^exit \([0-9]*\).*$/\1/p' "$tmp/result" | head -n1)
if [ -z "$code" ]; then
  case $ended in 124 | 137) die 124 "time-out after $timeout s" ;; esac
  die 125 "the machine ended without a result (qemu's exit code: $ended)"
fi
if [ -n "$out" ]; then
  mkdir -p "$out"; tar x -C "$out" -f "$tmp/out.tar" || die 125 "/out did not come back whole"
fi
exit "$code"
