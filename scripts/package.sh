#!/usr/bin/env bash
# Builds the Debian packages (library, development files, tools, Python
# module) into packages/:
#   scripts/package.sh [build-dir]   (default build-package)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
build=${1:-build-package}
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DKS_BUILD_TESTS=OFF -DKS_BUILD_BENCH=OFF
cmake --build "$build" -j "$jobs"
mkdir -p packages
cpack --config "$build/CPackConfig.cmake" -B "$PWD/packages"
rm -rf packages/_CPack_Packages
ls -l packages/*.deb
