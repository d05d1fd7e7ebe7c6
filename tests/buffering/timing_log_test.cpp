// The timing log: what an entry holds, which entries a read returns, the counters, and reads
// racing a running worker.
#include "window/timing_log.hpp"

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "support/scripted_producer.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {
namespace {

using testing::Altered;
using testing::FiniteScript;
using testing::Recorded;

// A buffer over `windows` one-row windows (one second each, unless `sample_time` is given),
// with a log of `capacity` entries attached.
struct Logged {
  std::shared_ptr<TimingLog> log;
  AsyncWindowBuffer buffer;
  Logged(std::size_t windows, std::size_t capacity, const char* sample_time = nullptr,
         std::size_t tail = 0)
      : log(std::make_shared<TimingLog>(capacity)),
        buffer(std::move(Recorded(Altered(FiniteScript(windows, tail), [sample_time](std::size_t n,
                                                                                     auto window) {
                           if (window && sample_time)
                             window->metadata["sample_time_s"] = sample_time;
                           if (window && n == 1) window->compute_time_s = 0.5;
                           return window;
                         })).producer)) {
    buffer.AttachTimingLog(log);
  }
};

// Each window is due when the one popped before it has played: its pop time plus its duration.
TEST(TimingLogTest, ReadsEveryPoppedWindowOnceWithItsTiming) {
  Logged logged(3, 8);
  ASSERT_EQ(logged.buffer.Prefill(3), 3u);
  ASSERT_TRUE(logged.buffer.PopNowait());
  ASSERT_TRUE(logged.buffer.PopNowait());
  TimingRead first = logged.log->Read(0);
  WindowPayload storage;  // the allocation-free pop records its window too
  ASSERT_TRUE(logged.buffer.PopInto(storage, std::chrono::nanoseconds(0)));
  TimingRead second = logged.log->Read(first.next_sequence);

  EXPECT_EQ(first.next_sequence, 2u);  // the unpopped third window waits for the next read
  EXPECT_EQ(second.next_sequence, 3u);
  ASSERT_EQ(first.entries.size(), 2u);
  ASSERT_EQ(second.entries.size(), 1u);
  first.entries.push_back(second.entries[0]);
  double previous_due_s = first.entries[0].popped_s;
  for (std::size_t n = 0; n < 3; ++n) {
    const WindowTiming& entry = first.entries[n];
    SCOPED_TRACE(n);
    EXPECT_EQ(entry.sequence, n);
    EXPECT_EQ(entry.start_index, n);
    EXPECT_EQ(entry.stop_index, n + 1);
    EXPECT_EQ(entry.queue_depth_windows, n + 1);
    EXPECT_EQ(entry.duration_s, 1.0);
    EXPECT_LE(entry.production_start_s, entry.queued_s);
    EXPECT_LE(entry.queued_s, entry.popped_s);
    EXPECT_DOUBLE_EQ(entry.margin_s, previous_due_s - entry.queued_s);
    previous_due_s = entry.popped_s + entry.duration_s;
  }
  EXPECT_GE(first.entries[1].compute_time_s, 0.5);  // the declared time when it is larger

  const TimingCounters counters = logged.log->Counters();
  EXPECT_EQ(counters.queued_windows, 3u);
  EXPECT_EQ(counters.popped_windows, 3u);
  EXPECT_EQ(counters.underrun_windows, 0u);
  EXPECT_EQ(counters.max_compute_time_s, first.entries[1].compute_time_s);
  EXPECT_EQ(counters.min_margin_s, first.entries[0].margin_s);  // the others had a second more
}

// Windows of a nanosecond are due long before the next is produced.
TEST(TimingLogTest, CountsUnderrunsAndReportedMisses) {
  Logged logged(2, 8, "1e-9");
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(logged.buffer.Prefill(1), 1u);
    ASSERT_TRUE(logged.buffer.PopNowait());
  }
  logged.log->ReportDeadlineMiss();
  logged.log->ReportDeadlineMiss();
  const TimingRead read = logged.log->Read(0);
  const TimingCounters counters = logged.log->Counters();
  ASSERT_EQ(read.entries.size(), 2u);
  EXPECT_GE(read.entries[0].margin_s, 0.0);
  EXPECT_LT(read.entries[1].margin_s, 0.0);
  EXPECT_EQ(counters.underrun_windows, 1u);
  EXPECT_EQ(counters.min_margin_s, read.entries[1].margin_s);
  EXPECT_EQ(counters.deadline_misses, 2u);
}

// A ring of 2 behind a queue of 5: the pops of the first three find their entries overwritten.
TEST(TimingLogTest, CountsTheEntriesTheRingNoLongerHolds) {
  Logged logged(5, 2);
  ASSERT_EQ(logged.buffer.Prefill(5), 5u);
  while (logged.buffer.PopNowait()) {
  }
  struct Case {
    std::uint64_t from, first_sequence;
    std::size_t entries, overwritten;
    std::uint64_t next;
  };
  for (const Case& c : {Case{0, 3, 2, 3, 5}, Case{4, 4, 1, 0, 5}, Case{9, 0, 0, 0, 9}}) {
    SCOPED_TRACE(c.from);
    const TimingRead read = logged.log->Read(c.from);
    ASSERT_EQ(read.entries.size(), c.entries);
    if (c.entries > 0) {
      EXPECT_EQ(read.entries[0].sequence, c.first_sequence);
    }
    EXPECT_EQ(read.overwritten_windows, c.overwritten);
    EXPECT_EQ(read.next_sequence, c.next);
  }
  const WindowTiming oldest = logged.log->Read(0).entries[0];  // due when popped: none before known
  EXPECT_EQ(oldest.margin_s, oldest.popped_s - oldest.queued_s);
  EXPECT_EQ(logged.log->Counters().popped_windows, 5u);
}

// The kind and text of what `call` throws.
template <typename Call>
std::string ErrorOf(Call call) {
  try {
    call();
  } catch (const std::invalid_argument& error) {
    return std::string("invalid: ") + error.what();
  } catch (const std::runtime_error& error) {
    return std::string("runtime: ") + error.what();
  }
  return "no error";
}

TEST(TimingLogTest, RefusesALogItCannotKeepWhole) {
  using Before = std::function<void(AsyncWindowBuffer&, const std::shared_ptr<TimingLog>&)>;
  const auto other_buffer = [](AsyncWindowBuffer&, const std::shared_ptr<TimingLog>& log) {
    AsyncWindowBuffer other(std::move(Recorded(FiniteScript(0)).producer));
    other.AttachTimingLog(log);
  };
  const std::pair<Before, std::string> cases[] = {
      {[](auto& b, auto&) { b.Start(); },
       "runtime: AttachTimingLog must be called before Prefill() and Start()."},
      {[](auto& b, auto&) {
         b.Prefill(1);
         b.PopNowait();
       },
       "runtime: AttachTimingLog must be called before Prefill() and Start()."},
      {[](auto& b, auto&) { b.AttachTimingLog(std::make_shared<TimingLog>(1)); },
       "runtime: AttachTimingLog can only be called once."},
      {other_buffer, "invalid: log must not be attached to a buffer already."},
  };
  for (const auto& [before, expected] : cases) {
    AsyncWindowBuffer buffer(std::move(Recorded(FiniteScript(1)).producer));
    auto log = std::make_shared<TimingLog>(1);
    before(buffer, log);
    EXPECT_EQ(ErrorOf([&] { buffer.AttachTimingLog(log); }), expected);
  }
  AsyncWindowBuffer buffer(std::move(Recorded(FiniteScript(1)).producer));
  EXPECT_EQ(ErrorOf([&] { buffer.AttachTimingLog(nullptr); }), "invalid: log must not be null.");
  for (const std::size_t capacity : {std::size_t{0}, TimingLog::kMaxCapacityWindows + 1}) {
    EXPECT_EQ(ErrorOf([&] { TimingLog log(capacity); }),
              "invalid: capacity_windows must be from 1 to 16777216.");
  }
}

// The worker overwrites a ring of 16 while this thread pops and reads after every pop: each
// entry read is whole and belongs to its window, and none is lost without being counted.
TEST(TimingLogTest, ReadsWhileTheWorkerOverwritesTheRing) {
  constexpr std::size_t kWindows = 20000;
  Logged logged(kWindows, 16, nullptr, 1);
  logged.buffer.Start();
  std::uint64_t next = 0;
  std::size_t accounted = 0;
  while (logged.buffer.Pop(testing_support::kHangLimit)) {
    const TimingRead read = logged.log->Read(next);
    for (const WindowTiming& entry : read.entries) {
      ASSERT_GE(entry.sequence, next);
      ASSERT_EQ(entry.start_index, entry.sequence);
      ASSERT_EQ(entry.stop_index, entry.sequence + 1);
      ASSERT_LE(entry.queued_s, entry.popped_s);
      next = entry.sequence + 1;
    }
    accounted += read.entries.size() + read.overwritten_windows;
    next = read.next_sequence;
  }
  EXPECT_TRUE(logged.buffer.IsComplete());
  EXPECT_EQ(accounted, kWindows + 1);  // the tail window too
  EXPECT_EQ(logged.log->Counters().queued_windows, kWindows + 1);
}

}  // namespace
}  // namespace corvane::control::window
