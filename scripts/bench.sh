#!/usr/bin/env bash
# Builds and runs the benchmarks. As root it first installs the Debian package
# libopencv-dev, so that the processing benchmarks also measure OpenCV's
# routines side by side (they are skipped without it).
#   scripts/bench.sh [build-dir] [benchmark arguments...]
# Every bench_* program is built and run; among them, on virtual cameras at
# 1280 x 720 and 30 fps:
#   bench_v4l2      parsers and the capture thread, as ratios to a memcpy
#   bench_latency   frame ready -> ksGetCurrentFrame / parsed RGBD image, for
#                   the wake-up and the polling hand-off
#   bench_cameras   1, 2 and 4 cameras: the library's CPU per camera and
#                   each camera's delivered rate
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

if ! dpkg-query -W -f='${Status}' libopencv-dev 2>/dev/null | grep -q 'install ok installed'; then
  if [ "$(id -u)" -eq 0 ]; then
    echo "installing: libopencv-dev"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends libopencv-dev
  else
    echo "libopencv-dev is missing: the OpenCV comparisons are skipped (run as root to install it)" >&2
  fi
fi

build=${1:-build-bench}
shift || true
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -G Ninja -DKS_BUILD_BENCH=ON >/dev/null
benches=$(cmake --build "$build" --target help | sed -n 's/^\(bench_[a-z0-9_]*\):.*/\1/p' | sort -u)
cmake --build "$build" -j "$jobs" --target $benches
for b in $benches; do
  echo "== $b"
  "$build/bench/$b" "$@"
done
