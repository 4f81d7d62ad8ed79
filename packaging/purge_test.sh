#!/usr/bin/env bash
# What a purge of the package takes off the volumes: indexes and queues of registered shares, and nothing of anybody else.
set -euo pipefail

postrm=$(cd "$(dirname "$0")/debian" && pwd)/fileindex.postrm
scratch=$(mktemp -d -t purge-test.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
failures=0

# The part of the script that looks for indexes, with registries of our own.
awk '/^END$/ { exit } inside { print } /<<.END.$/ { inside = 1 }' "$postrm" >remove.pl
grep -q '@ARGV' remove.pl || { echo "NOT OK: the script has no such part any more"; exit 1; }

# index VOLUME SHARE   what the daemons make for a share
index() {
  mkdir -p "$1/@fileindex/$2/db" "$1/@fileindex/$2/db.moving" "$1/$2/db"
  touch "$1/@fileindex/$2/db/main" "$1/@fileindex/$2/queue" "$1/@fileindex/$2/queue.tmp"
  touch "$1/@fileindex/$2/queue.mark" "$1/@fileindex/$2/queue.mark.new" \
    "$1/@fileindex/$2/queue.failures" "$1/@fileindex/$2/queue.failures.new"
  touch "$1/$2/queue" "$1/$2/queue.mark" "$1/$2/db/main"
}

gone() {
  [ ! -e "$2" ] && [ ! -L "$2" ] && echo "ok: $1" && return
  echo "NOT OK: $1: $2 is there" && failures=$((failures + 1))
}

kept() {
  [ -e "$2" ] && echo "ok: $1" && return
  echo "NOT OK: $1: $2 is gone" && failures=$((failures + 1))
}

odd=$'it\'s "odd" \\ $HOME\n\t\xff'
index v1 docs
index v2 docs
index v2 unregistered
index v3 "$odd"
index v4 ümlaut
index v5 forgotten
index v6 kept-file && touch v6/@fileindex/kept-file/mine
mkdir -p v7/real && index v7/real linked && ln -s real/@fileindex v7/@fileindex && mkdir v7/linked
mkdir -p v8/@fileindex v8/target && touch v8/target/db && ln -s ../target v8/@fileindex/linked
mkdir -p v9/@fileindex/inner v9/target && touch v9/target/file && ln -s ../../target v9/@fileindex/inner/db
index v10/@fileindex inside
mkdir -p v11/@fileindex/inner && touch v11/queue v11/@fileindex/queue
index . relative && touch @fileindex/queue

json() {
  printf '%s' "$1" | perl -0pe 's/(["\\])/\\$1/g; s/\n/\\n/g; s/\t/\\u0009/g'
}
{
  printf '[\n{"encrypted":false,"name":"docs","path":"%s/v1/docs"}' "$scratch"
  printf ',\n{"name":"docs", "path" : "%s/v2/docs"}' "$scratch"
  printf ',\n{"name":"odd","path":"%s"}' "$(json "$scratch/v3/$odd")"
  printf ',\n{"name":"umlaut","path":"%s/v4/\\u00fcmlaut"}' "$scratch"
  for path in v6/kept-file v7/linked v8/linked v9/inner v10/@fileindex/inside v11/. v11/.. v11/../v11/inner missing/share; do
    printf ',\n{"path":"%s/%s"}' "$scratch" "$path"
  done
  printf ',\n{"path":"relative"},{"path":""},{"path":"/"},{"path":"%s/"}\n]\n' "$scratch"
} >shares.json
printf '{"indexes":[{"id":"fileindex_forgotten","path":"%s/v5/@fileindex/forgotten/db"}]}' "$scratch" >indexes.json

perl remove.pl shares.json indexes.json no-such-file 2>warnings || { cat warnings; exit 1; }
[ ! -s warnings ] || { cat warnings; echo "NOT OK: it warns"; exit 1; }

gone "an index goes, and the folder of indexes with the last of them" v1/@fileindex
kept "a share's own files stay, whatever they are called" v1/docs/db/main
gone "each volume's index goes" v2/@fileindex/docs
kept "the index of a share that is not registered stays" v2/@fileindex/unregistered/db/main
gone "names may have quotes, control characters and any bytes" v3/@fileindex
kept "the files of a share with such a name stay" "v3/$odd/db/main"
gone "names may be escaped" v4/@fileindex
gone "an index that only the search daemon knows goes" v5/@fileindex
gone "beside a foreign file an index goes" v6/@fileindex/kept-file/db
kept "a foreign file stays" v6/@fileindex/kept-file/mine
kept "the folder of indexes is not followed when it is a link" v7/real/@fileindex/linked/db/main
kept "a share's folder of indexes is not followed when it is a link" v8/target/db
kept "an index is not followed when it is a link" v9/target/file
gone "such a link goes" v9/@fileindex/inner
gone "a share may lie in a folder with that name" v10/@fileindex/@fileindex
kept "a path that ends in two dots is nobody's share" v11/queue
kept "a path that ends in a dot is nobody's share" v11/@fileindex/queue
kept "a path with dots in it is nobody's share" v11/@fileindex/inner
kept "a relative path is nobody's share" @fileindex/relative/db/main
kept "an empty path is nobody's share" @fileindex/queue
[ $failures -eq 0 ] || exit 1
