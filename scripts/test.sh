#!/usr/bin/env bash
# Builds everything with AddressSanitizer and UndefinedBehaviorSanitizer and
# runs every test, against a private MariaDB that this script starts and
# stops itself. The integration tests run a second time against a
# ThreadSanitizer build of the daemon; any race report fails the run. The
# fuzz targets run a few seconds each on their seed corpus.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake -S . -B build-san -G Ninja -DCLOUD_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build-san -j "$(nproc)"
cmake -S . -B build-tsan -G Ninja -DCLOUD_TSAN=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build-tsan -j "$(nproc)" --target cloud cloudctl vtsim integration_tests

dbdir=$(mktemp -d /tmp/cloud-testdb.XXXXXX)
tsandir=$(mktemp -d /tmp/cloud-tsan.XXXXXX)
cleanup() {
    scripts/mariadb.sh stop "$dbdir" >/dev/null 2>&1 || true
    rm -rf "$dbdir" "$tsandir"
}
trap cleanup EXIT
eval "$(scripts/mariadb.sh start "$dbdir")"
# Outage tests stop, kill and restart this server.
export CLOUD_TEST_DBDIR=$dbdir

# The crash handler writes its dump with stdio by design: not a finding.
echo "== integration tests, ThreadSanitizer build"
# A test that fails is run once more on its own, and the run says so: a
# fault fails twice, a timing-dependent test shows up in the log by name.
tsan_run() {
    TSAN_OPTIONS="halt_on_error=0 report_signal_unsafe=0 log_path=$tsandir/race" \
        build-tsan/integration_tests --gtest_brief=1 "$@"
}
if ! tsan_run | tee "$tsandir/out"; then
    failed=$(sed -n 's/^\[  FAILED  \] \([A-Za-z0-9_/]*\.[A-Za-z0-9_/.]*\).*/\1/p' "$tsandir/out" | sort -u | paste -sd: -)
    [[ -n "$failed" ]] || exit 1
    echo "== run again on their own: $failed" >&2
    tsan_run --gtest_filter="$failed"
    echo "passed on the second run (timing-dependent, look into it): $failed" >&2
fi
if compgen -G "$tsandir/race*" >/dev/null; then
    cat "$tsandir"/race*
    echo "ThreadSanitizer reported $(cat "$tsandir"/race* | grep -c '^WARNING: ThreadSanitizer') race(s)" >&2
    exit 1
fi
echo "ThreadSanitizer: no reports"

echo "== package"
scripts/package_check.sh

# A crash on a known input of any parser fails the run.
echo "== fuzz targets, smoke run"
scripts/fuzz.sh --smoke

export ASAN_OPTIONS=abort_on_error=0:detect_leaks=1:allow_user_segv_handler=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
# As above: a failed test runs once more, and its first failure stays in
# the log.
ctest --test-dir build-san --output-on-failure -j 2 --timeout 600 --repeat until-pass:2
