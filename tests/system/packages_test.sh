#!/usr/bin/env bash
# The packages in a fresh Debian: installed, used, upgraded, removed, purged; once where nothing manages services, once
# under systemd. All is in mount, process and cgroup namespaces, and on disk below PACKAGES_DIR/test.
# usage: packages_test.sh PACKAGES_DIR   as root, with the network; PACKAGES_DIR/earlier has packages of a lower version
set -euo pipefail

packages=$(realpath "$1")
here=$packages/test
[ "$(id -u)" -eq 0 ] || { echo "packages_test: needs root" >&2; exit 1; }
ls "$packages"/fileindex_*.deb "$packages"/earlier/fileindex_*.deb >/dev/null
# shellcheck source=tests/system/debian_box.sh
. "$(dirname "$0")/debian_box.sh"

furnish() {
  mkdir -p "$1/packages" "$1/volume1" "$1/volume2"
  mount --bind "$packages" "$1/packages"
  mount -o remount,bind,ro "$1/packages"
}

# --- Expectations. ---

fail() {
  echo "NOT OK: $*" >&2
  if [ -n "$box" ]; then
    in_box journalctl -b --no-pager 2>/dev/null | tail -60 >&2 || true
    in_box sh -c 'tail -n 20 /var/log/box-*.log 2>/dev/null' >&2 || true
  fi
  exit 1
}

ok() {
  echo "ok: $*"
}

# finds WORD FILE   soon
finds() {
  soon 60 sh -c 'fileindexctl search "$1" | grep -qF "$2"' sh "$1" "$2" || {
    in_box fileindexctl search "$1" >&2 || true
    fail "a search for $1 does not find $2"
  }
}

lacks() {
  ! in_box test -e "$1" -o -L "$1" || fail "$1 is there"
}

has() {
  in_box test -e "$1" || fail "$1 is missing"
}

# dpkg_step TITLE COMMAND...   what it says is shown if it fails
dpkg_step() {
  local title=$1
  shift
  in_box "$@" >"$here/dpkg.log" 2>&1 || { cat "$here/dpkg.log"; fail "$title"; }
  ok "$title"
}

installed_version() {
  in_box dpkg-query -W -f '${Version}' fileindex
}

debs() {
  (cd "$packages/$1" && ls ./*.deb) | grep -vE 'dbgsym|-dev_' | sed "s|^\./|/packages/${1:+$1/}|"
}

# --- The daemons, by hand or as services. ---

# The two that the library does not start itself.
start_by_hand() {
  local daemon
  for daemon in nimotifyd nimoelasticd; do
    in_box sh -c 'setsid "$1" --log-stderr >>"/var/log/box-$1.log" 2>&1 </dev/null &' sh "$daemon"
  done
}

stop_by_hand() {
  local daemon
  for daemon in nimotifyd nimoelasticd; do
    in_box sh -c 'for exe in /proc/[0-9]*/exe; do
        case "$(readlink "$exe")" in "/usr/bin/$1"*) pid=${exe#/proc/}; kill "${pid%/exe}" ;; esac
      done' sh "$daemon"
  done
  soon 10 sh -c '! readlink /proc/[0-9]*/exe | grep -qE "/usr/bin/nimo(tifyd|elasticd)"' || fail "daemons do not stop"
}

check_services() {
  local unit
  for unit in nimotifyd nimoelasticd nimocontentextractd fileindexd pkg-Orbisk-fileindexd; do
    soon 20 systemctl is-active --quiet "$unit" || fail "$unit does not run"
  done
  for unit in nimotifyd nimoelasticd nimocontentextractd fileindexd; do
    in_box systemctl is-enabled --quiet "$unit" || fail "$unit is not enabled"
  done
  ok "four services run and are enabled"
}

started_at() {
  in_box systemctl show -p ExecMainStartTimestampMonotonic -p MainPID fileindexd nimoelasticd nimotifyd nimocontentextractd
}

# --- What is tried. ---

odd="it's \"odd\" \$HOME"

# With the first folder the library starts extractor and indexing daemon, by its own name for the latter.
make_shares() {
  [ "$1" = none ] || in_box systemctl stop fileindexd nimocontentextractd
  in_box mount -t tmpfs -o mode=0755 volume1 /volume1
  in_box mkdir -p /volume1/docs "/volume1/$odd" /volume2
  in_box sh -c 'echo "a heron at the weir" >/volume1/docs/heron.txt; echo "an otter" >"$1/otter.txt"' sh "/volume1/$odd"
  in_box fileindexctl share register docs /volume1/docs
  in_box fileindexctl share register "$odd" "/volume1/$odd"
  in_box fileindexctl folder add /docs --name Documents >/dev/null
  in_box fileindexctl folder add "/$odd" --name Odd >/dev/null
  finds heron /volume1/docs/heron.txt
  finds otter /otter.txt
  ok "shares are indexed, and a search finds their documents"
  in_box sh -c 'echo "a kingfisher" >/volume1/docs/new.txt'
  finds kingfisher /volume1/docs/new.txt
  ok "a search finds what is new"
}

check_group() {
  [ "$(in_box stat -c '%U:%G %a' /run/nimoelasticd.sock)" = 'root:Orbisk 660' ] || fail "nimoelasticd's socket is another's"
  [ "$(in_box stat -c '%U:%G %a' /run/fileindexd.sock)" = 'root:Orbisk 660' ] || fail "fileindexd's socket is another's"
  in_box setpriv --reuid Orbisk --regid Orbisk --clear-groups fileindexctl search heron | grep -q heron.txt ||
    fail "the account Orbisk may not search"
  ! in_box setpriv --reuid nobody --regid nogroup --clear-groups fileindexctl search heron >/dev/null 2>&1 ||
    fail "everybody may search"
  ok "the group Orbisk may search, others may not"
}

# A unit that refused it would not be noticed otherwise.
check_priority() {
  local pid
  pid=$(in_box sh -c 'for exe in /proc/[0-9]*/exe; do
      [ "$(readlink "$exe")" != /usr/bin/fileindexd ] || basename "${exe%/exe}"; done')
  in_box sh -c 'cat /proc/$1/task/*/stat' sh "$pid" | sed 's/.*) //' | awk '$17 == 10 && $39 == 3' | grep -q . ||
    fail "fileindexd's workers have no low priority"
  ok "the indexing daemon's workers have a low priority"
}

files_of_shares() {
  in_box sh -c 'cd / && find volume1/docs volume1/it* volume2 -exec stat -c "%n %F %a %u %g %s %Y" {} + | LC_ALL=C sort
    find volume1/docs volume1/it* volume2 -type f -exec sha256sum {} + | LC_ALL=C sort'
}

upgrade() {
  local manager=$1 before
  in_box sed -i 's|fileindexd"\]|fileindexd","--settle-ms","100"]|' /etc/nimo/services.d/pkg-Orbisk-fileindexd.json
  [ "$manager" = none ] || before=$(started_at)
  # shellcheck disable=SC2046
  dpkg_step "upgrade" apt-get install -y -q --no-install-recommends -o Dpkg::Options::=--force-confdef \
    -o Dpkg::Options::=--force-confold $(debs "")
  [ "$(installed_version)" != "$earlier_version" ] || fail "the version is still $earlier_version"
  in_box grep -q settle-ms /etc/nimo/services.d/pkg-Orbisk-fileindexd.json || fail "a changed configuration file is lost"
  in_box grep -q '"notify":true' /etc/nimo/services.d/nimocontentextractd.json || fail "a configuration file is still the old one"
  ok "an upgrade keeps changed configuration files and renews the others"
  if [ "$manager" = none ]; then
    stop_by_hand
    start_by_hand
    soon 20 sh -c 'readlink /proc/[0-9]*/exe | grep -qx /usr/bin/fileindexd' || fail "fileindexd was not started again"
  else
    check_services
    [ "$(started_at)" != "$before" ] || fail "the services were not restarted"
  fi
  finds heron /volume1/docs/heron.txt
  in_box sh -c 'echo "a dipper" >/volume1/docs/later.txt'
  finds dipper /volume1/docs/later.txt
  ok "what was indexed before an upgrade is found after it, and so is what is new"
}

remove_and_reinstall() {
  local manager=$1 kept
  dpkg_step "remove" apt-get remove -y -q fileindex
  [ "$manager" = systemd ] || stop_by_hand
  ! in_box sh -c 'readlink /proc/[0-9]*/exe | grep -E "nimo|fileindex"' || fail "a daemon still runs"
  for kept in /var/lib/nimoelasticd/indexes.json /var/packages/Orbisk/etc/fileindex.folders /etc/nimo/shares.json \
      /etc/nimo/services.d/pkg-Orbisk-fileindexd.json /volume1/@fileindex/docs/db /volume1/docs/heron.txt; do
    has "$kept"
  done
  lacks /usr/bin/fileindexd
  ok "a removal ends the daemons and keeps configuration and indexes"
  # shellcheck disable=SC2046
  dpkg_step "install again" apt-get install -y -q --no-install-recommends $(debs "")
  if [ "$manager" = none ]; then
    start_by_hand
    soon 20 test -S /run/nimoelasticd.sock || fail "nimoelasticd does not start"
  else
    check_services
  fi
  finds heron /volume1/docs/heron.txt
  ok "what was indexed before a removal is found after installing again"
}

# What a purge might take by mistake: a share's own files with the names of index files, and links.
set_traps() {
  in_box sh -c 'cd /volume1/docs && mkdir -p db @fileindex/docs/db && echo mine >db/mine && echo mine >queue &&
    echo mine >@fileindex/docs/db/mine && mkdir -p /volume1/@fileindex/foreign && echo mine >/volume1/@fileindex/foreign/mine
    mkdir -p /volume2/real/linked/db /volume2/linked && echo mine >/volume2/real/linked/db/mine &&
    ln -s /volume2/real /volume2/@fileindex && fileindexctl share register linked /volume2/linked
    mkdir -p /volume2/dots && fileindexctl share register dots /volume2/dots'
}

# With the last folder the library stops them.
delete_folders() {
  in_box fileindexctl folder delete --yes /docs "/$odd" >/dev/null
  soon 20 sh -c '! readlink /proc/[0-9]*/exe | grep -qE "/usr/bin/(fileindexd|nimocontentextractd)\$"' ||
    fail "extractor and indexing daemon still run without any folder"
  in_box fileindexctl folder add /docs --name Documents >/dev/null
  in_box fileindexctl folder add "/$odd" --name Odd >/dev/null
  finds heron /volume1/docs/heron.txt
  finds otter /otter.txt
  ok "the library stops and starts extractor and indexing daemon"
}

purge() {
  local manager=$1 before state left
  set_traps
  [ "$manager" = systemd ] || stop_by_hand
  before=$(files_of_shares)
  dpkg_step "purge" apt-get purge -y -q fileindex
  for state in /var/lib/nimoelasticd /var/lib/nimotifyd /var/lib/nimocontentextractd /var/packages /etc/nimo \
      /volume1/@fileindex/docs "/volume1/@fileindex/$odd" /run/nimo /tmp/orbisk_cfg_folder.lock; do
    lacks "$state"
  done
  has /volume1/@fileindex/foreign/mine
  [ "$(files_of_shares)" = "$before" ] || fail "files of shares are not what they were"
  ok "a purge removes state, configuration and indexes, and leaves the files of shares"
  dpkg_step "purge of the libraries" apt-get purge -y -q libfileindex0 libnimo0
  left=$(in_box sh -c 'find / -xdev \( -path /proc -o -path /sys -o -path /packages -o -path /volume2 -o -path /var/cache/apt \
    -o -path "/var/lib/apt" -o -path /var/log \) -prune -o \( -iname "*nimo*" -o -iname "*fileindex*" -o -iname "*orbisk*" \) -print;
    find /run /tmp -name "*nimo*" -o -name "*fileindex*" -o -name "*orbisk*"' | grep -v '^/run/systemd' || true)
  [ -z "$left" ] || fail "left behind: $left"
  ok "nothing of the packages is left"
}

try_out() {
  local manager=$1
  echo "== ${2}"
  start_box "$manager"
  dpkg_step "apt-get update" apt-get update -q
  # shellcheck disable=SC2046
  dpkg_step "install" apt-get install -y -q --no-install-recommends $(debs earlier)
  earlier_version=$(installed_version)
  in_box getent group Orbisk >/dev/null || fail "there is no group Orbisk"
  if [ "$manager" = none ]; then start_by_hand; else check_services; fi
  soon 20 test -S /run/nimotifyd.sock -a -S /run/nimoelasticd.sock || fail "monitor and search daemon do not start"
  make_shares "$manager"
  [ "$manager" = none ] || check_services
  check_group
  check_priority
  upgrade "$manager"
  remove_and_reinstall "$manager"
  delete_folders
  purge "$manager"
  end_box
}

# The library is used from where the packages put it, by pkg-config and by CMake.
try_development() {
  local unpacked=$here/unpacked consumer deb libdir flags wanted=3
  consumer=$(cd "$(dirname "$0")/../../packaging/consumer" && pwd)
  rm -rf "$unpacked" "$here/consumer"
  mkdir -p "$unpacked"
  for deb in "$packages"/libfileindex-dev_*.deb "$packages"/libfileindex0_*.deb "$packages"/libnimo0_*.deb; do
    dpkg-deb -x "$deb" "$unpacked"
  done
  libdir=$(dirname "$(find "$unpacked" -name libfileindex.so)")
  printf '%s\n' '{"event":64,"path":"/v/a"}' '{"event":256,"path":"/v/b","path_old":"/v/a"}' >"$here/queue"
  read -ra flags <<<"$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs fileindex)"
  c++ -std=c++17 "$consumer/consumer.cpp" -o "$here/by-pkg-config" "${flags[@]}"
  cmake -S "$consumer" -B "$here/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$unpacked/usr" >"$here/cmake.log" &&
    cmake --build "$here/consumer" >>"$here/cmake.log" || { cat "$here/cmake.log"; fail "CMake does not find the library"; }
  for program in "$here/by-pkg-config" "$here/consumer/consumer"; do
    LD_LIBRARY_PATH=$libdir "$program" "$here/queue" | grep -qx "count=$wanted" || fail "$program prints something else"
  done
  ok "programs are built with the development package, by pkg-config and by CMake"
}

[ "${2:-}" != become ] || become_box "$3"
mounts=$(wc -l </proc/self/mountinfo)
try_development
make_base
try_out none "where nothing manages services"
if make_cgroup; then
  try_out systemd "under systemd"
else
  echo "skipped: under systemd: this machine gives the test no cgroup"
fi
[ "$(wc -l </proc/self/mountinfo)" -eq "$mounts" ] || fail "mounts are left behind"
echo "the packages keep their promises"
