#!/usr/bin/env bash
# Demo: builds the daemon, starts a private MariaDB and the daemon in the
# foreground under a temporary root, lets vtsim play a few dozen gateways
# against it, and shows them through cloudctl and the database.
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
sim_pid=
cleanup() {
    if [[ -n "$sim_pid" ]] && kill -0 "$sim_pid" 2>/dev/null; then
        kill -TERM "$sim_pid"
        wait "$sim_pid" || true
    fi
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
port=$(python3 -c 'import socket; s=socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
echo "device_port=$port" > "$root/etc/cloud.conf"
mkdir -p "$root/usr/logd/bin"
echo "cloud_weixin_relation_obj=discon" > "$root/usr/logd/bin/log.conf"

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
ctl cpu 2050
ctl thread 2055

echo "== vtsim: 36 gateways on UDP $port, a report from each every 5 s"
build/vtsim --port "$port" --count 36 --interval 5 --key --lnglat --quiet &
sim_pid=$!
for _ in $(seq 1 100); do
    build/cloudctl -r "$root" cloud 2050 | grep -q '^device_total=36$' && break
    sleep 0.1
done
ctl stats
ctl devices --limit 8 --sort name --table
echo "== vtlog.cloud_device"
mariadb --socket="$work/db/mysqld.sock" -u"$CLOUD_DB_USER" -p"$CLOUD_DB_PASSWORD" -e \
    "select license_id12, sys_name, web_port, ssh_port, outport, version from vtlog.cloud_device limit 8"

cat <<MSG

The daemon runs in the foreground (pid $daemon_pid), vtsim beside it (pid $sim_pid).
Watch them from another shell:
  $top/build/cloudctl -r $root stats
  $top/build/cloudctl -r $root devices --table
  $top/build/cloudctl -r $root devices --search sim-gw-1 --table
  $top/build/cloudctl -r $root resetpass SIM000000001 newpass
  mariadb --socket=$work/db/mysqld.sock -u$CLOUD_DB_USER -p$CLOUD_DB_PASSWORD \\
      -e 'select license_id12, sys_name, time, outport from vtlog.cloud_device'
Stop vtsim (kill $sim_pid) and the devices are marked silent after 60 s:
  $top/build/cloudctl -r $root devices --expire 3 --table
  ls $root/usr/logdata/tmp/weixin
Ctrl-C stops the daemon and removes $work.
MSG

if [[ "$seconds" -gt 0 ]]; then
    sleep "$seconds"
else
    wait "$daemon_pid" || true
fi
