#!/usr/bin/env bash
# Set-up, build, and the whole test suite (under a virtual X server, so that
# the tests that draw get a Mesa llvmpipe context on machines without a GPU).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh
export QT_QPA_PLATFORM=offscreen
cd build
exec xvfb-run -a -s "-screen 0 1280x1024x24" ctest --output-on-failure --timeout 300 "$@"
