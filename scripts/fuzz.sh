#!/usr/bin/env bash
# Builds the fuzzers with clang, AddressSanitizer and UndefinedBehaviorSanitizer, and runs each
# for the given number of seconds (default 600), one after another, from its seed corpus in
# fuzz/corpus/. The inputs found go to build-fuzz/fuzz/corpus/; a failing input is written to
# build-fuzz/fuzz/ as crash-* (or timeout-*, oom-*) and stops the script.
#   scripts/fuzz.sh [seconds]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-600}
scripts/setup.sh

export ASAN_OPTIONS="halt_on_error=1 detect_leaks=1"
export UBSAN_OPTIONS="halt_on_error=1 print_stacktrace=1"
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCORVANE_BUILD_FUZZERS=ON -DCORVANE_SANITIZE=address -DCORVANE_BUILD_TESTS=OFF \
  -DCORVANE_BUILD_EXAMPLES=OFF
cmake --build build-fuzz -j "$(nproc)"

cd build-fuzz/fuzz
for fuzzer in reference_buffer buffer_lifecycle record_reader; do
  echo "=== ${fuzzer}_fuzzer for ${seconds} s"
  "./${fuzzer}_fuzzer" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
    "corpus/${fuzzer}" "../../fuzz/corpus/${fuzzer}"
done
