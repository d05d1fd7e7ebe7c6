#!/usr/bin/env bash
# Builds the library and its examples, then runs the main example.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$(nproc)" --target 01_replay_windows
build/examples/01_replay_windows "$@"
