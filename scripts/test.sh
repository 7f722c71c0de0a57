#!/usr/bin/env bash
# Set-up, build, and the whole test suite (under a virtual X server, so that
# the tests that draw get a Mesa llvmpipe context on machines without a GPU).
#   bash scripts/test.sh              the suite, in ./build
#   bash scripts/test.sh --sanitize   the same suite built with AddressSanitizer
#                                     and UndefinedBehaviorSanitizer, in ./build-sanitize
# Further arguments go to ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=()
dir=build
if [ "${1:-}" = "--sanitize" ]; then
  mode=(--sanitize)
  dir=build-sanitize
  shift
  # Every finding ends the process that made it. Leak checking is off: every
  # process here draws through Mesa and Qt's platform plugin, whose allocations
  # at exit belong to libraries that are unloaded before the check runs, so
  # their reports name no module and can't be told from ours; the fast
  # unwinder also stops inside those libraries. Leaks of the engine's own are
  # looked for with valgrind instead (see the README).
  export ASAN_OPTIONS="detect_leaks=0:halt_on_error=1:detect_stack_use_after_return=0"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
fi
bash scripts/setup.sh
bash scripts/build.sh "${mode[@]}"
export QT_QPA_PLATFORM=offscreen
cd "$dir"
exec xvfb-run -a -s "-screen 0 1280x1024x24" ctest --output-on-failure --timeout 300 "$@"
