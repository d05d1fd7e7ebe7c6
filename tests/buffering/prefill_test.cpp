// Prefill: synchronous production on the caller's thread before Start(), sharing the session and
// the statistics with the worker.
#include <future>
#include <stdexcept>

#include <gtest/gtest.h>

#include "support/scripted_producer.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {
namespace {

using testing::Altered;
using testing::CallLog;
using testing::FiniteScript;
using testing::Recorded;
using testing::ValueOf;

// Prefill(0) only prepares the session; a larger Prefill stops at exhaustion.
TEST(PrefillTest, StopsAtExhaustionAndSharesOneSessionWithTheWorker) {
  Recorded recorded(FiniteScript(3));
  AsyncWindowBuffer buffer(std::move(recorded.producer), 0, 1);
  EXPECT_EQ(buffer.Prefill(0), 0u);
  EXPECT_EQ(recorded.log->Count(CallLog::kPrepare), 1u);
  EXPECT_EQ(recorded.log->Count(CallLog::kExhausted) + recorded.log->Count(CallLog::kProduce), 0u);
  EXPECT_EQ(buffer.Prefill(5), 3u);  // beyond the capacity: Prefill does not wait for room
  EXPECT_EQ(buffer.Prefill(5), 0u);
  EXPECT_FALSE(buffer.IsComplete());  // only the worker finishes the buffer
  buffer.Start();  // it finds the producer exhausted, but must wait for room to finalise
  for (double expected : {0.0, 1.0, 2.0}) {
    EXPECT_EQ(ValueOf(*testing_support::Guarded([&] { return buffer.Pop(); }, "Pop")), expected);
  }
  EXPECT_TRUE(testing_support::Guarded([&] { return buffer.Join(); }, "Join"));
  EXPECT_TRUE(buffer.IsComplete());
  EXPECT_EQ(recorded.log->Count(CallLog::kPrepare), 1u);
  EXPECT_EQ(recorded.log->Count(CallLog::kProduce), 3u);
  EXPECT_EQ(buffer.Qualify(1.0).total_windows, 3u);
}

TEST(PrefillTest, AfterStartThrowsWithoutTouchingTheProducer) {
  Recorded recorded(FiniteScript(0));
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  buffer.Start();
  ASSERT_TRUE(recorded.log->WaitFor(CallLog::kPrepare, 1));
  EXPECT_EQ(testing::MessageOf<std::runtime_error>([&] { buffer.Prefill(0); }),
            "Prefill must be called before Start().");
  EXPECT_TRUE(testing_support::Guarded([&] { return buffer.Join(); }, "Join"));
  EXPECT_EQ(recorded.log->Count(CallLog::kPrepare), 1u);
}

// A second call, and Start(), while the first waits in the producer are refused; it goes on.
TEST(PrefillTest, ASecondCallWhileOneRunsIsRefused) {
  std::promise<void> go_on;
  Recorded recorded(Altered(FiniteScript(2), [held = go_on.get_future().share()](auto n, auto w) {
    if (n == 0) held.wait_for(testing_support::kHangLimit);
    return w;
  }));
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  auto first = std::async(std::launch::async, [&] { return buffer.Prefill(2); });
  ASSERT_TRUE(recorded.log->WaitFor(CallLog::kProduce, 1));
  EXPECT_EQ(testing::MessageOf<std::runtime_error>([&] { buffer.Prefill(1); }),
            "Prefill must not be called while another Prefill call runs.");
  EXPECT_EQ(testing::MessageOf<std::runtime_error>([&] { buffer.Start(); }),
            "AsyncWindowBuffer::Start() must not be called while Prefill runs.");
  go_on.set_value();
  EXPECT_EQ(first.get(), 2u);
}

// An empty result ends the call; a failure passes to the caller. Windows queued before stay, with
// their statistics, no failure is recorded for the consumer, and the buffer stays usable.
TEST(PrefillTest, StopsAtTheFirstEmptyResultOrFailure) {
  bool prepare_fails = true;
  auto script = Altered(FiniteScript(6), [](std::size_t n, auto window) {
    if (n == 2) window->compute_time_s = -1.0;
    return n == 4 ? std::nullopt : window;
  });
  script.prepare = [&prepare_fails] {
    if (prepare_fails) throw std::runtime_error("not ready.");
  };
  Recorded recorded(script);
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  EXPECT_THROW(buffer.Prefill(5), std::runtime_error);
  prepare_fails = false;
  EXPECT_THROW(buffer.Prefill(5), std::invalid_argument);
  EXPECT_EQ(recorded.log->Count(CallLog::kPrepare), 2u);
  EXPECT_EQ(buffer.Qualify(1.0).total_windows, 2u);
  EXPECT_EQ(buffer.LastError(), std::nullopt);
  EXPECT_EQ(buffer.Prefill(5), 1u);  // window 3, then the empty result of call 4
  EXPECT_EQ(recorded.log->Count(CallLog::kProduce), 5u);
  for (double expected : {0.0, 1.0, 3.0}) EXPECT_EQ(ValueOf(*buffer.PopNowait()), expected);
}

}  // namespace
}  // namespace corvane::control::window
