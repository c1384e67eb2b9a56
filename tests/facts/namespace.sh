# Sourced with the arguments of the script: runs it again in a network namespace of its own, as root there, or skips it.
if [ "${namespace:-}" != own ]; then
  unshare -rn true 2>/dev/null || { echo "SKIPPED: there may be no network namespace here"; exit 77; }
  namespace=own exec unshare -rn "$0" "$@"
fi
unset namespace
PATH=$1:$PATH:/usr/sbin:/sbin
