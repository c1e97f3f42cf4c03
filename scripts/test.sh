#!/usr/bin/env bash
# Builds everything with AddressSanitizer and UndefinedBehaviorSanitizer and
# runs every test, against a private MariaDB that this script starts and
# stops itself.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake -S . -B build-san -G Ninja -DCLOUD_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build-san -j "$(nproc)"

dbdir=$(mktemp -d /tmp/cloud-testdb.XXXXXX)
cleanup() {
    scripts/mariadb.sh stop "$dbdir" >/dev/null 2>&1 || true
    rm -rf "$dbdir"
}
trap cleanup EXIT
eval "$(scripts/mariadb.sh start "$dbdir")"
# Outage tests stop, kill and restart this server.
export CLOUD_TEST_DBDIR=$dbdir

export ASAN_OPTIONS=abort_on_error=0:detect_leaks=1:allow_user_segv_handler=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir build-san --output-on-failure -j 2 --timeout 600
