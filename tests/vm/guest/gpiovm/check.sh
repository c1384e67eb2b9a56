# Sourced by test scripts inside the virtual machine and outside.
failed=0

check() { # TITLE EXPECTED ACTUAL
  if [ "$2" = "$3" ]; then echo "ok   $1"; else echo "FAIL $1: expected '$2', got '$3'"; failed=$((failed + 1)); fi
}

# Repeats the command until it prints what is expected, at most 400 times, 50 ms apart unless $pause is set.
await() { # TITLE EXPECTED COMMAND...
  title=$1 expected=$2 tries=400 found=
  shift 2
  while found=$("$@" 2>&1); [ "$found" != "$expected" ] && [ $((tries -= 1)) -gt 0 ]; do sleep "${pause:-0.05}"; done
  check "$title" "$expected" "$found"
}

finish() {
  [ "$failed" = 0 ] && echo "all passed" || echo "$failed failed"
  exit $((failed > 0))
}
