#!/usr/bin/env bash
# What scripts/bench cannot do it says at once: nothing is built for it, and no file of results begun.
# usage: bench_script_test.sh SOURCE_DIR
set -euo pipefail

tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
mkdir "$tree/bench"
cp -R "$1/scripts" "$tree/scripts"
cp "$1"/bench/*_bench.cpp "$tree/bench"
# Nothing is to be set up or built here, whatever is wrong with the script.
for script in setup build; do
  printf '#!/bin/sh\ntouch "%s/begun"\nexit 1\n' "$tree" >"$tree/scripts/$script"
done

give_up() {
  echo "$1"
  cat "$tree/out"
  exit 1
}

# refuses MESSAGE ARGUMENT...
refuses() {
  local message=$1 status=0
  shift
  "$tree/scripts/bench" "$@" >"$tree/out" 2>&1 || status=$?
  [ $status -eq 2 ] || give_up "'$*' ends with status $status"
  grep -qF "bench: $message (see " "$tree/out" || give_up "'$*' is not explained"
  [ ! -e "$tree/begun" ] || give_up "'$*' is built for"
  [ ! -e "$tree/bench/results" ] || give_up "'$*' leaves results"
}
refuses "unknown argument: --nonsense" corpus --nonsense
refuses "--files needs a number" corpus --files many
refuses "--only needs text or mixed" corpus --only music
refuses "--bin-dir needs a folder" corpus --bin-dir "$tree/nowhere"
refuses "unknown argument: --nonsense" --nonsense
refuses "there is no bench called nonsense" fold nonsense
refuses "not a number: many" storm many
refuses "unknown argument: 3" storm 1 2 3

# What is well asked for is begun.
for arguments in "corpus --only text --json" "storm 10 10" "fold fold_bench" ""; do
  rm -f "$tree/begun"
  # shellcheck disable=SC2086
  if "$tree/scripts/bench" $arguments >"$tree/out" 2>&1; then give_up "'$arguments' ends well without a build"; fi
  [ -e "$tree/begun" ] || give_up "'$arguments' is refused"
done
echo "the bench script keeps its promises"
