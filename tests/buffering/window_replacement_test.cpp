// Replacing the unplayed reference: where production resumes and what is discarded, the refusals
// that change nothing, a stale window in flight, and contiguity under racing threads.
#include <chrono>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "support/follow_reference_solver.hpp"
#include "support/scripted_producer.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {
namespace {

using testing::MessageOf;
constexpr auto kDeadline = std::chrono::seconds(10);

SampleMatrix Ramp(Eigen::Index rows, double first) {
  return Eigen::VectorXd::LinSpaced(rows, first, first + double(rows - 1));
}

// One joint whose reference sample i is i; windows of 4 samples echo the reference.
struct Stream {
  explicit Stream(Eigen::Index samples, std::function<void()> on_solve = {},
                  std::optional<std::size_t> capacity = std::nullopt)
      : buffer(std::make_unique<AppendableLiftedMpcWindowProducer>(
                   std::make_unique<testing::ResumableFollowSolver>(resumes, std::move(on_solve)),
                   reference, 4, 8, 0.001, 0),
               reference, 0, capacity) {
    if (samples > 0) reference->AppendReference(Ramp(samples, 0.0));
  }
  // Pops until the end (what is queued, when `wait` is 0), checking that windows run on from
  // `next` without gap or repeat.
  std::vector<WindowPayload> Drain(std::size_t next, std::chrono::nanoseconds wait = {}) {
    std::vector<WindowPayload> windows;
    while (auto window = buffer.Pop(wait)) {
      EXPECT_EQ(window->start_index, next);
      next = window->stop_index;
      windows.push_back(std::move(*window));
    }
    return windows;
  }
  std::shared_ptr<std::vector<SolveResumePoint>> resumes =
      std::make_shared<std::vector<SolveResumePoint>>();
  std::shared_ptr<AppendableReferenceBuffer> reference =
      std::make_shared<AppendableReferenceBuffer>(1);
  AppendableWindowBuffer buffer;
};

// Windows [0, 4) ... [12, 16) of 20 samples are produced and the first is handed out.
void ProduceFourPopOne(Stream& stream) {
  ASSERT_EQ(stream.buffer.Prefill(4), 4u);
  ASSERT_TRUE(stream.buffer.PopNowait());
  ASSERT_EQ(stream.buffer.EarliestReplaceableIndex(), 4u);
}

TEST(WindowReplacementTest, ResumesAtTheStartOfTheWindowHoldingTheJoin) {
  struct Case {
    const char* name;
    std::size_t start;  // the join; a smooth stop when 0
    std::size_t resume;
    std::size_t discarded;
  };
  for (const Case& c : {Case{"next window", 4, 4, 3}, Case{"inside a queued window", 6, 4, 3},
                        Case{"between queued windows", 12, 12, 1},
                        Case{"end of production", 16, 16, 0}, Case{"beyond production", 18, 16, 0},
                        Case{"end of reference", 20, 16, 0}, Case{"smooth stop", 0, 4, 3}}) {
    SCOPED_TRACE(c.name);
    Stream stream(20);
    ProduceFourPopOne(stream);
    const ReferenceReplacement done =
        c.start > 0 ? stream.buffer.ReplaceReference(c.start, Ramp(6, 1000.0), true)
                    : stream.buffer.StopSmoothly(6);
    const std::size_t start = c.start > 0 ? c.start : 4;
    EXPECT_EQ(done.start_index, start);
    EXPECT_EQ(done.stop_index, start + 6);
    EXPECT_EQ(done.resume_index, c.resume);
    EXPECT_EQ(done.discarded_windows, c.discarded);
    EXPECT_EQ(done.replacements, 1u);
    EXPECT_EQ(stream.buffer.Replacements().discarded_windows, c.discarded);

    stream.buffer.Prefill(10);
    for (const WindowPayload& window : stream.Drain(4)) {
      for (Eigen::Index row = 0; row < window.positions.rows(); ++row) {
        const std::size_t i = window.start_index + std::size_t(row);
        const double spliced = i < start     ? double(i)
                               : c.start > 0 ? 1000.0 + double(i - start)
                                             : 3.0;
        EXPECT_EQ(window.positions(row, 0), spliced) << i;
      }
      EXPECT_EQ(window.metadata.count(kReplacementsMetadataKey),
                window.start_index >= c.resume ? 1u : 0u);
    }
    ASSERT_EQ(stream.resumes->size(), 1u);
    EXPECT_EQ(stream.resumes->back().start_index, c.resume);
    EXPECT_EQ(stream.resumes->back().previous_command->positions(0), double(c.resume - 1));
  }
}

TEST(WindowReplacementTest, ARefusedReplacementChangesNothing) {
  struct Case {
    const char* name;
    std::function<std::string(AppendableWindowBuffer&)> call;
    const char* message;
  };
  using Invalid = std::invalid_argument;
  const SampleMatrix nan = Ramp(2, std::nan(""));
  const SampleMatrix two_joints = SampleMatrix::Zero(2, 2);
  for (const Case& c : std::vector<Case>{
           {"before the earliest",
            [](auto& b) {
              return MessageOf<Invalid>([&] { b.ReplaceReference(3, Ramp(2, 0.0)); });
            },
            "start_index must be at least the earliest replaceable index 4."},
           {"beyond the reference",
            [](auto& b) {
              return MessageOf<Invalid>([&] { b.ReplaceReference(21, Ramp(2, 0.0)); });
            },
            "start_index must not exceed the 20 stored samples."},
           {"not finite",
            [&](auto& b) { return MessageOf<Invalid>([&] { b.ReplaceReference(8, nan); }); },
            "command must be finite."},
           {"joint count",
            [&](auto& b) { return MessageOf<Invalid>([&] { b.ReplaceReference(8, two_joints); }); },
            "command joint count does not match the appendable buffer."},
           {"no hold", [](auto& b) { return MessageOf<Invalid>([&] { b.StopSmoothly(0); }); },
            "hold_samples must be positive."},
           {"after finish",
            [](auto& b) {
              b.Finish();
              return MessageOf<std::runtime_error>([&] { b.ReplaceReference(8, Ramp(2, 0.0)); });
            },
            "Cannot replace reference samples after Finish()."}}) {
    SCOPED_TRACE(c.name);
    Stream stream(20);
    ProduceFourPopOne(stream);
    EXPECT_EQ(c.call(stream.buffer), c.message);
    EXPECT_EQ(stream.buffer.Replacements().replacements, 0u);
    stream.buffer.Finish();
    stream.buffer.Prefill(10);
    const std::vector<WindowPayload> windows = stream.Drain(4);
    ASSERT_EQ(windows.size(), 4u);
    EXPECT_EQ(windows.back().stop_index, 20u);
    EXPECT_EQ(windows.back().positions(3, 0), 19.0);
  }
}

TEST(WindowReplacementTest, RefusesWithoutAResumableSolverOrBehindTheRetention) {
  auto reference = std::make_shared<AppendableReferenceBuffer>(1);
  AppendableWindowBuffer buffer(
      std::make_unique<AppendableLiftedMpcWindowProducer>(
          std::make_unique<testing::FollowReferenceSolver>(), reference, 4, 8, 0.001, 0),
      reference);
  EXPECT_EQ(MessageOf<std::runtime_error>([&] { buffer.ReplaceReference(0, Ramp(2, 0.0)); }),
            "ReplaceReference() needs a producer that can resume.");

  // Samples 6 to 9 are retained; the ring slot of sample 5 then holds sample 9, so shortening
  // the stream must not bring sample 5 back.
  AppendableReferenceBuffer retained(1, 4);
  retained.AppendReference(Ramp(10, 0.0));
  EXPECT_EQ(MessageOf<std::invalid_argument>([&] { retained.ReplaceReference(5, Ramp(1, 0.0)); }),
            "start_index 5 is before the first retained sample 6.");
  retained.ReplaceReference(8, Ramp(1, 1000.0));
  EXPECT_EQ(retained.PositionsCopy(), (SampleMatrix(3, 1) << 6.0, 7.0, 1000.0).finished());
}

// The worker is solving [0, 4) when sample 2 on is replaced: that window must not come out.
TEST(WindowReplacementTest, AWindowInFlightWhenItsSamplesAreReplacedIsNeverHandedOut) {
  std::promise<void> solving;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  bool first = true;
  Stream stream(8, [&] {
    if (!std::exchange(first, false)) return;
    solving.set_value();
    released.wait_for(kDeadline);
  });
  stream.buffer.Start();
  ASSERT_EQ(solving.get_future().wait_for(kDeadline), std::future_status::ready);
  const ReferenceReplacement done = stream.buffer.ReplaceReference(2, Ramp(6, 1000.0), true);
  release.set_value();
  EXPECT_EQ(done.resume_index, 0u);
  const std::vector<WindowPayload> windows = stream.Drain(0, kDeadline);
  ASSERT_EQ(windows.size(), 2u);
  EXPECT_EQ(windows[0].positions(2, 0), 1000.0);
  EXPECT_EQ(windows[1].metadata.at(kReplacementsMetadataKey), "1");
  EXPECT_EQ(stream.buffer.Replacements().discarded_windows, 1u);
}

// Appends, replacements at the earliest index and pops race on three threads; the popped windows
// must still follow one another without gap or repeat up to the end of the reference.
TEST(WindowReplacementTest, RacingReplacementsNeverLoseOrRepeatAWindow) {
  Stream stream(0, {}, 4);
  stream.buffer.Start();
  std::thread appender([&] {
    for (int block = 0; block < 200; ++block) stream.buffer.AppendReference(Ramp(3, 0.0));
  });
  std::thread replacer([&] {
    for (int round = 0; round < 200; ++round) {
      try {
        stream.buffer.ReplaceReference(stream.buffer.EarliestReplaceableIndex(), Ramp(5, 1.0));
      } catch (const std::invalid_argument&) {
        // A pop moved the earliest index on meanwhile.
      }
    }
  });
  std::vector<WindowPayload> windows;
  std::thread popper([&] { windows = stream.Drain(0, kDeadline); });
  appender.join();
  replacer.join();
  stream.buffer.Finish();
  popper.join();
  ASSERT_FALSE(windows.empty());
  EXPECT_GT(stream.buffer.Replacements().replacements, 0u);
  EXPECT_EQ(windows.back().stop_index, stream.buffer.AvailableReferenceSamples());
}

}  // namespace
}  // namespace corvane::control::window
