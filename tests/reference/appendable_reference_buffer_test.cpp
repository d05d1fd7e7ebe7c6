#include <chrono>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <stdexcept>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/detached_call.hpp"
#include "window/reference_buffer.hpp"

namespace corvane::control::window {
namespace {

using std::chrono::milliseconds;
using Call = std::function<void()>;

template <typename Error>
testing::Matcher<Call> Throws(const char* message) {
  return testing::ThrowsMessage<Error>(testing::StrEq(message));
}

// A buffer of `count` samples of three joints; sample i is (i, i, i).
AppendableReferenceBuffer BufferWith(Eigen::Index count) {
  AppendableReferenceBuffer buffer(3);
  buffer.AppendReference(Eigen::VectorXd::LinSpaced(count, 0, double(count - 1)).replicate(1, 3));
  return buffer;
}

TEST(AppendableReferenceBuffer, FirstAppendFixesTheJointCountAndEmptyBlocksChangeNothing) {
  AppendableReferenceBuffer buffer;
  EXPECT_EQ(buffer.AppendReference(SampleMatrix(0, 4)).stop_index, 0u);
  EXPECT_EQ(buffer.PositionsCopy().cols(), 0);
  EXPECT_EQ(buffer.AppendReference(SampleMatrix::Constant(2, 3, 1.5)).stop_index, 2u);
  buffer.Finish();
  const AppendedRange empty = buffer.AppendReference(SampleMatrix(0, 0));
  EXPECT_EQ(empty.start_index + empty.stop_index, 4u);
  EXPECT_EQ(buffer.PositionsCopy(), SampleMatrix::Constant(2, 3, 1.5));
}

// Each failing call leaves the samples as they were; the cases also fix the order of the checks
// (shape and values before the finished state, the finished state before the joint count).
TEST(AppendableReferenceBuffer, RejectsBadCallsInOrderAndKeepsItsSamples) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  AppendableReferenceBuffer open = BufferWith(5), finished = BufferWith(5), empty;
  finished.Finish();
  const std::pair<Call, testing::Matcher<Call>> cases[] = {
      {[] { AppendableReferenceBuffer(0); },
       Throws<std::invalid_argument>("joint_count must be positive when provided.")},
      {[&] { finished.AppendReference(SampleMatrix(2, 0)); },
       Throws<std::invalid_argument>("command must have at least one joint column.")},
      {[&] {
         open.AppendReference(SampleMatrix{{1, 2, 3}, {4, 5, -inf}});
       },
       Throws<std::invalid_argument>("command must be finite.")},
      {[&] {
         finished.AppendReference(SampleMatrix{{nan, 2, 3}});
       },
       Throws<std::invalid_argument>("command must be finite.")},
      {[&] { finished.AppendReference(SampleMatrix::Ones(1, 4)); },
       Throws<std::runtime_error>("Cannot append reference samples after Finish().")},
      {[&] { open.AppendReference(SampleMatrix::Ones(1, 4)); },
       Throws<std::invalid_argument>("command joint count does not match the appendable buffer.")},
      {[&] { empty.ExtendHoldTo(3); },
       Throws<std::invalid_argument>("Cannot extend hold before the first reference sample.")},
      {[&] { empty.WindowWithTerminalPadding(4, 4); },
       Throws<std::invalid_argument>("Invalid reference window indices.")},
      {[&] { open.WindowWithTerminalPadding(5, 6); },
       Throws<std::invalid_argument>("Requested window starts beyond available samples.")},
  };
  for (const auto& [call, error] : cases) EXPECT_THAT(call, error);
  EXPECT_EQ(open.PositionsCopy(), BufferWith(5).PositionsCopy());
  EXPECT_EQ(finished.available_samples(), 5u);
}

TEST(AppendableReferenceBuffer, HoldsAndWindowsRepeatTheLastSample) {
  AppendableReferenceBuffer buffer = BufferWith(2);
  EXPECT_EQ(buffer.ExtendHoldTo(5), 3u);
  EXPECT_EQ(buffer.ExtendHoldTo(4), 0u);
  buffer.AppendReference(SampleMatrix::Constant(1, 3, 7));  // behind the held samples
  const ReferenceWindow padded = buffer.WindowWithTerminalPadding(3, 9);
  const ReferenceWindow inside = buffer.WindowWithTerminalPadding(1, 4);
  buffer.Finish();
  EXPECT_EQ(buffer.ExtendHoldTo(7), 1u);  // a hold is allowed after Finish()
  EXPECT_EQ(padded.terminal_padding_samples, 3u);
  EXPECT_EQ(padded.positions.col(1), (Eigen::VectorXd(6) << 1, 1, 7, 7, 7, 7).finished());
  EXPECT_EQ(inside.terminal_padding_samples, 0u);
  EXPECT_EQ(inside.positions, SampleMatrix::Ones(3, 3));
  EXPECT_EQ(buffer.PositionsCopy().col(2), (Eigen::VectorXd(7) << 0, 1, 1, 1, 1, 7, 7).finished());
}

// WaitUntilSamples(10) on 4 samples runs on its own thread; this one disturbs the buffer once the
// waiter has started.
TEST(AppendableReferenceBuffer, WaitEndsOnEnoughSamplesOrFinish) {
  const std::pair<std::function<void(AppendableReferenceBuffer&)>, bool> cases[] = {
      {[](auto& b) { b.Finish(); }, false},
      {[](auto& b) { b.AppendReference(SampleMatrix::Ones(6, 3)); }, true},
      {[](auto& b) { b.ExtendHoldTo(12); }, true},
      {[](auto& b) {
         b.AppendReference(SampleMatrix::Ones(2, 3));  // 6 samples: not yet
         b.ExtendHoldTo(10);
       },
       true},
  };
  for (const auto& [disturb, reached] : cases) {
    auto buffer = std::make_shared<AppendableReferenceBuffer>(BufferWith(4));
    auto started = std::make_shared<std::promise<void>>();
    std::future<void> waiting = started->get_future();
    std::future<bool> result = testing_support::StartDetached([buffer, started] {
      started->set_value();
      return buffer->WaitUntilSamples(10, std::nullopt);
    });
    waiting.wait();
    disturb(*buffer);
    ASSERT_TRUE(testing_support::ReadyInTime(result));
    EXPECT_EQ(result.get(), reached);
  }
}

TEST(AppendableReferenceBuffer, WaitWithTimeOutChecksOnceOrGivesUpAtTheDeadline) {
  AppendableReferenceBuffer buffer = BufferWith(4);
  EXPECT_TRUE(buffer.WaitUntilSamples(0, std::nullopt));
  EXPECT_TRUE(buffer.WaitUntilSamples(4, milliseconds(-1)));
  EXPECT_FALSE(buffer.WaitUntilSamples(10, milliseconds(0)));
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(buffer.WaitUntilSamples(10, milliseconds(50)));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(50));
  buffer.ExtendHoldTo(10);
  buffer.Finish();
  EXPECT_TRUE(buffer.WaitUntilSamples(10, std::nullopt));  // reached, although also finished
}

TEST(AppendableReferenceBuffer, MovesCarryTheWholeState) {
  AppendableReferenceBuffer source = BufferWith(4), assigned(2);
  source.Finish();
  AppendableReferenceBuffer moved(std::move(source));
  assigned = std::move(moved);
  EXPECT_EQ(assigned.PositionsCopy(), BufferWith(4).PositionsCopy());
  EXPECT_TRUE(assigned.is_finished());
}

}  // namespace
}  // namespace corvane::control::window
