#!/usr/bin/env bash
# Checks that the files, folders, link targets and functions (Class::name) named in the pages exist in the tree.
#   names.sh SOURCE
set -euo pipefail
cd "$1"
shopt -s nullglob
pages=(README.md CONTRIBUTING.md CHANGELOG.md examples/README.md docs/*.md)
folders='agent|bench|cmake|common|ctl|docs|examples|facts|gpio|host|packaging|platform|reactor|scripts|statemachine|tests|utils'
words=$(mktemp)
trap 'rm -f "$words"' EXIT
find . -path ./build -prune -o \( -name '*.h' -o -name '*.cpp' \) -exec grep -ohE '\w+' {} + | sort -u >"$words"
missing=0
report() { echo "$1: $2"; missing=1; }

for page in "${pages[@]}"; do
  # A path of the tree ends with a file's name or a slash; agent/configReactor is one of objects, facts/link/ of entities.
  while read -r path; do
    found=($path)
    [ -e "${found[0]-}" ] || report "$page" "there is no $path"
  done < <(grep -oE "(^|[\`( ])($folders)/[A-Za-z0-9_./*-]*(\.[a-z*]+|/)" "$page" | sed 's/^[`( ]//' | grep -vE '^agent/configR|^facts/[a-z]*/' | sort -u)
  while read -r file; do
    [ -n "$(find . -path ./build -prune -o -name "$file" -print -quit)" ] || report "$page" "there is no file $file"
  done < <(grep -oE '`[a-z_]+\.(h|cpp)`' "$page" | tr -d '`' | sort -u)
  while read -r link; do
    [ -e "$(dirname "$page")/$link" ] || report "$page" "the link leads to no file: $link"
  done < <(grep -oE '\]\([A-Za-z0-9_-]*[./][A-Za-z0-9_./-]*' "$page" | sed 's/^..//' | sort -u)
done

for page in docs/tour.md docs/performance.md; do
  while read -r name; do
    grep -qxF "$name" "$words" || report "$page" "the code has no $name"
  done < <(grep -oE '`[A-Za-z_:]+::[A-Za-z_]+`' "$page" | tr -d '`' | sed 's/::/\n/g' | sort -u)
done
exit $missing
