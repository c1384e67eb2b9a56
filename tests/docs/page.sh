#!/usr/bin/env bash
# Runs the shell examples of PAGE as a reader pastes them: all in one fresh shell, in an empty folder, with BIN in its
# PATH. A page that sets PATH itself gets the system's, and BIN as build/demo/bin, where scripts/demo builds. The output
# must match the page; only times, process numbers, disk sizes, the user and the fraction ".0", which jq omits until 1.6,
# may differ.
#   page.sh BIN PAGE
# With PINLAMP_WRITE_DOCS set it writes the output into the page.
# A block is indented by four blanks and begins with a "$ COMMAND" line; the lines after it are the command's output.
# A fenced block with a file's name after its language ("```cpp agent.cpp") goes into that file, one after another.
set -euo pipefail
bin=$(realpath "$1") page=$(realpath "$2")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/folder"
cd "$work/folder"
path=$bin:/usr/bin:/bin
if grep -q '^    \$ export PATH=' "$page"; then
  mkdir -p build/demo
  ln -s "$bin" build/demo/bin
  path=/usr/bin:/bin
fi

awk '/^```[a-z]+ [^ ]+$/ { file = $2; next } /^```/ { file = "" } file { print > file }' "$page"

# The examples: blocks that start with a command.
awk '
  /^    / && !before { inside = /^    \$ / }
  { before = /^    / }
  before && inside { print substr($0, 5) }
' "$page" >"$work/expected"
[ -s "$work/expected" ] || { echo "$page has no examples"; exit 1; }

# Each command is printed before its output.
{
  sed -n 's/^\$ //p' "$work/expected" | while IFS= read -r command; do
    printf 'printf "%%s\\n" %q\n%s\n' "\$ $command" "$command"
  done
  echo 'for job in $(jobs -p); do kill -TERM $job; wait $job || echo "a program in the background ended with $?"; done'
} >"$work/pasted"

env -i HOME="$work/folder" TMPDIR="$work" PATH="$path" LANG=C.UTF-8 \
  ${CMAKE_PREFIX_PATH:+CMAKE_PREFIX_PATH="$CMAKE_PREFIX_PATH"} CMAKE_GENERATOR=Ninja \
  timeout 120 bash --norc "$work/pasted" >"$work/printed" 2>&1 </dev/null || echo "the shell ended with $?" >>"$work/printed"

# Writes what was printed into the page instead, after each command.
if [ -n "${PINLAMP_WRITE_DOCS-}" ]; then
  awk '
    FNR == NR { if (/^\$ /) ++count; else output[count] = output[count] "    " $0 "\n"; next }
    /^    / && !before { inside = /^    \$ / }
    { before = /^    / }
    !(before && inside) { print; next }
    /^    \$ / { print; printf "%s", output[++at] }
  ' "$work/printed" "$page" >"$work/page"
  cp "$work/page" "$page"
  exit
fi

masked() {
  sed -E -e 's/[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:.]+/TIME/g' -e 's/\b(pid|process) [0-9]+/\1 N/g' \
    -e "s/ +OWNER +/ OWNER /; s/ +(root|$(id -un))( +|\$)/ USER /g; s/\"(root|$(id -un))\"/\"USER\"/g" \
    -e 's/\bin [0-9.]+ (m?s)\b/in N \1/g' -e 's/(freeBytes = )[0-9.e+]+/\1N/' \
    -e 's/([0-9])\.0([],}])/\1\2/g' -e "s|$work/folder|FOLDER|g" "$1"
}
diff -u --label "$page" <(masked "$work/expected") --label printed <(masked "$work/printed")
