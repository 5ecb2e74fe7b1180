#!/usr/bin/env bash
# Sets up, builds and runs every test.
#   scripts/test.sh [build-dir] [extra cmake arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

build=${1:-build}
shift || true
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -G Ninja -DKS_WERROR=ON -DKS_BUILD_TESTS=ON "$@"
cmake --build "$build" -j "$jobs"
ctest --test-dir "$build" --output-on-failure --no-tests=error -j "$jobs"
