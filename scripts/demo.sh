#!/usr/bin/env bash
# Demo: builds the daemon, starts a private MariaDB and the daemon in the
# foreground under a temporary root, and shows it through cloudctl.
#   scripts/demo.sh            runs until Ctrl-C
#   scripts/demo.sh SECONDS    stops by itself after SECONDS
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)
seconds=${1:-0}

scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"

work=$(mktemp -d /tmp/cloud-demo.XXXXXX)
root="$work/root"
mkdir -p "$root/var/tmp" "$root/etc"
daemon_pid=
cleanup() {
    if [[ -n "$daemon_pid" ]] && kill -0 "$daemon_pid" 2>/dev/null; then
        kill -TERM "$daemon_pid"
        wait "$daemon_pid" || true
    fi
    "$top/scripts/mariadb.sh" stop "$work/db" >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 0' INT TERM

eval "$(scripts/mariadb.sh start "$work/db")"
cp "$work/db/cloud.db.conf" "$root/etc/cloud.db.conf"

echo "== starting: build/cloud -f -r $root"
build/cloud -f -r "$root" &
daemon_pid=$!
for _ in $(seq 1 100); do
    [[ -S "$root/var/tmp/cloud.d" ]] && break
    sleep 0.1
done

ctl() {
    echo "== cloudctl $*"
    build/cloudctl -r "$root" "$@" || true
}
ctl 387
ctl 388 name=cpu
ctl cpu 2050
ctl thread 2050
ctl -b dbf 2050

cat <<MSG

The daemon runs in the foreground (pid $daemon_pid). Try, in another shell:
  $top/build/cloudctl -r $root 387
  $top/build/cloudctl -r $root cpu 2050
  mariadb --socket=$work/db/mysqld.sock -u$CLOUD_DB_USER -p$CLOUD_DB_PASSWORD vtlog
Ctrl-C stops the daemon and removes $work.
MSG

if [[ "$seconds" -gt 0 ]]; then
    sleep "$seconds"
else
    wait "$daemon_pid" || true
fi
