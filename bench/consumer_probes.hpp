// What the buffer benchmarks measure on the consumer thread: its allocations and frees per window,
// and the latency distribution of a pop call. Include it in exactly one file of a benchmark
// program: it replaces malloc and free for the whole program (allocation_counter.hpp).
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <optional>
#include <vector>

#include <benchmark/benchmark.h>

#include "allocation_counter.hpp"
#include "window/records.hpp"

namespace corvane::bench {

// Calls `pop` `calls` times, timing every call, and reports the distribution as counters
// (microseconds): p50_us, p99_us, p999_us, max_us, over_10us_pct, and the windows received.
template <typename PopNowait>
void ReportLatency(benchmark::State& state, std::size_t calls, PopNowait pop) {
  std::vector<double> latencies_us(calls);
  std::size_t windows = 0;
  for (double& latency : latencies_us) {
    const auto begin = std::chrono::steady_clock::now();
    const std::optional<control::window::WindowPayload> window = pop();
    const auto end = std::chrono::steady_clock::now();
    latency = std::chrono::duration<double, std::micro>(end - begin).count();
    if (window) ++windows;  // the window is freed after the clock was read: not the call's cost
  }
  const auto over =
      std::count_if(latencies_us.begin(), latencies_us.end(), [](double us) { return us > 10.0; });
  std::sort(latencies_us.begin(), latencies_us.end());
  const auto at = [&](double q) {
    return latencies_us[static_cast<std::size_t>(q * static_cast<double>(calls - 1))];
  };
  state.counters["p50_us"] = at(0.5);
  state.counters["p99_us"] = at(0.99);
  state.counters["p999_us"] = at(0.999);
  state.counters["max_us"] = latencies_us.back();
  state.counters["over_10us_pct"] = 100.0 * static_cast<double>(over) / static_cast<double>(calls);
  state.counters["windows"] = static_cast<double>(windows);
}

// Runs `pop_all` on this thread, which pops `windows` windows, and reports its allocations and
// frees per window as the counters allocations_per_window and frees_per_window.
template <typename PopAll>
void CountAllocations(benchmark::State& state, std::size_t windows, PopAll pop_all) {
  const std::size_t allocations = thread_allocations;
  const std::size_t frees = thread_frees;
  pop_all();
  const auto per_window = [windows](std::size_t count) {
    return static_cast<double>(count) / static_cast<double>(windows);
  };
  state.counters["allocations_per_window"] = per_window(thread_allocations - allocations);
  state.counters["frees_per_window"] = per_window(thread_frees - frees);
}

}  // namespace corvane::bench
