# For scripts/demo: a storage box in namespaces of its own. Nothing here changes the machine: what the box's programs
# write outside of the given folder is in memory and goes with the namespaces.
# shellcheck shell=bash

volume=/mnt/volume1
records=/var/log/records

# --- What the box covers of the machine. ---

# Makes the places private that the daemons, the library and their clients write to. What the box needs of the machine
# (programs, and $scratch with the volume) keeps its place also where it lies below them.
cover_machine() {
  local kept=() i path
  for path in "$top" "$ORBISK_BIN_DIR" "$scratch"; do
    case "$path/" in
      /dev/*|/etc/*|/mnt/*|/run/*|/tmp/*|/var/*)
        mkdir -p "$scratch/tree/${#kept[@]}"
        mount --rbind "$path" "$scratch/tree/${#kept[@]}"
        kept+=("$path")
        ;;
    esac
  done
  exec {scratch_fd}<"$scratch"
  cover_etc
  mount -t tmpfs -o mode=0755 box "$(realpath /var/run)"
  mount -t tmpfs -o mode=1777 box /tmp
  mount -t tmpfs -o mode=0755 box /var
  mount -t tmpfs -o mode=0755 box /mnt
  ln -s /run /var/run
  mkdir -p /var/lib /var/log /var/packages/Orbisk/etc /etc/nimo/services.d "$volume"
  for i in "${!kept[@]}"; do
    mkdir -p "${kept[$i]}"
    mount --rbind "/proc/self/fd/$scratch_fd/tree/$i" "${kept[$i]}"
  done
  mount --bind "/proc/self/fd/$scratch_fd/volume" "$volume"
  exec {scratch_fd}<&-
}

# Accounts and the like must stay readable, so /etc is covered by a copy; without init scripts, lest a file server of
# the machine is taken for the box's.
cover_etc() {
  mkdir -p "$scratch/etc"
  mount -t tmpfs -o mode=0755 box "$scratch/etc"
  cp -a /etc/. "$scratch/etc/" 2>/dev/null || true
  rm -rf "$scratch/etc/init.d" "$scratch/etc/nimo"
  mount --bind "$scratch/etc" /etc
}

# Keeps the daemons' records in a file. /dev is covered for it: who listens at the machine's /dev/log is not meant.
start_log() {
  local entry name devices=$scratch/devices
  mkdir -p "$devices"
  mount --rbind /dev "$devices"
  mount -t tmpfs -o mode=0755 box /dev
  for entry in "$devices"/*; do
    name=${entry##*/}
    case "$name" in log|mqueue|hugepages) continue ;; esac
    if [ -L "$entry" ]; then
      cp -P "$entry" "/dev/$name"
    elif [ -d "$entry" ]; then
      mkdir "/dev/$name" && mount --rbind "$entry" "/dev/$name"
    else
      : >"/dev/$name" && mount --bind "$entry" "/dev/$name"
    fi
  done
  perl -MSocket -e '
    socket(my $log, AF_UNIX, SOCK_DGRAM, 0) or die "no socket: $!";
    bind($log, pack_sockaddr_un("/dev/log")) or die "no /dev/log: $!";
    open(STDOUT, ">>", $ARGV[0]) or die "no $ARGV[0]: $!";
    $| = 1;
    my $record;
    while (defined recv($log, $record, 65536, 0)) {
      $record =~ s/^<\d+>//;
      $record =~ s/\n?\0?$/\n/;
      print $record;
    }
  ' "$records" </dev/null &
  wait_for 10 test -S /dev/log || fail "nobody keeps the records"
}

# --- Waiting. ---

now_us() {
  echo "${EPOCHREALTIME/[.,]/}"
}

# wait_for SECONDS COMMAND...   until the command succeeds; fails when it does not in time
wait_for() {
  local end=$(($(now_us) + $1 * 1000000))
  shift
  until "$@" >/dev/null 2>&1; do
    [ "$(now_us)" -lt $end ] || return 1
    sleep 0.02
  done
}

# --- Services. ---

# The services that the library switches. It asks systemd only where /run/systemd/system is, and in the box it is not.
describe_services() {
  local name
  for name in nimocontentextractd fileindexd; do
    printf '{"command":["%s/%s"],"notify":true}\n' "$ORBISK_BIN_DIR" "$name" >"/etc/nimo/services.d/${service_of[$name]}.json"
  done
}
declare -A service_of=([nimocontentextractd]=nimocontentextractd [fileindexd]=pkg-Orbisk-fileindexd
  [nimotifyd]=nimotifyd [nimoelasticd]=nimoelasticd)

# pid_of PROGRAM   of the daemon, from the file that whoever started it made; fails when it does not run
pid_of() {
  local pid
  pid=$(cat "/run/nimo/${service_of[$1]}.pid" 2>/dev/null) || return 1
  [ "/proc/$pid/exe" -ef "$ORBISK_BIN_DIR/$1" ] && echo "$pid"
}

# What a box runs anyway, started in the way in which the library starts services.
start_daemon() {
  mkdir -p /run/nimo
  start-stop-daemon --start --quiet --background --make-pidfile --pidfile "/run/nimo/$1.pid" \
    --exec "$ORBISK_BIN_DIR/$1"
  wait_for 20 test -S "/run/$1.sock" || fail "$1 does not start"
}

# From power on to everything in its place. The library decides whether extractor and indexing daemon are needed.
boot() {
  start_daemon nimotifyd
  start_daemon nimoelasticd
  fileindexctl services prepare
}

# Ends all daemons at one blow, as a power cut does.
cut_power() {
  local name pid
  for name in fileindexd nimocontentextractd nimoelasticd nimotifyd; do
    pid=$(pid_of "$name") || continue
    kill -KILL "$pid"
    wait_for 10 not_running "$pid" || fail "$name cannot be killed"
  done
  rm -rf /run/nimo /run/*.sock
}

not_running() {
  ! [ -e "/proc/$1/exe" ]
}

# memory_of PROGRAM   resident KiB of all its processes: now, and the most of each added up
memory_of() {
  local process now most all_now=0 all_most=0
  for process in /proc/[0-9]*; do
    [ "$process/exe" -ef "$ORBISK_BIN_DIR/$1" ] || continue
    now=$(sed -n 's/^VmRSS:[^0-9]*\([0-9]*\).*/\1/p' "$process/status") || continue
    most=$(sed -n 's/^VmHWM:[^0-9]*\([0-9]*\).*/\1/p' "$process/status") || continue
    all_now=$((all_now + ${now:-0}))
    all_most=$((all_most + ${most:-0}))
  done
  echo "$all_now $all_most"
}
