#!/usr/bin/env bash
# The corpus bench's promises: it measures a real run, says which peers are missing, and leaves nothing behind.
# usage: corpus_bench_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail

bench=$1/scripts/lib/corpus_bench
build=$2
scratch=$(mktemp -d /var/tmp/corpus-bench-test.XXXXXX)
commands=$(mktemp -d /tmp/corpus-bench-test.XXXXXX)  # a run covers /var
trap 'rm -rf "$scratch" "$commands"' EXIT
mkdir "$scratch/work"
export TMPDIR=$scratch/work

give_up() {
  echo "$1"
  cat "$scratch/out" "$scratch/errors"
  exit 1
}

"$bench" --files 40 --only mixed --no-peers --json --bin-dir "$build" >"$scratch/out" 2>"$scratch/errors" ||
  give_up "a run without peers fails"
[ "$(wc -l <"$scratch/out")" -eq 1 ] || give_up "its answer is not one line"
grep -qE '^\{"runs":\[\{"corpus":"mixed","system":"ours","seconds":[0-9.]+,"files":[1-9][0-9]*,"files_per_second":[0-9.]+,"peak_memory_kib":[1-9][0-9]{3,},"index_kib":[1-9][0-9]*\}\],"ratios":\[\]\}$' \
  "$scratch/out" || give_up "its answer has another form"
files=$(sed -nE 's/^mixed: ([0-9]+) files.*/\1/p' "$scratch/errors")
grep -qF "\"files\":$files," "$scratch/out" || give_up "not all $files files of the corpus were indexed"
[ -z "$(ls -A "$TMPDIR")" ] || give_up "left behind: $(ls -A "$TMPDIR")"

# A machine without the peers: its commands, but for some.
ln -s /usr/bin/* /usr/sbin/* /bin/* /sbin/* "$commands/" 2>/dev/null || true
rm -f "$commands"/{recollindex,dbus-run-session,apt-get,dpkg-deb,sudo}
status=0
PATH=$commands "$bench" --files 5 --only text --bin-dir "$build" >"$scratch/out" 2>"$scratch/errors" || status=$?
[ $status -eq 1 ] || give_up "a comparison with nobody ends with status $status"
grep -qx 'no peer was measured; --no-peers asks for none' "$scratch/errors" || give_up "it does not say that nobody was measured"

# One command that fails is enough, whatever comes after it.
printf '#!/bin/sh\nexec "$@"\n' >"$commands/sudo"
printf '#!/bin/sh\nexit 0\n' >"$commands/dpkg-deb"
printf '#!/bin/sh\ncase "$*" in *install*) exit 100;; esac\n' >"$commands/apt-get"
chmod +x "$commands"/{sudo,dpkg-deb,apt-get}
status=0
PATH=$commands "$bench" --files 5 --only text --install-peers --bin-dir "$build" >"$scratch/out" 2>"$scratch/errors" || status=$?
[ $status -eq 1 ] || give_up "peers that cannot be installed end with status $status"
grep -qF 'apt-get failed' "$scratch/errors" || give_up "it goes on without the peers"
[ -z "$(ls -A "$TMPDIR")" ] || give_up "left behind: $(ls -A "$TMPDIR")"

# Memory counts, whoever has it, but not what the script itself runs.
looks() {
  sed -n 's/^voluntary_ctxt_switches:[^0-9]*//p' "/proc/$watch_PID/status"
}
# holding NAME   the peak of memory while a program of this name holds 64 MiB
holding() {
  local watch_PID holder_PID held from
  cp -L "$(command -v perl)" "$scratch/$1"
  coproc watch { exec "$build/bench/memory_watch"; }
  local watch_output=${watch[0]}
  read -r _ <&"$watch_output"
  exec {held}< <(exec "$scratch/$1" -e '$| = 1; my $held = "x" x (64 << 20); print "held\n"; sleep 600')
  holder_PID=$!
  read -r _ <&"$held"
  from=$(looks)
  while [ "$(looks)" -lt $((from + 4)) ]; do sleep 0.05; done
  kill "$holder_PID"
  wait "$holder_PID" || true
  exec {held}<&-
  kill -TERM "$watch_PID"
  read -r peak <&"$watch_output"
}
holding indexer
[ "$peak" -ge 65536 ] || give_up "64 MiB are not seen: $peak KiB"
holding sed
[ "$peak" -lt 65536 ] || give_up "the memory of a script's helper counts: $peak KiB"

# A build folder without programs is a run that fails, not one that is quick.
mkdir "$scratch/empty"
status=0
"$bench" --files 5 --only text --no-peers --bin-dir "$scratch/empty" >"$scratch/out" 2>"$scratch/errors" || status=$?
[ $status -eq 1 ] || give_up "a run without programs ends with status $status"
status=0
"$bench" --nonsense >"$scratch/out" 2>"$scratch/errors" || status=$?
[ $status -eq 2 ] || give_up "wrong usage ends with status $status"
echo "the corpus bench keeps its promises"
