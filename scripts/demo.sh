#!/usr/bin/env bash
# Builds the library and the demo program, then runs the demo with the given options
# (for example: scripts/demo.sh --mode shaper --plot shaper.png).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$(nproc)" --target corvane-window-demo
build/examples/corvane-window-demo "$@"
