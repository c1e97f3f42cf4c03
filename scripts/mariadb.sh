#!/usr/bin/env bash
# Throwaway MariaDB server for tests and the demo.
#
#   mariadb.sh start  DIR   create (first time) and start a private server in DIR
#   mariadb.sh stop   DIR   shut it down (no-op when it is not running)
#   mariadb.sh env    DIR   print DIR/db.env
#   mariadb.sh status DIR   exit 0 when the server in DIR is up, 1 otherwise
#
# The server never touches the system installation: no option files are
# read, data, socket, pid file and error log all live in DIR, and TCP is
# bound to 127.0.0.1 on a free port chosen at start. `start` creates the
# daemon's account and the database vtlog, loads every sql/*.sql of this
# repository, writes DIR/db.env (shell exports CLOUD_DB_*) and
# DIR/cloud.db.conf (the daemon's account file, mode 0600), and prints the
# db.env lines on stdout, so `eval "$(scripts/mariadb.sh start DIR)"` works.
# Progress and errors go to stderr.
#
# A stopped DIR can be started again; its data is kept and the account,
# database and tables are re-applied (all statements are idempotent).
set -euo pipefail

readonly DB_NAME=vtlog
readonly DB_USER=cloud
readonly DB_PASSWORD=cloud-test-pw
readonly START_TIMEOUT=60  # seconds until the server must answer
readonly STOP_TIMEOUT=30   # seconds for an orderly shutdown before SIGKILL
readonly PORT_ATTEMPTS=3   # new ports tried when the chosen one was taken

SCRIPT_DIR=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
readonly SQL_DIR="$SCRIPT_DIR/../sql"

log() { printf 'mariadb.sh: %s\n' "$*" >&2; }
die() { log "$*"; exit 1; }

usage() {
    printf 'usage: %s start|stop|env|status DIR\n' "$(basename -- "$0")" >&2
    exit 2
}

(($# == 2)) || usage
cmd=$1
[[ -n "$2" ]] || usage
DIR=$(realpath -m -- "$2")
readonly DIR
readonly DATA="$DIR/data"
readonly SOCK="$DIR/mysqld.sock"
readonly PIDFILE="$DIR/mysqld.pid"
readonly ERRLOG="$DIR/mysqld.err"
readonly ENVFILE="$DIR/db.env"
readonly CONFFILE="$DIR/cloud.db.conf"

# The server runs as whoever calls us; mariadbd refuses root unless told.
USER_OPT=()
if [[ "$(id -u)" -eq 0 ]]; then
    USER_OPT=(--user="$(id -un)")
fi

# Options for a small, fast, disposable server. innodb_flush_log_at_trx_commit
# and the disabled doublewrite buffer trade crash safety for speed; the data
# is thrown away anyway. MyISAM auto-recovery is off so that a table marked
# as crashed stays crashed until someone runs REPAIR, as the daemon expects.
SERVER_OPTS=(
    --skip-name-resolve
    --skip-log-bin
    --character-set-server=latin1
    --collation-server=latin1_swedish_ci
    --innodb-buffer-pool-size=64M
    --innodb-log-file-size=16M
    --innodb-flush-log-at-trx-commit=2
    --innodb-doublewrite=0
    --key-buffer-size=8M
    --myisam-recover-options=OFF
    --performance-schema=OFF
    --max-connections=500
)

admin() {
    mariadb-admin --no-defaults --protocol=socket --socket="$SOCK" -uroot \
        --connect-timeout=2 "$@"
}

root_sql() {
    mariadb --no-defaults --protocol=socket --socket="$SOCK" -uroot \
        --default-character-set=latin1 --batch "$@"
}

# True while process $1 exists, is not a zombie and is a MariaDB server.
# Guards every signal we send against a PID reused by some other program.
is_server_process() {
    local comm
    comm=$(cat "/proc/$1/comm" 2>/dev/null || true)
    [[ "$comm" == mariadbd || "$comm" == mysqld ]] && alive "$1"
}

# Prints the PID from the pid file when it names a live server process.
server_pid() {
    local pid
    [[ -f "$PIDFILE" ]] || return 1
    pid=$(tr -dc '0-9' <"$PIDFILE" 2>/dev/null || true)
    [[ -n "$pid" ]] && is_server_process "$pid" || return 1
    printf '%s\n' "$pid"
}

is_up() {
    server_pid >/dev/null && admin ping >/dev/null 2>&1
}

# True while process $1 exists and is not a zombie.
alive() {
    local state
    state=$(awk '{print $3}' "/proc/$1/stat" 2>/dev/null || true)
    [[ -n "$state" && "$state" != Z ]]
}

free_port() {
    if command -v python3 >/dev/null 2>&1; then
        python3 -c 'import socket
s = socket.socket()
s.bind(("127.0.0.1", 0))
print(s.getsockname()[1])'
        return
    fi
    # No python3: probe random high ports against the listening sockets.
    local port i
    for ((i = 0; i < 200; i++)); do
        port=$((20000 + RANDOM % 40000))
        if ! ss -Htln "sport = :$port" 2>/dev/null | grep -q .; then
            printf '%s\n' "$port"
            return
        fi
    done
    die "no free port found"
}

write_env_files() {
    local port=$1 old_umask
    old_umask=$(umask)
    umask 077
    cat >"$ENVFILE.tmp" <<EOF
export CLOUD_DB_HOST=127.0.0.1
export CLOUD_DB_PORT=$port
export CLOUD_DB_SOCKET=$SOCK
export CLOUD_DB_USER=$DB_USER
export CLOUD_DB_PASSWORD=$DB_PASSWORD
EOF
    cat >"$CONFFILE.tmp" <<EOF
host=127.0.0.1
port=$port
socket=$SOCK
user=$DB_USER
password=$DB_PASSWORD
EOF
    umask "$old_umask"
    chmod 0600 "$ENVFILE.tmp" "$CONFFILE.tmp"
    mv -f -- "$ENVFILE.tmp" "$ENVFILE"
    mv -f -- "$CONFFILE.tmp" "$CONFFILE"
}

# Account, database and the front end's tables; safe to run again.
provision() {
    local host f
    {
        printf "CREATE DATABASE IF NOT EXISTS %s CHARACTER SET latin1;\n" "$DB_NAME"
        for host in localhost 127.0.0.1; do
            printf "CREATE USER IF NOT EXISTS '%s'@'%s' IDENTIFIED BY '%s';\n" \
                "$DB_USER" "$host" "$DB_PASSWORD"
            printf "ALTER USER '%s'@'%s' IDENTIFIED BY '%s';\n" \
                "$DB_USER" "$host" "$DB_PASSWORD"
            # Global ALL: the daemon creates vtlog itself when it is missing
            # and repairs crashed tables.
            printf "GRANT ALL PRIVILEGES ON *.* TO '%s'@'%s';\n" "$DB_USER" "$host"
        done
        printf "FLUSH PRIVILEGES;\n"
    } | root_sql

    shopt -s nullglob
    local files=("$SQL_DIR"/*.sql)
    shopt -u nullglob
    for f in "${files[@]}"; do
        root_sql "$DB_NAME" <"$f" || die "loading $f failed"
    done
    log "loaded ${#files[@]} table file(s) from $(realpath -- "$SQL_DIR" 2>/dev/null || echo "$SQL_DIR")"
}

init_datadir() {
    [[ -d "$DATA/mysql" ]] && return 0
    rm -rf -- "$DATA"
    mkdir -p -- "$DATA"
    log "initialising $DATA"
    if ! mariadb-install-db --no-defaults "${USER_OPT[@]}" --datadir="$DATA" \
            --auth-root-authentication-method=normal --skip-test-db \
            --skip-name-resolve --innodb-log-file-size=16M \
            --innodb-buffer-pool-size=64M >"$DIR/install-db.log" 2>&1; then
        cat -- "$DIR/install-db.log" >&2
        die "mariadb-install-db failed"
    fi
}

# Starts mariadbd on port $1 and waits for it. Returns 0 when it answers,
# 2 when the port was taken (caller tries another), dies on other failures.
launch() {
    local port=$1 pid deadline
    : >"$ERRLOG"
    # The server outlives this script: it must not keep any descriptor of
    # the caller open (a test runner waiting for end-of-file on a pipe would
    # hang), so everything beyond 0-2 is closed before the exec.
    (
        for fd in /proc/self/fd/*; do
            fd=${fd##*/}
            if ((fd > 2)); then eval "exec $fd>&-"; fi
        done
        exec mariadbd --no-defaults "${USER_OPT[@]}" \
            --datadir="$DATA" --socket="$SOCK" --port="$port" \
            --bind-address=127.0.0.1 --pid-file="$PIDFILE" --log-error="$ERRLOG" \
            --tmpdir="$DIR/tmp" "${SERVER_OPTS[@]}"
    ) </dev/null >>"$DIR/mysqld.out" 2>&1 &
    pid=$!
    deadline=$((SECONDS + START_TIMEOUT))
    while ((SECONDS < deadline)); do
        if ! alive "$pid"; then
            wait "$pid" 2>/dev/null || true
            if grep -qiE 'address already in use|do you already have another' "$ERRLOG"; then
                return 2
            fi
            cat -- "$ERRLOG" >&2
            die "mariadbd exited during start-up (log above, $ERRLOG)"
        fi
        if admin ping >/dev/null 2>&1; then
            return 0
        fi
        sleep 0.1
    done
    cat -- "$ERRLOG" >&2
    kill -KILL "$pid" 2>/dev/null || true
    die "mariadbd did not answer within ${START_TIMEOUT}s (log above, $ERRLOG)"
}

do_start() {
    local t0=$SECONDS port attempt rc tool
    if is_up; then
        [[ -f "$ENVFILE" ]] || die "server in $DIR is up but $ENVFILE is missing"
        log "already running in $DIR (pid $(server_pid))"
        cat -- "$ENVFILE"
        return 0
    fi
    if server_pid >/dev/null; then
        die "mariadbd (pid $(server_pid)) owns $DIR but does not answer; run stop first"
    fi

    # Unix socket paths are limited to 107 bytes. Blanks are refused too:
    # mariadb-install-db does not quote the data directory everywhere, and
    # the paths end up in a key=value file.
    ((${#SOCK} < 100)) || die "directory path too long for a socket: $SOCK"
    [[ "$DIR" != *[[:space:]]* ]] || die "directory path must not contain blanks: $DIR"
    for tool in mariadbd mariadb-install-db mariadb mariadb-admin; do
        command -v "$tool" >/dev/null 2>&1 || die "$tool not found; run scripts/setup.sh"
    done

    mkdir -p -- "$DIR" "$DIR/tmp"
    rm -f -- "$PIDFILE" "$SOCK" "$SOCK.lock"
    init_datadir

    # A restart on the same data keeps its port, so that clients holding
    # the old settings (a running daemon) find the server again.
    local prev_port=""
    if [[ -f "$ENVFILE" ]]; then
        prev_port=$(sed -n 's/^export CLOUD_DB_PORT=\([0-9]*\)$/\1/p' "$ENVFILE")
    fi
    for ((attempt = 1; attempt <= PORT_ATTEMPTS; attempt++)); do
        if ((attempt == 1)) && [[ -n "$prev_port" ]]; then
            port=$prev_port
        else
            port=$(free_port)
        fi
        if ! [[ "$port" =~ ^[0-9]+$ ]] || ((port == 0 || port > 65535)); then
            die "could not pick a free port (got '$port')"
        fi
        rc=0
        launch "$port" || rc=$?
        ((rc == 0)) && break
        log "port $port was taken, trying another"
    done
    ((rc == 0)) || die "could not bind a port after $PORT_ATTEMPTS attempts"

    provision
    write_env_files "$port"
    log "ready in $DIR: pid $(server_pid), port $port, socket $SOCK ($((SECONDS - t0))s)"
    cat -- "$ENVFILE"
}

do_stop() {
    local pid deadline
    if ! pid=$(server_pid); then
        rm -f -- "$PIDFILE"
        log "not running in $DIR"
        return 0
    fi
    # Orderly shutdown over the socket (the SHUTDOWN statement returns at
    # once, where mariadb-admin would add a second of polling); SIGTERM does
    # the same when the socket does not answer.
    if ! root_sql --connect-timeout=2 -e SHUTDOWN >/dev/null 2>&1 &&
            is_server_process "$pid"; then
        log "shutdown over the socket failed; sending SIGTERM to pid $pid"
        kill -TERM "$pid" 2>/dev/null || true
    fi
    deadline=$((SECONDS + STOP_TIMEOUT))
    while alive "$pid" && ((SECONDS < deadline)); do
        sleep 0.1
    done
    # Still up: SIGKILL, after checking the PID still names our server.
    if is_server_process "$pid"; then
        log "pid $pid still up after ${STOP_TIMEOUT}s; sending SIGKILL"
        kill -KILL "$pid" 2>/dev/null || true
        deadline=$((SECONDS + 10))
        while alive "$pid" && ((SECONDS < deadline)); do
            sleep 0.1
        done
        alive "$pid" && die "pid $pid survived SIGKILL"
    fi
    rm -f -- "$PIDFILE" "$SOCK" "$SOCK.lock"
    log "stopped (pid $pid)"
}

do_env() {
    [[ -f "$ENVFILE" ]] || die "no $ENVFILE; run: $0 start $DIR"
    cat -- "$ENVFILE"
}

# start and stop of one DIR are serialised, so that parallel test runs
# sharing a DIR neither start two servers nor stop one half-way up.
lock_dir() {
    mkdir -p -- "$DIR"
    exec {lock_fd}>"$DIR/.lock"
    flock "$lock_fd"
}

case "$cmd" in
    start) lock_dir; do_start ;;
    stop) [[ -d "$DIR" ]] && lock_dir; do_stop ;;
    env) do_env ;;
    status) is_up ;;
    *) usage ;;
esac
