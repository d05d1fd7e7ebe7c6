// The asynchronous buffer against bare baselines measured in the same run:
//   - throughput to a consumer thread calling Pop(), against a std::mutex + std::condition_variable
//     + std::deque handoff of the same windows without validation or statistics;
//   - CPU time per window of a consumer blocked in Pop() on a producer slower than it, against the
//     same consumer on the bare handoff;
//   - the share of windows that a SCHED_FIFO consumer polling Pop(40 us) receives from a worker
//     on its own core (skipped where SCHED_FIFO is not permitted);
//   - PopNowait() latency on the consumer thread while the worker produces at full speed into a
//     queue bounded at 8, against the same loop on the bare handoff;
//   - the allocations and frees per window on the consumer thread, against the bare handoff;
//   - Qualify() over 1,000,000 windows, against a copy + std::sort + sums.
// Windows are 10 rows x 6 joints with one metadata entry, copied from a template per call.
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "consumer_probes.hpp"
#include "handoff_fixtures.hpp"
#include "ratio_reporter.hpp"
#include "thread_setup.hpp"
#include "window/async_buffer.hpp"

namespace cw = corvane::control::window;

namespace {

constexpr std::size_t kWindowsPerRun = 50000;
constexpr std::size_t kBoundedCapacity = 8;
constexpr std::size_t kLatencyCalls = 1'000'000;
constexpr std::size_t kHistory = 1'000'000;
constexpr std::size_t kSlowWindows = 500;
constexpr std::chrono::microseconds kSlowPeriod{500};  // the slow producer's time per window
constexpr std::size_t kPolls = 2000;
constexpr std::chrono::microseconds kPollTimeout{40};

using corvane::bench::BareHandoff;
using corvane::bench::BareProducer;
using corvane::bench::CopyingProducer;
using corvane::bench::CountAllocations;
using corvane::bench::ReportLatency;
using corvane::bench::TemplateWindow;

// `count` copies of the template, each after a sleep of kSlowPeriod: slower than any consumer.
class SlowProducer final : public cw::WindowProducerSession {
 public:
  void PrepareSession() override {}
  std::optional<cw::WindowPayload> ProduceNext() override {
    std::this_thread::sleep_for(kSlowPeriod);
    ++produced_;
    return template_;
  }
  bool IsExhausted() const override { return produced_ >= kSlowWindows; }
  std::optional<cw::WindowPayload> Finalize() override { return std::nullopt; }

 private:
  cw::WindowPayload template_ = TemplateWindow();
  std::size_t produced_ = 0;
};

void BM_Throughput_Buffer(benchmark::State& state) {
  const std::optional<std::size_t> capacity =
      state.range(0) ? std::optional<std::size_t>(kBoundedCapacity) : std::nullopt;
  for (auto _ : state) {
    cw::AsyncWindowBuffer buffer(std::make_unique<CopyingProducer>(kWindowsPerRun), 0, capacity);
    buffer.Start();
    std::size_t popped = 0;
    while (auto window = buffer.Pop()) {
      benchmark::DoNotOptimize(window->positions.data());
      ++popped;
    }
    if (popped != kWindowsPerRun) state.SkipWithError("windows lost");
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kWindowsPerRun));
}

void BM_Throughput_Baseline(benchmark::State& state) {
  const std::optional<std::size_t> capacity =
      state.range(0) ? std::optional<std::size_t>(kBoundedCapacity) : std::nullopt;
  for (auto _ : state) {
    BareHandoff handoff(capacity);
    std::thread producer = BareProducer(handoff, kWindowsPerRun);
    while (auto window = handoff.Pop(true)) benchmark::DoNotOptimize(window->positions.data());
    producer.join();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kWindowsPerRun));
}

// The consumer's CPU time per window while it waits in Pop() for a slow producer.
void BM_BlockedPopCpu_Buffer(benchmark::State& state) {
  for (auto _ : state) {
    cw::AsyncWindowBuffer buffer(std::make_unique<SlowProducer>());
    buffer.Start();
    const double begin = corvane::bench::ThreadCpuSeconds();
    while (auto window = buffer.Pop()) benchmark::DoNotOptimize(window->positions.data());
    state.counters["cpu_us_per_window"] =
        1e6 * (corvane::bench::ThreadCpuSeconds() - begin) / kSlowWindows;
  }
}

void BM_BlockedPopCpu_Baseline(benchmark::State& state) {
  for (auto _ : state) {
    BareHandoff handoff(std::nullopt);
    std::thread producer = BareProducer(handoff, kSlowWindows, kSlowPeriod);
    const double begin = corvane::bench::ThreadCpuSeconds();
    while (auto window = handoff.Pop(true)) benchmark::DoNotOptimize(window->positions.data());
    state.counters["cpu_us_per_window"] =
        1e6 * (corvane::bench::ThreadCpuSeconds() - begin) / kSlowWindows;
    producer.join();
  }
}

void BM_ConsumerAllocations_Buffer(benchmark::State& state) {
  for (auto _ : state) {
    cw::AsyncWindowBuffer buffer(std::make_unique<CopyingProducer>(kWindowsPerRun), 0,
                                 kBoundedCapacity);
    buffer.Start();
    CountAllocations(state, kWindowsPerRun, [&] {
      while (auto window = buffer.Pop()) benchmark::DoNotOptimize(window->positions.data());
    });
  }
}

void BM_ConsumerAllocations_Baseline(benchmark::State& state) {
  for (auto _ : state) {
    BareHandoff handoff(kBoundedCapacity);
    std::thread producer = BareProducer(handoff, kWindowsPerRun);
    CountAllocations(state, kWindowsPerRun, [&] {
      while (auto window = handoff.Pop(true)) benchmark::DoNotOptimize(window->positions.data());
    });
    producer.join();
  }
}

// A SCHED_FIFO control thread polls Pop(40 us) on the core where the worker (normal policy) runs:
// a wait that does not sleep would keep the worker from ever producing.
void BM_FifoPollingShare(benchmark::State& state) {
  for (auto _ : state) {
    cw::AsyncWindowBuffer buffer(std::make_unique<CopyingProducer>(std::nullopt), 0,
                                 kBoundedCapacity);
    cpu_set_t allowed;
    sched_getaffinity(0, sizeof allowed, &allowed);
    int cpu = 0;
    while (!CPU_ISSET(static_cast<std::size_t>(cpu), &allowed)) ++cpu;
    buffer.Start(cw::WorkerSettings{cw::WorkerPolicy::kNormal, 0, {cpu}, "bench-worker"});
    std::size_t received = 0;
    std::optional<std::string> refused;
    std::thread([&] {
      refused = corvane::bench::BecomeRealTimeOn(cpu);
      if (refused) return;
      for (std::size_t poll = 0; poll < kPolls; ++poll) {
        if (buffer.Pop(kPollTimeout)) ++received;
      }
    }).join();
    if (refused) std::fprintf(stderr, "SCHED_FIFO refused: %s\n", refused->c_str());
    state.counters["fifo_refused"] = refused ? 1.0 : 0.0;
    state.counters["share_received"] = static_cast<double>(received) / kPolls;
  }
}

void BM_PopNowaitLatency_Buffer(benchmark::State& state) {
  for (auto _ : state) {
    cw::AsyncWindowBuffer buffer(std::make_unique<CopyingProducer>(std::nullopt), 0,
                                 kBoundedCapacity);
    buffer.Start();
    ReportLatency(state, kLatencyCalls, [&] { return buffer.PopNowait(); });
  }
}

void BM_PopNowaitLatency_Baseline(benchmark::State& state) {
  for (auto _ : state) {
    BareHandoff handoff(kBoundedCapacity);
    std::thread producer = BareProducer(handoff, std::numeric_limits<std::size_t>::max());
    ReportLatency(state, kLatencyCalls, [&] { return handoff.Pop(false); });
    handoff.Finish();
    producer.join();
  }
}

// Random compute times and sample periods, identical for the buffer and the baseline.
std::vector<double> RandomSeconds(std::uint64_t seed, double low, double high) {
  std::mt19937_64 random(seed);
  std::uniform_real_distribution<double> distribution(low, high);
  std::vector<double> values(kHistory);
  for (double& value : values) value = distribution(random);
  return values;
}

// One-row windows declaring the given compute times, so the history holds exactly these.
class HistoryProducer final : public cw::WindowProducerSession {
 public:
  explicit HistoryProducer(std::vector<double> compute_s) : compute_s_(std::move(compute_s)) {}
  void PrepareSession() override {}
  std::optional<cw::WindowPayload> ProduceNext() override {
    cw::WindowPayload window;
    window.positions = cw::SampleMatrix::Zero(1, 1);
    window.start_index = next_;
    window.stop_index = next_ + 1;
    window.compute_time_s = compute_s_[next_++];
    return window;
  }
  bool IsExhausted() const override { return next_ >= compute_s_.size(); }
  std::optional<cw::WindowPayload> Finalize() override { return std::nullopt; }

 private:
  std::vector<double> compute_s_;
  std::size_t next_ = 0;
};

void BM_Qualify_Buffer(benchmark::State& state) {
  cw::AsyncWindowBuffer buffer(std::make_unique<HistoryProducer>(RandomSeconds(1, 1e-4, 2e-3)),
                               100);
  buffer.Prefill(kHistory);
  for (auto _ : state) benchmark::DoNotOptimize(buffer.Qualify(1.0));
}

void BM_Qualify_Baseline(benchmark::State& state) {
  const std::vector<double> compute_s = RandomSeconds(1, 1e-4, 2e-3);
  const std::vector<double> duration_s(kHistory, 1.0);
  for (auto _ : state) {
    std::vector<double> comp = compute_s;
    std::vector<double> dur = duration_s;
    std::vector<double> sorted = comp;
    std::sort(sorted.begin(), sorted.end());
    benchmark::DoNotOptimize(std::accumulate(comp.begin(), comp.end(), 0.0) +
                             std::accumulate(dur.begin(), dur.end(), 0.0) + sorted.back());
  }
}

// Thread hand-offs on two cores are noisy: every figure of the threaded benchmarks is the median
// of several repetitions, interleaved with the baseline's.
constexpr int kRepetitions = 9;
void ThroughputCases(benchmark::internal::Benchmark* cases) {
  cases->Arg(0)->Arg(1)->ArgName("bounded")->UseRealTime();
  cases->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
}
void LatencyCases(benchmark::internal::Benchmark* cases) {
  cases->Iterations(1)->UseRealTime()->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
}
BENCHMARK(BM_Throughput_Buffer)->Apply(ThroughputCases);
BENCHMARK(BM_Throughput_Baseline)->Apply(ThroughputCases);
BENCHMARK(BM_BlockedPopCpu_Buffer)->Apply(LatencyCases);
BENCHMARK(BM_BlockedPopCpu_Baseline)->Apply(LatencyCases);
BENCHMARK(BM_FifoPollingShare)->Apply(LatencyCases);
BENCHMARK(BM_PopNowaitLatency_Buffer)->Apply(LatencyCases);
BENCHMARK(BM_PopNowaitLatency_Baseline)->Apply(LatencyCases);
BENCHMARK(BM_ConsumerAllocations_Buffer)->Iterations(1);
BENCHMARK(BM_ConsumerAllocations_Baseline)->Iterations(1);
BENCHMARK(BM_Qualify_Buffer)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Qualify_Baseline)->Unit(benchmark::kMillisecond);

void PrintSummary(const corvane::bench::RatioReporter& reporter) {
  using corvane::bench::PrintRatio;
  std::printf("\nRatios against the same-run baselines\n");
  for (const char* arg : {"bounded:0", "bounded:1"}) {
    const std::string buffer = std::string("BM_Throughput_Buffer/") + arg + "/real_time";
    const std::string base = std::string("BM_Throughput_Baseline/") + arg + "/real_time";
    if (!reporter.Has(buffer) || !reporter.Has(base)) continue;
    const double ratio =
        reporter.NanosecondsPerIteration(base) / reporter.NanosecondsPerIteration(buffer);
    PrintRatio(arg[8] == '1' ? "throughput, bounded at 8 (buffer / baseline windows/s)"
                             : "throughput, unbounded (buffer / baseline windows/s)",
               ratio, "reported", true);
  }
  const std::string cpu = "BM_BlockedPopCpu_Buffer/iterations:1/real_time";
  const std::string cpu_base = "BM_BlockedPopCpu_Baseline/iterations:1/real_time";
  if (reporter.Has(cpu) && reporter.Has(cpu_base)) {
    const double ratio = reporter.Counter(cpu, "cpu_us_per_window") /
                         reporter.Counter(cpu_base, "cpu_us_per_window");
    PrintRatio("consumer CPU per window blocked on a slow producer, / baseline", ratio, "<= 1.2",
               ratio <= 1.2);
  }
  const std::string share = "BM_FifoPollingShare/iterations:1/real_time";
  if (reporter.Has(share) && reporter.Counter(share, "fifo_refused") > 0.5) {
    std::printf("SCHED_FIFO consumer polling Pop(40 us): skipped, SCHED_FIFO not permitted\n");
  } else if (reporter.Has(share)) {
    const double received = reporter.Counter(share, "share_received");
    PrintRatio("SCHED_FIFO consumer polling Pop(40 us) on the worker's core: share", received,
               ">= 0.95", received >= 0.95);
  }
  const std::string latency = "BM_PopNowaitLatency_Buffer/iterations:1/real_time";
  const std::string latency_base = "BM_PopNowaitLatency_Baseline/iterations:1/real_time";
  if (reporter.Has(latency) && reporter.Has(latency_base)) {
    const double p99 = reporter.Counter(latency, "p99_us");
    const double over = reporter.Counter(latency, "over_10us_pct");
    PrintRatio("PopNowait p99 [us]", p99, "<= 10", p99 <= 10.0);
    PrintRatio("PopNowait calls over 10 us [%]", over, "<= 1", over <= 1.0);
    PrintRatio("PopNowait p99, buffer / baseline", p99 / reporter.Counter(latency_base, "p99_us"),
               "informational", true);
  }
  const std::string counted = "BM_ConsumerAllocations_Buffer/iterations:1";
  const std::string counted_base = "BM_ConsumerAllocations_Baseline/iterations:1";
  if (reporter.Has(counted) && reporter.Has(counted_base)) {
    std::printf(
        "consumer allocations / frees per window: buffer %.3f / %.3f, baseline %.3f / %.3f\n",
        reporter.Counter(counted, "allocations_per_window"),
        reporter.Counter(counted, "frees_per_window"),
        reporter.Counter(counted_base, "allocations_per_window"),
        reporter.Counter(counted_base, "frees_per_window"));
  }
  if (reporter.Has("BM_Qualify_Buffer") && reporter.Has("BM_Qualify_Baseline")) {
    const double ratio = reporter.NanosecondsPerIteration("BM_Qualify_Buffer") /
                         reporter.NanosecondsPerIteration("BM_Qualify_Baseline");
    PrintRatio("Qualify over 1e6 windows (buffer / copy+sort+sums time)", ratio, "<= 0.4",
               ratio <= 0.4);
  }
}

}  // namespace

int main(int argc, char** argv) {
  return corvane::bench::RunAndSummarize(argc, argv, PrintSummary);
}
