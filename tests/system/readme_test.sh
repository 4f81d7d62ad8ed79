#!/usr/bin/env bash
# The commands under "Try it" in the README, followed to the letter where there is nothing but Debian 12 and a clone of the
# last commit. Takes as long as building and testing everything does; below FOLDER lie the clone and all that is written.
# usage: readme_test.sh FOLDER [COMPILER_CACHE]   as root, with the network
set -euo pipefail

here=$(realpath -m "$1")
[ "${2:-}" = become ] || export README_TEST_CACHE=${2:-}
compiler_cache=$README_TEST_CACHE
[ "$(id -u)" -eq 0 ] || { echo "readme_test: needs root" >&2; exit 1; }
source=$(cd "$(dirname "$0")/../.." && pwd)
mkdir -p "$here"
# shellcheck disable=SC2034
box_on_disk=1
# shellcheck source=tests/system/debian_box.sh
. "$source/tests/system/debian_box.sh"

furnish() {
  mkdir -p "$1/root/libfileindex" "$1/dev/pts"
  mount -t devpts -o newinstance,ptmxmode=0666,mode=0620 devpts "$1/dev/pts"
  mount --bind "$here/clone" "$1/root/libfileindex"
  if [ -n "$compiler_cache" ]; then
    mkdir -p "$1/root/.cache/ccache"
    mount --bind "$compiler_cache" "$1/root/.cache/ccache"
  fi
}

# Up to the comment behind them.
commands_of_readme() {
  sed -n '/^## Try it$/,/^## /{/^```$/,/^```$/p}' "$source/README.md" | sed '/^```$/d; s/ *#.*//; /^$/d'
}

[ "${2:-}" != become ] || become_box "$3"
make_base
rm -rf --one-file-system "$here/clone"
git clone -q "$source" "$here/clone"
mapfile -t commands < <(commands_of_readme)
[ ${#commands[@]} -ge 2 ] || { echo "readme_test: the README has no commands under \"Try it\"" >&2; exit 1; }
environment=()
[ -z "$compiler_cache" ] || environment=(CCACHE_BASEDIR=/root/libfileindex CCACHE_NOHASHDIR=1)
start_box none
for command in "${commands[@]}"; do
  echo "== $command"
  begin=$SECONDS
  in_box env "${environment[@]}" bash -c "cd /root/libfileindex && $command" || { echo "NOT OK: $command" >&2; exit 1; }
  echo "ok: $command: $((SECONDS - begin)) s"
done
echo "the README holds on a fresh Debian 12"
