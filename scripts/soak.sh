#!/usr/bin/env bash
# Long reliability runs that CI keeps short: a million exchanges with a
# hostile camera and a thousand unplug / replug cycles.
#
#   scripts/soak.sh [build-dir]   (default build-soak; configured if missing)
#
# KS_HOSTILE_EXCHANGES and KS_UNPLUG_CYCLES override the counts.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-soak}
if [[ ! -f $build/CMakeCache.txt ]]; then
    cmake -S . -B "$build" -G Ninja -DKS_WERROR=ON -DKS_BUILD_TESTS=ON
fi
cmake --build "$build" -j2 --target test_hostile_device test_unplug_replug
export KS_HOSTILE_EXCHANGES=${KS_HOSTILE_EXCHANGES:-1000000}
export KS_UNPLUG_CYCLES=${KS_UNPLUG_CYCLES:-1000}
"$build"/tests/reliability/test_hostile_device
"$build"/tests/reliability/test_unplug_replug
