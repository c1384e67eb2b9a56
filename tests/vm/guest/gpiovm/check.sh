# Sourced by the scripts that test inside the machine.
failed=0

check() { # TITLE EXPECTED ACTUAL
  if [ "$2" = "$3" ]; then echo "ok   $1"; else echo "FAIL $1: expected '$2', got '$3'"; failed=$((failed + 1)); fi
}

finish() {
  [ "$failed" = 0 ] && echo "all passed after $(cut -d' ' -f1 /proc/uptime) s" || echo "$failed failed"
  exit $((failed > 0))
}
