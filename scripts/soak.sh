#!/usr/bin/env bash
# A long run against the simulator: position polling, a write every 10 s, keep-alive on.
#   scripts/soak.sh [minutes]     (default 10; BUILD_DIR selects the build, default build/)
# Not part of CI: it takes minutes by design.
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=${1:-10}
BUILD_DIR=${BUILD_DIR:-build}
if [ ! -x "$BUILD_DIR/bench/dravinel-soak" ]; then
    cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build "$BUILD_DIR" --target dravinel-soak dravinel-sim
fi
exec "$BUILD_DIR/bench/dravinel-soak" --minutes "$minutes" --sim "$BUILD_DIR/sim/dravinel-sim"
