#!/usr/bin/env bash
# The demo's promises: it works as it is and on a given folder, says what happened, and leaves nothing behind.
# usage: demo_test.sh SOURCE_DIR   with ORBISK_BIN_DIR in the environment
set -euo pipefail

demo=$1/scripts/demo
scratch=$(mktemp -d -t demo-test.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
export TMPDIR=$scratch

wanted() {
  grep -qE "$1" "$scratch.out" || { echo "no line like: $1"; cat "$scratch.out"; exit 1; }
}

run() {
  "$demo" "$@" >"$scratch.out" 2>&1 || { echo "scripts/demo $* failed"; cat "$scratch.out"; exit 1; }
  wanted '^  unpack [1-9].* [1-9][0-9]* events, recorded after'
  wanted '^  delete files .* [1-9][0-9]* events, recorded after'
  wanted '^[1-9][0-9]+ events became [1-9][0-9]* operations in '
  for name in update rename reindex delete; do
    wanted "^ *[1-9][0-9]* $name\$"
  done
  wanted '^  /photos +Pictures .* processing$'
  wanted '^  /photos +Pictures .* paused$'
  wanted '^  /photos +Pictures .* finished$'
  wanted '^  /music/lost +.* error: invalid_path$'
  tail -1 "$scratch.out" | grep -q '^Where to look next: ' || { echo "the last line is another"; exit 1; }
  events=$(sed -n 's/^\([0-9]*\) events became.*/\1/p' "$scratch.out")
  operations=$(sed -n 's/^.* events became \([0-9]*\) operations.*/\1/p' "$scratch.out")
  [ "$operations" -lt "$events" ] || { echo "$events events did not become fewer operations"; exit 1; }
}

trap 'rm -rf "$scratch" "$scratch.out" "$scratch.list"' EXIT
mkdir "$scratch/given"
echo "not the demo's" >"$scratch/given/kept"

odd="$scratch/odd | [a-z]* & \\1 \$HOME 'name'"
mkdir "$odd"

run
run "$scratch/given"
[ "$(ls -A "$scratch" | wc -l)" -eq 2 ] || { echo "left behind: $(ls -A "$scratch")"; exit 1; }
[ "$(ls -A "$scratch/given")" = kept ] || { echo "left in the folder: $(ls -A "$scratch/given")"; exit 1; }

run "$odd"
wanted "^Changes in $(sed 's/[][\\.*^$|]/\\&/g' <<<"$odd"), watched with (fanotify|inotify):\$"
# The folder's own path is left out of what is listed, whatever characters it has.
for title in "Events, as recorded" "Operations for the index"; do
  sed -n "/^$title/,/^\$/p" "$scratch.out" | sed 1d >"$scratch.list"
  grep -q '\.\.\./' "$scratch.list" || { echo "nothing is listed: $title"; cat "$scratch.out"; exit 1; }
  if grep -F "$odd" "$scratch.list"; then echo "its path is not left out: $title"; exit 1; fi
done
rm "$scratch.list"
[ -z "$(ls -A "$odd")" ] || { echo "left in the folder: $(ls -A "$odd")"; exit 1; }

status=0
"$demo" "$scratch/missing" >"$scratch.out" 2>&1 || status=$?
[ $status -eq 1 ] || { echo "a missing folder ends with status $status"; exit 1; }
wanted '^demo: not a folder: '
"$demo" --help >"$scratch.out"
wanted '^usage: '
status=0
"$demo" --nonsense >"$scratch.out" 2>&1 || status=$?
[ $status -eq 2 ] || { echo "wrong usage ends with status $status"; exit 1; }
echo "the demo keeps its promises"
