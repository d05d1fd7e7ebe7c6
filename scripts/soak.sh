#!/usr/bin/env bash
# Builds the streaming soak test in release mode with debug information and streams the given
# number of windows through it (default 1,000,000), printing the windows, samples, wall time and
# retained memory of the run. The test command runs a short version of the same test.
#   scripts/soak.sh [windows]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

cmake -S . -B build-soak -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVANE_SANITIZE= -DCORVANE_BUILD_EXAMPLES=OFF
cmake --build build-soak -j "$(nproc)" --target streaming_soak_test
CORVANE_SOAK_WINDOWS=${1:-1000000} build-soak/tests/streaming_soak_test
