// The lifted-MPC producer's own cost per ProduceNext, beside the least that any producer has to
// do for the same window.
//
// The producer runs over a stored reference of 6 joints with lookahead 50 and apply 10, and its
// solver hands back a prepared answer, so nearly all of the time measured is the producer's. The
// baseline, timed in the same run and interleaved with it, copies the same 50 x 6 block of
// reference into a request and calls the same solver. Counters:
//   producer_ns, baseline_ns: nanoseconds per window;
//   ratio: producer_ns / baseline_ns (target <= 6).
#include <chrono>
#include <cstddef>
#include <memory>

#include <benchmark/benchmark.h>

#include "window/producers.hpp"
#include "window/reference_buffer.hpp"

namespace {

using corvane::control::window::AppendableLiftedMpcWindowProducer;
using corvane::control::window::AppendableReferenceBuffer;
using corvane::control::window::LiftedMpcSolveSession;
using corvane::control::window::SampleMatrix;
using corvane::control::window::WindowPayload;
using corvane::control::window::WindowSlice;
using Clock = std::chrono::steady_clock;

constexpr Eigen::Index kJoints = 6;
constexpr std::size_t kLookahead = 50;
constexpr std::size_t kApply = 10;
constexpr std::size_t kReferenceSamples = 100'000;
constexpr std::size_t kWindowsPerReference = kReferenceSamples / kApply;
constexpr std::size_t kBatch = 1'000;  // windows timed together, producer and baseline in turn

// Answers every request with the same prepared window of kApply rows.
class PreparedAnswerSolver : public LiftedMpcSolveSession {
 public:
  PreparedAnswerSolver() {
    answer_.positions = SampleMatrix::Constant(Eigen::Index(kApply), kJoints, 0.5);
    answer_.stop_index = kApply;
  }
  void Prepare() override {}
  WindowPayload Solve(const WindowSlice& /*request*/) override { return answer_; }
  void Finalize() override {}

 private:
  WindowPayload answer_;
};

std::shared_ptr<AppendableReferenceBuffer> FinishedReference() {
  auto reference = std::make_shared<AppendableReferenceBuffer>(std::size_t{kJoints});
  reference->AppendReference(SampleMatrix::Random(Eigen::Index(kReferenceSamples), kJoints));
  reference->Finish();
  return reference;
}

std::unique_ptr<AppendableLiftedMpcWindowProducer> PreparedProducer(
    std::shared_ptr<AppendableReferenceBuffer> reference) {
  auto producer = std::make_unique<AppendableLiftedMpcWindowProducer>(
      std::make_unique<PreparedAnswerSolver>(), std::move(reference), kApply, kLookahead, 0.001, 0);
  producer->PrepareSession();
  return producer;
}

double NanosecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

void BM_ProduceNextAgainstCopyAndSolve(benchmark::State& state) {
  const std::shared_ptr<AppendableReferenceBuffer> reference = FinishedReference();
  const SampleMatrix stored = reference->PositionsCopy();
  std::unique_ptr<AppendableLiftedMpcWindowProducer> producer = PreparedProducer(reference);
  std::size_t producer_windows = 0;
  PreparedAnswerSolver baseline_solver;
  std::size_t baseline_cursor = 0;
  double producer_ns = 0.0;
  double baseline_ns = 0.0;
  for (auto _ : state) {
    if (producer_windows + kBatch > kWindowsPerReference) {
      producer = PreparedProducer(reference);  // the reference is used up: start over
      producer_windows = 0;
    }
    const Clock::time_point producer_start = Clock::now();
    for (std::size_t i = 0; i < kBatch; ++i) {
      benchmark::DoNotOptimize(producer->ProduceNext());
    }
    const double batch_ns = NanosecondsSince(producer_start);
    producer_windows += kBatch;

    const Clock::time_point baseline_start = Clock::now();
    for (std::size_t i = 0; i < kBatch; ++i) {
      WindowSlice request;
      request.positions = stored.middleRows(Eigen::Index(baseline_cursor), kLookahead);
      benchmark::DoNotOptimize(baseline_solver.Solve(request));
      baseline_cursor = (baseline_cursor + kApply) % (kReferenceSamples - kLookahead);
    }
    baseline_ns += NanosecondsSince(baseline_start);
    producer_ns += batch_ns;
    state.SetIterationTime(batch_ns * 1e-9);
  }
  const double windows = double(state.iterations()) * double(kBatch);
  state.counters["producer_ns"] = producer_ns / windows;
  state.counters["baseline_ns"] = baseline_ns / windows;
  state.counters["ratio"] = producer_ns / baseline_ns;
}
BENCHMARK(BM_ProduceNextAgainstCopyAndSolve)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
