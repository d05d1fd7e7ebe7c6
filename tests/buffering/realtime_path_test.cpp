// The path of a real-time loop: PopInto and the storage it hands back to the worker, the queue's
// order as it grows, and the worker that sleeps when its producer has nothing ready.
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <system_error>

#include <gtest/gtest.h>

#include "support/scripted_producer.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {
namespace {

using namespace std::chrono_literals;
using testing::FiniteScript;
using testing::MakeWindow;
using testing::RecyclingScriptedProducer;
using testing::ValueOf;
using testing_support::Guarded;

constexpr std::size_t kCapacity = 4;  // queue capacity where the storage goes round

// Pops with PopInto until the end and returns the values of the windows popped.
std::vector<double> PopAllInto(AsyncWindowBuffer& buffer) {
  std::vector<double> values;
  for (WindowPayload window; Guarded([&] { return buffer.PopInto(window); }, "PopInto");) {
    values.push_back(ValueOf(window));
  }
  return values;
}

std::vector<double> Count(double from, double to) {
  std::vector<double> values;
  for (double value = from; value < to; ++value) values.push_back(value);
  return values;
}

TEST(RealtimePathTest, PopIntoDeliversInOrderAndTheWorkerWritesIntoTheStorageHandedBack) {
  constexpr std::size_t kWindows = 40;
  auto log = std::make_shared<testing::CallLog>();
  auto producer = std::make_unique<RecyclingScriptedProducer>(log, FiniteScript(kWindows));
  RecyclingScriptedProducer& recycling = *producer;
  AsyncWindowBuffer buffer(std::move(producer), 0, kCapacity);
  buffer.Start();
  EXPECT_EQ(PopAllInto(buffer), Count(0, kWindows));
  buffer.Join();
  // Only the worker's first window, the ring's empty slots and the loop's own first window come
  // without storage.
  EXPECT_GE(recycling.handed_storage(), kWindows - (kCapacity + 2));
}

TEST(RealtimePathTest, PopIntoEndsLikePop) {
  testing::Script failing = FiniteScript(5);
  failing.produce = [](std::size_t n) -> std::optional<WindowPayload> {
    if (n == 2) throw std::runtime_error("solver diverged");
    return MakeWindow(static_cast<double>(n), n);
  };
  AsyncWindowBuffer buffer(testing::Recorded(failing).producer);
  buffer.Start();
  WindowPayload window = MakeWindow(7.0);
  EXPECT_TRUE(buffer.PopInto(window));
  EXPECT_TRUE(buffer.PopInto(window));
  EXPECT_EQ(ValueOf(window), 1.0);
  for (int call = 0; call < 2; ++call) {
    EXPECT_EQ(testing::MessageOf<std::runtime_error>([&] { buffer.PopInto(window); }),
              "solver diverged");
  }

  testing::Script nothing_ready;
  nothing_ready.produce = [](std::size_t) { return std::nullopt; };
  AsyncWindowBuffer idle(testing::Recorded(nothing_ready).producer);
  idle.Start();
  EXPECT_FALSE(idle.PopInto(window, 1ms));
  EXPECT_EQ(ValueOf(window), 1.0);  // untouched
  idle.Stop();
  EXPECT_FALSE(idle.PopInto(window));
}

// The queue starts with 16 slots; windows queued while its oldest sits mid-way must keep their
// order as it grows.
TEST(RealtimePathTest, QueueKeepsItsOrderWhenItGrowsAroundTheRing) {
  AsyncWindowBuffer buffer(testing::Recorded(FiniteScript(50)).producer);
  ASSERT_EQ(buffer.Prefill(10), 10u);
  WindowPayload window;
  for (int popped = 0; popped < 5; ++popped) ASSERT_TRUE(buffer.PopInto(window, 0ns));
  ASSERT_EQ(buffer.Prefill(30), 30u);
  EXPECT_EQ(ValueOf(*buffer.PopNowait()), 5.0);
  buffer.Start();
  EXPECT_EQ(PopAllInto(buffer), Count(6, 50));
}

// The producer has a window ready only once `ready` is set; the test sets it and raises the
// signal once the worker has asked and found nothing.
TEST(RealtimePathTest, AWaitingWorkerSleepsUntilTheReadySignalOrBacksOff) {
  const struct {
    const char* name;
    bool plain_start;
    WorkerSettings settings;
    bool signalled;    // the worker installs the producer's signal
    bool asks_little;  // at most 3 ProduceNext calls: nothing, the window, maybe nothing
  } cases[] = {
      {"wait", false, {WorkerPolicy::kNormal, 0, {}, "", WorkerIdle::kWait}, true, true},
      {"fifo", false, {WorkerPolicy::kFifo, 1, {}, "", WorkerIdle::kAutomatic}, true, true},
      {"yield", false, {WorkerPolicy::kNormal, 0, {}, "", WorkerIdle::kYield}, false, false},
      {"plain", true, {}, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto ready = std::make_shared<std::atomic<bool>>(false);
    testing::Script script;
    script.produce = [ready](std::size_t n) -> std::optional<WindowPayload> {
      if (!ready->exchange(false)) return std::nullopt;
      return MakeWindow(static_cast<double>(n), n);
    };
    auto log = std::make_shared<testing::CallLog>();
    auto producer = std::make_unique<RecyclingScriptedProducer>(log, script);
    RecyclingScriptedProducer& signalling = *producer;
    AsyncWindowBuffer buffer(std::move(producer));
    try {
      c.plain_start ? buffer.Start() : buffer.Start(c.settings);
    } catch (const std::system_error& error) {
      if (error.code() != std::errc::operation_not_permitted) throw;
      continue;  // no real-time policy for this process
    }
    ASSERT_TRUE(log->WaitFor(testing::CallLog::kProduce, 1));
    ASSERT_TRUE(!c.signalled || signalling.WaitForSignalChanges(1));
    *ready = true;
    signalling.Raise();
    EXPECT_TRUE(Guarded([&] { return buffer.Pop(); }, "Pop").has_value());
    Guarded([&] { return (buffer.Close(), true); }, "Close");
    EXPECT_TRUE(!c.asks_little || log->Count(testing::CallLog::kProduce) <= 3u)
        << log->Count(testing::CallLog::kProduce) << " calls";
    EXPECT_FALSE(signalling.HasSignal());  // removed as the worker ended
  }

  // Without a signal, a waiting worker asks again after a bounded back-off.
  auto ready = std::make_shared<std::atomic<bool>>(false);
  testing::Script unsignalled;
  unsignalled.produce = [ready](std::size_t n) -> std::optional<WindowPayload> {
    if (!ready->load()) return std::nullopt;
    return MakeWindow(static_cast<double>(n), n);
  };
  testing::Recorded recorded(unsignalled);
  AsyncWindowBuffer buffer(std::move(recorded.producer), 0, 1);
  buffer.Start(WorkerSettings{WorkerPolicy::kNormal, 0, {}, "", WorkerIdle::kWait});
  ASSERT_TRUE(recorded.log->WaitFor(testing::CallLog::kProduce, 2));
  *ready = true;
  EXPECT_TRUE(Guarded([&] { return buffer.Pop(); }, "Pop").has_value());
}

}  // namespace
}  // namespace corvane::control::window
