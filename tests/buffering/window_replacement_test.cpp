// Replacing the unplayed reference: where production resumes and what is discarded, the refusals
// that change nothing, and a stale window in flight. Racing threads are the lifecycle fuzzer's.
#include <chrono>
#include <functional>
#include <future>
#include <stdexcept>
#include <utility>

#include <gtest/gtest.h>

#include "support/follow_reference_solver.hpp"
#include "support/scripted_producer.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {
namespace {

using testing::MessageOf;
constexpr auto kDeadline = std::chrono::seconds(10);
constexpr double kComputeS = 100.0;  // declared per window: more than any solve takes

// Every produced window's compute time is spent, but only the windows handed out, [0, played)
// at 1 ms a sample, add their duration: with compute over duration, the last margin is smallest.
void ExpectMarginOfPlayedWindows(AsyncWindowBuffer& buffer, std::size_t played) {
  const QualificationReport report = buffer.Qualify(1.0);
  EXPECT_NEAR(report.min_margin_s,
              0.001 * double(played) - kComputeS * double(report.total_windows), 1e-9);
}

SampleMatrix Ramp(Eigen::Index rows, double first) {
  return Eigen::VectorXd::LinSpaced(rows, first, first + double(rows - 1));
}

// One joint whose reference sample i is i, echoed in windows of 4 samples. Unless `on_solve`
// holds a solve (the worker then runs), [0, 4) ... [12, 16) of 20 samples are queued and [0, 4)
// handed out.
struct Stream {
  explicit Stream(std::function<void()> hold = {}) : on_solve(std::move(hold)) {
    buffer.AttachTimingLog(log);
    reference->AppendReference(Ramp(on_solve ? 8 : 20, 0.0));
    if (on_solve) {
      buffer.Start();
      return;
    }
    EXPECT_EQ(buffer.Prefill(4), 4u);
    EXPECT_TRUE(buffer.PopNowait());
  }
  // Pops until the end (produces the rest first, when not started), checking that windows run on
  // from `next` without gap or repeat.
  std::vector<WindowPayload> Drain(std::size_t next) {
    if (!on_solve) buffer.Prefill(10);
    std::vector<WindowPayload> windows;
    while (auto window = buffer.Pop(on_solve ? kDeadline : kDeadline * 0)) {
      EXPECT_EQ(window->start_index, std::exchange(next, window->stop_index));
      windows.push_back(std::move(*window));
    }
    return windows;
  }
  std::function<void()> on_solve;
  std::shared_ptr<std::vector<SolveResumePoint>> resumes =
      std::make_shared<std::vector<SolveResumePoint>>();
  std::shared_ptr<AppendableReferenceBuffer> reference =
      std::make_shared<AppendableReferenceBuffer>(1);
  AppendableWindowBuffer buffer{
      std::make_unique<AppendableLiftedMpcWindowProducer>(
          std::make_unique<testing::ResumableFollowSolver>(resumes, on_solve, kComputeS), reference,
          4, 8, 0.001, 0),
      reference};
  std::shared_ptr<TimingLog> log = std::make_shared<TimingLog>(64);
};

TEST(WindowReplacementTest, ResumesAtTheStartOfTheWindowHoldingTheJoin) {
  struct Case {
    const char* name;
    std::size_t start;  // the join; a smooth stop holding sample 3 when 0
    std::size_t resume;
    std::size_t discarded;
  };
  for (const Case& c : {Case{"next window", 4, 4, 3}, Case{"inside a window", 6, 4, 3},
                        Case{"between windows", 12, 12, 1}, Case{"end of production", 16, 16, 0},
                        Case{"beyond production", 18, 16, 0}, Case{"end of reference", 20, 16, 0},
                        Case{"smooth stop", 0, 4, 3}}) {
    SCOPED_TRACE(c.name);
    Stream stream;
    const std::size_t start = c.start > 0 ? c.start : 4;
    const ReferenceReplacement done =
        c.start > 0 ? stream.buffer.ReplaceReference(c.start, Ramp(6, 1000.0), true)
                    : stream.buffer.StopSmoothly(6);
    EXPECT_EQ(done.start_index + done.resume_index + done.discarded_windows + done.replacements,
              start + c.resume + c.discarded + 1);
    EXPECT_EQ(done.stop_index + stream.buffer.Replacements().discarded_windows,
              start + 6 + c.discarded);
    const std::vector<WindowPayload> windows = stream.Drain(4);
    ExpectMarginOfPlayedWindows(stream.buffer, windows.empty() ? 4 : windows.back().stop_index);
    // The log times the windows handed out, each by its own entry, none by a discarded one's.
    const std::vector<WindowTiming> timed = stream.log->Read(1).entries;
    ASSERT_EQ(timed.size(), windows.size());
    for (std::size_t i = 0; i < timed.size(); ++i) {
      EXPECT_EQ(std::make_pair(timed[i].start_index, timed[i].stop_index),
                std::make_pair(windows[i].start_index, windows[i].stop_index));
    }
    for (const WindowPayload& window : windows) {
      for (Eigen::Index row = 0; row < window.positions.rows(); ++row) {
        const std::size_t i = window.start_index + std::size_t(row);
        EXPECT_EQ(window.positions(row, 0), i < start     ? double(i)
                                            : c.start > 0 ? 1000.0 + double(i - start)
                                                          : 3.0);
      }
      EXPECT_EQ(window.metadata.count(kReplacementsMetadataKey),
                std::size_t(window.start_index >= c.resume));
    }
    ASSERT_EQ(stream.resumes->size(), 1u);
    EXPECT_EQ(stream.resumes->back().previous_command->positions(0), double(c.resume - 1));
  }
}

TEST(WindowReplacementTest, ARefusedReplacementChangesNothing) {
  struct Case {
    std::function<void(AppendableWindowBuffer&)> call;
    bool invalid_argument;  // else std::runtime_error
    const char* message;
  };
  for (const Case& c : std::vector<Case>{
           {[](auto& b) { b.ReplaceReference(3, Ramp(2, 0.0)); }, true,
            "start_index must be at least the earliest replaceable index 4."},
           {[](auto& b) { b.ReplaceReference(21, Ramp(2, 0.0)); }, true,
            "start_index must not exceed the 20 stored samples."},
           {[](auto& b) { b.ReplaceReference(8, SampleMatrix::Zero(1, 2)); }, true,
            "command joint count does not match the appendable buffer."},
           {[](auto& b) { b.StopSmoothly(0); }, true, "hold_samples must be positive."},
           {[](auto& b) { b.Finish(), b.ReplaceReference(8, Ramp(2, 0.0)); }, false,
            "Cannot replace reference samples after Finish()."}}) {
    Stream stream;
    const auto call = [&] { c.call(stream.buffer); };
    EXPECT_EQ(c.invalid_argument ? MessageOf<std::invalid_argument>(call)
                                 : MessageOf<std::runtime_error>(call),
              c.message);
    stream.buffer.Finish();
    const std::vector<WindowPayload> windows = stream.Drain(4);
    ASSERT_EQ(windows.size(), 4u);
    EXPECT_EQ(windows.back().positions(3, 0), 19.0);
    EXPECT_EQ(stream.buffer.Replacements().replacements, 0u);
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
  std::promise<void> solving, release;
  std::shared_future<void> released = release.get_future().share();
  bool first = true;  // the worker's alone
  Stream stream([&] {
    if (!std::exchange(first, false)) return;
    solving.set_value();
    released.wait_for(kDeadline);
  });
  ASSERT_EQ(solving.get_future().wait_for(kDeadline), std::future_status::ready);
  EXPECT_EQ(stream.buffer.ReplaceReference(2, Ramp(6, 1000.0), true).resume_index, 0u);
  release.set_value();
  const std::vector<WindowPayload> windows = stream.Drain(0);
  ASSERT_EQ(windows.size(), 2u);
  EXPECT_EQ(windows[0].positions(2, 0), 1000.0);
  EXPECT_EQ(stream.buffer.Replacements().discarded_windows, 1u);
  ExpectMarginOfPlayedWindows(stream.buffer, windows.back().stop_index);
}

}  // namespace
}  // namespace corvane::control::window
