#!/usr/bin/env bash
# Builds the libFuzzer targets (build-fuzz, clang) and runs them one after
# another, each on a scratch copy of its seed corpus (tests/fuzz/corpus is
# never grown by a run), printing per target:
#   target=NAME execs=N crashes=N seconds=S
#
#   scripts/fuzz.sh [SECONDS]   each target for SECONDS (default 600); after
#                               a crash the target is started again for the
#                               time left (at most 10 crashes per target)
#   scripts/fuzz.sh --smoke     each target for 5 seconds, stopping at the
#                               first crash
#
# Exits non-zero when a target crashed or did not start. Crash inputs are
# kept in build-fuzz/artifacts/<target>/. An oracle of a fault already
# reported can be waived while it is being fixed:
#   CLOUD_FUZZ_KNOWN=config-lines scripts/fuzz.sh --smoke
set -euo pipefail
cd "$(dirname "$0")/.."

usage() { echo "usage: scripts/fuzz.sh [SECONDS | --smoke]" >&2; exit 2; }
smoke=0
secs=600
case "${1:-}" in
    "") ;;
    --smoke) smoke=1; secs=5 ;;
    *[!0-9]* | 0) usage ;;
    *) secs=$1 ;;
esac
(($# <= 1)) || usage

scripts/setup.sh >/dev/null
cmake -S . -B build-fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCLOUD_FUZZ=ON -DCLOUD_TESTS=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build-fuzz -j "$(nproc)" --target fuzzers

# target:max_len
TARGETS=(fuzz_dgram:4096 fuzz_mgmt:4096 fuzz_config:4096 fuzz_sqlf:2048 fuzz_lnglat:4096 fuzz_tunnels:1024 fuzz_texts:1024)

# The targets write small files (settings, disconnect notices) all the time:
# on tmpfs when there is one.
scratch=/tmp
[[ -d /dev/shm && -w /dev/shm ]] && scratch=/dev/shm
work=$(mktemp -d "$scratch/cloud-fuzz-run.XXXXXX")
trap 'rm -rf "$work"' EXIT
export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=0:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

status=0
for entry in "${TARGETS[@]}"; do
    name=${entry%%:*}
    maxlen=${entry##*:}
    bin=build-fuzz/tests/fuzz/$name
    art=build-fuzz/artifacts/$name
    mkdir -p "$work/$name/corpus" "$work/$name/tmp" "$art"
    cp -R "tests/fuzz/corpus/$name/." "$work/$name/corpus/"
    args=(-max_len="$maxlen" -rss_limit_mb=2048 -timeout=25 -close_fd_mask=1 -print_final_stats=1
          -artifact_prefix="$art/")
    [[ -f tests/fuzz/$name.dict ]] && args+=(-dict="tests/fuzz/$name.dict")

    execs=0 crashes=0 started=1
    start=$SECONDS
    left=$secs
    while ((left > 0)); do
        log=$work/$name/run.log
        rc=0
        TMPDIR=$work/$name/tmp "$bin" "${args[@]}" -max_total_time="$left" "$work/$name/corpus" >"$log" 2>&1 || rc=$?
        if ! grep -q 'INITED' "$log"; then
            started=0
            echo "fuzz.sh: $name did not start:" >&2
            tail -n 20 "$log" >&2
            break
        fi
        n=$(grep -o 'stat::number_of_executed_units: [0-9]*' "$log" | tail -n 1 | grep -o '[0-9]*$' || true)
        execs=$((execs + ${n:-0}))
        ((rc == 0)) && break
        crashes=$((crashes + 1))
        echo "fuzz.sh: $name crashed:" >&2
        grep -E '^==[0-9]+==ERROR|^==ORACLE|^SUMMARY|Test unit written' "$log" >&2 || tail -n 20 "$log" >&2
        ((smoke || crashes >= 10)) && break
        left=$((secs - (SECONDS - start)))
    done
    echo "target=$name execs=$execs crashes=$crashes seconds=$((SECONDS - start))"
    if ((crashes > 0 || !started)); then
        status=1
    fi
done
exit $status
