#!/usr/bin/env bash
# The corpus bench's promises: it measures a real run, says which peers are missing, and leaves nothing behind.
# usage: corpus_bench_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail

bench=$1/scripts/lib/corpus_bench
build=$2
scratch=$(mktemp -d /var/tmp/corpus-bench-test.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
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

# A build folder without programs is a run that fails, not one that is quick.
mkdir "$scratch/empty"
status=0
"$bench" --files 5 --only text --no-peers --bin-dir "$scratch/empty" >"$scratch/out" 2>"$scratch/errors" || status=$?
[ $status -eq 1 ] || give_up "a run without programs ends with status $status"
status=0
"$bench" --nonsense >"$scratch/out" 2>"$scratch/errors" || status=$?
[ $status -eq 2 ] || give_up "wrong usage ends with status $status"
echo "the corpus bench keeps its promises"
