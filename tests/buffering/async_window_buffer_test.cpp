// The buffer's lifecycle and consumer side: construction checks, start/stop/join, pops with and
// without time-out, failures carried to the consumer, and moves.
#include <pthread.h>
#include <sched.h>

#include <chrono>
#include <future>
#include <stdexcept>
#include <system_error>
#include <tuple>

#include <gmock/gmock.h>
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

// While nothing is ready, timed pops return empty once their time is up; the longest time-out
// waits instead of overflowing.
TEST(AsyncWindowBufferTest, TimedWaitsEndAtTheirDeadlineAndTheLongestDoesNotOverflow) {
  std::promise<void> release;
  Recorded recorded(testing::Altered(
      FiniteScript(1), [released = release.get_future().share()](std::size_t, auto window) {
        released.wait();
        return window;
      }));
  AsyncWindowBuffer buffer(std::move(recorded.producer));
  buffer.Start();
  EXPECT_FALSE(buffer.PopNowait().has_value());
  EXPECT_FALSE(buffer.Pop(-5ms).has_value());
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(buffer.Pop(1ms).has_value());
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 1ms);
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

// A moved buffer keeps its running worker; move assignment and destruction stop the worker first.
TEST(AsyncWindowBufferTest, MovesKeepTheWorkerAndAssignmentStopsTheOldOne) {
  Recorded old_recorded;  // never runs out: only a stop ends it
  Recorded new_recorded(FiniteScript(2));
  auto target = std::make_unique<AsyncWindowBuffer>(std::move(old_recorded.producer), 2, 2);
  target->Start();
  ASSERT_TRUE(old_recorded.log->WaitFor(CallLog::kProduce, 2));
  AsyncWindowBuffer started(std::move(new_recorded.producer), 0, 1);
  started.Start();
  AsyncWindowBuffer source(std::move(started));
  { AsyncWindowBuffer drop(std::move(started)); }  // a moved-from buffer destroys nothing

  *target = std::move(source);
  EXPECT_EQ(old_recorded.log->Count(CallLog::kDestroy), 1u);
  EXPECT_EQ(old_recorded.log->Count(CallLog::kFinalize), 0u);
  *target = std::move(*target);  // self-assignment keeps the state
  EXPECT_EQ(PopAll(*target), (std::vector<double>{0, 1}));
  Guarded([&] { target.reset(); }, "destruction");
  EXPECT_EQ(new_recorded.log->Count(CallLog::kDestroy), 1u);
}

// The calling thread's policy, priority, CPUs and name, as the system reports them. SCHED_BATCH,
// which any thread may take, is the policy the test starts workers with: it reads as kInherit.
WorkerSettings ScheduleOfThisThread() {
  int policy = 0;
  sched_param parameters{};
  cpu_set_t cpus;
  char name[16] = {};
  pthread_getschedparam(pthread_self(), &policy, &parameters);
  pthread_getaffinity_np(pthread_self(), sizeof cpus, &cpus);
  pthread_getname_np(pthread_self(), name, sizeof name);
  WorkerSettings schedule{WorkerPolicy::kNormal, parameters.sched_priority, {}, name};
  if (policy == SCHED_FIFO) schedule.policy = WorkerPolicy::kFifo;
  if (policy == SCHED_RR) schedule.policy = WorkerPolicy::kRoundRobin;
  if (policy == SCHED_BATCH) schedule.policy = WorkerPolicy::kInherit;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(static_cast<std::size_t>(cpu), &cpus)) schedule.cpus.push_back(cpu);
  }
  return schedule;
}

// Settings the system accepts reach the worker: its producer reads back the policy, priority,
// CPUs and name it runs with, and without a policy asked for, the starting thread's. A refused
// setting throws, names the setting, leaves no worker, and Start may be called again. Either way
// Start runs once: a second call throws and the first worker keeps producing.
TEST(AsyncWindowBufferTest, StartWithSettingsSchedulesTheWorkerOrLeavesTheBufferStartable) {
  const int cpu = ScheduleOfThisThread().cpus.back();
  const sched_param normal{};
  pthread_setschedparam(pthread_self(), SCHED_BATCH, &normal);
  const struct {
    WorkerSettings settings;
    const char* refused;  // the setting named, or nullptr when the worker runs with it
  } cases[] = {
      {{WorkerPolicy::kNormal, 0, {cpu}, "corvane-normal"}, nullptr},
      {{WorkerPolicy::kFifo, 10, {cpu}, "corvane-fifo"}, nullptr},
      {{WorkerPolicy::kRoundRobin, 5, {cpu}, "corvane-rr"}, nullptr},
      {{WorkerPolicy::kInherit, 0, {cpu}, "corvane-inherit"}, nullptr},
      {{WorkerPolicy::kNormal, 0, {}, "a-name-too-long!"}, "WorkerSettings::name"},
      {{WorkerPolicy::kNormal, 0, {cpu, CPU_SETSIZE - 1}, ""}, "WorkerSettings::cpus (CPU 1023)"},
      {{WorkerPolicy::kNormal, 0, {-1}, ""}, "WorkerSettings::cpus (CPU -1)"},
      {{WorkerPolicy::kNormal, 5, {}, ""}, "WorkerSettings::policy"},
      {{WorkerPolicy::kFifo, 1000, {}, ""}, "WorkerSettings::policy"},
      {{WorkerPolicy::kInherit, 5, {}, ""}, "WorkerSettings::policy"},
  };
  std::string skipped;
  for (const auto& c : cases) {
    auto observed = std::make_shared<WorkerSettings>();
    Script script = FiniteScript(3, 1);
    script.prepare = [observed] { *observed = ScheduleOfThisThread(); };
    Recorded recorded(script);
    AsyncWindowBuffer buffer(std::move(recorded.producer));
    if (c.refused) {
      EXPECT_THAT(MessageOf<std::system_error>([&] { buffer.Start(c.settings); }),
                  ::testing::HasSubstr(c.refused));
      EXPECT_EQ(recorded.log->Count(CallLog::kPrepare), 0u);
      buffer.Start();
    } else {
      try {
        buffer.Start(c.settings);
      } catch (const std::system_error& error) {
        if (error.code() != std::errc::operation_not_permitted) throw;
        skipped += " " + c.settings.name;  // no CAP_SYS_NICE, no RLIMIT_RTPRIO
        continue;
      }
    }
    EXPECT_EQ(MessageOf<std::runtime_error>([&] { buffer.Start(WorkerSettings{}); }),
              "AsyncWindowBuffer::Start() can only be called once.");
    EXPECT_EQ(MessageOf<std::runtime_error>([&] { buffer.Start(); }),
              "AsyncWindowBuffer::Start() can only be called once.");
    EXPECT_EQ(PopAll(buffer), (std::vector<double>{0, 1, 2, 3}));
    EXPECT_EQ(recorded.log->Count(CallLog::kPrepare), 1u);
    const auto fields = [](const WorkerSettings& s) {
      return std::tie(s.policy, s.priority, s.cpus, s.name);
    };
    EXPECT_TRUE(c.refused || fields(*observed) == fields(c.settings)) << c.settings.name;
  }
  pthread_setschedparam(pthread_self(), SCHED_OTHER, &normal);
  if (!skipped.empty()) GTEST_SKIP() << "this process may not use real-time policies:" << skipped;
}

}  // namespace
}  // namespace corvane::control::window
