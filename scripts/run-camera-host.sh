#!/usr/bin/env bash
# Builds the library and runs the simulated camera host against a fresh device root.
#   scripts/run-camera-host.sh [ROOT] [--crash[=segv|heap|assert] | --kill]
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake --preset plain >/dev/null
cmake --build --preset plain -j "$(nproc)" --target zudebug-camera-host zudebug-log
exec ./build/plain/tools/zudebug-camera-host "$@"
