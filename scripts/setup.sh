#!/usr/bin/env bash
# Installs the Debian packages the build needs, when some are missing and we
# run as root. Safe to run again: it does nothing when everything is there.
# The client programs that test the simulated video node and kscam's files
# from outside are installed too; without root they are only reported, and
# their tests skip.
set -euo pipefail

# The build and its tests, and kscam's libraries (CLI11, libpng, nlohmann-json).
packages=(cmake ninja-build g++ gcc pkg-config binutils libgtest-dev libgmock-dev libbenchmark-dev
          libcli11-dev libpng-dev nlohmann-json3-dev)
# The Python module kscamera and its tests (Debian's interpreter and libraries).
packages+=(python3-dev pybind11-dev python3-numpy python3-pytest)
# clang with its sanitizer and libFuzzer runtimes: CI's sanitizer build and
# scripts/fuzz.sh.
packages+=(clang libclang-rt-14-dev)
# Programs nobody here wrote that the client tests run: V4L2 clients on the
# simulated node; ImageMagick, Python and Open3D reading kscam's files.
clients=(v4l-utils ffmpeg imagemagick python3 python3-open3d)

missing_from() {
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || echo "$p"
  done
}
mapfile -t missing < <(missing_from "${packages[@]}")
mapfile -t missing_clients < <(missing_from "${clients[@]}")
if [ ${#missing[@]} -eq 0 ] && [ ${#missing_clients[@]} -eq 0 ]; then
  exit 0
fi
if [ "$(id -u)" -ne 0 ]; then
  if [ ${#missing_clients[@]} -ne 0 ]; then
    echo "client programs not installed: ${missing_clients[*]} (their tests skip)" >&2
  fi
  if [ ${#missing[@]} -ne 0 ]; then
    echo "missing packages: ${missing[*]} (run as root, or install them with apt-get)" >&2
    exit 1
  fi
  exit 0
fi
echo "installing: ${missing[*]} ${missing_clients[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" "${missing_clients[@]}"
