// Replacing the unplayed reference, against baselines measured in the same run:
//   - the latency from the start of the ReplaceReference() call until the first window of the new
//     plan is ready (queued by the worker, as the buffer's timing log records it), over the time
//     of one solve of a window by the same solver on the calling thread: the lifted-MPC example
//     solver of 6 joints at lookaheads of 100 and 1000 samples, windows of 10 samples, each new
//     plan 2 s long (2,000 samples), or 0.3 s (300 samples, a replanner's horizon). Beside it: the
//     latency until a consumer blocked in Pop() holds that window, one more thread hand-off; the
//     call alone; and one hand-off to a sleeping thread (notify to running), which the worker's
//     wake-up after a replacement also pays;
//   - a 1 kHz fixed-rate loop that takes one window of one sample a tick with PopNowait() while a
//     planner thread replaces the tail every 50 ms: its deadline misses (ticks without a window)
//     beyond those of the same loop without replacements, and the p99 of PopNowait() during
//     replacements over without. The planner replaces from 10 samples past the earliest index,
//     which leaves the loop 10 ms of windows while the worker produces the new plan; replacing
//     from the earliest index itself, which leaves it none, is reported beside;
//   - the ReplaceReference() call once 20,000 replacements have each discarded 3 windows, over
//     the same call in the first replacements of the same stream: the work under the buffer's
//     lock must not grow with the windows discarded before.
// The loop runs 100 replacements (5 s) by default; --replacements=1000 gives the full figure.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <corvane_shaper_engines/lifted_mpc_solver.hpp>

#include "ratio_reporter.hpp"
#include "window/async_buffer.hpp"
#include "window/reference_buffer.hpp"

namespace {

namespace cw = corvane::control::window;
using corvane::control::engines::LiftedMpcSolver;
using Clock = std::chrono::steady_clock;

constexpr Eigen::Index kJoints = 6;
constexpr double kSampleTimeS = 0.001;
constexpr std::size_t kApply = 10;
constexpr std::size_t kQueueWindows = 8;
constexpr Eigen::Index kPlanSamples = 2000;    // every new plan of the loop, and the long ones: 2 s
constexpr Eigen::Index kHorizonSamples = 300;  // a replanner's horizon: 0.3 s
constexpr int kLatencyReplacements = 400;
constexpr auto kRefill = std::chrono::milliseconds(2);  // lets the worker fill the queue
constexpr auto kStall = std::chrono::seconds(5);
constexpr auto kTick = std::chrono::milliseconds(1);
constexpr auto kReplanPeriod = std::chrono::milliseconds(50);
constexpr std::size_t kLoopLookahead = 100;
constexpr std::size_t kLoopQueueWindows = 20;  // 20 ms ahead of the loop
constexpr int kManyReplacements = 20000;
constexpr int kTimedReplacements = 500;  // at the start of the stream, and at its end
constexpr std::size_t kDiscardedPerReplacement = 3;

// How many replacements the fixed-rate loop runs; set from the command line.
int loop_replacements = 100;

// A smooth motion of every joint, different for every phase.
cw::SampleMatrix Plan(Eigen::Index rows, double phase) {
  cw::SampleMatrix plan(rows, kJoints);
  for (Eigen::Index k = 0; k < rows; ++k) {
    for (Eigen::Index j = 0; j < kJoints; ++j) {
      plan(k, j) = 0.5 * std::sin(phase + 0.7 * static_cast<double>(j) +
                                  2.0 * kSampleTimeS * static_cast<double>(k));
    }
  }
  return plan;
}

std::unique_ptr<cw::AppendableWindowBuffer> MpcBuffer(
    const std::shared_ptr<cw::AppendableReferenceBuffer>& stored, std::size_t apply,
    std::size_t lookahead, std::size_t queue_windows) {
  auto producer = std::make_unique<cw::AppendableLiftedMpcWindowProducer>(
      std::make_unique<LiftedMpcSolver>(kSampleTimeS, static_cast<Eigen::Index>(lookahead)), stored,
      apply, lookahead, kSampleTimeS, 0);
  return std::make_unique<cw::AppendableWindowBuffer>(std::move(producer), stored, 0,
                                                      queue_windows);
}

double MicrosecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// Nearest-rank quantile q of values, which it sorts.
double Quantile(std::vector<double>& values, double q) {
  std::sort(values.begin(), values.end());
  const auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(values.size())));
  return values[std::max<std::size_t>(rank, 1) - 1];
}

// The time of one solve of a window: the same solver, the same request size, this thread.
class SolveTimer {
 public:
  explicit SolveTimer(std::size_t lookahead)
      : solver_(kSampleTimeS, static_cast<Eigen::Index>(lookahead)) {
    request_.positions = Plan(static_cast<Eigen::Index>(lookahead), 0.0);
    request_.stop_index = lookahead;
    request_.metadata["apply_samples"] = std::to_string(kApply);
    solver_.Prepare();
  }
  double Microseconds() {
    const Clock::time_point start = Clock::now();
    benchmark::DoNotOptimize(solver_.Solve(request_));
    return MicrosecondsSince(start);
  }

 private:
  LiftedMpcSolver solver_;
  cw::WindowSlice request_;
};

// One hand-off to a thread asleep on a condition variable: from just before the notifying
// thread unlocks and notifies until the woken thread runs.
class WakeTimer {
 public:
  WakeTimer() : thread_([this] { Run(); }) {}
  ~WakeTimer() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_one();
    thread_.join();
  }
  WakeTimer(const WakeTimer&) = delete;
  WakeTimer& operator=(const WakeTimer&) = delete;

  // Call with the thread asleep, some time after the last call.
  double Microseconds() {
    std::unique_lock<std::mutex> lock(mutex_);
    ++round_;
    const Clock::time_point notified = Clock::now();
    lock.unlock();
    wake_.notify_one();
    lock.lock();
    answer_.wait(lock, [this] { return answered_ == round_; });
    return std::chrono::duration<double, std::micro>(woken_ - notified).count();
  }

 private:
  void Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
      wake_.wait(lock, [this] { return stop_ || round_ != answered_; });
      if (stop_) return;
      woken_ = Clock::now();
      answered_ = round_;
      answer_.notify_one();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;    // the timed hand-off
  std::condition_variable answer_;  // back to the caller, untimed
  int round_ = 0;
  int answered_ = 0;
  bool stop_ = false;
  Clock::time_point woken_;
  std::thread thread_;  // last: starts once everything above is ready
};

// When the window just popped was queued, as the buffer's timing log recorded it; `next` is the
// log's sequence to read on from, and moves past the windows popped.
Clock::time_point QueuedAt(const cw::TimingLog& log, std::uint64_t& next) {
  const cw::TimingRead read = log.Read(next);
  next = read.next_sequence;
  if (read.entries.empty()) return Clock::time_point::max();
  return log.Origin() + std::chrono::duration_cast<Clock::duration>(
                            std::chrono::duration<double>(read.entries.back().queued_s));
}

// Each iteration pops a window of the current plan, lets the worker fill the queue, times one
// solve and one hand-off, then replaces from the earliest index and times until the first window
// of the new plan is ready, and until Pop() hands it out.
void BM_ReplacementLatency(benchmark::State& state) {
  const auto lookahead = static_cast<std::size_t>(state.range(0));
  const auto plan_samples = static_cast<Eigen::Index>(state.range(1));
  auto stored = std::make_shared<cw::AppendableReferenceBuffer>(kJoints);
  stored->AppendReference(Plan(plan_samples, 0.0));
  const std::unique_ptr<cw::AppendableWindowBuffer> buffer =
      MpcBuffer(stored, kApply, lookahead, kQueueWindows);
  auto log = std::make_shared<cw::TimingLog>(4 * kQueueWindows);
  buffer->AttachTimingLog(log);
  std::uint64_t logged = 0;
  SolveTimer solve(lookahead);
  WakeTimer wake;
  std::vector<double> ready_us;  // until the worker queued the first new window
  std::vector<double> pop_us;    // until Pop() handed it out
  std::vector<double> call_us;   // the ReplaceReference() call alone
  std::vector<double> solve_us;
  std::vector<double> wake_us;
  buffer->Start();
  for (auto _ : state) {
    if (!buffer->Pop(kStall)) state.SkipWithError("no window of the current plan");
    std::this_thread::sleep_for(kRefill);
    solve_us.push_back(solve.Microseconds());
    wake_us.push_back(wake.Microseconds());
    const std::size_t start = buffer->EarliestReplaceableIndex();
    const cw::SampleMatrix plan = Plan(plan_samples, static_cast<double>(ready_us.size()));
    const Clock::time_point called = Clock::now();
    buffer->ReplaceReference(start, plan);
    call_us.push_back(MicrosecondsSince(called));
    const std::optional<cw::WindowPayload> window = buffer->Pop(kStall);
    pop_us.push_back(MicrosecondsSince(called));
    if (!window || window->start_index != start) state.SkipWithError("wrong first new window");
    ready_us.push_back(
        std::chrono::duration<double, std::micro>(QueuedAt(*log, logged) - called).count());
  }
  const double solve_p50 = Quantile(solve_us, 0.5);
  state.counters["solve_p50_us"] = solve_p50;
  state.counters["call_p50_us"] = Quantile(call_us, 0.5);
  state.counters["wake_p50_us"] = Quantile(wake_us, 0.5);
  state.counters["ready_p50_us"] = Quantile(ready_us, 0.5);
  state.counters["ready_p99_us"] = Quantile(ready_us, 0.99);
  state.counters["pop_p50_us"] = Quantile(pop_us, 0.5);
  state.counters["pop_p99_us"] = Quantile(pop_us, 0.99);
  state.counters["ratio_p50"] = Quantile(ready_us, 0.5) / solve_p50;
  state.counters["ratio_p99"] = Quantile(ready_us, 0.99) / solve_p50;
}

// Replaces the tail of the loop's stream every 50 ms, from `margin` samples past the earliest
// index, on a thread of its own until stopped; counts what it did.
class TailPlanner {
 public:
  TailPlanner(cw::AppendableWindowBuffer& buffer, std::size_t margin)
      : buffer_(buffer), margin_(margin), thread_([this] { Run(); }) {}
  ~TailPlanner() { Stop(); }
  TailPlanner(const TailPlanner&) = delete;
  TailPlanner& operator=(const TailPlanner&) = delete;

  void Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  int replacements() const { return replacements_; }
  int failures() const { return failures_; }

 private:
  void Run() {
    Clock::time_point due = Clock::now();
    while (!stop_) {
      due += kReplanPeriod;
      std::this_thread::sleep_until(due);
      const cw::SampleMatrix plan = Plan(kPlanSamples, static_cast<double>(replacements_));
      if (Replace(plan)) {
        ++replacements_;
      } else {
        ++failures_;
      }
    }
  }

  // A pop between the query and the call may move the earliest index past the one asked for;
  // the planner then asks again.
  bool Replace(const cw::SampleMatrix& plan) {
    for (int attempt = 0; attempt < 3; ++attempt) {
      try {
        buffer_.ReplaceReference(buffer_.EarliestReplaceableIndex() + margin_, plan);
        return true;
      } catch (const std::invalid_argument&) {
      }
    }
    return false;
  }

  cw::AppendableWindowBuffer& buffer_;
  std::size_t margin_;  // samples past the earliest index from which the tail is replaced
  std::atomic<bool> stop_{false};
  int replacements_ = 0;
  int failures_ = 0;
  std::thread thread_;  // last: starts once everything above is ready
};

// The loop's figures over one run.
struct LoopRun {
  std::vector<double> pop_us;  // every PopNowait() call
  int misses = 0;              // ticks without a window
  int gaps = 0;                // windows that do not start where the last one stopped
};

// Ticks at 1 kHz on an absolute schedule and takes one window a tick with PopNowait().
LoopRun RunLoop(cw::AppendableWindowBuffer& buffer, int ticks) {
  LoopRun run;
  run.pop_us.reserve(static_cast<std::size_t>(ticks));
  std::optional<std::size_t> expected;
  Clock::time_point due = Clock::now();
  for (int tick = 0; tick < ticks; ++tick) {
    due += kTick;
    std::this_thread::sleep_until(due);
    const Clock::time_point called = Clock::now();
    const std::optional<cw::WindowPayload> window = buffer.PopNowait();
    run.pop_us.push_back(MicrosecondsSince(called));
    if (!window) {
      ++run.misses;
      continue;
    }
    if (expected && window->start_index != *expected) ++run.gaps;
    expected = window->stop_index;
  }
  return run;
}

void BM_FixedRateLoop(benchmark::State& state) {
  const bool replacing = state.range(0) != 0;
  const int ticks = loop_replacements * static_cast<int>(kReplanPeriod / kTick);
  for (auto _ : state) {
    auto stored = std::make_shared<cw::AppendableReferenceBuffer>(kJoints);
    stored->AppendReference(Plan(ticks + kPlanSamples, 0.0));
    const std::unique_ptr<cw::AppendableWindowBuffer> buffer =
        MpcBuffer(stored, 1, kLoopLookahead, kLoopQueueWindows);
    buffer->Start();
    if (!buffer->Pop(kStall)) state.SkipWithError("no first window");
    std::optional<TailPlanner> planner;
    if (replacing) planner.emplace(*buffer, static_cast<std::size_t>(state.range(1)));
    LoopRun run = RunLoop(*buffer, ticks);
    if (planner) {
      planner->Stop();
      state.counters["replacements"] = planner->replacements();
      if (planner->failures() > 0) state.SkipWithError("a replacement failed");
    }
    if (run.gaps > 0) state.SkipWithError("windows lost or duplicated");
    state.counters["misses"] = run.misses;
    state.counters["pop_p50_us"] = Quantile(run.pop_us, 0.5);
    state.counters["pop_p99_us"] = Quantile(run.pop_us, 0.99);
    state.counters["pop_max_us"] = Quantile(run.pop_us, 1.0);
  }
}

// A buffer not started, one joint, windows of one sample: Prefill() queues 3 windows, and the
// call replaces the reference from the earliest index with a short plan, discarding all three.
// Times the call over the first replacements and over the last of many.
void BM_ReplacementAfterMany(benchmark::State& state) {
  const cw::SampleMatrix plan = Plan(16, 0.0).leftCols(1);
  auto stored = std::make_shared<cw::AppendableReferenceBuffer>(1);
  stored->AppendReference(plan);
  cw::AppendableWindowBuffer buffer(
      std::make_unique<cw::AppendableLiftedMpcWindowProducer>(
          std::make_unique<LiftedMpcSolver>(kSampleTimeS, 4), stored, 1, 4, kSampleTimeS, 0),
      stored, 0, kDiscardedPerReplacement);
  std::vector<double> first_us, last_us;
  for (auto _ : state) {
    for (int i = 0; i < kManyReplacements; ++i) {
      if (buffer.Prefill(kDiscardedPerReplacement) != kDiscardedPerReplacement) {
        state.SkipWithError("the queue did not fill");
      }
      const std::size_t start = buffer.EarliestReplaceableIndex();
      const Clock::time_point called = Clock::now();
      const cw::ReferenceReplacement done = buffer.ReplaceReference(start, plan);
      const double us = MicrosecondsSince(called);
      if (done.discarded_windows != kDiscardedPerReplacement) state.SkipWithError("not discarded");
      if (i < kTimedReplacements) first_us.push_back(us);
      if (i >= kManyReplacements - kTimedReplacements) last_us.push_back(us);
    }
  }
  state.counters["first_p50_us"] = Quantile(first_us, 0.5);
  state.counters["last_p50_us"] = Quantile(last_us, 0.5);
  state.counters["last_p99_us"] = Quantile(last_us, 0.99);
  state.counters["ratio_p50"] = state.counters["last_p50_us"] / state.counters["first_p50_us"];
}

BENCHMARK(BM_ReplacementLatency)
    ->ArgNames({"lookahead", "plan"})
    ->ArgsProduct({{100, 1000}, {kPlanSamples, kHorizonSamples}})
    ->Iterations(kLatencyReplacements)
    ->UseRealTime();
BENCHMARK(BM_FixedRateLoop)
    ->ArgNames({"replacing", "margin"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({1, 10})
    ->Iterations(1)
    ->UseRealTime();
BENCHMARK(BM_ReplacementAfterMany)->Iterations(1)->UseRealTime();

void PrintSummary(const corvane::bench::RatioReporter& reporter) {
  using corvane::bench::PrintRatio;
  std::printf("\nRatios against the same-run baselines\n");
  for (const Eigen::Index plan : {kPlanSamples, kHorizonSamples}) {
    for (const char* lookahead : {"100", "1000"}) {
      const std::string name = std::string("BM_ReplacementLatency/lookahead:") + lookahead +
                               "/plan:" + std::to_string(plan) +
                               "/iterations:" + std::to_string(kLatencyReplacements) + "/real_time";
      if (!reporter.Has(name)) continue;
      const double p50 = reporter.Counter(name, "ratio_p50");
      const double solve = reporter.Counter(name, "solve_p50_us");
      std::printf(
          "replacement latency, lookahead %s, plan of %ld samples: until ready p50 %.1f us, p99 "
          "%.1f us (the call %.1f us); until popped p50 %.1f us, p99 %.1f us; one solve %.1f us, "
          "one hand-off %.1f us\n",
          lookahead, static_cast<long>(plan), reporter.Counter(name, "ready_p50_us"),
          reporter.Counter(name, "ready_p99_us"), reporter.Counter(name, "call_p50_us"),
          reporter.Counter(name, "pop_p50_us"), reporter.Counter(name, "pop_p99_us"), solve,
          reporter.Counter(name, "wake_p50_us"));
      PrintRatio("  until ready p50 / one solve", p50, "<= 2", p50 <= 2.0);
      PrintRatio("  until ready p99 / one solve", reporter.Counter(name, "ratio_p99"), "reported",
                 true);
      PrintRatio("  until popped p50 / one solve", reporter.Counter(name, "pop_p50_us") / solve,
                 "reported", true);
      PrintRatio("  one hand-off p50 / one solve", reporter.Counter(name, "wake_p50_us") / solve,
                 "reported", true);
    }
  }
  const std::string without = "BM_FixedRateLoop/replacing:0/margin:0/iterations:1/real_time";
  const std::string with = "BM_FixedRateLoop/replacing:1/margin:10/iterations:1/real_time";
  const std::string earliest = "BM_FixedRateLoop/replacing:1/margin:0/iterations:1/real_time";
  if (reporter.Has(with) && reporter.Has(without)) {
    const double extra = reporter.Counter(with, "misses") - reporter.Counter(without, "misses");
    std::printf(
        "1 kHz loop, %.0f replacements every 50 ms from 10 samples past the earliest: %.0f misses, "
        "%.0f without\n",
        reporter.Counter(with, "replacements"), reporter.Counter(with, "misses"),
        reporter.Counter(without, "misses"));
    PrintRatio("  deadline misses beyond the loop without replacements", extra, "0", extra <= 0.0);
    const double p99 =
        reporter.Counter(with, "pop_p99_us") / reporter.Counter(without, "pop_p99_us");
    PrintRatio("  PopNowait p99 during replacements / without", p99, "<= 1.5", p99 <= 1.5);
  }
  if (reporter.Has(earliest) && reporter.Has(without)) {
    std::printf(
        "  replacing from the earliest sample itself: %.0f misses, PopNowait p99 / without %.3f\n",
        reporter.Counter(earliest, "misses"),
        reporter.Counter(earliest, "pop_p99_us") / reporter.Counter(without, "pop_p99_us"));
  }
  const std::string many = "BM_ReplacementAfterMany/iterations:1/real_time";
  if (reporter.Has(many)) {
    std::printf(
        "the call after %d replacements of %zu windows: p50 %.2f us, p99 %.2f us; in the first "
        "%d: p50 %.2f us\n",
        kManyReplacements, kDiscardedPerReplacement, reporter.Counter(many, "last_p50_us"),
        reporter.Counter(many, "last_p99_us"), kTimedReplacements,
        reporter.Counter(many, "first_p50_us"));
    const double ratio = reporter.Counter(many, "ratio_p50");
    PrintRatio("  the call p50, last / first replacements", ratio, "<= 1.5", ratio <= 1.5);
  }
}

// Takes --replacements=N off the command line; the rest goes to the benchmark library.
std::vector<char*> TakeReplacementsFlag(int argc, char** argv) {
  static const char kFlag[] = "--replacements=";
  std::vector<char*> rest;
  for (int i = 0; i < argc; ++i) {
    if (std::strncmp(argv[i], kFlag, sizeof kFlag - 1) == 0) {
      loop_replacements = std::max(1, std::atoi(argv[i] + sizeof kFlag - 1));
    } else {
      rest.push_back(argv[i]);
    }
  }
  return rest;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> args = TakeReplacementsFlag(argc, argv);
  args.push_back(nullptr);
  return corvane::bench::RunAndSummarize(static_cast<int>(args.size()) - 1, args.data(),
                                         PrintSummary);
}
