// What the timing log costs the worker and the loop, against the same buffer without it, in one
// run:
//   - the worker's time per window with a trivial producer (a copy of a 10 x 6 window), from
//     Start() until it has queued 20,000 windows into an unbounded queue, log on over log off;
//   - the 0.99 quantile of PopNowait() latency on the consumer thread while the worker produces
//     at full speed into a queue bounded at 8, with the log on and a monitor thread reading it
//     every 10 ms, over the same without log and monitor;
//   - malloc calls on the loop's thread per window popped with the log on.
#include <chrono>
#include <cstdio>
#include <future>
#include <memory>
#include <optional>
#include <thread>

#include <benchmark/benchmark.h>

#include "consumer_probes.hpp"
#include "handoff_fixtures.hpp"
#include "ratio_reporter.hpp"
#include "window/async_buffer.hpp"
#include "window/timing_log.hpp"

namespace cw = corvane::control::window;

namespace {

using Clock = std::chrono::steady_clock;
using corvane::bench::CopyingProducer;

constexpr std::size_t kWindows = 20000;
constexpr std::size_t kLogWindows = 4096;
constexpr std::size_t kQueueWindows = 8;
constexpr std::size_t kLatencyCalls = 1'000'000;
constexpr auto kMonitorPeriod = std::chrono::milliseconds(10);

// A buffer over the copying producer, with a timing log attached when `logged`.
std::unique_ptr<cw::AsyncWindowBuffer> MakeBuffer(std::optional<std::size_t> windows,
                                                  std::optional<std::size_t> capacity,
                                                  std::shared_ptr<cw::TimingLog> log) {
  auto buffer = std::make_unique<cw::AsyncWindowBuffer>(std::make_unique<CopyingProducer>(windows),
                                                        0, capacity);
  if (log) buffer->AttachTimingLog(std::move(log));
  return buffer;
}

std::shared_ptr<cw::TimingLog> LogIf(bool logged) {
  return logged ? std::make_shared<cw::TimingLog>(kLogWindows) : nullptr;
}

// Reads the log's new entries and its counters every kMonitorPeriod on a thread of its own, as
// a monitor would, until destroyed.
class LogMonitor {
 public:
  explicit LogMonitor(const cw::TimingLog& log)
      : thread_([&log, stopped = stop_.get_future()] {
          std::uint64_t next = 0;
          while (stopped.wait_for(kMonitorPeriod) == std::future_status::timeout) {
            next = log.Read(next).next_sequence;
            benchmark::DoNotOptimize(log.Counters());
          }
        }) {}
  LogMonitor(const LogMonitor&) = delete;
  LogMonitor& operator=(const LogMonitor&) = delete;
  ~LogMonitor() {
    stop_.set_value();
    thread_.join();
  }

 private:
  std::promise<void> stop_;
  std::thread thread_;
};

void BM_WorkerPerWindow(benchmark::State& state) {
  for (auto _ : state) {
    auto buffer = MakeBuffer(kWindows, std::nullopt, LogIf(state.range(0) != 0));
    const Clock::time_point begin = Clock::now();
    buffer->Start();
    buffer->Join();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kWindows));
}

void BM_PopNowaitP99(benchmark::State& state) {
  for (auto _ : state) {
    const std::shared_ptr<cw::TimingLog> log = LogIf(state.range(0) != 0);
    auto buffer = MakeBuffer(std::nullopt, kQueueWindows, log);
    std::optional<LogMonitor> monitor;
    if (log) monitor.emplace(*log);
    buffer->Start();
    corvane::bench::ReportLatency(state, kLatencyCalls, [&] { return buffer->PopNowait(); });
  }
}

void BM_LoopAllocations(benchmark::State& state) {
  for (auto _ : state) {
    auto buffer = MakeBuffer(kWindows, kQueueWindows, LogIf(true));
    buffer->Start();
    corvane::bench::CountAllocations(state, kWindows, [&] {
      while (auto window = buffer->Pop()) benchmark::DoNotOptimize(window->positions.data());
    });
  }
}

// Two shared cores are noisy: every figure is the median of repetitions interleaved with those
// of its baseline.
constexpr int kRepetitions = 9;
BENCHMARK(BM_WorkerPerWindow)
    ->ArgName("log")
    ->Arg(0)
    ->Arg(1)
    ->UseManualTime()
    ->Repetitions(2 * kRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_PopNowaitP99)
    ->ArgName("log")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->UseRealTime()
    ->Repetitions(kRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_LoopAllocations)->Iterations(1);

void PrintSummary(const corvane::bench::RatioReporter& reporter) {
  using corvane::bench::PrintRatio;
  std::printf("\nRatios against the same-run baselines\n");
  const std::string worker = "BM_WorkerPerWindow/log:";
  if (reporter.Has(worker + "0/manual_time") && reporter.Has(worker + "1/manual_time")) {
    const double off = reporter.NanosecondsPerIteration(worker + "0/manual_time") / kWindows;
    const double on = reporter.NanosecondsPerIteration(worker + "1/manual_time") / kWindows;
    std::printf("worker time per window: log off %.0f ns, log on %.0f ns\n", off, on);
    PrintRatio("worker time per window, log on / off", on / off, "<= 1.05", on / off <= 1.05);
  }
  const std::string pop = "BM_PopNowaitP99/log:";
  if (reporter.Has(pop + "0/iterations:1/real_time") &&
      reporter.Has(pop + "1/iterations:1/real_time")) {
    const double off = reporter.Counter(pop + "0/iterations:1/real_time", "p99_us");
    const double on = reporter.Counter(pop + "1/iterations:1/real_time", "p99_us");
    std::printf("PopNowait p99: log off %.3f us, log on with a monitor %.3f us\n", off, on);
    PrintRatio("PopNowait p99, log on + monitor every 10 ms / off", on / off, "<= 1.1",
               on / off <= 1.1);
  }
  if (reporter.Has("BM_LoopAllocations/iterations:1")) {
    const double count =
        reporter.Counter("BM_LoopAllocations/iterations:1", "allocations_per_window");
    PrintRatio("malloc calls on the loop thread per window, log on", count, "0", count == 0.0);
  }
}

}  // namespace

int main(int argc, char** argv) {
  return corvane::bench::RunAndSummarize(argc, argv, PrintSummary);
}
