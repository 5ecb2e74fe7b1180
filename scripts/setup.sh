#!/usr/bin/env bash
# Installs the Debian packages the build needs, when some are missing and we
# run as root. Safe to run again: it does nothing when everything is there.
set -euo pipefail

packages=(cmake ninja-build g++ gcc pkg-config binutils libgtest-dev libgmock-dev libbenchmark-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
if [ "$(id -u)" -ne 0 ]; then
  echo "missing packages: ${missing[*]} (run as root, or install them with apt-get)" >&2
  exit 1
fi
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
