#!/usr/bin/env bash
# Set-up, build, and the main job: the video recorder plays the bundled sample
# clip through the engine with skin smoothing, whitening, red lips and a
# sticker, before and after side by side, and writes lumen_fx_demo.mp4 and a
# PNG of its middle frame, lumen_fx_demo.png, in the current folder.
#   bash scripts/main.sh                   the sample clip, as above
#   bash scripts/main.sh ARGS...           the recorder with these arguments (see --help)
#   bash scripts/main.sh --still [ARGS...] the still-picture demo (see --still --help)
set -euo pipefail
here=$(pwd)
cd "$(dirname "$0")/.."
root=$(pwd)
bash scripts/setup.sh
bash scripts/build.sh
export QT_QPA_PLATFORM=offscreen
# Qt wants a private runtime folder, and says so on every start without one.
if [ -z "${XDG_RUNTIME_DIR:-}" ]; then
  export XDG_RUNTIME_DIR=/tmp/runtime-$(id -u)
  mkdir -p -m 700 "$XDG_RUNTIME_DIR"
fi
cd "$here"
display=(xvfb-run -a -s "-screen 0 1280x1024x24")
if [ "${1:-}" = "--still" ]; then
  shift
  exec "${display[@]}" "$root/build/examples/lumen_fx_demo" "$@"
fi
if [ $# -gt 0 ]; then
  exec "${display[@]}" "$root/build/examples/lumen_fx_video" "$@"
fi
"${display[@]}" "$root/build/examples/lumen_fx_video" --compare \
  --smooth 100 --whitening 50 --redlips 250 --sticker cuteglasses \
  "$root/build/samples/sample_clip.mp4" -o lumen_fx_demo.mp4 --png lumen_fx_demo.png
echo "before (left) and after (right):"
echo "  video: $here/lumen_fx_demo.mp4"
echo "  still: $here/lumen_fx_demo.png"
