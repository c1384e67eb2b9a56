# Sourced after lib.sh by the tests that install the packages in a Debian system of its own, of which nothing is the machine's.
# $system is its folder; `inside` runs a command in it.
source=$(cd "$vm/../.." && pwd)
packages=$source/build/packages
programs() { ls "$packages"/*.deb | grep -v dbgsym; }

# The packages are there, and no older than what they are built from.
are_built() {
  local made
  made=$(ls "$packages"/pinlamp_*.deb 2>/dev/null) || return 1
  [ -z "$(git -C "$source" ls-files -z -- '*.cpp' '*.h' '*CMakeLists.txt' cmake debian packaging ':!tests' ':!bench' |
    (cd "$source" && find -files0-from - -newer "$made" -print -quit))" ]
}

# Builds the packages if they are missing or out of date. Skips the test, printing why, if no system can be made.
system_or_skip() {
  local why=
  if [ "$(id -u)" != 0 ]; then why="a system of its own needs root"
  elif ! command -v mmdebstrap >/dev/null; then why="mmdebstrap is not installed"
  elif are_built; then return 0
  elif "$source/scripts/packages" >"$source/build/packages.log" 2>&1; then return 0
  else tail -n 20 "$source/build/packages.log"; why="scripts/packages failed; all of its output is in build/packages.log"
  fi
  [ "${PINLAMP_VM:-}" != required ] || { echo "FAILED: $why"; exit 1; }
  echo "SKIPPED: $why"
  exit 77
}

# Prints the packages that ours need, of the first choice each.
needed() {
  local deb
  for deb in $(programs); do dpkg-deb -f "$deb" Pre-Depends Depends | sed 's/^[A-Za-z-]*: //'; done |
    tr ',' '\n' | sed 's/|.*//; s/([^)]*)//; s/ //g; /^$/d; /^libpinlamp/d' | sort -u
}

# earlier FOLDER: the packages for programs, as of an earlier version, whose units say so.
earlier() {
  local deb name
  mkdir -p "$1"
  for deb in $(programs | grep -v -e -dev_); do
    name=$1/$(basename "$deb" | cut -d_ -f1)
    dpkg-deb -R "$deb" "$name"
    sed -i "s/$(dpkg-deb -f "$deb" Version)/0.0.9/g" "$name/DEBIAN/control"
    [ ! -d "$name/lib/systemd" ] || sed -i 's/^Description=.*/&, earlier/' "$name"/lib/systemd/system/*.service
    dpkg-deb -Znone -b "$name" >/dev/null "$name.deb" && rm -r "$name"
  done
}

# The system, with the packages in /root/current, those of an earlier version in /root/earlier, the latter installed, and
# the board file.
new_system() {
  local list
  mapfile -t list < <(needed)
  system=$(mktemp -d "${TMPDIR:-/tmp}/pinlamp-system.XXXXXX")
  trap 'rm -rf --one-file-system "$system"' EXIT
  "$vm/root.sh" "$system" "${list[@]}"
  mkdir "$system/root/current"
  cp $(programs | grep -v -e -dev_) "$system/root/current/"
  earlier "$system/root/earlier"
  inside sh -c 'dpkg -i /root/earlier/*.deb' >"$source/build/root/install.log" 2>&1 ||
    { cat "$source/build/root/install.log"; exit 1; }
  cp "$vm/board.json" "$system/etc/pinlamp/board.d/front.json"
  # As in an image: the first boot gives the machine its identity, and enables units by the presets.
  echo uninitialized >"$system/etc/machine-id"
  touch "$system/etc/.updated" "$system/var/.updated"  # ldconfig and the like have run
}

inside() { chroot "$system" /usr/bin/env -i PATH=/usr/sbin:/usr/bin HOME=/root LC_ALL=C.UTF-8 "$@"; }
