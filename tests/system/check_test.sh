#!/usr/bin/env bash
# scripts/check on a scratch copy of the tree: passes as it is, fails on each planted violation.
# usage: check_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail

source_dir=$1
build_dir=$2
scratch=$(mktemp -d -t check-test.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
failures=0

# A copy of what git would keep, in a tree that git knows, so that the check for words works too.
(cd "$source_dir" && find . \( -path ./build -o -path ./.git -o -path ./.cache \) -prune -o -type f -print0 |
  tar --null -T - -cf -) | tar -C "$scratch" -xf -
cd "$scratch"
git init -q .

# expect pass|fail TITLE OPTION...   runs scripts/check and compares how it ends
expect() {
  local wanted=$1 title=$2 got=pass output
  shift 2
  output=$(scripts/check --build-dir "$build_dir" "$@" 2>&1) || got=fail
  if [ "$got" = "$wanted" ]; then
    echo "ok: $title"
    return
  fi
  echo "NOT OK: $title: wanted $wanted, got $got"
  printf '%s\n' "$output" | sed 's/^/    /'
  failures=$((failures + 1))
}

# planted FILE LINE   a violation of who may include whom, in a new file
planted() {
  mkdir -p "$(dirname "$1")"
  printf '%s\n' "// Planted." "$2" >"$1"
  expect fail "$1 with $2" --layers
  rm "$1"
}

# allowed FILE LINE   the same for what is no violation
allowed() {
  mkdir -p "$(dirname "$1")"
  printf '%s\n' "// Planted." "$2" >"$1"
  expect pass "$1 with $2" --layers
  rm "$1"
}

expect pass "the tree as it is" --layers --format --shell --words

planted include/orbisk/planted.h '#include "common/check.h"'
planted include/orbisk/planted.h '#include "nimo/user.h"'
planted include/orbisk/planted.h '#include <boost/algorithm/string.hpp>'
planted include/orbisk/planted.h '#include <CLI/CLI.hpp>'
planted include/orbisk/sdk/planted.h '#include "sdk/share.h"'
planted common/planted.cpp '#include "sdk/share.h"'
planted common/planted.cpp '#include "fileindex/op_node.h"'
planted common/planted.cpp '#include "orbisk/fileindex/op.h"'
planted common/planted.cpp '#include "platform/linux/unique_fd.h"'
planted common/planted.cpp '#include <boost/function.hpp>'
planted common/planted.cpp '#include <sqlite3.h>'
planted common/planted.cpp '#include "../sdk/share.h"'
planted common/planted.cpp '#  include   "services/base/log.h"'
planted common/planted.cpp '#include "nowhere.h"'
planted common/planted.cpp '#include HEADER_OF_CHOICE'
planted sdk/planted.cpp '#include "fileindex/op_node.h"'
planted sdk/planted.cpp '#include "orbisk/fileindex/op.h"'
planted sdk/planted.cpp '#include "platform/linux/unique_fd.h"'
planted sdk/planted.cpp '#include <boost/function.hpp>'
planted fileindex/planted.cpp '#include "platform/linux/unique_fd.h"'
planted fileindex/planted.cpp '#include "services/base/log.h"'
planted fileindex/planted.cpp '#include "tools/fileindexctl/output.h"'
planted fileindex/planted.cpp '#include "tests/support/temp_dir.h"'
planted platform/include/nimo/planted.h '#include "orbisk/error.h"'
planted platform/include/nimo/planted.h '#include "common/check.h"'
planted platform/include/nimo/planted.h '#include <boost/function.hpp>'
planted platform/linux/planted.cpp '#include "orbisk/error.h"'
planted platform/linux/planted.cpp '#include "common/check.h"'
planted services/monitor/planted.cpp '#include "common/check.h"'
planted services/monitor/planted.cpp '#include "sdk/share.h"'
planted services/monitor/planted.cpp '#include "fileindex/op_node.h"'
planted services/monitor/planted.cpp '#include "platform/linux/unique_fd.h"'
planted services/monitor/planted.cpp '#include "tools/fileindexctl/output.h"'
planted services/monitor/planted.cpp '#include "services/search/store.h"'
planted services/base/planted.cpp '#include "services/search/store.h"'
planted services/base/planted.cpp '#include "common/check.h"'
planted tools/fileindexctl/planted.cpp '#include "fileindex/op_node.h"'
planted tools/fileindexctl/planted.cpp '#include "services/base/log.h"'

allowed include/orbisk/fileindex/planted.h '#include "orbisk/sdk/sdk_mutex.h"'
allowed common/planted.cpp '#include "nimo/user.h"'
allowed common/planted.cpp '#include <sys/stat.h>'
allowed sdk/planted.cpp '#include "common/check.h"'
allowed fileindex/planted.cpp '#include <boost/function.hpp>'
allowed platform/linux/planted.cpp '#include <acl/libacl.h>'
allowed services/monitor/planted.cpp '#include "orbisk/fileindex/op.h"'
allowed services/monitor/planted.cpp '#include "services/base/log.h"'
allowed tools/fileindexctl/planted.cpp '#include <CLI/CLI.hpp>'

for suffix in c cc cxx C hh hpp hxx inc inl ipp tpp; do
  planted common/planted.$suffix '#include <sys/stat.h>'
done
planted elsewhere/planted.cpp '#include <sys/stat.h>'
planted planted.h '#include <sys/stat.h>'
planted bench/planted.cc '#include <sys/stat.h>'
planted tests/unit/common/planted.hpp '#include <sys/stat.h>'

for folder in common bench packaging/consumer tests/unit/common tests/support platform/include/nimo; do
  printf '// Planted.\nint  Planted( ) ;\n' >$folder/planted.cpp
  expect fail "a file in $folder that clang-format would change" --format
  rm $folder/planted.cpp
done

printf '#!/usr/bin/env bash\nif true; then\n' >scripts/planted
expect fail "a script that does not parse" --shell
rm scripts/planted
printf '#!/bin/sh\nif true; then\n' >packaging/debian/fileindex.planted
expect fail "a package's script that does not parse" --shell
rm packaging/debian/fileindex.planted

printf 'As iss%s 12 asks.\n' ue >planted.md
expect fail "a forbidden word" --words
rm planted.md

# The library with one name more, linked as the real one is.
plant_symbol() {
  mkdir -p planted/lib
  printf '%s\n' "$1" >planted/planted.cpp
  g++ -shared -o planted/lib/libfileindex.so planted/planted.cpp \
    -Wl,--whole-archive "$build_dir/archive/libfileindex_static.a" -Wl,--no-whole-archive -fvisibility=hidden \
    "$2" -fPIC
}
if [ -e "$build_dir/lib/libfileindex.so" ]; then
  real_build_dir=$build_dir
  version_script=-Wl,--version-script=$scratch/fileindex/libfileindex.map
  expect pass "the library as it is" --symbols
  plant_symbol 'namespace orbisk { int Planted() { return 1; } }' "$version_script"
  build_dir=planted expect pass "a hidden function more" --symbols
  plant_symbol 'namespace orbisk { [[gnu::visibility("default")]] int Planted() { return 1; } }' "$version_script"
  build_dir=planted expect fail "an exported function more" --symbols
  plant_symbol '[[gnu::visibility("default")]] int planted() { return 1; }' -Wl,-O1
  build_dir=planted expect fail "an exported name outside of the namespace" --symbols
  build_dir=$real_build_dir
  grep -v 'orbisk::LockFile::~LockFile' fileindex/libfileindex.symbols >planted/symbols
  cp planted/symbols fileindex/libfileindex.symbols
  expect fail "an exported function that the list lacks" --symbols
fi

# clang-tidy on one small file: a build that compiles nothing else.
mkdir -p tidy common
printf '%s\n' '// Planted.' 'int* Planted();' 'int* Planted() {' '  int* p = 0;' '  return p;' '}' >common/planted.cpp
printf '%s\n' 'rule cxx' '  command = g++ -MD -MF $out.d -c $in -o $out' '  depfile = $out.d' '  deps = gcc' \
  "build planted.o: cxx $scratch/common/planted.cpp" >tidy/build.ninja
printf '[\n{\n  "directory": "%s",\n  "command": "g++ -o planted.o -c %s",\n  "file": "%s"\n}\n]\n' \
  "$scratch/tidy" "$scratch/common/planted.cpp" "$scratch/common/planted.cpp" >tidy/compile_commands.json
ninja -C tidy >/dev/null
build_dir=tidy expect fail "a null pointer written as 0" --tidy
build_dir=tidy expect fail "the same again" --tidy
sed -i 's/ = 0;/ = nullptr;/' common/planted.cpp
ninja -C tidy >/dev/null
build_dir=tidy expect pass "the null pointer mended" --tidy
build_dir=tidy expect pass "a file whose answer is known" --tidy

[ $failures -eq 0 ] || { echo "$failures expectations not met"; exit 1; }
echo "all expectations met"
