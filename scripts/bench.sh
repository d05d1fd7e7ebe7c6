#!/usr/bin/env bash
# Builds the benchmarks in release mode and runs each one; every benchmark program ends with its
# figures as ratios against a baseline measured in the same run. Arguments go to every C++ program
# (e.g. --benchmark_filter=Qualify). Last, the cost of the worker calling a Python solver.
# replacement_bench runs its fixed-rate loop for 100 replacements; for the full 1,000, run
# build-bench/bench/replacement_bench --replacements=1000 after this script.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DCORVANE_BUILD_BENCHMARKS=ON \
  -DCORVANE_BUILD_TESTS=OFF -DCORVANE_BUILD_PYTHON=ON
cmake --build build-bench -j "$(nproc)"
for program in build-bench/bench/*_bench; do
  echo "=== ${program##*/}"
  "$program" "$@"
done
echo "=== python_solver_overhead"
PYTHONPATH=build-bench/python /usr/bin/python3 bench/python_solver_overhead.py
