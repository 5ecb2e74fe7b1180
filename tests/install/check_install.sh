#!/usr/bin/env bash
# Installs the build into a scratch prefix, then builds and runs an
# application against it with find_package and with pkg-config.
set -euo pipefail
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
lib=$(find "$work/prefix" -name 'libksStereoCameraDriver.so.1.4.7')
[ -n "$lib" ] || { echo "library not installed"; exit 1; }
soname=$(objdump -p "$lib" | awk '/SONAME/ {print $2}')
[ "$soname" = "libksStereoCameraDriver.so.1.4" ] || { echo "soname is '$soname'"; exit 1; }
deps=$(objdump -p "$lib" | awk '/NEEDED/ {print $2}' | grep -v -E '^(libstdc\+\+|libm|libgcc_s|libc|libpthread|ld-linux|libasan|libubsan|libtsan)[.-]' || true)
[ -z "$deps" ] || { echo "unexpected dependencies: $deps"; exit 1; }

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig:$work/prefix/lib/x86_64-linux-gnu/pkgconfig"
cmake -S "$source_dir/tests/install/consumer" -B "$work/consumer" -G Ninja \
  -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_C_FLAGS="${KS_CONSUMER_FLAGS:-}" \
  -DCMAKE_EXE_LINKER_FLAGS="${KS_CONSUMER_FLAGS:-}" >/dev/null
cmake --build "$work/consumer" >"$work/build.log" || { cat "$work/build.log"; exit 1; }
libdir=$(dirname "$lib")
LD_LIBRARY_PATH="$libdir" "$work/consumer/consumer_cmake"
LD_LIBRARY_PATH="$libdir" "$work/consumer/consumer_pkgconfig"
