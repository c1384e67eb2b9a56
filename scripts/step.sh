# Sourced by .ci/run and scripts/nightly.

# step NAME COMMAND...: its output only where it fails, and how long it took. Returns 1 where it fails.
step() {
  local name=$1 log=build/$1.log begin=$SECONDS
  shift
  if ! "$@" >"$log" 2>&1; then
    failure "$log"
    echo "$name failed after $((SECONDS - begin)) s; all of its output is in $log"
    return 1
  fi
  grep -E 'tests passed|executions' "$log" | sed "s/^/$name: /" || true
  echo "$name: $((SECONDS - begin)) s"
}

# What a log says about the failure: the failed tests and what they printed, or its end and the errors of the compiler.
failure() {
  if grep -q '^The following tests FAILED' "$1"; then
    sed -n '/^The following tests FAILED/,$p' "$1"
  else
    tail -n 100 "$1"
    grep -E '^[^ ]+: (fatal )?error: |^FAILED: ' "$1" | head -n 20 || true
  fi
}
