#!/usr/bin/env bash
# Makes the Debian packages from a finished build, unpacks them into a scratch
# root, checks what they hold and depend on, then builds the examples against
# the unpacked files only and runs one on the virtual camera; the Python
# module is imported from the scratch root too.
#   check_packages.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
source_dir=$(cd "$2" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

(cd "$work" && cpack --config "$build/CPackConfig.cmake" -B "$work/debs" >"$work/cpack.log" 2>&1) ||
  { cat "$work/cpack.log"; exit 1; }
shopt -s nullglob
debs=("$work"/debs/*.deb)
[ ${#debs[@]} -ge 3 ] || { echo "expected at least 3 packages, got: ${debs[*]}"; exit 1; }
root="$work/root"
for deb in "${debs[@]}"; do
  echo "$(dpkg-deb -f "$deb" Package) $(dpkg-deb -f "$deb" Version): $(dpkg-deb -f "$deb" Depends)"
  dpkg-deb -x "$deb" "$root"
done

fail() { echo "FAIL: $*"; exit 1; }
depends() { dpkg-deb -f "$work"/debs/"$1"_*.deb Depends; }
has() { [ -e "$root/$1" ] || fail "no $1 in the packages"; }
lib=$(find "$root/usr/lib" -name 'libksStereoCameraDriver.so.1.4.7' | head -1)
[ -n "$lib" ] || fail "no library"
libdir=$(dirname "$lib")
[ -L "$libdir/libksStereoCameraDriver.so.1.4" ] || fail "no soname link"
has usr/include/ksStereoCameraDriver.h
has usr/lib/udev/rules.d/70-ks-stereo-camera.rules
has usr/bin/kscam
has usr/bin/kssim-run
find "$root/usr/lib" -name ksStereoCameraDriver.pc | grep -q . || fail "no pkg-config file"
find "$root/usr/lib" -name ksStereoCameraDriverConfig.cmake | grep -q . || fail "no CMake package"

# The runtime package holds no development files; the others depend on it.
rt_deb=$(ls "$work"/debs/libksstereocameradriver1.4_*.deb)
dpkg-deb -c "$rt_deb" | grep -q -E '\.h$|\.pc$|/libksStereoCameraDriver\.so$' &&
  fail "development files in the runtime package"
depends libksstereocameradriver1.4 | grep -q 'libc6' || fail "runtime does not depend on libc6"
for p in libksstereocameradriver-dev ksstereocameradriver-tools; do
  depends $p | grep -q 'libksstereocameradriver1.4 (= 1.4.7)' || fail "$p does not depend on the library"
done
depends ksstereocameradriver-tools | grep -q 'libpng' || fail "the tools do not depend on libpng"

# An example built against the unpacked files alone: CMake package and pkg-config.
cmake -S "$source_dir/examples" -B "$work/examples" -G Ninja -DCMAKE_PREFIX_PATH="$root/usr" >"$work/examples.log" 2>&1 || { cat "$work/examples.log"; exit 1; }
cmake --build "$work/examples" --target example_stream_distance >>"$work/examples.log" 2>&1 ||
  { cat "$work/examples.log"; exit 1; }
PKG_CONFIG_PATH="$libdir/pkgconfig" PKG_CONFIG_SYSROOT_DIR="" \
  cc -o "$work/list_cameras" "$source_dir/examples/list_cameras.c" \
  $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs ksStereoCameraDriver) ||
  fail "the C example does not build with pkg-config"
ldd "$work/examples/stream_distance" | grep -q "$build/" && fail "the example links the build tree"
LD_LIBRARY_PATH="$libdir" "$root/usr/bin/kssim-run" --scene wall --warp 4 -- \
  "$work/examples/stream_distance" 3 | tee "$work/run.log"
grep -q "centre distance 1[45][0-9][0-9] mm" "$work/run.log" || fail "the example measured no distance"

# The Python module from the scratch root, with the library beside it.
if ls "$work"/debs/python3-kscamera_*.deb >/dev/null 2>&1; then
  depends python3-kscamera | grep -q 'python3-numpy' || fail "the module does not depend on numpy"
  module=$(find "$root/usr/lib/python3/dist-packages" -name 'kscamera*.so')
  [ -n "$module" ] || fail "no Python module in dist-packages"
  LD_LIBRARY_PATH="$libdir" PYTHONPATH="$root/usr/lib/python3/dist-packages" /usr/bin/python3 -c "
import kscamera
assert kscamera.__file__.startswith('$root'), kscamera.__file__
with kscamera.virtual(scene='wall', warp=4), kscamera.open() as cam:
    f = cam.wait_for_frame()
    print('python: centre distance', f.distance_at(f.width // 2, f.height // 2), 'mm')
"
fi
echo "packages OK"
