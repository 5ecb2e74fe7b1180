#!/usr/bin/env bash
# Installs the Debian packages the build needs, when some are missing and we
# run as root. Safe to run again: it does nothing when everything is there.
# The client programs (v4l-utils, ffmpeg) that test the simulated video node
# from outside are installed too; without root they are only reported, and
# their tests skip.
set -euo pipefail

packages=(cmake ninja-build g++ gcc pkg-config binutils libgtest-dev libgmock-dev libbenchmark-dev)
clients=(v4l-utils ffmpeg)

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
