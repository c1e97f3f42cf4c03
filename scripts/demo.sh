#!/usr/bin/env bash
# Demo: builds the daemon, starts a private MariaDB and the daemon in the
# foreground under a temporary root, lets vtsim play a few dozen gateways
# against it, and shows them through cloudctl and the database: the
# registry, then the automatic configuration backups of the new gateways,
# their applications and a package upgrade.
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
free_port() {
    python3 -c 'import socket; s=socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
port=$(free_port)
bport=$(free_port)
# backup_auto=1: every gateway seen for the first time gets a daily backup,
# the first one due at once.
printf 'device_port=%s\nbackup_port=%s\nbackup_auto=1\n' "$port" "$bport" > "$root/etc/cloud.conf"
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

db() {
    mariadb --socket="$work/db/mysqld.sock" -u"$CLOUD_DB_USER" -p"$CLOUD_DB_PASSWORD" "$@"
}
# A package upgrade waiting for the first gateway.
db -e "insert into vtlog.cloud_appup(license_id12, upgrade_bag, complete, errors)
       values ('SIM000000001', 'webfilter-2.1.0.pkg', 0, 'wait')"

vtconf="$root/usr/logdata/vtconf"
echo "== vtsim: 36 gateways on UDP $port, a report from each every 5 s;"
echo "   on the backup socket (UDP $bport) a ping every 2 s, 3 applications each,"
echo "   backups copied into $vtconf, one in ten failing"
build/vtsim --port "$port" --count 36 --interval 5 --key --lnglat --quiet \
    --backup-port "$bport" --backup-dir "$vtconf" --ping 2 --apps 3 --backup-fail 0.1 &
sim_pid=$!
for _ in $(seq 1 100); do
    build/cloudctl -r "$root" cloud 2050 | grep -q '^device_total=36$' && break
    sleep 0.1
done
ctl stats
ctl devices --limit 8 --sort name --table
echo "== vtlog.cloud_device"
db -e "select license_id12, sys_name, web_port, ssh_port, outport, version from vtlog.cloud_device limit 8"

# Ten backups in flight at most, a scheduler sweep every 3 s: the 36 first
# backups take four or five sweeps.
echo "== waiting for the first backups (10 ordered every 3 s)"
for _ in $(seq 1 300); do
    [[ "$(db -N -e "select count(*) from vtlog.cloud_backup where errors not in ('wait', '')")" -ge 36 ]] && break
    sleep 0.1
done
ctl backups
echo "== vtlog.cloud_backup (failure texts are stored as the appliance sent them)"
db -e "select license_id12, cname, complete, errors, fnum,
              if(backup_ctime > 0, from_unixtime(backup_ctime), '') as copied
       from vtlog.cloud_backup order by errors = 'ok', license_id12 limit 12"
db -N -e "select concat(count(*), ' backups ok of ', (select count(*) from vtlog.cloud_backup))
          from vtlog.cloud_backup where errors = 'ok'"
echo "== $vtconf"
ls "$vtconf" | head -n 4
echo "== vtlog.cloud_appup"
for _ in $(seq 1 100); do
    [[ "$(db -N -e "select complete from vtlog.cloud_appup where license_id12 = 'SIM000000001'")" -ge 2 ]] && break
    sleep 0.1
done
db -e "select license_id12, upgrade_bag, complete, last_version from vtlog.cloud_appup"
ctl apps --limit 6 --table
ctl apps --search app2 --limit 3 --table
ctl appstart SIM000000002 app2 start
echo "   (vtsim prints the start when SIM000000002 next reports app2, within 3 pings)"

cat <<MSG

The daemon runs in the foreground (pid $daemon_pid), vtsim beside it (pid $sim_pid).
Watch them from another shell:
  $top/build/cloudctl -r $root stats
  $top/build/cloudctl -r $root devices --table
  $top/build/cloudctl -r $root devices --search sim-gw-1 --table
  $top/build/cloudctl -r $root resetpass SIM000000001 newpass
  $top/build/cloudctl -r $root backups
  $top/build/cloudctl -r $root apps --table
  $top/build/cloudctl -r $root apps --reverse --search app3,1.3 --table   (none lack it)
  $top/build/cloudctl -r $root appstart SIM000000005 app1 start
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
