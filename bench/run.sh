#!/usr/bin/env bash
# Benchmarks of the cloud daemon; prints one compact report on stdout
# (progress goes to stderr).
#
#   bench/run.sh [registry] [backup] [upgrade]    (no argument: all three)
#
# Builds cloud, cloudctl, vtsim and the bench programs (RelWithDebInfo, no
# sanitizers) into build/, starts a private MariaDB in a temporary folder and
# the daemon under a temporary root on free ports, and measures:
#   - burst registration of 2000 never-seen gateways (unpaced on one socket,
#     unpaced from a socket each, paced at 2000/s and 1000/s): time until the
#     pool and the table hold all of them, and what was lost;
#   - management-command latency with the 2000 gateways registered;
#   - status-report ingest at a ladder of rates against the daemon and
#     against udp_sink (the bare receive loop), fed by the same vtsim load
#     generator, and the highest rate each keeps under 0.1% loss;
#   - resident memory and idle CPU after the load, and start-up time with
#     2000 rows;
#   - cache appliances and log servers: a burst of 2000 new ones each, and
#     their report ingest against the bare loop at 20000/s and 50000/s;
#   - configuration backups: 2000 gateways pinging the backup socket every
#     second with BACKUPS of them due (default 200; BENCH_BACKUPS=2000 for
#     the whole fleet, about ten minutes): time until every due row reads
#     'ok', the rate, and CPU per ping of the backup thread, during the run
#     and with nothing due; then the highest ping rate the socket takes;
#   - a firmware upgrade campaign: UPGRADES gateways (default 2000;
#     BENCH_UPGRADES=N for fewer, the time is then extrapolated) announcing
#     themselves every 5 s, one task for all of them, download_max=50, 2% of
#     the upgrades failing and retried by the daemon, each taking
#     BENCH_UPGRADE_TIME seconds (default 2): time until every row is final,
#     the most upgrades in flight seen by the daemon (upgrading_num, polled)
#     and by vtsim (orders not yet ended), and CPU per announcement of the
#     upgrade thread, during the campaign, with nothing due and in a burst;
#   - the cost of the metrics endpoint: status-report ingest with
#     metrics_port= off and on (scraped every second), alternating, and the
#     receive thread's CPU per datagram in each.
# Sections: registry (ingest, registration, commands, memory, start-up),
# backup, upgrade.
# Everything it starts is stopped on exit, by PID.
set -euo pipefail

cd "$(dirname -- "${BASH_SOURCE[0]}")/.."
top=$(pwd)
readonly top
readonly BUILD="${BENCH_BUILD:-$top/build}"  # BENCH_BUILD: another build folder
readonly GW=2000           # gateways (the device pool holds exactly this many)
readonly STEP_SECONDS=2    # one step of the ingest ladder
readonly PROBE_SECONDS=2   # one probe of the max-rate search
readonly LADDER=(20000 50000 100000 0)  # 0: as fast as vtsim sends
readonly LOSS_LIMIT=0.1    # percent, for the max-rate search
readonly MGMT_ITER=200
readonly MGMT_SECONDS=4    # cap per command
readonly IDLE_SECONDS=10   # idle CPU is measured over this long
readonly BACKUPS=${BENCH_BACKUPS:-200}  # backups due in the backup run (at most GW)
readonly PING_SECONDS=1    # each gateway pings the backup socket this often
readonly BACKUP_TIMEOUT=900
readonly PING_STEADY_SECONDS=10
readonly PING_BURST_RATES=(20000 50000)  # pings/s, 3 s each
readonly UPGRADES=${BENCH_UPGRADES:-2000}  # gateways of the campaign (at most GW)
readonly UP_MAX=50             # download_max=
readonly UP_FAIL=0.02          # fraction of the upgrades that fail
readonly UP_TIME=${BENCH_UPGRADE_TIME:-2}  # seconds an upgrade takes in vtsim
readonly UP_ANNOUNCE=5         # each gateway announces itself this often
readonly UP_TIMEOUT=900
readonly UP_STALL=60           # no row final for this long: the campaign is stuck
readonly UP_STEADY_SECONDS=10
readonly UP_BURST_RATE=20000   # announcements/s, 3 s

SECTIONS=("$@")
((${#SECTIONS[@]} > 0)) || SECTIONS=(registry backup upgrade)
for s in "${SECTIONS[@]}"; do
    [[ "$s" == registry || "$s" == backup || "$s" == upgrade ]] ||
        { echo "usage: bench/run.sh [registry] [backup] [upgrade]" >&2; exit 2; }
done
want() { [[ " ${SECTIONS[*]} " == *" $1 "* ]]; }
LOAD_ARGS=()  # extra vtsim options of an ingest step (the family)

log() { printf '[bench] %s\n' "$*" >&2; }
die() { log "error: $*"; exit 1; }

# ---------------------------------------------------------------- build
log "building (RelWithDebInfo) into $BUILD"
gen=()
[[ -f "$BUILD/CMakeCache.txt" ]] || gen=(-G Ninja)
cmake -S "$top" -B "$BUILD" "${gen[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCLOUD_SANITIZE=OFF >/dev/null
cmake --build "$BUILD" --target cloud cloudctl vtsim udp_sink mgmt_latency reg_watch -j "$(nproc)" >/dev/null
readonly CLOUD="$BUILD/cloud" CTL="$BUILD/cloudctl" VTSIM="$BUILD/vtsim"
readonly SINK="$BUILD/bench/udp_sink" MGMT="$BUILD/bench/mgmt_latency" WATCH="$BUILD/bench/reg_watch"
for b in "$CLOUD" "$CTL" "$VTSIM" "$SINK" "$MGMT" "$WATCH"; do
    [[ -x "$b" ]] || die "$b was not built"
done
command -v mariadb >/dev/null || die "mariadb client missing; run scripts/setup.sh"
command -v python3 >/dev/null || die "python3 missing; run scripts/setup.sh"

# ---------------------------------------------------------------- set-up and clean-up
work=$(mktemp -d /tmp/cloud-bench.XXXXXX)
readonly work root="$work/root"
daemon_pid=
sink_pid=
scrape_pid=
bsim_pid=
usim_pid=
db_started=0

# Stops process $1 (one of ours) with SIGTERM, SIGKILL after 10 s.
stop_pid() {
    local pid=$1 i
    [[ -n "$pid" ]] || return 0
    kill -TERM "$pid" 2>/dev/null || true
    for ((i = 0; i < 100; i++)); do
        kill -0 "$pid" 2>/dev/null || break
        # A zombie still answers kill -0; reap it once it is done.
        [[ "$(awk '{print $3}' "/proc/$pid/stat" 2>/dev/null)" == Z ]] && break
        sleep 0.1
    done
    if kill -0 "$pid" 2>/dev/null && [[ "$(awk '{print $3}' "/proc/$pid/stat" 2>/dev/null)" != Z ]]; then
        kill -KILL "$pid" 2>/dev/null || true
    fi
    wait "$pid" 2>/dev/null || true
}

cleanup() {
    local rc=$?
    stop_pid "$sink_pid"
    stop_pid "$scrape_pid"
    stop_pid "$bsim_pid"
    stop_pid "$usim_pid"
    stop_pid "$daemon_pid"
    if ((db_started)); then
        "$top/scripts/mariadb.sh" stop "$work/db" >/dev/null 2>&1 || true
    fi
    rm -rf -- "$work"
    exit "$rc"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

free_udp_port() {
    python3 -c 'import socket
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("127.0.0.1", 0))
print(s.getsockname()[1])'
}

free_tcp_port() {
    python3 -c 'import socket
s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
s.bind(("127.0.0.1", 0))
print(s.getsockname()[1])'
}

now_us() { local t=${EPOCHREALTIME//[!0-9]/}; printf '%s\n' "$t"; }

log "starting MariaDB in $work/db"
db_started=1
eval "$("$top/scripts/mariadb.sh" start "$work/db" 2>"$work/mariadb.log")" ||
    { cat -- "$work/mariadb.log" >&2; die "MariaDB did not start"; }

sql() {
    MYSQL_PWD="$CLOUD_DB_PASSWORD" mariadb --no-defaults --protocol=socket --socket="$CLOUD_DB_SOCKET" \
        -u"$CLOUD_DB_USER" --batch --skip-column-names -e "$1"
}

PORT=$(free_udp_port)
BPORT=$(free_udp_port)
UPORT=$(free_udp_port)
readonly PORT BPORT UPORT
((BACKUPS >= 1 && BACKUPS <= GW)) || die "BENCH_BACKUPS must be 1..$GW"
((UPGRADES >= 1 && UPGRADES <= GW)) || die "BENCH_UPGRADES must be 1..$GW"
mkdir -p -- "$root/var/tmp" "$root/etc" "$root/tmp"
printf 'device_port=%s\nbackup_port=%s\nupgrade_port=%s\ndownload_max=%s\n' "$PORT" "$BPORT" "$UPORT" "$UP_MAX" \
    >"$root/etc/cloud.conf"

# True once a socket is bound to UDP port $1.
udp_bound() {
    local hex
    hex=$(printf '%04X' "$1")
    awk -v p=":$hex" 'NR > 1 && substr($2, length($2) - 4) == p { f = 1 } END { exit !f }' \
        /proc/net/udp /proc/net/udp6 2>/dev/null
}

# Starts the daemon; sets startup_ms (spawn to the first answer of the
# management socket) and waits until the device port is bound.
start_daemon() {
    local t0 ready i
    t0=$(now_us)
    "$CLOUD" -f -r "$root" >>"$work/daemon.log" 2>&1 &
    daemon_pid=$!
    ready=$("$MGMT" --root "$root" --wait-ready --timeout 60) ||
        { tail -n 20 -- "$work/daemon.log" >&2; die "daemon did not answer"; }
    startup_ms=$(( (${ready#ready_us=} - t0) / 1000 ))
    for ((i = 0; i < 500; i++)); do
        udp_bound "$PORT" && udp_bound "$BPORT" && udp_bound "$UPORT" && return 0
        sleep 0.01
    done
    die "daemon did not bind UDP ports $PORT, $BPORT and $UPORT"
}

stop_daemon() {
    stop_pid "$daemon_pid"
    daemon_pid=
}

# Value of KEY in a "key=value key=value" line.
field() { sed -n "s/.*\\b$1=\\([^ /]*\\).*/\\1/p" <<<"$2"; }

device_total() { "$CTL" -r "$root" cloud 2050 | sed -n 's/^device_total=//p'; }

# CPU time (ns) of each thread of process $1: "tid ns" lines.
thread_cpu() {
    local t
    for t in /proc/"$1"/task/*; do
        [[ -r "$t/schedstat" ]] && printf '%s %s\n' "${t##*/}" "$(cut -d' ' -f1 "$t/schedstat")"
    done
}

# Sum of the CPU growth of every thread between two thread_cpu snapshots.
all_cpu_delta() {
    awk 'NR == FNR { a[$1] = $2; next } { s += $2 - a[$1] } END { print s + 0 }' \
        <(printf '%s\n' "$1") <(printf '%s\n' "$2")
}

# CPU ns of thread $1 in thread_cpu snapshot $2.
tid_cpu() { awk -v t="$1" '$1 == t { print $2 }' <<<"$2"; }

# The id of the daemon's thread named $1 (threads carry their names).
named_tid() {
    local t
    for t in /proc/"$daemon_pid"/task/*; do
        [[ "$(cat "$t/comm" 2>/dev/null)" == "$1" ]] && { printf '%s\n' "${t##*/}"; return 0; }
    done
    return 1
}

# Largest per-thread CPU growth between two thread_cpu snapshots: the
# thread that did the receiving.
max_cpu_delta() {
    awk 'NR == FNR { a[$1] = $2; next } { d = $2 - a[$1]; if (d > m) m = d } END { print m + 0 }' \
        <(printf '%s\n' "$1") <(printf '%s\n' "$2")
}

if want registry; then  # sections 1 to 4
# ---------------------------------------------------------------- 1. burst registration
# One burst: empty table, fresh daemon, then reg_watch times vtsim.
# $1: label; the rest: vtsim options besides port, count and reports.
declare -a burst_lines=()
burst() {
    local label=$1 out n last
    shift
    stop_daemon
    sql "delete from vtlog.cloud_device"
    start_daemon
    [[ "$(device_total)" == 0 ]] || die "pool not empty before the burst"
    log "burst: $label"
    out=$("$WATCH" --root "$root" --port "$PORT" --target "$GW" --timeout 10 --settle 3 -- \
        "$VTSIM" --port "$PORT" --count "$GW" --reports 1 --quiet --linger 0 "$@" 2>>"$work/vtsim.log")
    n=$(field pool "$out")
    last=$(field pool_last_ms "$out")
    burst_lines+=("$(printf '  %-30s %5s %8s %9s %8s/%s %6s %6s' "$label" "$(field sender_ms "$out")" \
        "$(field pool_all_ms "$out")" "$(field table_all_ms "$out")" "$n" "$GW" \
        "$(awk -v n="$n" -v t="$last" 'BEGIN { printf "%.0f", (t > 0 ? n * 1000 / t : 0) }')" \
        "$(field drops "$out")")")
}

# Registers whatever of the GW gateways is missing (paced, so that nothing
# is dropped) and checks that pool and table hold all of them.
ensure_registered() {
    local try rows
    for ((try = 0; try < 3; try++)); do
        rows=$(sql "select count(*) from vtlog.cloud_device")
        [[ "$(device_total)" == "$GW" && "$rows" == "$GW" ]] && return 0
        log "registering the missing gateways (pool $(device_total), table $rows)"
        "$WATCH" --root "$root" --port "$PORT" --target "$GW" --timeout 10 --settle 2 -- \
            "$VTSIM" --port "$PORT" --count "$GW" --reports 1 --quiet --linger 0 --shared-socket \
            --rate 2000 >/dev/null 2>>"$work/vtsim.log"
    done
    die "could not register $GW gateways (pool $(device_total), table $rows)"
}

start_daemon
startup_empty_ms=$startup_ms

burst "unpaced, one socket" --shared-socket --rate 1000000
fdmax=$(ulimit -Hn)
if [[ "$fdmax" == unlimited ]] || ((fdmax >= GW + 100)); then
    burst "unpaced, a socket per gateway" --rate 1000000
else
    burst_lines+=("  unpaced, a socket per gateway: skipped (hard limit on open files: $fdmax)")
fi
burst "paced 2000/s, one socket" --shared-socket --rate 2000
burst "paced 1000/s, one socket" --shared-socket --rate 1000
ensure_registered

# ---------------------------------------------------------------- 2. management commands
log "management-command latency ($MGMT_ITER each, at most ${MGMT_SECONDS}s each)"
mgmt_out=$("$MGMT" --root "$root" --iterations "$MGMT_ITER" --seconds "$MGMT_SECONDS")

# ---------------------------------------------------------------- 3. ingest: daemon vs bare loop
sink_cpu=-1
(($(nproc) > 1)) && sink_cpu=1  # the daemon pins its receive thread to CPU 1

# One load step against TARGET (daemon or sink) at RATE for SECS seconds.
# Sets: r_sent r_proc r_loss (percent) r_prate (processed/s) r_ns (receiving
# thread's CPU ns per datagram).
load_step() {
    local target=$1 rate=$2 secs=$3 port pid before after out i
    if [[ "$target" == daemon ]]; then
        port=$PORT
        pid=$daemon_pid
    else
        port=$(free_udp_port)
        "$SINK" --port "$port" --seconds $((secs + 20)) --cpu "$sink_cpu" >"$work/sink.out" 2>&1 &
        sink_pid=$!
        pid=$sink_pid
        for ((i = 0; i < 2000; i++)); do
            grep -qs '^ready' "$work/sink.out" && break
            kill -0 "$sink_pid" 2>/dev/null || die "udp_sink ended: $(cat "$work/sink.out")"
            sleep 0.01
        done
        ((i < 2000)) || die "udp_sink not ready after 20 s"
        ((i < 100)) || log "udp_sink took ${i}0 ms to start"
    fi
    before=$(thread_cpu "$pid")
    out=$("$VTSIM" --load --rate "$rate" --duration "$secs" --shared-socket --count "$GW" --port "$port" \
        "${LOAD_ARGS[@]}" --quiet --linger 1 2>>"$work/vtsim.log" | grep '^sent=')
    after=$(thread_cpu "$pid")
    r_sent=$(field sent "$out")
    local lost elapsed
    lost=$(field lost "$out")
    elapsed=$(field elapsed "$out")
    if [[ "$target" == daemon ]]; then
        r_proc=$((r_sent - lost))
    else
        stop_pid "$sink_pid"
        sink_pid=
        r_proc=$(field received "$(grep '^received=' "$work/sink.out")")
    fi
    read -r r_loss r_prate r_ns < <(awk -v s="$r_sent" -v p="$r_proc" -v e="$elapsed" \
        -v c="$(max_cpu_delta "$before" "$after")" \
        'BEGIN { printf "%.3f %.0f %.0f\n", (s > 0 ? (s - p) * 100 / s : 0), (e > 0 ? p / e : 0), (p > 0 ? c / p : 0) }')
}

# Each step runs twice per target, in the order daemon, sink, sink, daemon,
# so that a slow spell of the machine hits both alike; the run with the
# higher processed rate is kept and the other one's loss is shown beside it.
declare -A L_sent L_proc L_loss L_prate L_ns L_other
declare -a ingest_lines=()
for rate in "${LADDER[@]}"; do
    for target in daemon sink sink daemon; do
        log "ingest: $target at ${rate}/s"
        load_step "$target" "$rate" "$STEP_SECONDS"
        k="$target:$rate"
        if [[ -z "${L_prate[$k]:-}" ]]; then
            L_sent[$k]=$r_sent L_proc[$k]=$r_proc L_loss[$k]=$r_loss L_prate[$k]=$r_prate L_ns[$k]=$r_ns
        elif ((r_prate > L_prate[$k])); then
            L_other[$k]=${L_loss[$k]}
            L_sent[$k]=$r_sent L_proc[$k]=$r_proc L_loss[$k]=$r_loss L_prate[$k]=$r_prate L_ns[$k]=$r_ns
        else
            L_other[$k]=$r_loss
        fi
    done
    label=$rate
    ((rate == 0)) && label=unpaced
    ratio=$(awk -v a="${L_prate[daemon:$rate]}" -v b="${L_prate[sink:$rate]}" \
        'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }')
    cpuratio=$(awk -v a="${L_ns[daemon:$rate]}" -v b="${L_ns[sink:$rate]}" \
        'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }')
    for target in daemon sink; do
        k="$target:$rate"
        line=$(printf '  %-8s %-6s %8s %9s %7s%% %7s%% %8s/s %6s' "$label" "$target" "${L_sent[$k]}" \
            "${L_proc[$k]}" "${L_loss[$k]}" "${L_other[$k]}" "${L_prate[$k]}" "${L_ns[$k]}")
        [[ "$target" == daemon ]] && line+="  daemon/sink: rate $ratio, cpu $cpuratio"
        ingest_lines+=("$line")
    done
done

below_limit() { awk -v l="$1" -v m="$LOSS_LIMIT" 'BEGIN { exit !(l < m) }'; }

# True when TARGET keeps RATE under LOSS_LIMIT in one of two probes: on two
# shared cores a single scheduling stall of a few milliseconds overflows the
# receive buffer, and one such stall should not decide the figure.
sustains() {
    local target=$1 rate=$2 try
    for try in 1 2; do
        log "max-rate search: $target at ${rate}/s (try $try)"
        load_step "$target" "$rate" "$PROBE_SECONDS"
        below_limit "$r_loss" && return 0
    done
    return 1
}

# Highest rate with loss under LOSS_LIMIT: the ladder (best of two) brackets
# it, then three bisection steps, each the best of two probes.
declare -a maxrate_lines=()
for target in daemon sink; do
    lo=0 hi=0
    for rate in "${LADDER[@]}"; do
        ((rate == 0)) && continue
        if below_limit "${L_loss[$target:$rate]}"; then
            lo=$rate
        else
            hi=$rate
            break
        fi
    done
    if ((hi == 0)); then
        if below_limit "${L_loss[$target:0]}"; then
            maxrate_lines+=("$(printf '  %-6s >= %s/s (no loss unpaced: the sender is the limit)' "$target" \
                "${L_prate[$target:0]}")")
            continue
        fi
        hi=$(awk -v s="${L_sent[$target:0]}" -v t="$STEP_SECONDS" 'BEGIN { printf "%d", s / t }')
    fi
    for ((probe = 0; probe < 3 && hi - lo > 4000; probe++)); do
        mid=$(( (lo + hi) / 2000 * 1000 ))  # the midpoint, rounded down to a thousand
        if sustains "$target" "$mid"; then lo=$mid; else hi=$mid; fi
    done
    maxrate_lines+=("$(printf '  %-6s ~%s/s (holds %s/s, fails %s/s)' "$target" "$lo" "$lo" "$hi")")
done

# ---------------------------------------------------------------- 4. memory, idle CPU, start-up
rss=$(awk '/^VmRSS/ { print $2 " " $3 }' "/proc/$daemon_pid/status")
hwm=$(awk '/^VmHWM/ { print $2 " " $3 }' "/proc/$daemon_pid/status")
log "idle CPU over ${IDLE_SECONDS}s"
before=$(thread_cpu "$daemon_pid")
t0=$(now_us)
sleep "$IDLE_SECONDS"
after=$(thread_cpu "$daemon_pid")
t1=$(now_us)
idle_cpu=$(awk 'NR == FNR { a[$1] = $2; next } { s += $2 - a[$1] } END { print s }' \
    <(printf '%s\n' "$before") <(printf '%s\n' "$after"))
idle_pct=$(awk -v c="$idle_cpu" -v t="$((t1 - t0))" 'BEGIN { printf "%.2f", c / (t * 10) }')

log "restarting with $GW rows in the table"
stop_daemon
start_daemon
startup_full_ms=$startup_ms
loaded=$(device_total)

# ---------------------------------------------------------------- 4b. cache appliances and log servers
# For each text family: a burst of GW new appliances (reports on the device
# socket), then their report ingest against the bare loop.
declare -A FAM_MODULE=([frb]=frelbox [log]=logserver) FAM_NAME=([frb]="cache appliances" [log]="log servers")
declare -A fam_burst=() fam_lines=()
for fam in frb log; do
    module=${FAM_MODULE[$fam]}
    stop_daemon
    sql "delete from vtlog.${module}_list"
    start_daemon
    log "burst: $GW new ${FAM_NAME[$fam]}, unpaced, one socket"
    fout=$("$WATCH" --root "$root" --port "$PORT" --target "$GW" --timeout 10 --settle 3 --module "$module" \
        --table "${module}_list" -- "$VTSIM" --family "$fam" --port "$PORT" --count "$GW" --reports 1 --quiet \
        --linger 0 --shared-socket --rate 1000000 2>>"$work/vtsim.log")
    fam_burst[$fam]=$(printf '  sent in %s ms; pool %s/%s at %s ms; table at %s ms; kernel drops %s' \
        "$(field sender_ms "$fout")" "$(field pool "$fout")" "$GW" "$(field pool_all_ms "$fout")" \
        "$(field table_all_ms "$fout")" "$(field drops "$fout")")
    LOAD_ARGS=(--family "$fam")
    for rate in 20000 50000; do
        for target in daemon sink; do
            log "${FAM_NAME[$fam]} ingest: $target at ${rate}/s"
            load_step "$target" "$rate" "$STEP_SECONDS"
            eval "f_$target=\$r_prate f_${target}_loss=\$r_loss f_${target}_ns=\$r_ns"
        done
        fam_lines[$fam]+="$(awk -v r="$rate" -v d="$f_daemon" -v s="$f_sink" -v dl="$f_daemon_loss" \
            -v sl="$f_sink_loss" -v dn="$f_daemon_ns" -v sn="$f_sink_ns" 'BEGIN {
            printf "  %6d/s: daemon %d/s (loss %s%%, %d ns/datagram), sink %d/s (loss %s%%, %d ns): ratio %.2f",
                r, d, dl, dn, s, sl, sn, (s > 0 ? d / s : 0) }')"$'\n'
    done
    LOAD_ARGS=()
done
stop_daemon

# ---------------------------------------------------------------- 4c. cost of the metrics endpoint
# The same status-report load with metrics_port= absent and present, as
# fast as vtsim sends (the receive thread busy: its CPU per datagram does
# not hang on how the wake-ups fall), in the order off, on, on, off, off, on
# (a slow spell of the machine hits both alike; the best run of each is
# kept). While on, a client scrapes every second.
MPORT=$(free_tcp_port)
readonly MPORT METRICS_SECONDS=4 METRICS_RATE=0
conf_plain=$(cat "$root/etc/cloud.conf")
declare -A M_prate M_ns M_loss
scrapes=0
for mode in off on on off off on; do
    stop_daemon
    if [[ "$mode" == on ]]; then
        printf '%s\nmetrics_port=%s\n' "$conf_plain" "$MPORT" >"$root/etc/cloud.conf"
    else
        printf '%s\n' "$conf_plain" >"$root/etc/cloud.conf"
    fi
    start_daemon
    if [[ "$mode" == on ]]; then
        python3 -c 'import sys, time, urllib.request
n = 0
while True:
    urllib.request.urlopen(sys.argv[1], timeout=5).read()
    n += 1
    print(n, flush=True)
    time.sleep(1)' "http://127.0.0.1:$MPORT/metrics" >"$work/scrapes.out" 2>&1 &
        scrape_pid=$!
    fi
    log "metrics $mode: ingest, unpaced"
    load_step daemon "$METRICS_RATE" "$METRICS_SECONDS"
    if [[ "$mode" == on ]]; then
        stop_pid "$scrape_pid"
        scrape_pid=
        n=$(tail -n 1 "$work/scrapes.out")
        [[ "$n" =~ ^[0-9]+$ ]] || die "the scraper failed: $(tail -n 3 "$work/scrapes.out")"
        scrapes=$((scrapes + n))
    fi
    if [[ -z "${M_ns[$mode]:-}" ]] || ((r_ns < M_ns[$mode])); then
        M_prate[$mode]=$r_prate M_ns[$mode]=$r_ns M_loss[$mode]=$r_loss
    fi
done
stop_daemon
printf '%s\n' "$conf_plain" >"$root/etc/cloud.conf"
metrics_line=$(awk -v po="${M_prate[on]}" -v pf="${M_prate[off]}" -v no="${M_ns[on]}" -v nf="${M_ns[off]}" \
    -v lo="${M_loss[on]}" -v lf="${M_loss[off]}" -v s="${L_prate[sink:$METRICS_RATE]:-0}" 'BEGIN {
    printf "  off: %d/s (loss %s%%, %d ns/datagram)  on: %d/s (loss %s%%, %d ns/datagram)\n", pf, lf, nf, po, lo, no
    printf "  ingest on/off %.3f; daemon/sink off %.2f, on %.2f; receive-thread CPU on/off %+.1f%%",
        (pf > 0 ? po / pf : 0), (s > 0 ? pf / s : 0), (s > 0 ? po / s : 0), (nf > 0 ? (no - nf) * 100 / nf : 0) }')
fi  # registry

if want backup; then
# ---------------------------------------------------------------- 5. configuration backups
# Rows due at once (periodic, never run) for the first BACKUPS gateways; the
# daemon learns the gateways from their pings. The scheduler orders at most
# 10 at a time, every 3 s; an order leaves with the gateway's next ping and
# vtsim answers at once, so with pings faster than the sweep every sweep
# finds the previous ten done: at most 10 backups per 3 s.
sql "delete from vtlog.cloud_backup"
now=$(date +%s)
values=
for ((i = 1; i <= BACKUPS; i++)); do
    values+="${values:+,}('$(printf 'SIM%09d' "$i")', 'sim-gw-$i', 0, 1, 1, 0, 'wait', 0, $((now + 86400)), 0, 0)"
done
sql "insert into vtlog.cloud_backup(license_id12, cname, grpid, backup_type, backup_seg, complete, errors,
     backup_time, backup_nexttime, backup_ctime, fnum) values $values"
rm -rf -- "$root/usr/logdata/vtconf"
start_daemon

# The backup thread's id: by name when threads carry names, else the thread
# that worked hardest over two snapshots (under a ping load, the receiver).
backup_tid() { named_tid backup; }
busiest_tid() {
    awk 'NR == FNR { a[$1] = $2; next } { d = $2 - a[$1]; if (d > m) { m = d; t = $1 } } END { print t }' \
        <(printf '%s\n' "$1") <(printf '%s\n' "$2")
}
# Sets cpu_ns, the CPU of the backup thread between two snapshots, and
# tid_how, how the thread was found.
backup_cpu() {
    local tid
    if tid=$(backup_tid); then
        tid_how="thread named backup"
    else
        tid=$(busiest_tid "$1" "$2")
        tid_how="busiest thread: the daemon's threads carry no names"
    fi
    cpu_ns=$(($(tid_cpu "$tid" "$2") - $(tid_cpu "$tid" "$1")))
}

bsim=("$VTSIM" --load --port "$PORT" --backup-port "$BPORT" --backup-dir "$root/usr/logdata/vtconf"
    --count "$GW" --reports 1 --quiet --linger 0)
ok_rows() { sql "select count(*) from vtlog.cloud_backup where errors='ok'"; }

log "backups: $BACKUPS due, $GW gateways pinging every ${PING_SECONDS}s"
before=$(thread_cpu "$daemon_pid")
t0=$(now_us)
"${bsim[@]}" --ping "$PING_SECONDS" --duration "$BACKUP_TIMEOUT" >"$work/backup_run.out" 2>>"$work/vtsim.log" &
bsim_pid=$!
first_ok_ms=-1 all_ok_ms=-1 ok=0
while :; do
    ok=$(ok_rows)
    t=$(now_us)
    ((ok > 0 && first_ok_ms < 0)) && first_ok_ms=$(((t - t0) / 1000))
    if ((ok >= BACKUPS)); then
        all_ok_ms=$(((t - t0) / 1000))
        break
    fi
    (((t - t0) / 1000000 < BACKUP_TIMEOUT)) && kill -0 "$bsim_pid" 2>/dev/null || break
    sleep 0.2
done
after=$(thread_cpu "$daemon_pid")
stop_pid "$bsim_pid"
bsim_pid=
bout=$(grep '^sent=' "$work/backup_run.out" || true)
run_pings=$(field pings "$bout")
backup_cpu "$before" "$after"
run_cpu=$cpu_ns run_how=$tid_how
states=$(sql "select errors, count(*) from vtlog.cloud_backup group by errors order by 2 desc" |
    awk -F'\t' '{ printf "%s%s=%s", (NR > 1 ? " " : ""), $1, $2 }')
files=$(find "$root/usr/logdata/vtconf" -name '*.conf' 2>/dev/null | wc -l)

log "pings with nothing due (${PING_STEADY_SECONDS}s)"
before=$(thread_cpu "$daemon_pid")
sout=$("${bsim[@]}" --ping "$PING_SECONDS" --duration "$PING_STEADY_SECONDS" 2>>"$work/vtsim.log" | grep '^sent=')
after=$(thread_cpu "$daemon_pid")
steady_pings=$(field pings "$sout")
backup_cpu "$before" "$after"
steady_cpu=$cpu_ns steady_how=$tid_how

declare -a ping_lines=()
for rate in "${PING_BURST_RATES[@]}"; do
    log "pings at ${rate}/s"
    before=$(thread_cpu "$daemon_pid")
    pout=$("${bsim[@]}" --ping-rate "$rate" --duration 3 --linger 1 2>>"$work/vtsim.log" | grep '^sent=')
    after=$(thread_cpu "$daemon_pid")
    p=$(field pings "$pout")
    l=$(field ping_lost "$pout")
    backup_cpu "$before" "$after"
    ping_lines+=("$(awk -v r="$rate" -v p="$p" -v l="$l" -v c="$cpu_ns" 'BEGIN {
        printf "  %6d/s  sent %7d  lost %6d (%.2f%%)  %5.0f ns/ping", r, p, l, (p > 0 ? l * 100 / p : 0),
            (p - l > 0 ? c / (p - l) : 0) }')")
done
stop_daemon
fi  # backup

if want upgrade; then
# ---------------------------------------------------------------- 6. firmware upgrade campaign
# A fresh daemon (its appliance table takes 2000 insertions per start), the
# UPGRADES gateways announcing themselves, then one task for all of them,
# due from the second its rows are written. The daemon orders an upgrade at
# a gateway's announcement while fewer than download_max= run; vtsim
# reports progress at once and the end UP_TIME seconds later; a failure
# puts the row back to 0, and the scheduler (every 5 s) starts it again.
# The campaign is done when every row is 2 (upgraded) or 3 (given up).
sql "delete from vtlog.cloud_upgrade"
sql "delete from vtlog.cloud_task"
start_daemon
upgrade_tid=$(named_tid upgrade) || die "the daemon has no thread named upgrade"
usim=("$VTSIM" --load --port "$PORT" --upgrade-port "$UPORT" --count "$UPGRADES" --reports 1 --quiet --linger 0)
log "upgrade campaign: $UPGRADES gateways announcing every ${UP_ANNOUNCE}s, download_max=$UP_MAX"
"${usim[@]}" --announce "$UP_ANNOUNCE" --upgrade-time "$UP_TIME" --upgrade-fail "$UP_FAIL" \
    --duration "$UP_TIMEOUT" >"$work/upgrade_run.out" 2>>"$work/vtsim.log" &
usim_pid=$!
known=0
for ((i = 0; i < 300 && known < UPGRADES; i++)); do
    sleep 0.1
    known=$("$CTL" -r "$root" upgrade 2055 | wc -l)
done
((known >= UPGRADES)) || die "the daemon's upgrade table holds $known of $UPGRADES gateways"

values=
for ((i = 1; i <= UPGRADES; i++)); do
    values+="${values:+,}(1, '$(printf 'SIM%09d' "$i")', 'vantrel', @t, 'fw-bench.bin', 0)"
done
before=$(thread_cpu "$daemon_pid")
t0=$(now_us)
sql "insert into vtlog.cloud_task(task_id, upgrade_pro, upgrade_bag) values (1, 'vantrel', 'fw-bench.bin');
     set @t = unix_timestamp();
     insert into vtlog.cloud_upgrade(task_id, license_id12, upgrade_pro, upgrade_start, upgrade_bag, complete)
     values $values"
# The daemon's count is read every 0.1 s (cloudctl is cheap), the rows
# every 0.5 s: a database client per poll would take a good part of a small
# machine's CPU from the daemon. A final count may thus lag by 0.5 s.
up_first_ms=-1 up_all_ms=-1 up_final=0 num_max=0 num_min=0 num_polls=0 stalled=0
last_final=0 last_change=$t0
for ((turn = 0; ; turn++)); do
    num=$("$CTL" -r "$root" upgrade 2050 | sed -n 's/^upgrading_num=//p')
    num_polls=$((num_polls + 1))
    ((num > num_max)) && num_max=$num
    ((num < num_min)) && num_min=$num
    t=$(now_us)
    if ((turn % 5 == 0)); then
        up_final=$(sql "select count(*) from vtlog.cloud_upgrade where task_id = 1 and complete in (2, 3)")
        ((up_final > 0 && up_first_ms < 0)) && up_first_ms=$(((t - t0) / 1000))
        if ((up_final >= UPGRADES)); then
            up_all_ms=$(((t - t0) / 1000))
            break
        fi
        ((up_final > last_final)) && last_final=$up_final last_change=$t
        if (((t - last_change) / 1000000 >= UP_STALL)); then
            stalled=1
            break
        fi
    fi
    (((t - t0) / 1000000 < UP_TIMEOUT)) && kill -0 "$usim_pid" 2>/dev/null || break
    sleep 0.1
done
after=$(thread_cpu "$daemon_pid")
run_up_cpu=$(($(tid_cpu "$upgrade_tid" "$after") - $(tid_cpu "$upgrade_tid" "$before")))
run_all_cpu=$(all_cpu_delta "$before" "$after")
run_ms=$(( ($(now_us) - t0) / 1000 ))
stop_pid "$usim_pid"  # SIGTERM: vtsim prints its counters and ends
usim_pid=
uout=$(grep '^sent=' "$work/upgrade_run.out" || true)
up_states=$(sql "select complete, count(*) from vtlog.cloud_upgrade where task_id = 1 group by complete" |
    awk -F'\t' '{ printf "%s%s=%s", (NR > 1 ? " " : ""), $1, $2 }')
up_task=$(sql "select concat('succ=', succ, ' fail=', fail) from vtlog.cloud_task where task_id = 1")
num_end=$("$CTL" -r "$root" upgrade 2050 | sed -n 's/^upgrading_num=//p')

log "announcements with nothing due (${UP_STEADY_SECONDS}s)"
before=$(thread_cpu "$daemon_pid")
sout=$("${usim[@]}" --announce 1 --duration "$UP_STEADY_SECONDS" 2>>"$work/vtsim.log" | grep '^sent=')
after=$(thread_cpu "$daemon_pid")
steady_ann=$(($(field announces "$sout") - $(field announce_lost "$sout")))
steady_up_cpu=$(($(tid_cpu "$upgrade_tid" "$after") - $(tid_cpu "$upgrade_tid" "$before")))

log "announcements at ${UP_BURST_RATE}/s"
before=$(thread_cpu "$daemon_pid")
bout=$("${usim[@]}" --announce-rate "$UP_BURST_RATE" --duration 3 --linger 1 2>>"$work/vtsim.log" | grep '^sent=')
after=$(thread_cpu "$daemon_pid")
burst_ann=$(field announces "$bout")
burst_lost=$(field announce_lost "$bout")
burst_up_cpu=$(($(tid_cpu "$upgrade_tid" "$after") - $(tid_cpu "$upgrade_tid" "$before")))
stop_daemon
fi  # upgrade

# ---------------------------------------------------------------- report
{
    printf 'cloud benchmarks: %s  nproc=%s  %s  RelWithDebInfo\n' "$(date -u '+%Y-%m-%d %H:%M UTC')" \
        "$(nproc)" "$(uname -r)"
    if want registry; then
    printf '\n[1] status-report ingest, %d gateways, %d-s steps, vtsim --load on one socket\n' "$GW" \
        "$STEP_SECONDS"
    printf '    daemon: processed = sent - kernel drops; sink (bare poll+recvfrom loop): its own count\n'
    printf '    each step twice per target, the better run shown (loss2: the other run)\n'
    printf '    cpu = CPU ns per datagram of the receiving thread\n'
    printf '  %-8s %-6s %8s %9s %8s %8s %10s %6s\n' rate target sent processed loss loss2 processed cpu
    printf '%s\n' "${ingest_lines[@]}"
    printf '  max rate under %s%% loss (%d-s probes):\n' "$LOSS_LIMIT" "$PROBE_SECONDS"
    printf '%s\n' "${maxrate_lines[@]}"
    printf '\n[2] burst registration of %d new gateways (ms from vtsim start; -1: never)\n' "$GW"
    printf '  %-30s %7s %8s %9s %13s %6s %6s\n' mode sent_ms pool_all table_all registered "reg/s" drops
    printf '  (reg/s: registered / time the pool took its last count; paced, it is the pace)\n'
    printf '%s\n' "${burst_lines[@]}"
    printf '\n[3] management commands, %d devices (client round trip, us)\n' "$GW"
    sed 's/^/  /' <<<"$mgmt_out"
    printf '\n[4] start-up (spawn to first answer of command 511): empty table %d ms, %d rows %d ms' \
        "$startup_empty_ms" "$GW" "$startup_full_ms"
    printf ' (device_total=%s)\n' "$loaded"
    printf '    daemon after the load: VmRSS %s, VmHWM %s; idle CPU %s%% of one core\n' "$rss" "$hwm" "$idle_pct"
    for fam in frb log; do
    printf '\n[4b] %s: burst of %d new ones (ms from vtsim start)\n' "${FAM_NAME[$fam]}" "$GW"
    printf '%s\n' "${fam_burst[$fam]}"
    printf '  report ingest, %d appliances, %d-s steps, daemon vs bare loop:\n' "$GW" "$STEP_SECONDS"
    printf '%s' "${fam_lines[$fam]}"
    done
    printf '\n[4c] metrics endpoint: unpaced ingest for %d s, 3 runs off and 3 on (%d scrapes, one a second)\n' \
        "$METRICS_SECONDS" "$scrapes"
    printf '%s\n' "$metrics_line"
    fi
    if want backup; then
    printf '\n[5] configuration backups: %d gateways pinging every %ss, %d backups due at once\n' "$GW" \
        "$PING_SECONDS" "$BACKUPS"
    if ((all_ok_ms >= 0)); then
        awk -v n="$BACKUPS" -v g="$GW" -v a="$all_ok_ms" -v f="$first_ok_ms" 'BEGIN {
            r = n * 1000 / a
            printf "  first ok after %.1f s, all %d ok after %.1f s: %.2f backups/s\n", f / 1000, n, a / 1000, r
            if (n < g)
                printf "  %d due: about %.0f s (%.1f min), extrapolated at the same rate\n", g, g / r, g / r / 60
        }'
    else
        printf '  NOT DONE: %d of %d ok after %d s\n' "$ok" "$BACKUPS" "$BACKUP_TIMEOUT"
    fi
    printf '  bound: at most 10 in flight, scheduler every 3 s, an order leaves with the next ping:\n'
    printf '  10 per 3 s (3.3/s) while pings come faster than the sweep, else 10 per ping interval\n'
    printf '  rows: %s; files in vtconf: %s\n' "$states" "$files"
    awk -v p="$run_pings" -v c="$run_cpu" -v h="$run_how" 'BEGIN {
        printf "  backup thread during the run: %d pings, %.1f ms CPU, %.0f ns per ping (%s)\n",
            p, c / 1e6, (p > 0 ? c / p : 0), h }'
    awk -v p="$steady_pings" -v c="$steady_cpu" -v h="$steady_how" 'BEGIN {
        printf "  nothing due, %d pings: %.1f ms CPU, %.0f ns per ping (%s)\n", p, c / 1e6, (p > 0 ? c / p : 0), h }'
    printf '  ping bursts of 3 s (ns/ping over the pings taken in):\n'
    printf '%s\n' "${ping_lines[@]}"
    fi
    if want upgrade; then
    printf '\n[6] firmware upgrade campaign: %d gateways announcing every %ss, download_max=%d,\n' "$UPGRADES" \
        "$UP_ANNOUNCE" "$UP_MAX"
    printf '    %s of the upgrades failing (retried by the daemon, 3 tries), %ss per upgrade in vtsim\n' \
        "$UP_FAIL" "$UP_TIME"
    if ((up_all_ms >= 0)); then
        awk -v n="$UPGRADES" -v g="$GW" -v a="$up_all_ms" -v f="$up_first_ms" -v m="$UP_MAX" -v u="$UP_TIME" 'BEGIN {
            printf "  from the rows written (upgrade_start = that second): first row final after %.1f s,\n", f / 1000
            printf "  all %d final after %.1f s: %.1f upgrades/s (floor %d x %s s / %d = %.0f s)\n", n, a / 1000,
                n * 1000 / a, n, u, m, n * u / m
            if (n < g)
                printf "  %d gateways: about %.0f s (%.1f min), extrapolated at the same rate\n", g, a / 1000 * g / n,
                    a / 1000 * g / n / 60
        }'
    else
        note=
        ((stalled)) && note=" (none for $UP_STALL s: a lost report leaves its row started until the 2-hour give-up)"
        printf '  NOT DONE: %d of %d rows final after %d s%s\n' "$up_final" "$UPGRADES" "$((run_ms / 1000))" "$note"
    fi
    printf '  rows by complete: %s; cloud_task %s\n' "$up_states" "$up_task"
    printf '  in flight, limit %d: daemon upgrading_num max %s (polled %d times, min %s, at the end %s);\n' \
        "$UP_MAX" "$num_max" "$num_polls" "$num_min" "$num_end"
    printf '  vtsim: max %s orders not yet ended; %s orders, %s succ, %s fail, %s reports, %s oks\n' \
        "$(field up_inflight_max "$uout")" "$(field up_orders "$uout")" "$(field up_succ "$uout")" \
        "$(field up_fail "$uout")" "$(field up_reports "$uout")" "$(field up_oks "$uout")"
    awk -v lim="$UP_MAX" -v a="$num_max" -v b="$(field up_inflight_max "$uout")" 'BEGIN {
        printf "  limit %s\n", (a <= lim && b <= lim) ? "held" : "EXCEEDED" }'
    awk -v p="$(field announces "$uout")" -v l="$(field announce_lost "$uout")" -v c="$run_up_cpu" \
        -v d="$run_all_cpu" -v s="$run_ms" 'BEGIN {
        printf "  during the campaign: %d announcements (%d lost), upgrade thread %.1f ms CPU = %.0f ns per\n",
            p, l, c / 1e6, (p - l > 0 ? c / (p - l) : 0)
        printf "  announcement (the reports, which the thread also takes in, included)\n"
        printf "  the whole daemon: %.2f s CPU over %.1f s (%.1f%% of one core; the scheduler and the database\n",
            d / 1e9, s / 1000, (s > 0 ? d / (s * 1e4) : 0)
        printf "  writer included)\n" }'
    awk -v p="$steady_ann" -v c="$steady_up_cpu" 'BEGIN {
        printf "  nothing due, %d announcements: %.1f ms CPU, %.0f ns per announcement\n", p, c / 1e6,
            (p > 0 ? c / p : 0) }'
    awk -v r="$UP_BURST_RATE" -v p="$burst_ann" -v l="$burst_lost" -v c="$burst_up_cpu" 'BEGIN {
        printf "  burst of 3 s at %d/s: sent %d, lost %d (%.2f%%), %.0f ns per announcement taken in\n", r, p, l,
            (p > 0 ? l * 100 / p : 0), (p - l > 0 ? c / (p - l) : 0) }'
    fi
}
