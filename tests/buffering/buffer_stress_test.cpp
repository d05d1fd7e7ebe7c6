// Several consumers popping, with and without time-outs, while the worker pushes thousands of
// windows through a small bounded queue, stopped or destroyed at random points: every window
// queued is delivered exactly once, in production order, and nothing hangs.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "support/scripted_producer.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {
namespace {

using namespace std::chrono_literals;
using testing::CallLog;
using testing::FiniteScript;
using testing::Recorded;
using testing::ValueOf;

constexpr std::size_t kWindows = 2000;
constexpr std::size_t kTail = 2;
constexpr int kConsumers = 3;

enum class Ending { kDrain, kStopThenDrain, kDestroy };

struct Trial {
  Ending ending;
  std::size_t capacity;
  std::size_t prefill_windows;
  std::size_t pops_before_ending;  // for kStopThenDrain and kDestroy
  std::uint64_t seed;
};

// One consumer: pops with a time-out chosen at random per call (none, zero, or 50 us) until the
// buffer is complete, or, when `limit` is reached, stops the buffer or just leaves.
std::vector<double> Consume(AsyncWindowBuffer& buffer, const Trial& trial,
                            std::atomic<std::size_t>& popped, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  std::vector<double> values;
  while (true) {
    if (trial.ending == Ending::kDestroy && popped.load() >= trial.pops_before_ending) break;
    const auto choice = random() % 3;
    std::optional<WindowPayload> window = choice == 0   ? buffer.Pop()
                                          : choice == 1 ? buffer.PopNowait()
                                                        : buffer.Pop(50us);
    if (window) {
      values.push_back(ValueOf(*window));
      if (++popped == trial.pops_before_ending && trial.ending == Ending::kStopThenDrain) {
        buffer.Stop();
      }
    } else if (choice == 0 || buffer.IsComplete()) {
      break;  // an untimed Pop only comes back empty at the end or after a stop
    }
  }
  return values;
}

// The values every consumer received, checking that each consumer saw them in production order.
std::vector<double> Merge(const std::vector<std::vector<double>>& per_consumer) {
  std::vector<double> all;
  for (const auto& values : per_consumer) {
    EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
    EXPECT_EQ(std::adjacent_find(values.begin(), values.end()), values.end());
    all.insert(all.end(), values.begin(), values.end());
  }
  std::sort(all.begin(), all.end());
  return all;
}

// The values of the first `count` windows produced, the mainline and then the tail: 0, 1, ...
std::vector<double> FirstProduced(std::size_t count) {
  std::vector<double> values(count);
  for (std::size_t i = 0; i < count; ++i) values[i] = static_cast<double>(i);
  return values;
}

void RunTrial(const Trial& trial) {
  Recorded recorded(FiniteScript(kWindows, kTail));
  auto log = recorded.log;
  auto buffer = std::make_unique<AsyncWindowBuffer>(std::move(recorded.producer),
                                                    trial.prefill_windows, trial.capacity);
  buffer->Start();

  std::atomic<std::size_t> popped{0};
  std::vector<std::future<std::vector<double>>> consumers;
  for (int c = 0; c < kConsumers; ++c) {
    consumers.push_back(std::async(std::launch::async, Consume, std::ref(*buffer), std::cref(trial),
                                   std::ref(popped), trial.seed + static_cast<std::uint64_t>(c)));
  }
  std::vector<std::vector<double>> per_consumer;
  for (auto& consumer : consumers) {
    per_consumer.push_back(testing_support::Guarded([&] { return consumer.get(); }, "a consumer"));
  }

  if (trial.ending == Ending::kDestroy) {
    testing_support::Guarded([&] { buffer.reset(); }, "destruction");
    const std::vector<double> delivered = Merge(per_consumer);
    EXPECT_EQ(delivered, FirstProduced(delivered.size()));  // a prefix, each window once
    return;
  }
  // A window produced while the stop was requested is still queued: collect it too.
  EXPECT_TRUE(testing_support::Guarded([&] { return buffer->Join(); }, "Join"));
  std::vector<double> rest;
  while (auto window = buffer->PopNowait()) rest.push_back(ValueOf(*window));
  per_consumer.push_back(rest);
  // Every ProduceNext call yields a window; Finalize calls past the tail yield none.
  const std::size_t produced =
      log->Count(CallLog::kProduce) + std::min(log->Count(CallLog::kFinalize), kTail);
  if (trial.ending == Ending::kDrain) {
    EXPECT_EQ(produced, kWindows + kTail);
  }
  EXPECT_EQ(Merge(per_consumer), FirstProduced(produced));
  EXPECT_TRUE(buffer->IsComplete());
}

TEST(BufferStressTest, EveryQueuedWindowIsDeliveredOnceInOrder) {
  std::mt19937_64 random(7);
  for (int t = 0; t < 24; ++t) {
    Trial trial;
    trial.ending = static_cast<Ending>(t % 3);
    trial.capacity = 1 + random() % 4;
    trial.prefill_windows = random() % (trial.capacity + 1);
    trial.pops_before_ending = random() % (kWindows + kTail);
    trial.seed = random();
    SCOPED_TRACE(::testing::Message() << "trial " << t << ", capacity " << trial.capacity);
    RunTrial(trial);
  }
}

}  // namespace
}  // namespace corvane::control::window
