// The worker thread's phases: what it asks of the producer, what it queues and what it records.
#include <chrono>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "support/scripted_producer.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {
namespace {

using namespace std::chrono_literals;
using testing::CallLog;
using testing::FiniteScript;
using testing::MakeWindow;
using testing::Recorded;
using testing::Script;
using testing::ValueOf;
using testing_support::Guarded;

std::vector<double> DrainAfterJoin(AsyncWindowBuffer& buffer) {
  EXPECT_TRUE(Guarded([&] { return buffer.Join(); }, "Join"));
  std::vector<double> values;
  while (auto window = buffer.PopNowait()) values.push_back(ValueOf(*window));
  return values;
}

TEST(WorkerLoopTest, StopBeforeStartEndsAfterPreparationWithoutAskingForWindows) {
  for (std::size_t prefill_windows : {0u, 3u}) {
    Recorded recorded(FiniteScript(10));
    AsyncWindowBuffer buffer(std::move(recorded.producer), prefill_windows);
    buffer.Stop();
    buffer.Start();
    EXPECT_TRUE(DrainAfterJoin(buffer).empty());
    EXPECT_TRUE(buffer.IsComplete());
    EXPECT_EQ(recorded.log->Count(CallLog::kPrepare), 1u);
    // Only the initial phase asks IsExhausted() before its wait for room sees the stop.
    EXPECT_EQ(recorded.log->Count(CallLog::kExhausted), prefill_windows > 0 ? 1u : 0u);
    EXPECT_EQ(recorded.log->Count(CallLog::kProduce), 0u);
    EXPECT_EQ(recorded.log->Count(CallLog::kFinalize), 0u);
  }
}

TEST(WorkerLoopTest, TailWindowsAreQueuedButNotRecorded) {
  Recorded recorded(FiniteScript(0, 2));
  AsyncWindowBuffer buffer(std::move(recorded.producer), 1);
  buffer.Start();
  EXPECT_EQ(DrainAfterJoin(buffer), (std::vector<double>{0, 1}));
  EXPECT_TRUE(buffer.IsComplete());
  EXPECT_EQ(buffer.Qualify(1.0).total_windows, 0u);
  EXPECT_EQ(recorded.log->Count(CallLog::kFinalize), 3u);  // two windows, then the empty end
}

TEST(WorkerLoopTest, FullQueueLetsTheWorkerProduceOneWindowPerPop) {
  Recorded recorded;  // never runs out
  AsyncWindowBuffer buffer(std::move(recorded.producer), 0, 2);
  buffer.Start();
  ASSERT_TRUE(recorded.log->WaitFor(CallLog::kProduce, 2));
  EXPECT_EQ(ValueOf(*buffer.Pop()), 0.0);
  ASSERT_TRUE(recorded.log->WaitFor(CallLog::kProduce, 3));
  buffer.Stop();
  EXPECT_EQ(DrainAfterJoin(buffer), (std::vector<double>{1, 2}));
  EXPECT_EQ(recorded.log->Count(CallLog::kProduce), 3u);
}

TEST(WorkerLoopTest, EmptyResultsAreSkippedAndLeaveNoStatistics) {
  Script alternating = FiniteScript(3);
  auto produce = alternating.produce;
  alternating.produce = [produce](std::size_t n) {
    return n % 2 == 0 ? std::optional<WindowPayload>() : produce(n);
  };
  Recorded recorded(alternating);
  AsyncWindowBuffer buffer(std::move(recorded.producer), 2);
  buffer.Start();
  EXPECT_EQ(DrainAfterJoin(buffer), (std::vector<double>{0, 1, 2}));
  EXPECT_EQ(recorded.log->Count(CallLog::kProduce), 6u);
  EXPECT_EQ(buffer.Qualify(1.0).total_windows, 3u);
}

// A window is charged the larger of its declared compute time and the measured call.
TEST(WorkerLoopTest, ComputeTimeIsTheLargerOfDeclaredAndMeasured) {
  Script timed = FiniteScript(2);
  auto produce = timed.produce;
  timed.produce = [produce](std::size_t n) {
    auto window = produce(n);
    if (n == 0) window->compute_time_s = 5.0;
    if (n == 1) std::this_thread::sleep_for(20ms);  // the measured time is what is tested
    return window;
  };
  Recorded recorded(timed);
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  buffer.Start();
  DrainAfterJoin(buffer);
  const QualificationReport report = buffer.Qualify(1e9);
  ASSERT_EQ(report.total_windows, 2u);
  EXPECT_EQ(report.max_compute_time_s, 5.0);
  EXPECT_GE(report.total_compute_time_s - 5.0, 0.02);
  EXPECT_LT(report.total_compute_time_s - 5.0, 1.0);
}

TEST(WorkerLoopTest, InvalidTailWindowEndsTheWorkerAfterTheEarlierWindows) {
  Script bad_tail = FiniteScript(1, 2);
  bad_tail.finalize = [](std::size_t n) {
    WindowPayload window = MakeWindow(1000.0 + static_cast<double>(n));
    if (n == 1) window.compute_time_s = -1.0;
    return std::optional<WindowPayload>(window);
  };
  Recorded recorded(bad_tail);
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  buffer.Start();
  EXPECT_EQ(ValueOf(*buffer.Pop()), 0.0);
  EXPECT_EQ(ValueOf(*buffer.Pop()), 1000.0);
  EXPECT_THROW(buffer.Pop(), std::invalid_argument);
  EXPECT_EQ(buffer.LastError(), "compute_time_s must be finite and non-negative.");
}

TEST(WorkerLoopTest, FailedPreparationIsReportedAndEndsTheWorker) {
  Script failing;
  failing.prepare = [] { throw std::runtime_error("no session."); };
  Recorded recorded(failing);
  AsyncWindowBuffer buffer(std::move(recorded.producer), 2);
  buffer.Start();
  EXPECT_THROW(Guarded([&] { return buffer.Pop(); }, "Pop"), std::runtime_error);
  EXPECT_EQ(buffer.LastError(), "no session.");
  EXPECT_TRUE(buffer.IsComplete());
  EXPECT_EQ(recorded.log->Count(CallLog::kExhausted), 0u);
  EXPECT_EQ(recorded.log->Count(CallLog::kProduce), 0u);
}

}  // namespace
}  // namespace corvane::control::window
