// The buffer's lifecycle and consumer side: construction checks, start/stop/join, pops with and
// without time-out, failures carried to the consumer, and moves.
#include <chrono>
#include <future>
#include <stdexcept>

#include <gtest/gtest.h>

#include "support/scripted_producer.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {
namespace {

using namespace std::chrono_literals;
using testing::CallLog;
using testing::FiniteScript;
using testing::MessageOf;
using testing::Recorded;
using testing::Script;
using testing::ValueOf;
using testing_support::Guarded;

// Pops until the end (an empty result) and returns the values of the windows popped.
std::vector<double> PopAll(AsyncWindowBuffer& buffer) {
  std::vector<double> values;
  while (auto window = Guarded([&] { return buffer.Pop(); }, "Pop")) {
    values.push_back(ValueOf(*window));
  }
  return values;
}

TEST(AsyncWindowBufferTest, ConstructorReportsTheFirstFailingCheckAndDestroysTheProducer) {
  const struct {
    bool with_producer;
    std::size_t prefill_windows;
    std::optional<std::size_t> capacity;
    const char* message;
  } cases[] = {
      {false, 0, 0, "producer must not be null."},
      {true, 5, 0, "max_buffered_windows must be positive when provided."},
      {true, 3, 2, "prefill_windows must not exceed queue capacity."},
      {true, 3, 3, "no error"},
      {true, 1000, std::nullopt, "no error"},
  };
  for (const auto& c : cases) {
    Recorded recorded;
    std::unique_ptr<WindowProducerSession> producer;
    if (c.with_producer) producer = std::move(recorded.producer);
    EXPECT_EQ(MessageOf<std::invalid_argument>(
                  [&] { AsyncWindowBuffer(std::move(producer), c.prefill_windows, c.capacity); }),
              c.message);
    EXPECT_EQ(producer, nullptr);  // taken, even when construction failed
    EXPECT_EQ(recorded.log->Count(CallLog::kDestroy), c.with_producer ? 1u : 0u);
    EXPECT_EQ(recorded.log->Count(CallLog::kPrepare), 0u);
  }
}

TEST(AsyncWindowBufferTest, NeverStartedBufferServesPrefillThenWaitsForStop) {
  Recorded recorded(FiniteScript(2));
  auto log = recorded.log;
  {
    AsyncWindowBuffer buffer(std::move(recorded.producer));
    EXPECT_TRUE(buffer.Join());
    EXPECT_EQ(buffer.Prefill(2), 2u);
    EXPECT_FALSE(buffer.IsComplete());
    EXPECT_EQ(ValueOf(*buffer.Pop()), 0.0);
    EXPECT_EQ(ValueOf(*buffer.Pop()), 1.0);
    auto blocked = std::async(std::launch::async, [&] { return buffer.Pop(); });
    EXPECT_EQ(blocked.wait_for(20ms), std::future_status::timeout);  // waiting is the behaviour
    buffer.Stop();
    ASSERT_TRUE(testing_support::ReadyInTime(blocked));
    EXPECT_FALSE(blocked.get().has_value());
    EXPECT_FALSE(buffer.IsComplete());
  }
  EXPECT_EQ(log->Count(CallLog::kFinalize), 0u);
  EXPECT_EQ(log->Count(CallLog::kDestroy), 1u);
}

TEST(AsyncWindowBufferTest, SecondStartThrowsAndTheFirstWorkerKeepsProducing) {
  Recorded recorded(FiniteScript(3, 1));
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  buffer.Start();
  EXPECT_EQ(MessageOf<std::runtime_error>([&] { buffer.Start(); }),
            "AsyncWindowBuffer::Start() can only be called once.");
  EXPECT_EQ(PopAll(buffer), (std::vector<double>{0, 1, 2, 3}));
  EXPECT_TRUE(buffer.IsComplete());
  EXPECT_EQ(recorded.log->Count(CallLog::kPrepare), 1u);
}

TEST(AsyncWindowBufferTest, TimedPopsReturnEmptyWhileNothingIsReady) {
  Script idle;
  idle.produce = [](std::size_t) { return std::nullopt; };
  Recorded recorded(idle);
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  buffer.Start();
  EXPECT_FALSE(buffer.PopNowait().has_value());
  EXPECT_FALSE(buffer.Pop(-5ms).has_value());
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(buffer.Pop(1ms).has_value());
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 1ms);
  EXPECT_EQ(buffer.LastError(), std::nullopt);
}

// A full queue holds the worker; Join with a time-out gives up, a stop releases it, and the
// queued windows are still delivered, without finalising the stopped producer.
TEST(AsyncWindowBufferTest, StopReleasesAWorkerWaitingForRoomAndKeepsTheQueue) {
  Recorded recorded;  // never runs out
  AsyncWindowBuffer buffer(std::move(recorded.producer), 0, 3);
  buffer.Start();
  ASSERT_TRUE(recorded.log->WaitFor(CallLog::kProduce, 3));
  EXPECT_FALSE(buffer.Join(10ms));
  EXPECT_FALSE(buffer.Join(0ns));
  buffer.Stop();
  EXPECT_TRUE(Guarded([&] { return buffer.Join(); }, "Join"));
  EXPECT_TRUE(buffer.Join(0ns));  // joined already
  EXPECT_EQ(PopAll(buffer), (std::vector<double>{0, 1, 2}));
  EXPECT_TRUE(buffer.IsComplete());
  EXPECT_EQ(recorded.log->Count(CallLog::kProduce), 3u);
  EXPECT_EQ(recorded.log->Count(CallLog::kFinalize), 0u);
}

TEST(AsyncWindowBufferTest, LongestTimeOutWaitsInsteadOfOverflowing) {
  std::promise<void> release;
  Recorded recorded(testing::Altered(
      FiniteScript(1), [released = release.get_future().share()](std::size_t, auto window) {
        released.wait();
        return window;
      }));
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  buffer.Start();
  auto joined = testing_support::StartDetached(
      [&buffer] { return buffer.Join(std::chrono::nanoseconds::max()); });
  release.set_value();
  ASSERT_TRUE(testing_support::ReadyInTime(joined));
  EXPECT_TRUE(joined.get());
  EXPECT_EQ(ValueOf(*buffer.Pop(std::chrono::nanoseconds::max())), 0.0);
}

// A failure comes after every window queued before it, and then on every call, as the same
// exception object.
TEST(AsyncWindowBufferTest, FailureIsDeliveredAfterQueuedWindowsAndRethrownEveryTime) {
  Recorded recorded(testing::Altered(FiniteScript(5), [](std::size_t n, auto window) {
    if (n == 2) throw std::runtime_error("solver diverged.");
    return window;
  }));
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  buffer.Start();
  EXPECT_EQ(ValueOf(*buffer.Pop()), 0.0);
  ASSERT_TRUE(Guarded([&] { return buffer.Join(); }, "Join"));
  EXPECT_FALSE(buffer.IsComplete());
  EXPECT_EQ(ValueOf(*buffer.Pop()), 1.0);
  EXPECT_TRUE(buffer.IsComplete());
  EXPECT_EQ(buffer.LastError(), "solver diverged.");
  const std::runtime_error* first = nullptr;
  for (int attempt = 0; attempt < 3; ++attempt) {
    try {
      attempt % 2 ? buffer.PopNowait() : buffer.Pop();
      ADD_FAILURE() << "the failure was not rethrown";
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "solver diverged.");
      if (first == nullptr) first = &error;
      EXPECT_EQ(&error, first);
    }
  }
}

TEST(AsyncWindowBufferTest, NonStandardExceptionKeepsItsTypeAndGetsAGenericText) {
  Script failing;
  failing.prepare = [] { throw 42; };
  Recorded recorded(failing);
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  buffer.Start();
  EXPECT_THROW(Guarded([&] { return buffer.Pop(); }, "Pop"), int);
  EXPECT_EQ(buffer.LastError(), "Unknown native window producer failure.");
  EXPECT_TRUE(buffer.IsComplete());
  EXPECT_EQ(recorded.log->Count(CallLog::kProduce), 0u);
}

TEST(AsyncWindowBufferTest, MovedBufferKeepsItsRunningWorker) {
  Recorded recorded(FiniteScript(4));
  AsyncWindowBuffer original(std::move(recorded.producer), 0, 1);
  original.Start();
  AsyncWindowBuffer moved(std::move(original));
  { AsyncWindowBuffer drop(std::move(original)); }  // a moved-from buffer destroys nothing
  EXPECT_EQ(PopAll(moved), (std::vector<double>{0, 1, 2, 3}));
}

TEST(AsyncWindowBufferTest, MoveAssignmentAndDestructionStopTheWorkerFirst) {
  Recorded old_recorded;  // never runs out: only a stop ends it
  Recorded new_recorded(FiniteScript(2));
  auto target = std::make_unique<AsyncWindowBuffer>(std::move(old_recorded.producer), 2, 2);
  target->Start();
  ASSERT_TRUE(old_recorded.log->WaitFor(CallLog::kProduce, 2));
  AsyncWindowBuffer source(std::move(new_recorded.producer));
  source.Start();

  *target = std::move(source);
  EXPECT_EQ(old_recorded.log->Count(CallLog::kDestroy), 1u);
  EXPECT_EQ(old_recorded.log->Count(CallLog::kFinalize), 0u);
  *target = std::move(*target);  // self-assignment keeps the state
  EXPECT_EQ(PopAll(*target), (std::vector<double>{0, 1}));
  Guarded([&] { target.reset(); }, "destruction");
  EXPECT_EQ(new_recorded.log->Count(CallLog::kDestroy), 1u);
}

}  // namespace
}  // namespace corvane::control::window
