# Sourced by the tests that run in the virtual machine.
vm=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

# Skips the test, printing why, if no virtual machine is available. PINLAMP_VM: `required` installs what is
# missing and makes its absence a failure; `off` always skips.
machine_or_skip() {
  case ${PINLAMP_VM:-} in
    required) "$vm/run.sh" prepare >/dev/null || exit 1 ;;
    off) echo "SKIPPED: PINLAMP_VM=off"; exit 77 ;;
    *) local why; why=$("$vm/run.sh" check 2>&1) || { echo "SKIPPED: $why"; exit 77; } ;;
  esac
}

# Sets $tree to a folder, to be copied into the machine, with the files in its /usr/bin.
tree_with() { # FILE...
  tree=$(mktemp -d "${TMPDIR:-/tmp}/pinlamp-vm.XXXXXX")
  trap 'rm -rf "$tree"' EXIT
  mkdir -p "$tree/usr/bin"
  cp -L "$@" "$tree/usr/bin/"
}
