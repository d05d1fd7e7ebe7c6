// What a monitor that calls Qualify() every 100 ms costs the control loop, once the history is
// long: the latency of PopNowait() on the consumer thread while the worker produces at full speed
// into a queue bounded at 8, over a history of 3,000,000 windows, with and without the monitor.
//
// The baseline, measured in the same run, is the bare handoff with the plain statistics copy: one
// mutex, one condition variable, a deque and two std::vector histories that its Qualify copies
// whole under the lock before summing and sorting outside it.
//   p99_us, max_us, calls, over_1ms: PopNowait latency distribution (microseconds), its call
//   count and the calls that took longer than a millisecond;
//   qualify_ms: mean wall time of one Qualify call of the monitor.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <numeric>
#include <optional>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "handoff_fixtures.hpp"
#include "ratio_reporter.hpp"
#include "window/async_buffer.hpp"

namespace cw = corvane::control::window;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kHistory = 3'000'000;
constexpr std::size_t kCapacity = 8;
// The consumer calls PopNowait back to back for this long, through about 15 monitor calls.
constexpr auto kLatencyRun = std::chrono::milliseconds(1500);
constexpr std::size_t kLatencyCallsReserved = 40'000'000;
constexpr auto kMonitorPeriod = std::chrono::milliseconds(100);

using corvane::bench::BareHandoff;
using corvane::bench::CopyingProducer;
using corvane::bench::TemplateWindow;

// The baseline: the bare handoff with statistics kept in two vectors under its lock, which its
// Qualify copies whole under the lock before summing and sorting outside it.
class PlainCopyBuffer {
 public:
  PlainCopyBuffer() {
    // Room for the windows of the run, so that no growth of the vectors falls into it.
    compute_s_.reserve(2 * kHistory);
    duration_s_.reserve(2 * kHistory);
    compute_s_.assign(kHistory, 1e-4);
    duration_s_.assign(kHistory, 1e-2);
  }
  ~PlainCopyBuffer() {
    handoff_.Finish();
    if (worker_.joinable()) worker_.join();
  }
  void Start() {
    worker_ = std::thread([this] {
      const cw::WindowPayload window = TemplateWindow();
      while (handoff_.Push(cw::WindowPayload(window), [this] {
        compute_s_.push_back(1e-4);
        duration_s_.push_back(1e-2);
      })) {
      }
    });
  }
  std::optional<cw::WindowPayload> PopNowait() { return handoff_.Pop(false); }
  double Qualify() {
    std::vector<double> compute_s;
    std::vector<double> duration_s;
    handoff_.Locked([&] {
      compute_s = compute_s_;
      duration_s = duration_s_;
    });
    const double sum = std::accumulate(duration_s.begin(), duration_s.end(), 0.0);
    const auto p99 = compute_s.begin() + static_cast<std::ptrdiff_t>(compute_s.size() * 99 / 100);
    std::nth_element(compute_s.begin(), p99, compute_s.end());
    return sum + *p99;
  }

 private:
  BareHandoff handoff_{kCapacity};
  std::vector<double> compute_s_;
  std::vector<double> duration_s_;
  std::thread worker_;
};

// An AsyncWindowBuffer whose history already holds kHistory windows: produced and popped on this
// thread through Prefill, in slices, before the worker starts.
std::unique_ptr<cw::AsyncWindowBuffer> BufferWithHistory() {
  auto buffer = std::make_unique<cw::AsyncWindowBuffer>(
      std::make_unique<CopyingProducer>(std::nullopt), 0, kCapacity);
  for (std::size_t recorded = 0; recorded < kHistory; recorded += 10'000) {
    buffer->Prefill(10'000);
    while (buffer->PopNowait()) {
    }
  }
  return buffer;
}

// Calls `qualify` every kMonitorPeriod on a thread of its own until destroyed.
class Monitor {
 public:
  explicit Monitor(std::function<void()> qualify)
      : thread_([this, qualify = std::move(qualify)] {
          std::unique_lock<std::mutex> lock(mutex_);
          while (!cv_.wait_for(lock, kMonitorPeriod, [this] { return stopped_; })) {
            lock.unlock();
            const Clock::time_point start = Clock::now();
            qualify();
            spent_ms_ += std::chrono::duration<double, std::milli>(Clock::now() - start).count();
            ++calls_;
            lock.lock();
          }
        }) {}
  ~Monitor() { Stop(); }
  // Ends the monitor; returns the mean milliseconds per Qualify call.
  double Stop() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopped_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable()) thread_.join();
    return calls_ > 0 ? spent_ms_ / double(calls_) : 0.0;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool stopped_ = false;
  double spent_ms_ = 0.0;
  std::size_t calls_ = 0;
  std::thread thread_;
};

// Times every call of `pop` for kLatencyRun and reports p99 and maximum (microseconds).
template <typename PopNowait>
void ReportLatency(benchmark::State& state, PopNowait pop) {
  std::vector<double> latencies_us;
  latencies_us.reserve(kLatencyCallsReserved);
  const Clock::time_point end = Clock::now() + kLatencyRun;
  for (Clock::time_point begin = Clock::now(); begin < end;) {
    const std::optional<cw::WindowPayload> window = pop();
    const Clock::time_point after = Clock::now();
    latencies_us.push_back(std::chrono::duration<double, std::micro>(after - begin).count());
    benchmark::DoNotOptimize(window);
    begin = after;
  }
  const auto p99 =
      latencies_us.begin() + static_cast<std::ptrdiff_t>(latencies_us.size() * 99 / 100);
  std::nth_element(latencies_us.begin(), p99, latencies_us.end());
  state.counters["p99_us"] = *p99;
  state.counters["max_us"] = *std::max_element(latencies_us.begin(), latencies_us.end());
  state.counters["calls"] = static_cast<double>(latencies_us.size());
  state.counters["over_1ms"] = static_cast<double>(
      std::count_if(latencies_us.begin(), latencies_us.end(), [](double us) { return us > 1e3; }));
}

// state.range(0): 1 with the monitor, 0 without.
void BM_Monitored_Buffer(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    std::unique_ptr<cw::AsyncWindowBuffer> buffer = BufferWithHistory();
    state.ResumeTiming();
    buffer->Start();
    std::optional<Monitor> monitor;
    if (state.range(0)) monitor.emplace([&] { benchmark::DoNotOptimize(buffer->Qualify(1.0)); });
    ReportLatency(state, [&] { return buffer->PopNowait(); });
    if (monitor) state.counters["qualify_ms"] = monitor->Stop();
  }
}

void BM_Monitored_PlainCopy(benchmark::State& state) {
  for (auto _ : state) {
    PlainCopyBuffer buffer;
    buffer.Start();
    std::optional<Monitor> monitor;
    if (state.range(0)) monitor.emplace([&] { benchmark::DoNotOptimize(buffer.Qualify()); });
    ReportLatency(state, [&] { return buffer.PopNowait(); });
    if (monitor) state.counters["qualify_ms"] = monitor->Stop();
  }
}

// Thread hand-offs on two cores are noisy: every figure is the median of several repetitions,
// interleaved with the others.
void Cases(benchmark::internal::Benchmark* cases) {
  cases->Arg(0)->Arg(1)->ArgName("monitor")->Iterations(1)->UseRealTime();
  cases->Repetitions(5)->ReportAggregatesOnly(true);
}
BENCHMARK(BM_Monitored_Buffer)->Apply(Cases);
BENCHMARK(BM_Monitored_PlainCopy)->Apply(Cases);

void PrintSummary(const corvane::bench::RatioReporter& reporter) {
  using corvane::bench::PrintRatio;
  std::printf("\nPopNowait under a Qualify() monitor every 100 ms, history of 3e6 windows\n");
  for (const char* name : {"BM_Monitored_Buffer", "BM_Monitored_PlainCopy"}) {
    const std::string quiet = std::string(name) + "/monitor:0/iterations:1/real_time";
    const std::string watched = std::string(name) + "/monitor:1/iterations:1/real_time";
    if (!reporter.Has(quiet) || !reporter.Has(watched)) continue;
    const double ratio = reporter.Counter(watched, "p99_us") / reporter.Counter(quiet, "p99_us");
    std::printf("%s: p99 %.2f -> %.2f us, max %.0f -> %.0f us, calls over 1 ms %.0f -> %.0f\n",
                name, reporter.Counter(quiet, "p99_us"), reporter.Counter(watched, "p99_us"),
                reporter.Counter(quiet, "max_us"), reporter.Counter(watched, "max_us"),
                reporter.Counter(quiet, "over_1ms"), reporter.Counter(watched, "over_1ms"));
    const bool buffer = std::string(name) == "BM_Monitored_Buffer";
    PrintRatio(buffer ? "buffer: p99 with monitor / without" : "plain copy: p99 with / without",
               ratio, buffer ? "<= 1.2" : "informational", !buffer || ratio <= 1.2);
  }
}

}  // namespace

int main(int argc, char** argv) {
  return corvane::bench::RunAndSummarize(argc, argv, PrintSummary);
}
