// The worker thread's phases: what it asks of the producer, what it queues and what it records.
#include <chrono>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "support/failing_allocator.hpp"
#include "support/scripted_producer.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {
namespace {

using namespace std::chrono_literals;
using testing::Altered;
using testing::CallLog;
using testing::FiniteScript;
using testing::Recorded;
using testing::Script;
using testing::ValueOf;

// Waits for the worker to end and returns what it left queued.
std::vector<double> JoinAndDrain(AsyncWindowBuffer& buffer) {
  EXPECT_TRUE(testing_support::Guarded([&] { return buffer.Join(); }, "Join"));
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
    EXPECT_TRUE(JoinAndDrain(buffer).empty());
    EXPECT_TRUE(buffer.IsComplete());
    EXPECT_EQ(recorded.log->Count(CallLog::kPrepare), 1u);
    // Only the initial phase asks IsExhausted() before its wait for room sees the stop.
    EXPECT_EQ(recorded.log->Count(CallLog::kExhausted), prefill_windows > 0 ? 1u : 0u);
    EXPECT_EQ(recorded.log->Count(CallLog::kProduce) + recorded.log->Count(CallLog::kFinalize), 0u);
  }
}

// Empty results are skipped and leave no statistics; tail windows are queued but not recorded.
TEST(WorkerLoopTest, OnlyProducedWindowsAreRecorded) {
  Script alternating = FiniteScript(3, 2);
  alternating.produce = [produce = alternating.produce](std::size_t n) {
    return n % 2 == 0 ? std::nullopt : produce(n);
  };
  Recorded recorded(alternating);
  AsyncWindowBuffer buffer(std::move(recorded.producer), 2);
  buffer.Start();
  EXPECT_EQ(JoinAndDrain(buffer), (std::vector<double>{0, 1, 2, 3, 4}));
  EXPECT_EQ(recorded.log->Count(CallLog::kProduce), 6u);
  EXPECT_EQ(recorded.log->Count(CallLog::kFinalize), 3u);  // two windows, then the empty end
  EXPECT_EQ(buffer.Qualify(1.0).total_windows, 3u);
}

// A full queue holds the worker: Join with a time-out gives up, each Pop lets it produce exactly
// one more window, and a stop releases it, keeping the queue and finalising nothing.
TEST(WorkerLoopTest, FullQueueHoldsTheWorkerUntilAPopOrAStop) {
  Recorded recorded;  // never runs out
  AsyncWindowBuffer buffer(std::move(recorded.producer), 0, 2);
  buffer.Start();
  ASSERT_TRUE(recorded.log->WaitFor(CallLog::kProduce, 2));
  EXPECT_FALSE(buffer.Join(10ms));
  EXPECT_FALSE(buffer.Join(0ns));
  EXPECT_EQ(ValueOf(*buffer.Pop()), 0.0);
  ASSERT_TRUE(recorded.log->WaitFor(CallLog::kProduce, 3));
  buffer.Stop();
  EXPECT_EQ(JoinAndDrain(buffer), (std::vector<double>{1, 2}));
  EXPECT_TRUE(buffer.Join(0ns));  // joined already
  EXPECT_TRUE(buffer.IsComplete());
  EXPECT_EQ(recorded.log->Count(CallLog::kProduce), 3u);
  EXPECT_EQ(recorded.log->Count(CallLog::kFinalize), 0u);
}

// A window is charged the larger of its declared compute time and the measured call.
TEST(WorkerLoopTest, ComputeTimeIsTheLargerOfDeclaredAndMeasured) {
  Recorded recorded(Altered(FiniteScript(2), [](std::size_t n, auto window) {
    if (n == 0) window->compute_time_s = 5.0;
    if (n == 1) std::this_thread::sleep_for(20ms);  // the measured time is what is tested
    return window;
  }));
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  buffer.Start();
  JoinAndDrain(buffer);
  const QualificationReport report = buffer.Qualify(1e9);
  EXPECT_EQ(report.max_compute_time_s, 5.0);
  EXPECT_GE(report.total_compute_time_s - 5.0, 0.02);
  EXPECT_LT(report.total_compute_time_s - 5.0, 1.0);
}

TEST(WorkerLoopTest, InvalidTailWindowEndsTheWorkerAfterTheEarlierWindows) {
  Script bad_tail = FiniteScript(1, 2);
  bad_tail.finalize = [tail = bad_tail.finalize](std::size_t n) {
    auto window = tail(n);
    if (n == 1) window->compute_time_s = -1.0;
    return window;
  };
  Recorded recorded(bad_tail);
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  buffer.Start();
  EXPECT_EQ(ValueOf(*buffer.Pop()), 0.0);
  EXPECT_EQ(ValueOf(*buffer.Pop()), 1.0);
  EXPECT_THROW(buffer.Pop(), std::invalid_argument);
  EXPECT_EQ(buffer.LastError(), "compute_time_s must be finite and non-negative.");
}

// A failed preparation wakes a consumer waiting in Pop with the failure itself. LastError gives
// its text, the generic one for a non-standard exception, or a fixed text when there is no
// memory to copy either.
TEST(WorkerLoopTest, FailedPreparationWakesAWaitingConsumerWithTheFailure) {
  const struct {
    bool standard;
    std::size_t failing_allocations;
    const char* text;
  } cases[] = {
      {true, 0, "a failure whose text must be copied to the heap."},
      {false, 0, "Unknown native window producer failure."},
      {true, 1, "Out of memory."},
      {false, 1, "Out of memory."},
  };
  for (const auto& c : cases) {
    Script failing;
    failing.prepare = [c] {
      const std::runtime_error error("a failure whose text must be copied to the heap.");
      testing_support::FailAllocations(c.failing_allocations);  // the failure capture's copy
      if (c.standard) throw error;
      throw 7;
    };
    Recorded recorded(failing);
    AsyncWindowBuffer buffer(std::move(recorded.producer), 2);
    auto consumer = std::async(std::launch::async, [&] { return buffer.Pop(); });
    buffer.Start();
    ASSERT_TRUE(testing_support::ReadyInTime(consumer));
    if (c.standard) {
      EXPECT_THROW(consumer.get(), std::runtime_error);
    } else {
      EXPECT_THROW(consumer.get(), int);
    }
    EXPECT_EQ(buffer.LastError(), c.text);
    EXPECT_TRUE(buffer.IsComplete());
    EXPECT_EQ(recorded.log->Count(CallLog::kExhausted), 0u);
  }
}

}  // namespace
}  // namespace corvane::control::window
