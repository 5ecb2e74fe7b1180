#!/usr/bin/env bash
# Builds the fuzz harnesses with clang's libFuzzer (AddressSanitizer and
# UndefinedBehaviorSanitizer on) and runs each for a while, starting from its
# seed corpus in fuzz/corpus/<harness>/.
#
#   scripts/fuzz.sh [seconds per harness (default 60)] [harness name regex]
#
# KS_FUZZ_JOBS=N runs N harnesses at a time (default 1); each harness is one
# libFuzzer process, so its CPU time is about its seconds when N is at most
# the number of cores. The summary gives each harness's CPU seconds.
#
# New inputs go to build-fuzz/corpus/<harness>/ (the seeds stay as they are);
# a crash is saved as build-fuzz/crashes/<harness>-crash-*: fix it, then copy
# the input into fuzz/corpus/<harness>/ so it replays as a test from then on.
# Prints each harness's runs and coverage from libFuzzer's final statistics.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
filter=${2:-}
build=build-fuzz
cc=${CC:-clang}
cxx=${CXX:-clang++}

cmake -S . -B "$build" -G Ninja -DKS_WERROR=ON -DKS_FUZZ=ON -DKS_BUILD_TESTS=OFF \
  -DKS_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
  -DKS_SANITIZE=address,undefined,implicit-integer-truncation >/dev/null
cmake --build "$build" -j 2 --target ks_fuzzers

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
mkdir -p "$build/crashes" "$build/logs"
jobs=${KS_FUZZ_JOBS:-1}
TIMEFORMAT='%3U %3S'

# Runs one harness; its summary line goes to $build/logs/<name>.summary.
run_one() {
    local name=$1 seeds=$2
    local work="$build/corpus/$name" log="$build/logs/$name.log"
    mkdir -p "$work"
    echo "== $name: ${seconds} s"
    # stdout closed: the library's messages would only slow the runs down.
    local status=0
    { time "$build/fuzz/$name" "$work" "$seeds" -max_total_time="$seconds" -timeout=25 \
        -rss_limit_mb=2048 -print_final_stats=1 -close_fd_mask=1 \
        -artifact_prefix="$build/crashes/$name-" >"$log" 2>&1; } 2>"$log.cpu" || status=$?
    local runs last cov ft corpus cpu line
    runs=$(awk '/stat::number_of_executed_units/ {print $2}' "$log")
    last=$(grep -E '^#[0-9]+' "$log" | tail -1 || true)
    cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")
    ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")
    corpus=$(sed -n 's/.* corp: \([0-9]*\/[0-9a-zA-Z]*\).*/\1/p' <<<"$last")
    cpu=$(awk '{printf "%.0f", $1 + $2}' "$log.cpu" 2>/dev/null || true)
    line=$(printf '%-22s runs %-10s cov %-6s ft %-6s corpus %-10s cpu %5s s' "$name" \
        "${runs:-?}" "${cov:-?}" "${ft:-?}" "${corpus:-?}" "${cpu:-?}")
    if [ "$status" -ne 0 ]; then
        line="$line FAILED (exit $status, see $log)"
    fi
    echo "$line"
    echo "$line" >"$build/logs/$name.summary"
}

names=()
for seeds in fuzz/corpus/*/; do
    name=$(basename "$seeds")
    [ -z "$filter" ] || [[ $name =~ $filter ]] || continue
    names+=("$name")
    rm -f "$build/logs/$name.summary"
    while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
    run_one "$name" "$seeds" &
done
wait
echo
echo "== summary (${seconds} s each, $jobs at a time)"
failed=0
for name in "${names[@]}"; do
    line=$(cat "$build/logs/$name.summary" 2>/dev/null || echo "$name: no result")
    echo "$line"
    [[ $line == *runs* && $line != *FAILED* ]] || failed=1
done
exit "$failed"
