#!/usr/bin/env bash
# root.sh FOLDER [PACKAGE...]: unpacks a small Debian system of this machine's release into FOLDER, with systemd and the
# packages. It is made once, and kept as an archive in build/root. Needs root, and mmdebstrap.
# Nothing of the machine is mounted in FOLDER, so that removing it removes nothing else.
set -euo pipefail
kept=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/build/root
to=$1
shift
release=$(. /etc/os-release && echo "$VERSION_CODENAME")
without=(/usr/share/{doc,info,locale,man}/'*' '/lib/udev/hwdb.d/*' '/usr/lib/*/gconv/*')
packages=(systemd-sysv udev usr-is-merged "$@")  # where it is merged from the beginning, nothing needs all of Perl
archive=$kept/$release-$(printf '%s\n' "${packages[@]}" "${without[@]}" | sha256sum | cut -c1-8).tar

mkdir -p "$kept" "$to"
exec 8>"$kept/.lock"
flock 8
if [ ! -e "$archive" ]; then
  list=$(IFS=,; echo "${packages[*]}")
  # What mmdebstrap mounts is in a mount namespace of its own, and gone with it.
  unshare --mount --propagation private mmdebstrap --quiet --mode=root --variant=essential --include="$list" \
    --hook-dir=/usr/share/mmdebstrap/hooks/merged-usr "${without[@]/#/--dpkgopt=path-exclude=}" "$release" "$kept/.part.tar" \
    >"$kept/made.log" 2>&1 || { cat "$kept/made.log"; exit 1; }
  rm -f "$kept/$release"-*.tar
  mv "$kept/.part.tar" "$archive"
fi
tar -x -C "$to" -f "$archive"
