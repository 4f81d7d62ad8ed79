# A fresh Debian 12 as a box: made by debootstrap, entered through mount, process and cgroup namespaces. To be sourced by a
# test that has set `here`, the folder on disk below which all of it lies, that has a function `furnish ROOT`, which
# mounts what the test wants to see in the box, and that calls `become_box "$3"` if its second argument is "become"; its
# first is then as it was.

box_script=("$BASH" "$0" "$1")
box=       # process number of the box's first process
cgroup=    # the box's own cgroup, where there is one
mkdir -p "$here/archives"

end_box() {
  [ -z "$box" ] || kill -KILL "$box" 2>/dev/null || true
  [ -z "$box" ] || wait "$keeper" 2>/dev/null || true
  box=
  local i
  for ((i = 0; i < 50; ++i)); do
    [ -n "$cgroup" ] && [ -d "$cgroup" ] || break
    find "$cgroup" -depth -type d -exec rmdir {} \; 2>/dev/null || sleep 0.1
  done
  cgroup=
}
trap end_box EXIT
trap 'exit 130' INT TERM

# What every box starts from; kept for the next run.
make_base() {
  local mirror
  [ ! -e "$here/base.done" ] || return 0
  mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Label: Debian' 'Codename: bookworm' |
    head -1)
  [ -n "$mirror" ] || { echo "apt knows no mirror of Debian 12" >&2; exit 1; }
  rm -rf --one-file-system "$here/base"
  echo "making a fresh Debian 12 ..."
  setpriv --pdeathsig KILL unshare -m --propagation private debootstrap --variant=minbase \
    --include=systemd,systemd-sysv,ca-certificates bookworm "$here/base" "$mirror" >"$here/debootstrap.log" 2>&1 ||
    { tail -20 "$here/debootstrap.log"; exit 1; }
  touch "$here/base.done"
}

# Runs in the namespaces, becomes the box's first process. What is written lies in memory over the fresh Debian, with
# `box_on_disk` below `here`, and /proc/sys is the machine's, so it can only be read.
become_box() {
  local manager=$1 root=$here/root node
  trap - EXIT
  mkdir -p "$root"
  if [ -n "${box_on_disk:-}" ]; then
    rm -rf --one-file-system "${root:?}"/*
  else
    mount -t tmpfs -o mode=0755 box "$root"
  fi
  mkdir "$root/upper" "$root/work" "$root/root"
  mount -t overlay -o "lowerdir=$here/base,upperdir=$root/upper,workdir=$root/work" overlay "$root/root"
  root=$root/root
  mount -t proc proc "$root/proc"
  mount --bind "$root/proc/sys" "$root/proc/sys"
  mount -o remount,bind,ro "$root/proc/sys"
  mount -t sysfs -o ro sysfs "$root/sys"
  mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup" 2>/dev/null || [ "$manager" = none ]
  mount -t tmpfs -o mode=0755 box "$root/run"
  mount -t tmpfs -o mode=1777 box "$root/tmp"
  mount -t tmpfs -o mode=0755 box "$root/dev"
  for node in null zero full random urandom tty; do
    touch "$root/dev/$node"
    mount --bind "/dev/$node" "$root/dev/$node"
  done
  mkdir -m 1777 "$root/dev/shm"
  ln -s /proc/self/fd "$root/dev/fd"
  ln -s /proc/self/fd/0 "$root/dev/stdin"
  ln -s /proc/self/fd/1 "$root/dev/stdout"
  ln -s /proc/self/fd/2 "$root/dev/stderr"
  ln -s pts/ptmx "$root/dev/ptmx"  # a unit with devices of its own gets a copy
  mkdir -p "$root/old"
  touch "$root/run/box"
  furnish "$root"
  mount --bind "$here/archives" "$root/var/cache/apt/archives"
  cp -L /etc/resolv.conf "$root/etc/resolv.conf"
  cp -L /etc/hosts "$root/etc/hosts"
  cd "$root"
  pivot_root . old
  umount -l /old
  rmdir /old
  mount --make-rshared /
  if [ "$manager" = systemd ]; then
    exec env -i container=other PATH=/usr/sbin:/usr/bin /lib/systemd/systemd </dev/null
  fi
  # Nothing but a process that sees to those whose parents are gone.
  exec env -i PATH=/usr/sbin:/usr/bin bash -c 'while :; do sleep 0.1; done' </dev/null
}

# A cgroup for systemd to rule over; fails where the machine gives none.
make_cgroup() {
  local top
  top=$(awk '$0 ~ / - cgroup2 / { print $5; exit }' /proc/self/mountinfo)
  # Left by a killed run; one in use cannot be removed.
  [ -z "$top" ] || find "$top"/fileindex-packages-test.* -depth -type d -exec rmdir {} \; 2>/dev/null || true
  [ -n "$top" ] && mkdir "$top/fileindex-packages-test.$$" 2>/dev/null || return 1
  cgroup=$top/fileindex-packages-test.$$
}

# start_box none|systemd   sets `box`
start_box() {
  local i entered="$here/entered"
  rm -f "$entered"
  # The cgroup is entered before its namespace is made, so that the box takes it for the topmost.
  setpriv --pdeathsig KILL bash -c 'echo $$ >"$1"; [ -z "$2" ] || echo $$ >"$2/cgroup.procs"; shift 2; exec "$@"' \
    keeper "$entered" "$cgroup" \
    unshare -m -p -f -C -u -i --propagation private --kill-child "${box_script[@]}" become "$1" \
    >"$here/box.log" 2>&1 &
  keeper=$!
  for ((i = 0; i < 300; ++i)); do
    box=$(pgrep -P "$keeper" || true)
    [ -z "$box" ] || ! in_box test -e /run/box -a ! -e /old 2>/dev/null || break
    sleep 0.1
  done
  in_box test -e /run/box || { cat "$here/box.log"; echo "the box does not start" >&2; exit 1; }
  if [ "$1" = systemd ]; then
    soon 60 sh -c 'systemctl is-system-running 2>/dev/null | grep -qE "running|degraded"' || fail "systemd does not start"
  fi
}

in_box() {
  nsenter -a -t "$box" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive ${http_proxy:+http_proxy="$http_proxy"} "$@"
}

# soon SECONDS COMMAND...   whether it succeeds in the box within that time
soon() {
  local end=$((SECONDS + $1))
  shift
  until in_box "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $end ] || return 1
    sleep 0.2
  done
}
