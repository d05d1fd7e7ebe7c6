#!/usr/bin/env bash
# Builds and runs every test: a plain build (the benchmarks compiled, not run; the Python module
# and its tests), a ThreadSanitizer build, an AddressSanitizer + UndefinedBehaviorSanitizer
# build, and last the libFuzzer targets (clang, Address + UB sanitizers), each run for a bounded
# time. Each build has its own folder. Fails when any build or test fails.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

jobs=$(nproc)
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
export ASAN_OPTIONS="halt_on_error=1 detect_leaks=1"
export UBSAN_OPTIONS="halt_on_error=1 print_stacktrace=1"

run_suite() {
  local dir=$1
  shift
  echo "=== ${dir}"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}

# The sanitized builds compile at -O1 with line tables only, as the sanitizers recommend: their
# reports keep file and line, and each build takes about half the time it takes at -O2 -g.
sanitized=(-DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG")

run_suite build -DCORVANE_BUILD_BENCHMARKS=ON -DCORVANE_BUILD_PYTHON=ON
run_suite build-tsan -DCORVANE_SANITIZE=thread "${sanitized[@]}"
run_suite build-asan -DCORVANE_SANITIZE=address "${sanitized[@]}"
CC=clang CXX=clang++ run_suite build-fuzz -DCORVANE_BUILD_FUZZERS=ON -DCORVANE_SANITIZE=address \
  -DCORVANE_BUILD_TESTS=OFF -DCORVANE_BUILD_EXAMPLES=OFF "${sanitized[@]}"
