#!/usr/bin/env bash
# Builds the fuzz harnesses with clang's libFuzzer (AddressSanitizer and
# UndefinedBehaviorSanitizer on) and runs each for a while, starting from its
# seed corpus in fuzz/corpus/<harness>/.
#
#   scripts/fuzz.sh [seconds per harness (default 60)] [harness name filter]
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
summary=()
failed=0
for seeds in fuzz/corpus/*/; do
    name=$(basename "$seeds")
    [ -z "$filter" ] || [[ $name == *"$filter"* ]] || continue
    work="$build/corpus/$name"
    log="$build/logs/$name.log"
    mkdir -p "$work"
    echo "== $name: ${seconds} s"
    # stdout closed: the library's messages would only slow the runs down.
    status=0
    "$build/fuzz/$name" "$work" "$seeds" -max_total_time="$seconds" -timeout=25 \
        -rss_limit_mb=2048 -print_final_stats=1 -close_fd_mask=1 \
        -artifact_prefix="$build/crashes/$name-" >"$log" 2>&1 || status=$?
    runs=$(awk '/stat::number_of_executed_units/ {print $2}' "$log")
    last=$(grep -E '^#[0-9]+' "$log" | tail -1 || true)
    cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")
    ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")
    corpus=$(sed -n 's/.* corp: \([0-9]*\/[0-9a-zA-Z]*\).*/\1/p' <<<"$last")
    line=$(printf '%-22s runs %-10s cov %-6s ft %-6s corpus %-10s' "$name" "${runs:-?}" \
        "${cov:-?}" "${ft:-?}" "${corpus:-?}")
    if [ "$status" -ne 0 ]; then
        line="$line FAILED (exit $status, see $log)"
        failed=1
    fi
    echo "$line"
    summary+=("$line")
done
echo
echo "== summary (${seconds} s each)"
printf '%s\n' "${summary[@]}"
exit "$failed"
