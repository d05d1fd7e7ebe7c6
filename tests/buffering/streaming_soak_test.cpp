// Streams end to end through AppendableWindowBuffer and the lifted-MPC producer while consumers
// pop with random time-outs: every sample index comes out at most once, in order per consumer,
// without a gap from the global start, and each window holds the samples of its range.
// - Stress trials: small bounded queues and prefills, three consumers, ended by draining, by a
//   stop or by destruction at a random pop.
// - Soak: 8 simulated hours of 1 kHz reference for 12 joints, appended while it streams, with the
//   reference and the statistics retained. Resident memory stays flat; it is reported every hour
//   with the time Qualify takes. CORVANE_SOAK_HOURS (scripts/soak.sh) makes the hours real ones:
//   28.8 million samples at full speed.
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <limits>
#include <map>
#include <mutex>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "support/detached_call.hpp"
#include "support/follow_reference_solver.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {
namespace {

using Clock = std::chrono::steady_clock;

constexpr Eigen::Index kJoints = 12;
constexpr std::size_t kApply = 10, kLookahead = 20, kGlobalStart = 1000;
constexpr double kSamplePeriod = 1e-3;  // [s] 1 kHz

// What the consumers received, in memory that does not grow: a window that comes before an
// earlier one waits until the gap closes. Sample n holds one value in every joint: the number of
// the sample appended, or the one before it where the producer held it.
class Delivery {
 public:
  struct Tally {
    std::size_t contiguous = 0;  // samples delivered without a gap from the global start
    std::size_t faults = 0;      // windows that came twice or held the wrong samples
    bool settled = true;         // no window waits for an earlier one
  };

  void Take(const WindowPayload& window) {
    const SampleMatrix& rows = window.positions;
    const Eigen::ArrayXd steps =
        rows.col(0).tail(rows.rows() - 1) - rows.col(0).head(rows.rows() - 1);
    const bool samples_ok =
        (rows.rowwise().maxCoeff().array() == rows.rowwise().minCoeff().array()).all() &&
        (steps == 0.0 || steps == 1.0).all();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!samples_ok || window.start_index < tally_.contiguous + kGlobalStart ||
          !waiting_.emplace(window.start_index, window.stop_index).second) {
        ++tally_.faults;
      }
      for (auto it = waiting_.begin();
           it != waiting_.end() && it->first == tally_.contiguous + kGlobalStart;) {
        tally_.contiguous = it->second - kGlobalStart;
        it = waiting_.erase(it);
      }
      tally_.settled = waiting_.empty();
    }
    cv_.notify_all();
  }
  // Waits until the samples before `count` have come out; false after kHangLimit.
  bool WaitUntilDelivered(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, testing_support::kHangLimit,
                        [&] { return tally_.contiguous >= count; });
  }
  Tally Summarize() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return tally_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  Tally tally_;
  std::map<std::size_t, std::size_t> waiting_;  // start index -> stop index
};

enum class Ending { kDrain, kStop, kDestroy };

// Pops, at random without a time-out or with one of 0 to 100 us, until the stream is complete;
// or, once `popped` reaches `ending_at`, stops the buffer or just leaves.
void Consume(AppendableWindowBuffer& buffer, Delivery& delivery, Ending ending,
             std::atomic<std::size_t>& popped, std::size_t ending_at, unsigned seed) {
  std::mt19937 random(seed);
  std::size_t next_start = kGlobalStart;
  while (ending != Ending::kDestroy || popped < ending_at) {
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
    if (++popped == ending_at && ending == Ending::kStop) buffer.Stop();
  }
}

SampleMatrix NumberedBlock(std::size_t rows, double& appended) {
  SampleMatrix block(static_cast<Eigen::Index>(rows), kJoints);
  for (Eigen::Index r = 0; r < block.rows(); ++r) block.row(r).setConstant(++appended);
  return block;
}

struct Stream {
  std::shared_ptr<AppendableReferenceBuffer> reference;
  std::unique_ptr<AppendableWindowBuffer> buffer;
  Delivery delivery;

  Stream(std::shared_ptr<AppendableReferenceBuffer> shared, std::size_t prefill,
         std::size_t capacity, std::size_t retained_windows)
      : reference(std::move(shared)),
        buffer(std::make_unique<AppendableWindowBuffer>(
            std::make_unique<AppendableLiftedMpcWindowProducer>(
                std::make_unique<testing::FollowReferenceSolver>(), reference, kApply, kLookahead,
                kSamplePeriod, kGlobalStart),
            reference, prefill, capacity, retained_windows)) {}

  // Runs `consumers` threads and returns once they have all returned.
  void Consume(Ending ending, std::size_t ending_at, int consumers, unsigned seed) {
    std::atomic<std::size_t> popped{0};
    std::vector<std::future<void>> running;
    for (int c = 0; c < consumers; ++c) {
      running.push_back(std::async(std::launch::async, window::Consume, std::ref(*buffer),
                                   std::ref(delivery), ending, std::ref(popped), ending_at,
                                   seed + static_cast<unsigned>(c)));
    }
    // However long the stream, it must never go kHangLimit without delivering.
    for (auto& one : running) {
      std::size_t seen = std::numeric_limits<std::size_t>::max();
      while (one.wait_for(testing_support::kHangLimit) != std::future_status::ready) {
        const std::size_t delivered = delivery.Summarize().contiguous;
        if (delivered == seen) {
          std::fprintf(stderr, "the stream stalled at %zu samples\n", delivered);
          std::abort();
        }
        seen = delivered;
      }
      one.get();
    }
  }
};

TEST(StreamingSoakTest, StressedEndingsDeliverAGaplessPrefixOnce) {
  constexpr std::size_t kSamples = 20'000;
  std::minstd_rand random(7);
  for (int t = 0; t < 18; ++t) {
    const auto ending = static_cast<Ending>(t % 3);
    const std::size_t capacity = 1 + random() % 4, prefill = random() % (capacity + 1);
    SCOPED_TRACE(::testing::Message() << "trial " << t << ", capacity " << capacity);
    double appended = 0.0;
    auto reference = std::make_shared<AppendableReferenceBuffer>(kJoints);
    reference->AppendReference(NumberedBlock(kSamples, appended));
    reference->Finish();
    Stream stream(reference, prefill, capacity, kSamples);
    stream.buffer->Prefill(prefill);
    stream.buffer->Start();
    stream.Consume(ending, random() % (kSamples / kApply), 3, static_cast<unsigned>(random()));
    if (ending == Ending::kDestroy) {
      testing_support::Guarded([&] { stream.buffer.reset(); }, "destruction");
    } else {
      // A window produced while the stop was requested is still queued: collect it too.
      EXPECT_TRUE(stream.buffer->Join(testing_support::kHangLimit));
      while (auto window = stream.buffer->PopNowait()) stream.delivery.Take(*window);
    }
    const Delivery::Tally tally = stream.delivery.Summarize();
    EXPECT_TRUE(tally.settled);
    EXPECT_EQ(tally.faults, 0u);
    if (ending == Ending::kDrain) {
      EXPECT_EQ(tally.contiguous, kSamples);
    }
  }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;  // and slower by an order of magnitude
#else
constexpr bool kSanitized = false;
#endif

// Samples in a simulated hour: real ones at 1 kHz when CORVANE_SOAK_HOURS is set. A minute of
// them is retained.
const bool kRealHours = std::getenv("CORVANE_SOAK_HOURS") != nullptr;
const std::size_t kHours = kRealHours ? std::stoul(std::getenv("CORVANE_SOAK_HOURS")) : 8;
const std::size_t kSamplesPerHour = kRealHours ? 3'600'000 : kSanitized ? 15'000 : 60'000;
const std::size_t kRetainedSamples = kSamplesPerHour / 60;

std::size_t ResidentBytes() {
  std::size_t pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// Appends blocks of 1 to 16 samples, never more than half the retention ahead of what has been
// delivered, for kHours, then finishes. Reports at the end of every hour; returns the resident
// bytes then. What an append costs is measured by bench/reference_append_bench.cpp.
std::vector<std::size_t> AppendHours(Stream& stream) {
  std::mt19937 random(3);
  double appended = 0.0;
  std::vector<std::size_t> resident;
  for (std::size_t hour = 1; hour <= kHours; ++hour) {
    for (std::size_t n; (n = stream.reference->available_samples()) < hour * kSamplesPerHour;) {
      if (!stream.delivery.WaitUntilDelivered(n - std::min(n, kRetainedSamples / 2))) {
        ADD_FAILURE() << "the stream stalled at " << n << " samples";
        return resident;
      }
      stream.reference->AppendReference(NumberedBlock(1 + random() % 16, appended));
    }
    const Clock::time_point start = Clock::now();
    const QualificationReport report = stream.buffer->Qualify(1.0);
    const std::chrono::duration<double> qualify = Clock::now() - start;
    resident.push_back(ResidentBytes());
    std::printf("hour %zu: %zu samples, resident %.1f MiB, Qualify of %zu windows %.3f s\n", hour,
                stream.reference->available_samples(), double(resident.back()) / (1 << 20),
                report.total_windows, qualify.count());
  }
  stream.reference->Finish();
  return resident;
}

TEST(StreamingSoakTest, HoursOfRetainedStreamingHoldFlatMemory) {
  Stream stream(std::make_shared<AppendableReferenceBuffer>(kJoints, kRetainedSamples), 0, 8,
                kSamplesPerHour / kApply);
  stream.buffer->Start();
  auto appender = std::async(std::launch::async, AppendHours, std::ref(stream));
  stream.Consume(Ending::kDrain, 0, 2, 5);
  const std::vector<std::size_t> resident = appender.get();
  ASSERT_TRUE(stream.buffer->Join(testing_support::kHangLimit));
  EXPECT_EQ(stream.buffer->LastError(), std::nullopt);

  // Every sample once; the producer held samples where the appender fell behind.
  const std::size_t samples = stream.reference->available_samples();
  const Delivery::Tally tally = stream.delivery.Summarize();
  EXPECT_GE(samples, kHours * kSamplesPerHour);
  EXPECT_EQ(tally.contiguous, samples);
  EXPECT_TRUE(tally.settled);
  EXPECT_EQ(tally.faults, 0u);

  // Flat from the first hour on, but for the working copies of Qualify calls, which the allocator
  // may keep (one per calling thread). The sanitizers' allocators hold on to freed memory.
  ASSERT_EQ(resident.size(), kHours);
  const std::size_t allowed = (2 << 20) + 2 * kSamplesPerHour / kApply * sizeof(double);
  EXPECT_TRUE(kSanitized ||
              *std::max_element(resident.begin(), resident.end()) <= resident.front() + allowed);

  // The totals cover the whole life, the report the last hour.
  const ProductionTotals totals = stream.buffer->Totals();
  EXPECT_EQ(totals.total_windows, (samples + kApply - 1) / kApply);
  EXPECT_EQ(stream.buffer->Qualify(1.0).total_windows, kSamplesPerHour / kApply);
}

}  // namespace
}  // namespace corvane::control::window
