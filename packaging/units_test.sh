#!/usr/bin/env bash
# The systemd units: systemd understands every line of them, and each service is shut off as far as promised.
# usage: units_test.sh BUILD_DIR   ends with 77 where there is no systemd-analyze
set -euo pipefail

build_dir=$1
units=$(cd "$(dirname "$0")/systemd" && pwd)
command -v systemd-analyze >/dev/null || { echo "skipped: there is no systemd-analyze (package systemd)"; exit 77; }
scratch=$(mktemp -d -t units-test.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
failures=0

# A unit is verified with the programs that it starts, and those of the package are not installed here.
for unit in "$units"/*.service; do
  sed "s|^ExecStart=/usr/bin/|ExecStart=$build_dir/bin/|" "$unit" >"$scratch/${unit##*/}"
done
said=$(cd "$scratch" && systemd-analyze verify --man=no ./*.service 2>&1) || said+=" (status $?)"
if [ -n "$said" ]; then
  printf 'NOT OK: systemd-analyze verify:\n%s\n' "$said"
  failures=$((failures + 1))
else
  echo "ok: systemd understands $(find "$scratch" -name '*.service' | wc -l) units"
fi

# 0 is shut off from everything, 10 from nothing; the threshold is in tenths.
for unit in "$units"/*.service; do
  status=0
  systemd-analyze security --offline=true --threshold=30 --no-pager "$unit" >"$scratch/security" 2>&1 || status=$?
  level=$(sed -n 's/.*Overall exposure level for .*: \([0-9.]*\) .*/\1/p' "$scratch/security")
  if [ $status -ne 0 ] || [ -z "$level" ]; then
    echo "NOT OK: ${unit##*/}: exposure ${level:-unknown}, 3.0 is the bound"
    cat "$scratch/security"
    failures=$((failures + 1))
  else
    echo "ok: ${unit##*/}: exposure $level"
  fi
done

# Each daemon says when it serves; who is started after it may rely on that.
for unit in "$units"/*.service; do
  if ! grep -qx 'Type=notify' "$unit"; then
    echo "NOT OK: ${unit##*/} does not wait for its daemon"
    failures=$((failures + 1))
  fi
done

# The monitor may take long to be ready. What waited for it would hold up who starts that.
if grep -lE '^(After|Requires|Requisite|BindsTo)=.*nimotifyd' "$units"/*.service; then
  echo "NOT OK: this unit waits for the monitor's watches"
  failures=$((failures + 1))
fi

# The library starts the indexing daemon by another name.
grep -qx 'lib/systemd/system/fileindexd.service lib/systemd/system/pkg-Orbisk-fileindexd.service' \
  "$units/../debian/fileindex.links" || { echo "NOT OK: the library's name for fileindexd is missing"; exit 1; }
exit $((failures > 0))
