# Sourced by the scripts in this folder: runs pinlampd of the installed copy at $prefix. Sets $work, a temporary folder.
export CMAKE_PREFIX_PATH=$prefix CMAKE_GENERATOR=Ninja
PATH=$prefix/bin:$PATH
. "$(dirname "${BASH_SOURCE[0]}")/../daemon.sh"

# built NAME SOURCE...: builds an agent's project from a copy of its files, and prints the build folder. The copy is always
# in the folder NAME, so that ccache hits.
built() {
  local folder=$builds/$1
  shift
  rm -rf "$folder"
  mkdir -p "$folder"
  cp -r "$@" "$folder"
  { cmake -S "$folder" -B "$folder/build" ${compiler:+-DCMAKE_CXX_COMPILER="$compiler"} \
      -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Werror" &&
    cmake --build "$folder/build"; } >"$work/log" 2>&1 || fail "$folder does not build"
  if [ -n "${source:-}" ] && grep -rq "$source/platform" "$folder/build/CMakeFiles"; then fail "built from the source tree"; fi
  echo "$folder/build"
}

start_led_agent() { start --store memory: --agent libpinlamp.so "$@"; } # ARGUMENTS...
pin() { pinlampctl get "hardware/corvel/gpio/config/$1" value; }
