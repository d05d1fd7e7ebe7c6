// What a real-time control loop feels from the buffer, on the allocation-free path (PopInto) and
// on the specified one, each against a figure of the same run:
//   - malloc and free calls per window on the consumer thread, PopInto against Pop;
//   - malloc calls per window on the worker with the engines' lifted-MPC solver, PopInto (storage
//     recycled) against Pop;
//   - the p50 of a pop on a SCHED_FIFO consumer while the worker waits for room, PopInto and
//     PopNowait, against PopNowait on a buffer whose worker needs no wake;
//   - the longest PopNowait of a SCHED_FIFO consumer that shares its CPU with a SCHED_FIFO busy
//     thread of lower priority and a normal-priority thread calling Totals() in a loop, against
//     the same without the Totals() caller, and against the bare std::mutex handoff;
//   - the CPU a SCHED_FIFO worker uses in 30 ms while its producer has nothing ready: yielding,
//     waiting with a back-off, and waiting for a ready signal.
// Windows are 10 rows x 6 joints (lifted MPC: 10 applied rows of a 40-row lookahead).
// The real-time cases need SCHED_FIFO; where it is refused they report fifo_refused.
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <corvane_shaper_engines/lifted_mpc_solver.hpp>

#include "allocation_counter.hpp"
#include "handoff_fixtures.hpp"
#include "ratio_reporter.hpp"
#include "thread_setup.hpp"
#include "window/async_buffer.hpp"

namespace cw = corvane::control::window;
namespace ce = corvane::control::engines;

namespace {

using corvane::bench::BareHandoff;
using corvane::bench::BareProducer;
using corvane::bench::BecomeRealTimeOn;
using corvane::bench::CopyingProducer;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kCapacity = 8;
constexpr std::size_t kWindows = 20000;
constexpr std::size_t kWarmupWindows = 200;  // until every slot of the ring holds storage
constexpr int kConsumerCpu = 1;
constexpr int kWorkerCpu = 0;

// ----- allocations -------------------------------------------------------------------------

// Pops every window of `buffer` on this thread, with PopInto when `recycle`, else with Pop, and
// returns the consumer's allocations and frees per window after the warm-up.
std::pair<double, double> ConsumeCounting(cw::AsyncWindowBuffer& buffer, bool recycle) {
  using corvane::bench::thread_allocations;
  using corvane::bench::thread_frees;
  std::size_t popped = 0;
  std::size_t allocations = 0;
  std::size_t frees = 0;
  cw::WindowPayload window;
  while (true) {
    if (popped == kWarmupWindows) {
      allocations = thread_allocations;
      frees = thread_frees;
    }
    if (recycle) {
      if (!buffer.PopInto(window)) break;
      benchmark::DoNotOptimize(window.positions.data());
    } else {
      std::optional<cw::WindowPayload> popped_window = buffer.Pop();
      if (!popped_window) break;
      benchmark::DoNotOptimize(popped_window->positions.data());
    }
    ++popped;
  }
  const double counted = static_cast<double>(popped - kWarmupWindows);
  return {static_cast<double>(thread_allocations - allocations) / counted,
          static_cast<double>(thread_frees - frees) / counted};
}

// state.range(0): 1 PopInto, 0 Pop.
void BM_ConsumerAllocations(benchmark::State& state) {
  for (auto _ : state) {
    cw::AsyncWindowBuffer buffer(std::make_unique<CopyingProducer>(kWindows), 0, kCapacity);
    buffer.Start();
    const auto [allocations, frees] = ConsumeCounting(buffer, state.range(0) != 0);
    state.counters["allocations_per_window"] = allocations;
    state.counters["frees_per_window"] = frees;
  }
}

// Forwards to the lifted-MPC producer and notes the worker's allocation count at each call, so
// that the worker's allocations per window can be read once it has ended.
class WorkerAllocationProbe final : public cw::WindowProducerSession,
                                    public cw::RecyclingWindowProducer {
 public:
  explicit WorkerAllocationProbe(std::unique_ptr<cw::AppendableLiftedMpcWindowProducer> inner)
      : inner_(std::move(inner)) {}
  void PrepareSession() override { inner_->PrepareSession(); }
  std::optional<cw::WindowPayload> ProduceNext() override {
    Note();
    return inner_->ProduceNext();
  }
  bool ProduceNextInto(cw::WindowPayload& window) override {
    Note();
    return inner_->ProduceNextInto(window);
  }
  bool IsExhausted() const override { return inner_->IsExhausted(); }
  std::optional<cw::WindowPayload> Finalize() override { return inner_->Finalize(); }
  // Worker allocations per window between the warm-up and the last call; after the worker ended.
  double AllocationsPerWindow() const {
    return static_cast<double>(last_ - first_) / static_cast<double>(calls_ - kWarmupWindows);
  }

 private:
  void Note() {
    if (++calls_ == kWarmupWindows) first_ = corvane::bench::thread_allocations;
    last_ = corvane::bench::thread_allocations;
  }
  std::unique_ptr<cw::AppendableLiftedMpcWindowProducer> inner_;
  std::size_t calls_ = 0;
  std::size_t first_ = 0;
  std::size_t last_ = 0;
};

constexpr std::size_t kApplySamples = 10;
constexpr std::size_t kLookaheadSamples = 40;
constexpr double kSampleTimeS = 0.001;

// state.range(0): 1 PopInto, 0 Pop. The whole reference is appended before the start.
void BM_LiftedMpcAllocations(benchmark::State& state) {
  for (auto _ : state) {
    auto reference = std::make_shared<cw::AppendableReferenceBuffer>(6);
    reference->AppendReference(cw::SampleMatrix::Random(kWindows * kApplySamples, 6));
    reference->Finish();
    auto producer = std::make_unique<cw::AppendableLiftedMpcWindowProducer>(
        std::make_unique<ce::LiftedMpcSolver>(kSampleTimeS, kLookaheadSamples), reference,
        kApplySamples, kLookaheadSamples, kSampleTimeS, 0);
    auto probe = std::make_unique<WorkerAllocationProbe>(std::move(producer));
    WorkerAllocationProbe& counts = *probe;
    cw::AppendableWindowBuffer buffer(std::move(probe), reference, 0, kCapacity);
    buffer.Start();
    const auto [allocations, frees] = ConsumeCounting(buffer, state.range(0) != 0);
    buffer.Join();
    state.counters["consumer_allocations_per_window"] = allocations;
    state.counters["consumer_frees_per_window"] = frees;
    state.counters["worker_allocations_per_window"] = counts.AllocationsPerWindow();
  }
}

// ----- pop latency while the worker waits for room --------------------------------------------

constexpr std::size_t kPacedPops = 2000;
constexpr auto kPopPeriod = std::chrono::microseconds(100);

// Runs `body` on a thread of its own under SCHED_FIFO on `cpu`; false when refused.
bool RunRealTime(int cpu, int priority, const std::function<void()>& body) {
  bool refused = false;
  std::thread([&] {
    refused = BecomeRealTimeOn(cpu, priority).has_value();
    if (!refused) body();
  }).join();
  return !refused;
}

// Calls `pop` once per kPopPeriod, on an absolute schedule, and returns each call's duration in
// microseconds.
template <typename Pop>
std::vector<double> PacedPops(std::size_t count, Pop pop) {
  std::vector<double> latencies_us;
  latencies_us.reserve(count);
  Clock::time_point due = Clock::now();
  for (std::size_t i = 0; i < count; ++i) {
    due += kPopPeriod;
    std::this_thread::sleep_until(due);
    const Clock::time_point begin = Clock::now();
    pop();
    latencies_us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
  }
  return latencies_us;
}

double Quantile(std::vector<double> values, double q) {
  const auto at = values.begin() + static_cast<std::ptrdiff_t>(q * double(values.size() - 1));
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

void ReportLatencies(benchmark::State& state, bool permitted, const std::vector<double>& us) {
  state.counters["fifo_refused"] = permitted ? 0.0 : 1.0;
  if (!permitted) return;
  state.counters["p50_us"] = Quantile(us, 0.5);
  state.counters["p99_us"] = Quantile(us, 0.99);
  state.counters["max_us"] = *std::max_element(us.begin(), us.end());
}

// state.range(0): 0 PopNowait, 1 PopInto with a zero time-out, both while the worker (normal
// policy, its own CPU) waits for room in a queue of 8; 2 PopNowait on a buffer that was
// prefilled and never started, so that no pop has anyone to wake.
void BM_PacedPop(benchmark::State& state) {
  const int mode = static_cast<int>(state.range(0));
  for (auto _ : state) {
    cw::AsyncWindowBuffer buffer(std::make_unique<CopyingProducer>(std::nullopt), 0,
                                 mode == 2 ? std::nullopt : std::optional<std::size_t>(kCapacity));
    if (mode == 2) {
      buffer.Prefill(kPacedPops);
    } else {
      buffer.Start(cw::WorkerSettings{cw::WorkerPolicy::kNormal, 0, {kWorkerCpu}, "bench-worker"});
    }
    std::vector<double> latencies_us;
    cw::WindowPayload window;
    const bool permitted = RunRealTime(kConsumerCpu, 10, [&] {
      latencies_us = PacedPops(kPacedPops, [&] {
        if (mode == 1) {
          benchmark::DoNotOptimize(buffer.PopInto(window, Clock::duration{}));
        } else {
          benchmark::DoNotOptimize(buffer.PopNowait());
        }
      });
    });
    ReportLatencies(state, permitted, latencies_us);
  }
}

// ----- priority inversion by a monitor --------------------------------------------------------

constexpr int kBusyBursts = 5;
constexpr auto kBusyBurst = std::chrono::milliseconds(4);
constexpr auto kBusyGap = std::chrono::milliseconds(2);
constexpr auto kInversionPopPeriod = std::chrono::microseconds(250);

// A thread of SCHED_FIFO priority 2 on the consumer's CPU that runs kBusyBursts bursts, then sets
// `done`.
std::thread BusyThread(std::atomic<bool>& done) {
  return std::thread([&done] {
    if (!BecomeRealTimeOn(kConsumerCpu, 2)) {
      for (int burst = 0; burst < kBusyBursts; ++burst) {
        const Clock::time_point end = Clock::now() + kBusyBurst;
        while (Clock::now() < end) {
        }
        std::this_thread::sleep_for(kBusyGap);
      }
    }
    done = true;
  });
}

// Runs the set-up with `pop` as the consumer's call and `monitor` (when given) called in a loop
// by a normal-priority thread on the consumer's CPU; returns the longest pop in microseconds.
template <typename Pop>
std::optional<double> LongestPopUnderInversion(Pop pop, std::function<void()> monitor) {
  std::atomic<bool> busy_done{false};
  std::atomic<bool> stop_monitor{false};
  std::thread monitor_thread;
  if (monitor) {
    monitor_thread = std::thread([&] {
      corvane::bench::PinTo(kConsumerCpu);
      while (!stop_monitor) monitor();
    });
  }
  double longest_us = 0.0;
  std::thread busy;
  const bool permitted = RunRealTime(kConsumerCpu, 3, [&] {
    busy = BusyThread(busy_done);
    Clock::time_point due = Clock::now();
    while (!busy_done) {
      due += kInversionPopPeriod;
      std::this_thread::sleep_until(due);
      const Clock::time_point begin = Clock::now();
      pop();
      longest_us = std::max(
          longest_us, std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }
  });
  if (busy.joinable()) busy.join();
  stop_monitor = true;
  if (monitor_thread.joinable()) monitor_thread.join();
  if (!permitted) return std::nullopt;
  return longest_us;
}

// state.range(0): 1 with the Totals() caller, 0 without.
void BM_Inversion_Buffer(benchmark::State& state) {
  for (auto _ : state) {
    cw::AsyncWindowBuffer buffer(std::make_unique<CopyingProducer>(std::nullopt), 0, kCapacity);
    buffer.Start(cw::WorkerSettings{cw::WorkerPolicy::kNormal, 0, {kWorkerCpu}, "bench-worker"});
    std::function<void()> monitor;
    if (state.range(0)) monitor = [&] { benchmark::DoNotOptimize(buffer.Totals()); };
    const std::optional<double> longest =
        LongestPopUnderInversion([&] { benchmark::DoNotOptimize(buffer.PopNowait()); }, monitor);
    state.counters["fifo_refused"] = longest ? 0.0 : 1.0;
    state.counters["longest_us"] = longest.value_or(0.0);
  }
}

void BM_Inversion_Baseline(benchmark::State& state) {
  for (auto _ : state) {
    BareHandoff handoff(kCapacity);
    std::thread producer = BareProducer(handoff, std::numeric_limits<std::size_t>::max());
    const std::optional<double> longest = LongestPopUnderInversion(
        [&] { benchmark::DoNotOptimize(handoff.Pop(false)); },
        [&] { benchmark::DoNotOptimize(handoff.Locked([] { return 0; })); });
    handoff.Finish();
    producer.join();
    state.counters["fifo_refused"] = longest ? 0.0 : 1.0;
    state.counters["longest_us"] = longest.value_or(0.0);
  }
}

// ----- an idle real-time worker -----------------------------------------------------------------

constexpr auto kIdleRun = std::chrono::milliseconds(30);

// Never has a window ready and never runs out. Notes the CPU clock of the worker thread; with
// `signals`, it offers a ready signal that it never raises.
class NeverReadyProducer : public cw::WindowProducerSession {
 public:
  void PrepareSession() override { pthread_getcpuclockid(pthread_self(), &worker_clock_); }
  std::optional<cw::WindowPayload> ProduceNext() override { return std::nullopt; }
  bool IsExhausted() const override { return false; }
  std::optional<cw::WindowPayload> Finalize() override { return std::nullopt; }
  clockid_t worker_clock() const { return worker_clock_; }

 private:
  clockid_t worker_clock_{};
};

class NeverReadySignallingProducer final : public NeverReadyProducer,
                                           public cw::ReadySignallingProducer {
 public:
  void SetReadySignal(std::function<void()> signal) override { signal_ = std::move(signal); }

 private:
  std::function<void()> signal_;
};

// state.range(0): 0 idle kYield, 1 kAutomatic (a back-off: no signal), 2 kAutomatic with a ready
// signal; the worker runs under SCHED_FIFO on its own CPU.
void BM_IdleWorkerCpu(benchmark::State& state) {
  for (auto _ : state) {
    std::unique_ptr<NeverReadyProducer> producer =
        state.range(0) == 2 ? std::make_unique<NeverReadySignallingProducer>()
                            : std::make_unique<NeverReadyProducer>();
    NeverReadyProducer& probe = *producer;
    cw::AsyncWindowBuffer buffer(std::move(producer));
    cw::WorkerSettings settings{cw::WorkerPolicy::kFifo, 10, {kWorkerCpu}, "bench-idle"};
    settings.idle = state.range(0) == 0 ? cw::WorkerIdle::kYield : cw::WorkerIdle::kAutomatic;
    try {
      buffer.Start(settings);
    } catch (const std::system_error&) {
      state.counters["fifo_refused"] = 1.0;
      continue;
    }
    corvane::bench::PinTo(kConsumerCpu);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));  // past the worker's start
    const double begin = corvane::bench::SecondsOf(probe.worker_clock());
    std::this_thread::sleep_for(kIdleRun);
    const double end = corvane::bench::SecondsOf(probe.worker_clock());
    buffer.Close();
    state.counters["fifo_refused"] = 0.0;
    state.counters["worker_cpu_ms"] = 1e3 * (end - begin);
  }
}

void Repeated(benchmark::internal::Benchmark* cases) {
  cases->Iterations(1)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true);
}
BENCHMARK(BM_ConsumerAllocations)->Arg(0)->Arg(1)->ArgName("pop_into")->Iterations(1);
BENCHMARK(BM_LiftedMpcAllocations)->Arg(0)->Arg(1)->ArgName("pop_into")->Iterations(1);
BENCHMARK(BM_PacedPop)->Arg(0)->Arg(1)->Arg(2)->ArgName("mode")->Apply(Repeated);
BENCHMARK(BM_Inversion_Buffer)->Arg(0)->Arg(1)->ArgName("monitor")->Apply(Repeated);
BENCHMARK(BM_Inversion_Baseline)->Apply(Repeated);
BENCHMARK(BM_IdleWorkerCpu)->Arg(0)->Arg(1)->Arg(2)->ArgName("idle")->Apply(Repeated);

// Whether the named runs all ran; says so when SCHED_FIFO was refused to any of them.
bool AllRan(const corvane::bench::RatioReporter& reporter, std::initializer_list<std::string> names,
            const char* what) {
  for (const std::string& name : names) {
    if (!reporter.Has(name)) return false;
  }
  for (const std::string& name : names) {
    if (reporter.Counter(name, "fifo_refused") > 0.5) {
      std::printf("%s: skipped, SCHED_FIFO not permitted\n", what);
      return false;
    }
  }
  return true;
}

void PrintAllocations(const corvane::bench::RatioReporter& reporter) {
  const std::string pop = "BM_ConsumerAllocations/pop_into:0/iterations:1";
  const std::string into = "BM_ConsumerAllocations/pop_into:1/iterations:1";
  if (reporter.Has(pop) && reporter.Has(into)) {
    std::printf("consumer malloc / free per window: PopInto %.3f / %.3f, Pop %.3f / %.3f\n",
                reporter.Counter(into, "allocations_per_window"),
                reporter.Counter(into, "frees_per_window"),
                reporter.Counter(pop, "allocations_per_window"),
                reporter.Counter(pop, "frees_per_window"));
    const double sum = reporter.Counter(into, "allocations_per_window") +
                       reporter.Counter(into, "frees_per_window");
    corvane::bench::PrintRatio("PopInto: consumer malloc + free per window", sum, "0", sum == 0.0);
  }
  const std::string mpc_pop = "BM_LiftedMpcAllocations/pop_into:0/iterations:1";
  const std::string mpc_into = "BM_LiftedMpcAllocations/pop_into:1/iterations:1";
  if (reporter.Has(mpc_pop) && reporter.Has(mpc_into)) {
    std::printf(
        "lifted MPC, worker malloc per window: PopInto %.3f, Pop %.3f; consumer malloc / "
        "free with PopInto %.3f / %.3f\n",
        reporter.Counter(mpc_into, "worker_allocations_per_window"),
        reporter.Counter(mpc_pop, "worker_allocations_per_window"),
        reporter.Counter(mpc_into, "consumer_allocations_per_window"),
        reporter.Counter(mpc_into, "consumer_frees_per_window"));
  }
}

void PrintLatencies(const corvane::bench::RatioReporter& reporter) {
  const std::string nowait = "BM_PacedPop/mode:0/iterations:1/real_time";
  const std::string into = "BM_PacedPop/mode:1/iterations:1/real_time";
  const std::string no_wake = "BM_PacedPop/mode:2/iterations:1/real_time";
  if (AllRan(reporter, {nowait, into, no_wake}, "paced pops")) {
    std::printf(
        "pop p50 / p99 [us], worker waiting for room: PopInto %.2f / %.2f, PopNowait %.2f "
        "/ %.2f; PopNowait with no wake %.2f / %.2f\n",
        reporter.Counter(into, "p50_us"), reporter.Counter(into, "p99_us"),
        reporter.Counter(nowait, "p50_us"), reporter.Counter(nowait, "p99_us"),
        reporter.Counter(no_wake, "p50_us"), reporter.Counter(no_wake, "p99_us"));
    const double ratio = reporter.Counter(into, "p50_us") / reporter.Counter(no_wake, "p50_us");
    corvane::bench::PrintRatio("PopInto p50 (worker waits) / PopNowait p50 (no wake)", ratio,
                               "<= 2", ratio <= 2.0);
  }
  const std::string quiet = "BM_Inversion_Buffer/monitor:0/iterations:1/real_time";
  const std::string watched = "BM_Inversion_Buffer/monitor:1/iterations:1/real_time";
  const std::string bare = "BM_Inversion_Baseline/iterations:1/real_time";
  if (AllRan(reporter, {quiet, watched, bare}, "inversion")) {
    const double longest = reporter.Counter(watched, "longest_us");
    std::printf(
        "longest PopNowait [us] beside a FIFO busy thread: with Totals() caller %.0f, "
        "without %.0f; bare std::mutex handoff with a locking caller %.0f\n",
        longest, reporter.Counter(quiet, "longest_us"), reporter.Counter(bare, "longest_us"));
    corvane::bench::PrintRatio("longest PopNowait with a Totals() caller [us]", longest, "<= 300",
                               longest <= 300.0);
  }
}

void PrintIdle(const corvane::bench::RatioReporter& reporter) {
  const std::string yield = "BM_IdleWorkerCpu/idle:0/iterations:1/real_time";
  const std::string backoff = "BM_IdleWorkerCpu/idle:1/iterations:1/real_time";
  const std::string signal = "BM_IdleWorkerCpu/idle:2/iterations:1/real_time";
  if (!AllRan(reporter, {yield, backoff, signal}, "idle worker")) return;
  std::printf(
      "SCHED_FIFO worker CPU [ms] in 30 ms with nothing ready: yield %.2f, back-off %.3f, "
      "ready signal %.3f\n",
      reporter.Counter(yield, "worker_cpu_ms"), reporter.Counter(backoff, "worker_cpu_ms"),
      reporter.Counter(signal, "worker_cpu_ms"));
  const double worst = std::max(reporter.Counter(backoff, "worker_cpu_ms"),
                                reporter.Counter(signal, "worker_cpu_ms"));
  corvane::bench::PrintRatio("waiting SCHED_FIFO worker, CPU in 30 ms idle [ms]", worst, "<= 1",
                             worst <= 1.0);
}

void PrintSummary(const corvane::bench::RatioReporter& reporter) {
  std::printf("\nThe control loop's view of the buffer\n");
  PrintAllocations(reporter);
  PrintLatencies(reporter);
  PrintIdle(reporter);
}

}  // namespace

int main(int argc, char** argv) {
  return corvane::bench::RunAndSummarize(argc, argv, PrintSummary);
}
