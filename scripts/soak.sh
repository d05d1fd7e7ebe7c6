#!/usr/bin/env bash
# Builds the streaming soak test in release mode with debug information and streams the given
# number of simulated hours through it (default 8: 28.8 million samples of 12 joints at 1 kHz, 2.88
# million windows) at full speed, with the reference and the statistics retained. It prints, for
# every simulated hour, the resident memory and the time Qualify takes (scripts/bench.sh measures
# what an append costs).
# The test command runs a short version of the same test.
#   scripts/soak.sh [hours]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

cmake -S . -B build-soak -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCORVANE_SANITIZE= -DCORVANE_BUILD_EXAMPLES=OFF
cmake --build build-soak -j "$(nproc)" --target streaming_soak_test
CORVANE_SOAK_HOURS=${1:-8} build-soak/tests/streaming_soak_test \
  --gtest_filter=StreamingSoakTest.HoursOfRetainedStreamingHoldFlatMemory
