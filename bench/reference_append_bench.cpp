// The cost of streaming a reference into an AppendableReferenceBuffer one sample at a time.
//
// Each run appends 1-row blocks of 6 joints until the store holds a million samples, and times
// the appends just before the store holds 1,000, 100,000 and 1,000,000 samples. The same run
// grows a std::vector<double> by the same rows as a baseline. The store keeps no spare capacity,
// so every append reallocates it; the counters show whether that cost stays flat as it grows:
//   buffer_ns_at_1e3/1e5/1e6, vector_ns_at_1e3/1e5/1e6: nanoseconds per append near each size;
//   growth_ratio: buffer cost per append at 1e6 over that at 1e3 (target <= 4);
//   run_ratio: the buffer's whole run over the vector's whole run (target <= 5).
#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "window/reference_buffer.hpp"

namespace {

using corvane::control::window::AppendableReferenceBuffer;
using corvane::control::window::SampleMatrix;
using Clock = std::chrono::steady_clock;

constexpr Eigen::Index kJoints = 6;
constexpr std::array<std::size_t, 3> kProbeSizes = {1'000, 100'000, 1'000'000};
// The 1,000 appends before each probe size are timed in blocks of 50; the median block stands
// for the cost there, so that a single preemption of this thread does not.
constexpr std::size_t kProbeBlocks = 20;
constexpr std::size_t kBlockAppends = 50;
constexpr std::size_t kProbeAppends = kProbeBlocks * kBlockAppends;

// Nanoseconds per append near each probe size, and for the whole run.
struct GrowthProfile {
  std::array<double, kProbeSizes.size()> probe_ns{};
  double run_ns = 0.0;
};

double NanosecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

template <typename AppendRow>
double MedianAppendNs(AppendRow& append_row) {
  std::array<double, kProbeBlocks> block_ns{};
  for (double& ns : block_ns) {
    const Clock::time_point start = Clock::now();
    for (std::size_t i = 0; i < kBlockAppends; ++i) {
      append_row();
    }
    ns = NanosecondsSince(start) / double(kBlockAppends);
  }
  std::nth_element(block_ns.begin(), block_ns.begin() + kProbeBlocks / 2, block_ns.end());
  return block_ns[kProbeBlocks / 2];
}

// Calls `append_row` once per sample up to the last probe size, timing the appends just before
// each probe size, and the whole run.
template <typename AppendRow>
GrowthProfile Grow(AppendRow append_row) {
  GrowthProfile profile;
  const Clock::time_point run_start = Clock::now();
  std::size_t stored = 0;
  for (std::size_t probe = 0; probe < kProbeSizes.size(); ++probe) {
    for (; stored + kProbeAppends < kProbeSizes[probe]; ++stored) {
      append_row();
    }
    profile.probe_ns[probe] = MedianAppendNs(append_row);
    stored += kProbeAppends;
  }
  profile.run_ns = NanosecondsSince(run_start);
  return profile;
}

void ReportProbes(benchmark::State& state, const std::string& name, const GrowthProfile& run) {
  const char* suffixes[] = {"_ns_at_1e3", "_ns_at_1e5", "_ns_at_1e6"};
  for (std::size_t i = 0; i < kProbeSizes.size(); ++i) {
    state.counters[name + suffixes[i]] = run.probe_ns[i];
  }
}

void BM_AppendOneSampleAtATime(benchmark::State& state) {
  const SampleMatrix row = SampleMatrix::Constant(1, kJoints, 0.25);
  for (auto _ : state) {
    AppendableReferenceBuffer buffer(static_cast<std::size_t>(kJoints));
    const GrowthProfile buffer_run = Grow([&] { buffer.AppendReference(row); });
    std::vector<double> store;
    const GrowthProfile vector_run =
        Grow([&] { store.insert(store.end(), row.data(), row.data() + kJoints); });
    benchmark::DoNotOptimize(store.data());
    state.SetIterationTime(buffer_run.run_ns * 1e-9);
    ReportProbes(state, "buffer", buffer_run);
    ReportProbes(state, "vector", vector_run);
    state.counters["growth_ratio"] = buffer_run.probe_ns[2] / buffer_run.probe_ns[0];
    state.counters["run_ratio"] = buffer_run.run_ns / vector_run.run_ns;
  }
}
// One million appends per repetition; the medians over the repetitions are the figures to read.
BENCHMARK(BM_AppendOneSampleAtATime)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(7)
    ->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
