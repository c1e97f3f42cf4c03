#!/usr/bin/env bash
# Demo: builds the daemon, starts a private MariaDB and the daemon in the
# foreground under a temporary root, lets vtsim play a few dozen gateways
# against it, and shows them through cloudctl and the database: the
# registry, then the automatic configuration backups of the new gateways,
# their applications, a package upgrade and a firmware upgrade campaign;
# then a few cache appliances, a mapping instruction and their upgrade task;
# log servers and their keys, game acceleration nodes, gateways with SSH
# tunnels, table pushes and a user-application distribution; last the
# Prometheus endpoint.
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
old_pid=
frb_pid=
log_pid=
game_pid=
role_pid=
cleanup() {
    for pid in "$sim_pid" "$old_pid" "$frb_pid" "$log_pid" "$game_pid" "$role_pid"; do
        if [[ -n "$pid" ]] && kill -0 "$pid" 2>/dev/null; then
            kill -TERM "$pid"
            wait "$pid" || true
        fi
    done
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
uport=$(free_port)
mport=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
# backup_auto=1: every gateway seen for the first time gets a daily backup,
# the first one due at once. download_max=4: four firmware upgrades at once.
# metrics_port: the Prometheus endpoint on 127.0.0.1.
printf 'device_port=%s\nbackup_port=%s\nupgrade_port=%s\nbackup_auto=1\ndownload_max=4\nmetrics_port=%s\n' \
    "$port" "$bport" "$uport" "$mport" > "$root/etc/cloud.conf"
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
echo "   backups copied into $vtconf, one in ten failing;"
echo "   on the upgrade socket (UDP $uport) an announcement every 2 s, upgrades taking"
echo "   2 s, one in five failing (the daemon retries it)"
build/vtsim --port "$port" --count 36 --interval 5 --key --lnglat --quiet \
    --backup-port "$bport" --backup-dir "$vtconf" --ping 2 --apps 3 --backup-fail 0.1 \
    --upgrade-port "$uport" --announce 2 --upgrade-time 2 --upgrade-fail 0.2 --upgrade-version V2.0.0 &
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

# A firmware campaign, task 1, due since 5 s: twelve of the gateways above
# and two more whose every upgrade fails. The scheduler starts due rows
# every 5 s, an order leaves with the gateway's next announcement while
# fewer than download_max= run, and a failure puts the row back to 0 for
# another try: after the third the row is given up (3).
campaign=14
echo "== vtsim: 2 more gateways (OLD000000001-2) whose upgrades always fail"
build/vtsim --port "$port" --prefix OLD --count 2 --interval 5 --quiet \
    --upgrade-port "$uport" --announce 2 --upgrade-time 2 --upgrade-fail 1 &
old_pid=$!
db -e "insert into vtlog.cloud_task(task_id, upgrade_pro, upgrade_bag) values (1, 'vantrel', 'fw-demo.bin')"
for id in $(printf 'SIM%09d ' $(seq 1 12)) OLD000000001 OLD000000002; do
    db -e "insert into vtlog.cloud_upgrade(task_id, license_id12, upgrade_pro, upgrade_start, upgrade_bag, complete)
           values (1, '$id', 'vantrel', $(($(date +%s) - 5)), 'fw-demo.bin', 0)"
done
echo "== firmware campaign: task 1, $campaign gateways, at most 4 at once"
echo "   (complete 0 waiting, 1 started, 2 upgraded, 3 given up; upgrading_num has no floor:"
echo "   a row given up after its third failure lowers it below what is in flight)"
for _ in $(seq 1 120); do
    counts=$(db -N -e "select concat('succ=', succ, ' fail=', fail) from vtlog.cloud_task where task_id = 1")
    states=$(db -N -e "select group_concat(concat(complete, ':', n) order by complete separator ' ')
                       from (select complete, count(*) n from vtlog.cloud_upgrade where task_id = 1
                             group by complete) c")
    flying=$(build/cloudctl -r "$root" upgrades | tr '\n' ' ')
    echo "   $counts  complete $states  $flying"
    [[ "$(db -N -e "select count(*) from vtlog.cloud_upgrade where task_id = 1 and complete in (2, 3)")" \
        -ge "$campaign" ]] && break
    sleep 1
done
ctl upgrades
ctl upgrade-list --table | head -n 8
echo "== vtlog.cloud_task and vtlog.cloud_upgrade (complete 2: upgraded, 3: given up)"
db -e "select task_id, upgrade_pro, succ, fail from vtlog.cloud_task"
db -e "select license_id12, complete, errors, last_version, if(upgrade_end > 0, from_unixtime(upgrade_end), '') as ended
       from vtlog.cloud_upgrade where task_id = 1 order by license_id12"

# Cache appliances report text to the same device port; vtsim prints the
# mapping instruction and each upgrade as it ends.
echo "== vtsim --family frb: 6 cache appliances (FRB000000001-6) on UDP $port, a report every 5 s,"
echo "   upgrades taking 2 s, one in five failing"
build/vtsim --family frb --port "$port" --count 6 --interval 5 --upgrade-time 2 --upgrade-fail 0.2 &
frb_pid=$!
for _ in $(seq 1 100); do
    build/cloudctl -r "$root" frelbox 2050 | grep -q '^device_total=6$' && break
    sleep 0.1
done
sleep 0.5  # the verification strings follow the first reports
ctl frb-stats
ctl frb-list --sort id --table
echo "== cloudctl frelbox 2053 license_id12=FRB000000002 mapping=1 webport=30100 sshport=30101"
# The answer, "ok", comes without a line break: print it with one, at once.
echo "$(build/cloudctl -r "$root" frelbox 2053 license_id12=FRB000000002 mapping=1 webport=30100 sshport=30101 ||
    true)"
sleep 0.5  # vtsim prints the instruction it received
# Task 2 for all six, loaded by the daemon within 5 s, at most 4 orders in
# flight (download_max=), no retries: a failure is final.
db -e "insert into vtlog.cloud_task(task_id, upgrade_pro, upgrade_bag, upgrade_start, status)
       values (2, 'frelbox', 'frb-demo.bin', unix_timestamp(), 0)"
for i in $(seq 1 6); do
    db -e "insert into vtlog.cloud_upgrade(task_id, license_id12, upgrade_pro, upgrade_start, upgrade_bag, complete)
           values (2, '$(printf 'FRB%09d' "$i")', 'frelbox', unix_timestamp(), 'frb-demo.bin', 0)"
done
echo "== cache-appliance upgrade task 2 (waiting until every appliance has ended)"
for _ in $(seq 1 60); do
    [[ "$(build/cloudctl -r "$root" als_upgrade 2055 showtask=1 | awk '$1 == 2 { print $5 }')" == 2 ]] && break
    sleep 1
done
ctl frb-tasks --devices --table
db -e "select license_id12, complete, errors, last_version from vtlog.cloud_upgrade where task_id = 2"

# Log servers report to the same device port under their own magic, with
# their public keys: the daemon collects each key line once.
echo "== vtsim --family log: 4 log servers (LOG000000001-4), a report every 5 s, each with its key"
build/vtsim --family log --port "$port" --count 4 --interval 5 --rsa &
log_pid=$!
for _ in $(seq 1 100); do
    build/cloudctl -r "$root" logserver 2050 | grep -q '^device_total=4$' && break
    sleep 0.1
done
sleep 0.3  # the keys follow the first reports
ctl log-stats
ctl log-list --table
echo "== $root/root/.ssh/authorized_keys_tmp (collected keys)"
awk '{ print $1, substr($2, 1, 20) "...", $3 }' "$root/root/.ssh/authorized_keys_tmp" | head -n 6
echo "== cloudctl logserver 2053 license_id12=LOG000000001 mapping=1 webport=31100 sshport=31101"
echo "$(build/cloudctl -r "$root" logserver 2053 license_id12=LOG000000001 mapping=1 webport=31100 sshport=31101 ||
    true)"
sleep 0.3  # vtsim prints the instruction it received

echo "== vtsim --family game: 3 game acceleration nodes (GAME00000001-3)"
build/vtsim --family game --port "$port" --count 3 --interval 5 --quiet &
game_pid=$!
for _ in $(seq 1 100); do
    [[ "$(build/cloudctl -r "$root" game-list --json | grep -c license_id12)" -ge 3 ]] && break
    sleep 0.1
done
ctl game-list --table

# Gateways with two SSH tunnels each, their IP table and URL/DNS groups,
# two user-application groups and applications. Of each kind of push one in
# four is never answered and half of the others are refused: for four
# gateways ok, no, ok, silent in the order they arrive.
echo "== vtsim: 4 gateways (ROLE00000001-4) with tunnels, tables and user applications,"
echo "   a report every 2 s, pushes answered ok, no, ok and not at all"
build/vtsim --port "$port" --prefix ROLE --count 4 --interval 2 --tunnels 2 --tables --usrapps 2 \
    --push-fail 0.5 --push-silent 0.25 &
role_pid=$!
for _ in $(seq 1 100); do
    [[ "$(build/cloudctl -r "$root" tunnels --json | grep -c ROLE)" -ge 8 ]] && break
    sleep 0.1
done
ctl tunnels --table
ctl tunnel-close ROLE00000001 10024 10025
sleep 2.5  # the gateway's next report leaves the tunnel out
ctl tunnels --table
ctl iptable-list --table
for i in 1 2 3 4; do
    build/cloudctl -r "$root" iptable-push "ROLE0000000$i" 7 t.list --group office >/dev/null
done
build/cloudctl -r "$root" urldnsgrp-push ROLE00000001 8 u.list --group office >/dev/null
echo "== pushes marked for the four gateways (IP table t.list) and one URL/DNS group file;"
echo "   each leaves at the gateway's next report (istask 1 marked, 2 sent, 3 failed, 4 done)"
sleep 5
ctl iptable-list --pushes --table
ctl urldnsgrp-list --table
ctl usragp-groups ROLE00000001 --table
ctl usragp-apps ROLE00000001 --table
ctl usragp-start "ROLE00000001;ROLE00000002;ROLE00000003;ROLE00000004" --apps "chat;mail"
echo "== $root/usr/logd/www/vtupbags/usragp.txt"
cat "$root/usr/logd/www/vtupbags/usragp.txt"
sleep 3
ctl usragp-devices --table
ctl usragp-stats

echo "== metrics: GET http://127.0.0.1:$mport/metrics (an excerpt)"
python3 -c 'import sys, urllib.request; print(urllib.request.urlopen(sys.argv[1]).read().decode())' \
    "http://127.0.0.1:$mport/metrics" |
    grep -E '^cloud_(appliances|datagrams_received_total\{family="(gateway|frb|log)",type="(status|report)"|db_statements_written_total|mgmt_commands_total\{module="logserver"|backups_in_flight|upgrades_in_flight)' |
    head -n 20

cat <<MSG

The daemon runs in the foreground (pid $daemon_pid), vtsim beside it (pids $sim_pid, $old_pid,
$frb_pid, $log_pid, $game_pid and $role_pid).
Watch them from another shell:
  $top/build/cloudctl -r $root stats
  $top/build/cloudctl -r $root devices --table
  $top/build/cloudctl -r $root devices --search sim-gw-1 --table
  $top/build/cloudctl -r $root resetpass SIM000000001 newpass
  $top/build/cloudctl -r $root backups
  $top/build/cloudctl -r $root apps --table
  $top/build/cloudctl -r $root apps --reverse --search app3,1.3 --table   (none lack it)
  $top/build/cloudctl -r $root appstart SIM000000005 app1 start
  $top/build/cloudctl -r $root upgrades
  $top/build/cloudctl -r $root upgrade-list --table
  $top/build/cloudctl -r $root frb-list --expire 1 --table        (services ending within a week)
  $top/build/cloudctl -r $root frb-tasks --devices --table
  $top/build/cloudctl -r $root log-list --table
  $top/build/cloudctl -r $root game-list --table
  $top/build/cloudctl -r $root tunnels --table
  $top/build/cloudctl -r $root iptable-list --pushes --json
  $top/build/cloudctl -r $root usragp-devices --table
  $top/build/cloudctl --help                                    (every shortcut)
  curl -s http://127.0.0.1:$mport/metrics
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
