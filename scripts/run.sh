#!/usr/bin/env bash
# The main job: builds the library and its tool, then runs the tool.
#   scripts/run.sh [tool arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

build=build-run
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -G Ninja -DKS_BUILD_TESTS=OFF -DKS_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$jobs" --target ksStereoCameraDriver ksinfo
"$build/tools/ksinfo" "$@"
echo "exported interface of $(readlink -f "$build/libksStereoCameraDriver.so"):"
nm -D --defined-only "$build/libksStereoCameraDriver.so" | awk '$2 == "T" {print "  " $3}' | sort
