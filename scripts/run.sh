#!/usr/bin/env bash
# The main job: builds the library and its tool kscam, then shows the tool on
# the built-in virtual camera (a room scene, 1280 x 720 at 30 fps): the camera
# list, its information, a few seconds of streaming with the live status line,
# and a capture into ./kscam-capture/ that ends with the measured distances
# against the scene's ground truth.
#   scripts/run.sh                 the demonstration
#   scripts/run.sh ARGS...         just kscam ARGS (for example: list, info --json)
set -euo pipefail
start_dir=$PWD
cd "$(dirname "$0")/.."
bash scripts/setup.sh

build=build-run
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKS_WERROR=OFF -DKS_SANITIZE= \
  -DKS_BUILD_TESTS=OFF -DKS_BUILD_BENCH=OFF -DKS_BUILD_SIM=ON -DKS_BUILD_KSCAM=ON >/dev/null
cmake --build "$build" -j "$jobs" --target kscam
kscam=$PWD/$build/tools/kscam

if [ $# -gt 0 ]; then
  cd "$start_dir"
  exec "$kscam" "$@"
fi

cd "$start_dir"
began=$(date +%s.%N)
step() {
  echo
  echo "\$ kscam $*"
  "$kscam" "$@"
}
step --virtual list
step --virtual info
step --virtual stream --duration 3
log=$(mktemp)
trap 'rm -f "$log"' EXIT
step --virtual capture --output kscam-capture | tee "$log"
worst=$(sed -n 's/^  largest error \(.*\)$/\1/p' "$log")
ended=$(date +%s.%N)
echo
awk -v a="$began" -v b="$ended" -v d="$start_dir" \
  'BEGIN { printf "Demonstration done in %.1f s. The frame set is in %s/kscam-capture/;\n", b - a, d }'
echo "largest difference between the measured distances and the room's ground truth: ${worst:-?}."
