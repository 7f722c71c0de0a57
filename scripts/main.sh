#!/usr/bin/env bash
# Set-up, build, and the main job: the demo host renders the bundled sample.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh
export QT_QPA_PLATFORM=offscreen
exec xvfb-run -a -s "-screen 0 1280x1024x24" ./build/examples/lumen_fx_demo "$@"
