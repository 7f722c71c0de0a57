#!/usr/bin/env bash
# Installs the Debian packages that lumen_fx needs to build, test and run,
# skipping those that are already there. Safe to run again.
set -euo pipefail

PACKAGES=(
  cmake g++ make pkg-config
  qtbase5-dev libqt5svg5-dev
  libopencv-dev
  libavutil-dev libswscale-dev libavformat-dev libavcodec-dev
  libdlib-dev libdlib-data libblas-dev liblapack-dev opencv-data
  libgtest-dev libgmock-dev libbenchmark-dev
  xvfb xauth libgl1-mesa-dri
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "setup: all packages present"
  exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
