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
