#!/usr/bin/env bash
# Configures and builds lumen_fx (Release with debug info): in ./build, or with
# --sanitize in ./build-sanitize with AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=build
flags=()
if [ "${1:-}" = "--sanitize" ]; then
  dir=build-sanitize
  flags=(-DLUMEN_FX_SANITIZE=ON)
fi
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${flags[@]}" >/dev/null
cmake --build "$dir" -j"$jobs"
