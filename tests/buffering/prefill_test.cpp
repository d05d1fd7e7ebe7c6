// Prefill: synchronous production on the caller's thread before Start(), sharing the session and
// the statistics with the worker.
#include <stdexcept>

#include <gtest/gtest.h>

#include "support/scripted_producer.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {
namespace {

using testing::CallLog;
using testing::FiniteScript;
using testing::Recorded;
using testing::Script;
using testing::ValueOf;
using testing_support::Guarded;

TEST(PrefillTest, ZeroWindowsOnlyPreparesTheSession) {
  Recorded recorded(FiniteScript(3));
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  EXPECT_EQ(buffer.Prefill(0), 0u);
  EXPECT_EQ(recorded.log->Count(CallLog::kPrepare), 1u);
  EXPECT_EQ(recorded.log->Count(CallLog::kExhausted), 0u);
  EXPECT_EQ(recorded.log->Count(CallLog::kProduce), 0u);
}

TEST(PrefillTest, StopsAtExhaustionAndSharesOneSessionWithTheWorker) {
  Recorded recorded(FiniteScript(3));
  AsyncWindowBuffer buffer(std::move(recorded.producer), 0, 1);
  EXPECT_EQ(buffer.Prefill(5), 3u);  // beyond the capacity: Prefill does not wait for room
  EXPECT_EQ(buffer.Prefill(5), 0u);
  EXPECT_EQ(recorded.log->Count(CallLog::kProduce), 3u);
  EXPECT_FALSE(buffer.IsComplete());  // only the worker finishes the buffer

  buffer.Start();  // the worker finds the producer exhausted but must wait for room to finalise
  for (double expected : {0.0, 1.0, 2.0}) {
    EXPECT_EQ(ValueOf(*Guarded([&] { return buffer.Pop(); }, "Pop")), expected);
  }
  EXPECT_TRUE(Guarded([&] { return buffer.Join(); }, "Join"));
  EXPECT_TRUE(buffer.IsComplete());
  EXPECT_EQ(recorded.log->Count(CallLog::kPrepare), 1u);
  EXPECT_EQ(buffer.Qualify(1.0).total_windows, 3u);
}

TEST(PrefillTest, StopsAtTheFirstEmptyResult) {
  Script stalling = FiniteScript(5);
  auto produce = stalling.produce;
  stalling.produce = [produce](std::size_t n) {
    return n == 2 ? std::optional<WindowPayload>() : produce(n);
  };
  Recorded recorded(stalling);
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  EXPECT_EQ(buffer.Prefill(5), 2u);
  EXPECT_EQ(recorded.log->Count(CallLog::kProduce), 3u);
  EXPECT_EQ(buffer.Qualify(1.0).total_windows, 2u);
}

TEST(PrefillTest, AfterStartThrowsWithoutTouchingTheProducer) {
  Recorded recorded(FiniteScript(0));
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  buffer.Start();
  ASSERT_TRUE(recorded.log->WaitFor(CallLog::kPrepare, 1));
  try {
    buffer.Prefill(0);
    ADD_FAILURE() << "Prefill after Start() did not throw";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Prefill must be called before Start().");
  }
  EXPECT_TRUE(Guarded([&] { return buffer.Join(); }, "Join"));
  EXPECT_EQ(recorded.log->Count(CallLog::kPrepare), 1u);
}

// Failures reach the caller directly; windows queued before stay, and the buffer records no
// failure for the consumer and stays usable.
TEST(PrefillTest, FailuresPassToTheCallerAndKeepEarlierWindows) {
  Script failing = FiniteScript(5);
  auto produce = failing.produce;
  bool prepare_fails = true;
  failing.prepare = [&prepare_fails] {
    if (prepare_fails) throw std::runtime_error("not ready.");
  };
  failing.produce = [produce](std::size_t n) {
    auto window = produce(n);
    if (n == 2) window->compute_time_s = -1.0;
    return window;
  };
  Recorded recorded(failing);
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  EXPECT_THROW(buffer.Prefill(5), std::runtime_error);
  prepare_fails = false;
  try {
    buffer.Prefill(5);
    ADD_FAILURE() << "an invalid window was accepted";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "compute_time_s must be finite and non-negative.");
  }
  EXPECT_EQ(recorded.log->Count(CallLog::kPrepare), 2u);
  EXPECT_EQ(buffer.Qualify(1.0).total_windows, 2u);
  EXPECT_EQ(buffer.LastError(), std::nullopt);
  EXPECT_EQ(buffer.Prefill(1), 1u);  // still usable
  EXPECT_EQ(ValueOf(*buffer.PopNowait()), 0.0);
  EXPECT_EQ(ValueOf(*buffer.PopNowait()), 1.0);
  EXPECT_EQ(ValueOf(*buffer.PopNowait()), 3.0);
}

}  // namespace
}  // namespace corvane::control::window
