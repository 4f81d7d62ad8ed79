#!/usr/bin/env bash
# Installs the build into an empty prefix and uses it from there, by pkg-config and by CMake.
# usage: install_test.sh BUILD_DIR CXX
set -euo pipefail

build_dir=$1
cxx=$2
consumer=$(cd "$(dirname "$0")/consumer" && pwd)
scratch=$(mktemp -d -t install-test.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix

cmake --install "$build_dir" --prefix "$prefix" >"$scratch/install.log" || { cat "$scratch/install.log"; exit 1; }
libdir=$(dirname "$(find "$prefix" -name libfileindex.so)")
printf '%s\n' '{"event":64,"path":"/v/a"}' '{"event":256,"path":"/v/b","path_old":"/v/a"}' >"$scratch/queue"
wanted='code=502
[05] /v/a -> /v/b, data=null
[02] /v/b, data=null
count=3'

# run TITLE PROGRAM   compares what the consumer prints
run() {
  local got
  got=$(LD_LIBRARY_PATH=$libdir "$2" "$scratch/queue")
  [ "$got" = "$wanted" ] || { printf '%s printed:\n%s\n' "$1" "$got"; exit 1; }
  echo "ok: $1"
}

read -ra flags <<<"$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs fileindex)"
"$cxx" -std=c++17 -Wall -Wextra -Wpedantic -Werror "$consumer/consumer.cpp" -o "$scratch/by-pkg-config" "${flags[@]}"
run "a C++17 program built by pkg-config" "$scratch/by-pkg-config"

cmake -S "$consumer" -B "$scratch/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_BUILD_RPATH="$libdir" >"$scratch/cmake.log" && cmake --build "$scratch/build" >>"$scratch/cmake.log" ||
  { cat "$scratch/cmake.log"; exit 1; }
run "a program built by CMake" "$scratch/build/consumer"

# Every exported header stands alone.
read -ra header_flags <<<"$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags fileindex)"
(cd "$prefix/include" && find orbisk -name '*.h') | while read -r header; do
  echo "#include \"$header\"" |
    "$cxx" -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only "${header_flags[@]}" -x c++ - ||
    { echo "$header does not stand alone"; exit 1; }
done
echo "ok: every exported header stands alone in C++17"

# The programs find their libraries from where they are.
env -u LD_LIBRARY_PATH "$prefix/bin/fileindexctl" queue ops --count "$scratch/queue" | grep -qx 'count=3'
"$prefix/bin/nimotifyd" --version >/dev/null
env -u LD_LIBRARY_PATH "$prefix/nimo/bin/nimonxmnotify" --version >/dev/null
[ -f "$prefix/share/orbisk/nimonxmnotify.json" ] || { echo "the texts of notifications are missing"; exit 1; }
[ -f "$prefix/share/bash-completion/completions/fileindexctl" ] || { echo "the completion is missing"; exit 1; }
for page in fileindexctl.1 fileindex.queue.5 fileindexd.8; do
  [ -f "$(find "$prefix" -name "$page")" ] || { echo "the manual page $page is missing"; exit 1; }
done
echo "ok: the installed programs run"

# What is installed does not look for anything in the build folder.
! grep -rF "$build_dir" "$libdir/pkgconfig" "$libdir/cmake" || { echo "names the build folder"; exit 1; }
for file in "$libdir"/*.so "$prefix"/bin/* "$prefix"/nimo/bin/*; do
  ! readelf -d "$file" | grep -F "$build_dir" || { echo "$file names the build folder"; exit 1; }
done
echo "ok: nothing points into the build folder"

count=0
while read -r page; do
  warnings=$(groff -ww -man -Tutf8 -z "$page" 2>&1)
  [ -z "$warnings" ] || { echo "$warnings"; exit 1; }
  count=$((count + 1))
done < <(find "$prefix" -path '*/man/*' -type f)
[ $count -gt 0 ] || { echo "no man page is installed"; exit 1; }
echo "ok: $count man pages without warnings"
