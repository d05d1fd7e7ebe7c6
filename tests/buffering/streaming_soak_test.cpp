// A long stream end to end: one thread appends reference blocks at random moments, the lifted-MPC
// producer solves them with a solver that now and then takes longer than a window lasts, and two
// consumers pop with random time-outs. Every sample index from the global start to the end comes
// out exactly once, the memory held after the run is what the retained history explains, and
// the qualification report agrees with the solver's own timings.
//
// CORVANE_SOAK_WINDOWS sets the length of the stream; scripts/soak.sh runs 1,000,000 windows.
#include <malloc.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/detached_call.hpp"
#include "support/echo_solver.hpp"
#include "window/async_buffer.hpp"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define CORVANE_SANITIZED_ALLOCATOR 1
// The sanitizers replace malloc; their runtime reports the bytes it has handed out.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace corvane::control::window {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The short stream of the test command; the sanitizers' allocators copy the whole reference on
// every append, so their builds stream fewer windows.
#ifdef CORVANE_SANITIZED_ALLOCATOR
constexpr std::size_t kShortSoakWindows = 5000;
#else
constexpr std::size_t kShortSoakWindows = 100000;
#endif
constexpr Eigen::Index kJoints = 2;
constexpr std::size_t kApply = 4, kLookahead = 12, kGlobalStart = 1000, kCapacity = 8;
constexpr double kSampleTime = 1e-4;      // [s] so a window lasts 0.4 ms
constexpr std::size_t kSlowEvery = 1000;  // one solve in so many sleeps past its window
constexpr auto kSlowSolve = 1ms;

std::size_t SoakWindows() {
  const char* text = std::getenv("CORVANE_SOAK_WINDOWS");
  return text != nullptr ? std::stoul(text) : kShortSoakWindows;
}

std::size_t AllocatedBytes() {
#ifdef CORVANE_SANITIZED_ALLOCATOR
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;  // every arena, and the chunks mapped on their own
#endif
}

// Echoes the first "apply_samples" rows of its reference slice and declares its own wall time as
// compute time. Every kSlowEvery-th solve first sleeps for longer than its window lasts.
class SlowEchoSolver final : public LiftedMpcSolveSession {
 public:
  explicit SlowEchoSolver(std::vector<double>& declared) : declared_(declared) {}
  void Prepare() override {}
  WindowPayload Solve(const WindowSlice& request) override {
    const Clock::time_point start = Clock::now();
    if (declared_.size() % kSlowEvery == kSlowEvery / 2) std::this_thread::sleep_for(kSlowSolve);
    WindowPayload window = testing::EchoApplied(request);
    window.compute_time_s = std::chrono::duration<double>(Clock::now() - start).count();
    declared_.push_back(window.compute_time_s);
    return window;
  }
  void Finalize() override {}

 private:
  std::vector<double>& declared_;  // read by the test once the worker has ended
};

// Appends blocks of 1 to 16 samples, numbered on from 1 across blocks, letting the other threads
// run for a random while between blocks, until the reference (held samples included) reaches
// `target`; then finishes it. Returns the number of the last sample appended.
double AppendReference(AppendableWindowBuffer& buffer, std::size_t target, unsigned seed) {
  std::mt19937 random(seed);
  double appended = 0.0;
  while (buffer.AvailableReferenceSamples() < target) {
    SampleMatrix block(static_cast<Eigen::Index>(1 + random() % 16), kJoints);
    for (Eigen::Index r = 0; r < block.rows(); ++r) block.row(r).setConstant(++appended);
    buffer.AppendReference(block);
    for (auto turns = random() % 4 == 0 ? random() % 8 : 0; turns > 0; --turns)
      std::this_thread::yield();
  }
  buffer.Finish();
  return appended;
}

// What the consumers received: the value of each sample by its index from the global start.
struct Delivery {
  explicit Delivery(std::size_t samples) : values(samples) {}
  std::vector<std::atomic<double>> values;  // 0 until delivered
  std::atomic<std::size_t> windows{0}, duplicates{0};

  void Take(const WindowPayload& window) {
    for (Eigen::Index r = 0; r < window.positions.rows(); ++r) {
      EXPECT_EQ(window.positions(r, 0), window.positions(r, kJoints - 1));
      const std::size_t index = window.start_index - kGlobalStart + static_cast<std::size_t>(r);
      if (values.at(index).exchange(window.positions(r, 0)) != 0.0) ++duplicates;
    }
    ++windows;
  }
};

// Pops, at random without a time-out or with one of 0 to 100 us, until the stream is complete.
// Each consumer sees its own windows in stream order.
void Consume(AppendableWindowBuffer& buffer, Delivery& delivery, unsigned seed) {
  std::mt19937 random(seed);
  std::size_t next_start = kGlobalStart;
  while (true) {
    const auto choice = random() % 3;
    const std::optional<WindowPayload> window =
        choice == 0 ? buffer.Pop() : buffer.Pop(std::chrono::microseconds(random() % 101));
    if (!window) {
      if (choice == 0 || buffer.IsComplete()) return;  // an untimed Pop is empty only at the end
      continue;
    }
    EXPECT_GE(window->start_index, next_start);
    next_start = window->stop_index;
    delivery.Take(*window);
  }
}

// Waits for `result`; aborts the run should no window come out for kHangLimit meanwhile.
template <typename T>
T AwaitWhileStreaming(std::future<T>& result, const Delivery& delivery) {
  std::size_t seen = delivery.windows;
  while (result.wait_for(testing_support::kHangLimit) != std::future_status::ready) {
    if (delivery.windows == seen) {
      std::fprintf(stderr, "the stream stalled after %zu windows\n", seen);
      std::abort();
    }
    seen = delivery.windows;
  }
  return result.get();
}

TEST(StreamingSoakTest, DeliversEverySampleOnceAndReportsItsTimings) {
  const std::size_t windows = SoakWindows(), target = windows * kApply;
  // Holds may take the reference past the target, up to twice as far. Both records are sized for
  // that here, before the memory baseline, so that neither grows during the run.
  std::vector<double> declared;  // the solver's compute times, in production order
  declared.reserve(2 * windows + 256);
  Delivery delivery(2 * target + 1024);
  auto reference = std::make_shared<AppendableReferenceBuffer>(kJoints);
  auto buffer = std::make_unique<AppendableWindowBuffer>(
      std::make_unique<AppendableLiftedMpcWindowProducer>(
          std::make_unique<SlowEchoSolver>(declared), reference, kApply, kLookahead, kSampleTime,
          kGlobalStart),
      reference, 0, kCapacity);

  const std::size_t baseline = AllocatedBytes();
  const Clock::time_point start = Clock::now();
  buffer->Start();
  auto appender = std::async(std::launch::async, AppendReference, std::ref(*buffer), target, 3u);
  auto first = std::async(std::launch::async, Consume, std::ref(*buffer), std::ref(delivery), 5u);
  auto second = std::async(std::launch::async, Consume, std::ref(*buffer), std::ref(delivery), 7u);
  const double appended = AwaitWhileStreaming(appender, delivery);
  AwaitWhileStreaming(first, delivery);
  AwaitWhileStreaming(second, delivery);
  ASSERT_TRUE(buffer->Join(testing_support::kHangLimit));
  const double wall_s = std::chrono::duration<double>(Clock::now() - start).count();
  EXPECT_EQ(buffer->LastError(), std::nullopt);

  // Every sample from the global start to the end once, in order: a held sample repeats the one
  // before it, and the last one is the last appended.
  const std::size_t samples = reference->available_samples();
  ASSERT_GE(samples, target);
  ASSERT_LE(samples, delivery.values.size());
  EXPECT_EQ(delivery.duplicates.load(), 0u);
  EXPECT_EQ(delivery.values[0].load(), 1.0);
  for (std::size_t i = 1; i < delivery.values.size(); ++i) {
    const double step = delivery.values[i] - delivery.values[i - 1];
    ASSERT_TRUE(i < samples ? step == 0.0 || step == 1.0 : delivery.values[i] == 0.0) << i;
  }
  EXPECT_EQ(delivery.values[samples - 1].load(), appended);

  // Held now: the whole reference, and the two statistics vectors of at most twice their length.
  const std::size_t reference_bytes = samples * kJoints * sizeof(double);
  const std::size_t statistics_bytes = 2 * delivery.windows * sizeof(double);
  const std::size_t retained = AllocatedBytes() - baseline, slack = 256 << 10;
  EXPECT_GE(retained, reference_bytes + statistics_bytes);
  EXPECT_LE(retained, reference_bytes + 2 * statistics_bytes + slack);

  // Each window is charged at least what the solver declared, and the worker's calls together
  // took no longer than the run. Slow solves outlast their windows, so the stream fails to qualify.
  const QualificationReport report = buffer->Qualify(1.0);
  ASSERT_EQ(report.total_windows, delivery.windows.load());
  ASSERT_EQ(declared.size(), delivery.windows.load());
  const double declared_sum = std::accumulate(declared.begin(), declared.end(), 0.0);
  EXPECT_GE(report.total_compute_time_s, declared_sum);
  EXPECT_LE(report.total_compute_time_s, wall_s);
  std::sort(declared.begin(), declared.end());
  EXPECT_GE(report.max_compute_time_s, declared.back());
  EXPECT_GE(report.p99_compute_time_s, declared[std::size_t(0.99 * double(declared.size() - 1))]);
  EXPECT_LE(report.p99_compute_time_s, report.max_compute_time_s);
  EXPECT_LE(report.min_margin_s, double(samples) * kSampleTime - declared_sum + 1e-9);
  EXPECT_GT(declared.back(), double(kApply) * kSampleTime);
  EXPECT_FALSE(report.qualified);

  buffer.reset();
  reference.reset();
  EXPECT_LE(AllocatedBytes(), baseline + slack);  // nothing of the stream outlives its owners
  std::printf("soaked %zu windows, %zu samples (%zu held) in %.2f s; retained %.1f MiB\n",
              delivery.windows.load(), samples, samples - std::size_t(appended), wall_s,
              double(retained) / (1 << 20));
}

}  // namespace
}  // namespace corvane::control::window
