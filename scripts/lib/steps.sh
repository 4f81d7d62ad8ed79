# For the scripts: steps with a heading and the seconds they took, quiet while they work.
# shellcheck shell=bash

fail() {
  echo "${0##*/}: $*" >&2
  exit 1
}

# step TITLE COMMAND...   prints TITLE and the seconds; the command's output goes to build/NAME.log, whose end is shown if
# it fails, which ends the script.
step() {
  local title=$1 name log start
  shift
  name=$(printf '%s' "$title" | tr -cs 'a-zA-Z0-9\n' '-')
  mkdir -p build
  log=build/$name.log
  start=$SECONDS
  printf '== %s ... ' "$title"
  if ! "$@" >"$log" 2>&1; then
    printf 'FAILED after %d s\n' $((SECONDS - start))
    tail -n 200 "$log" >&2
    fail "$title failed; the log is $log"
  fi
  printf '%d s\n' $((SECONDS - start))
}

# begin TITLE PROGRAM...   starts the program in the background, giving way to whatever else runs. One at a time; it is
# ended if the script ends before `finish`.
begin() {
  begun_title=$1
  shift
  begun_log=build/$(printf '%s' "$begun_title" | tr -cs 'a-zA-Z0-9\n' '-').log
  mkdir -p build
  printf '== %s begins\n' "$begun_title"
  nice -n 10 "$@" >"$begun_log" 2>&1 &
  begun=$!
  trap 'kill "$begun" 2>/dev/null || true' EXIT
}

# finish   waits for what was begun. If it failed, shows its log and ends the script.
finish() {
  local start=$SECONDS
  printf '== %s ... ' "$begun_title"
  if ! wait "$begun"; then
    trap - EXIT
    printf 'FAILED\n'
    tail -n 1000 "$begun_log" >&2
    fail "$begun_title failed; the log is $begun_log"
  fi
  trap - EXIT
  printf 'waited %d s\n' $((SECONDS - start))
}
