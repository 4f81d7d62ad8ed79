#!/usr/bin/env bash
# The demo's promises: it holds on a folder with odd names and leaves that as it is, says what happened within 100
# columns, fails when something is broken, and leaves nothing behind however it ends.
# usage: demo_test.sh SOURCE_DIR   with ORBISK_BIN_DIR in the environment
set -euo pipefail

if [ "$(id -u)" -ne 0 ] && ! unshare -U --map-root-user --map-auto -m -p -f --mount-proc true 2>/dev/null; then
  echo "skipped: without root it needs user namespaces that hold several accounts"
  exit 77
fi

demo=$1/scripts/demo
base=$(mktemp -d -t demo-test.XXXXXX)
trap 'rm -rf "$base"' EXIT
out=$base/out
errors=$base/errors
export TMPDIR=$base/scratch
mkdir "$TMPDIR"

failed() {
  echo "$*"
  cat "$out" "$errors"
  exit 1
}

wanted() {
  grep -qE -- "$1" "$errors" || failed "no line like: $1"
}

# run STATUS ARGUMENT...   the demo has to end with this status and leave nothing behind
run() {
  local status=0 wanted_status=$1
  shift
  "$demo" "$@" >"$out" 2>"$errors" || status=$?
  [ $status -eq "$wanted_status" ] || failed "scripts/demo $* ended with status $status, not $wanted_status"
  nothing_left
}

nothing_left() {
  [ -z "$(ls -A "$TMPDIR")" ] || failed "left behind: $(ls -A "$TMPDIR")"
  ! grep -F "$base" /proc/self/mounts || failed "mounts were left behind"
  # The box's processes have a process namespace of their own, so none of them may be seen with the scratch folder.
  ! grep -lsF "$TMPDIR/fileindex-demo" /proc/[0-9]*/cmdline || failed "processes were left behind"
}

state_of() {
  (cd "$1" && find . -printf '%p %m %s %T@ %y\n' | LC_ALL=C sort; find "$1" -type f -exec cksum {} + | LC_ALL=C sort)
}

number() {
  sed -n "s/.*\"$1\":\\([0-9]*\\).*/\\1/p" "$out"
}

odd="$base/odd | [a-z]* & \\1 \$HOME 'name'"
mkdir -p "$odd/a folder" "$odd/.git" "$odd/"$'\xff\xfe' "$odd/closed"
for i in 1 2 3 4 5 6; do
  echo "common words about glaciers and number $i" >"$odd/a folder/it's file \"$i\" [x].txt"
done
echo "not to be indexed" >"$odd/.git/config"
echo "bytes in a name" >"$odd/"$'\xff\xfe/\xe9.txt'
ln -s /etc/passwd "$odd/link"
mkfifo "$odd/pipe"
chmod 0500 "$odd/closed"
before=$(state_of "$odd")

# As it ends for a user who may not look everywhere.
mkdir "$base/failing"
printf '#!/bin/sh\n%s "$@"\nexit 1\n' "$(command -v du)" >"$base/failing/du"
chmod +x "$base/failing/du"
PATH=$base/failing:$PATH run 0 --json "$odd"
[ "$(state_of "$odd")" = "$before" ] || failed "the given folder was changed"
[ "$(number files)" -eq 7 ] && [ "$(number folders)" -eq 4 ] || failed "other files were indexed than there are"
[ "$(number events)" -gt "$(number operations)" ] && [ "$(number operations)" -gt 0 ] || failed "the events were not folded"
[ "$(number median)" -gt 0 ] && [ "$(number median)" -lt 60000 ] || failed "that is no latency"
[ "$(grep -oE '"now":[1-9][0-9]+' "$out" | wc -l)" -eq 4 ] || failed "not the memory of four daemons"
[ "$(wc -l <"$out")" -eq 1 ] || failed "the standard output has more than the figures"
wanted '^All is searchable after [0-9.]+ s: 7 files in 4 folders, '
wanted '^\$ fileindexctl search --limit 3 [a-z]+ '
wanted '^  [1-9] of [1-9] hits$'
wanted '^  its folder gets another name +[0-9.]+ m?s  heron[0-9]+ folder:\.\.\./demo-2: 1 hit$'
wanted '^  the copy gets another name +[0-9.]+ m?s  folder:\.\.\./demo-new: 6 hits$'
wanted '^ +what was deleted in the dark .* 0 hits$'
wanted '^With the last folder its index is gone'
# The line before the first chapter names the given folder, however long that is.
! sed '1,/^== A box/d' "$errors" | LC_ALL=C.UTF-8 grep -aE '^.{101}' || failed "a line is over 100 columns"

echo 'fileindexctl search glaciers; echo kept >kept.txt; exit 3' >"$base/typed"
run 0 --keep "$base/odd | [a-z]* & \\1 \$HOME 'name'" <"$base/typed"
grep -q '^6 of 6 hits$' "$out" || failed "the shell is not in the box"
[ "$(state_of "$odd")" = "$before" ] || failed "the shell changed the given folder"

# A daemon that does nothing.
mkdir "$base/bin"
cp -P "$ORBISK_BIN_DIR"/* "$base/bin/"
rm "$base/bin/fileindexd"
cp "$(command -v sleep)" "$base/bin/fileindexd"
ORBISK_BIN_DIR=$base/bin run 1 "$odd"
wanted '^demo: '

# interrupt SIGNAL WHOM STATUS   while the box is on; WHOM is "-" for the whole group, as Ctrl-C does it, or ""
interrupt() {
  local pid status=0 i
  # With its signals as they are at a terminal, in a process group of its own.
  setsid env --default-signal=INT,QUIT "$demo" "$odd" >"$out" 2>"$errors" </dev/null &
  pid=$!
  for ((i = 0; i < 600; ++i)); do
    ! grep -q '== Changes' "$out" || break
    sleep 0.1
  done
  grep -q '== Changes' "$out" || { kill -TERM -- "$pid"; failed "the box is not on after a minute"; }
  kill "-$1" -- "$2$pid"
  wait "$pid" || status=$?
  [ $status -eq "$3" ] || failed "after SIG$1 the status is $status, not $3"
  nothing_left
}
interrupt INT - 130
interrupt TERM "" 143

mkdir "$base/empty"
run 1 "$base/empty"
wanted '^demo: there are no files in '
run 1 "$base/missing"
wanted '^demo: not a folder: '
run 1 "$base"
wanted '^demo: .* cannot be copied into itself'
run 2 --nonsense
run 2 one two
"$demo" --help | grep -q '^usage: '
echo "the demo keeps its promises"
