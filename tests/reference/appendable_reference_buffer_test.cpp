#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/detached_call.hpp"
#include "window/reference_buffer.hpp"

namespace corvane::control::window {
namespace {

using std::chrono::milliseconds;
using Buffer = AppendableReferenceBuffer;

// A buffer of `count` samples of three joints; sample i is (i, i, i).
std::shared_ptr<Buffer> BufferWith(Eigen::Index count) {
  auto buffer = std::make_shared<Buffer>(3);
  buffer->AppendReference(Eigen::VectorXd::LinSpaced(count, 0, double(count - 1)).replicate(1, 3));
  return buffer;
}

template <typename Error = std::invalid_argument>
auto Throws(const char* message) {
  return testing::ThrowsMessage<Error>(testing::StrEq(message));
}

// Shape and values are checked before the finished state, the finished state before the joint
// count; a failing call leaves the samples as they were.
TEST(AppendableReferenceBuffer, RejectsBadCallsInOrderAndKeepsItsSamples) {
  const double inf = std::numeric_limits<double>::infinity();
  const auto open = BufferWith(5), done = BufferWith(5), empty = std::make_shared<Buffer>();
  done->Finish();
  using Call = std::function<void()>;
  EXPECT_THAT(Call([] { Buffer(0); }), Throws("joint_count must be positive when provided."));
  EXPECT_THAT(Call([&] { done->AppendReference(SampleMatrix(2, 0)); }),
              Throws("command must have at least one joint column."));
  EXPECT_THAT(Call([&] {
                done->AppendReference(SampleMatrix{{1, 2, 3}, {4, 5, -inf}});
              }),
              Throws("command must be finite."));
  EXPECT_THAT(Call([&] { done->AppendReference(SampleMatrix::Ones(1, 4)); }),
              Throws<std::runtime_error>("Cannot append reference samples after Finish()."));
  EXPECT_THAT(Call([&] { open->AppendReference(SampleMatrix::Ones(1, 4)); }),
              Throws("command joint count does not match the appendable buffer."));
  EXPECT_THAT(Call([&] { empty->ExtendHoldTo(3); }),
              Throws("Cannot extend hold before the first reference sample."));
  EXPECT_THAT(Call([&] { empty->WindowWithTerminalPadding(4, 4); }),
              Throws("Invalid reference window indices."));
  EXPECT_THAT(Call([&] { open->WindowWithTerminalPadding(5, 6); }),
              Throws("Requested window starts beyond available samples."));
  // Counts past every Eigen index could never be stored: they fail as allocations do.
  constexpr std::size_t kTop = std::numeric_limits<std::size_t>::max();
  EXPECT_THROW(open->WindowWithTerminalPadding(0, kTop), std::bad_alloc);
  EXPECT_THROW(open->ExtendHoldTo(kTop / 2 + 2), std::bad_alloc);
  EXPECT_EQ(open->PositionsCopy(), BufferWith(5)->PositionsCopy());
  EXPECT_EQ(done->available_samples(), 5u);
}

TEST(AppendableReferenceBuffer, HoldsAndPaddedWindowsRepeatTheLastSample) {
  Buffer buffer;
  EXPECT_EQ(buffer.AppendReference(SampleMatrix(0, 4)).stop_index, 0u);  // fixes no joint count
  EXPECT_EQ(buffer.AppendReference(BufferWith(2)->PositionsCopy()).stop_index, 2u);
  EXPECT_EQ(buffer.ExtendHoldTo(5), 3u);
  EXPECT_EQ(buffer.ExtendHoldTo(4), 0u);
  EXPECT_EQ(buffer.AppendReference(SampleMatrix::Constant(1, 3, 7)).start_index, 5u);
  const ReferenceWindow padded = buffer.WindowWithTerminalPadding(3, 9);
  const ReferenceWindow inside = buffer.WindowWithTerminalPadding(1, 4);
  buffer.Finish();
  EXPECT_EQ(buffer.ExtendHoldTo(7), 1u);  // allowed after Finish()
  const AppendedRange nothing = buffer.AppendReference(SampleMatrix(0, 0));
  EXPECT_EQ(nothing.start_index + nothing.stop_index, 14u);
  EXPECT_EQ(padded.terminal_padding_samples, 3u);
  EXPECT_EQ(padded.positions.col(1), (Eigen::VectorXd(6) << 1, 1, 7, 7, 7, 7).finished());
  EXPECT_EQ(inside.terminal_padding_samples, 0u);
  EXPECT_EQ(inside.positions, SampleMatrix::Ones(3, 3));
  EXPECT_EQ(buffer.PositionsCopy().col(2), (Eigen::VectorXd(7) << 0, 1, 1, 1, 1, 7, 7).finished());
}

// WaitUntilSamples(10) on 4 samples, on a thread of its own, is still waiting before each step
// that disturbs the buffer; after the last it must wake and tell whether 10 samples are there.
TEST(AppendableReferenceBuffer, WaitWithoutTimeOutEndsOnEnoughSamplesOrFinish) {
  using Step = std::function<void(Buffer&)>;
  const Step finish = [](Buffer& b) { b.Finish(); };
  const Step append_two = [](Buffer& b) { b.AppendReference(SampleMatrix::Ones(2, 3)); };
  const Step hold_to_ten = [](Buffer& b) { b.ExtendHoldTo(10); };
  const std::pair<std::vector<Step>, bool> cases[] = {{{finish}, false},
                                                      {{append_two, append_two, append_two}, true},
                                                      {{hold_to_ten}, true},
                                                      {{append_two, finish}, false},
                                                      {{append_two, hold_to_ten}, true}};
  for (const auto& [steps, reached] : cases) {
    const auto buffer = BufferWith(4);
    auto result = testing_support::StartDetached([buffer] { return buffer->WaitUntilSamples(10); });
    for (const Step& step : steps) {
      ASSERT_EQ(result.wait_for(milliseconds(20)), std::future_status::timeout);  // still waiting
      step(*buffer);
    }
    ASSERT_TRUE(testing_support::ReadyInTime(result));
    EXPECT_EQ(result.get(), reached);
  }
}

TEST(AppendableReferenceBuffer, WaitWithTimeOutChecksOnceOrGivesUpAtTheDeadline) {
  const auto buffer = BufferWith(4);
  const auto wait = [buffer](std::size_t count, std::optional<std::chrono::nanoseconds> timeout) {
    return testing_support::Guarded([=] { return buffer->WaitUntilSamples(count, timeout); });
  };
  EXPECT_TRUE(wait(0, std::nullopt) && wait(4, milliseconds(0)));
  EXPECT_FALSE(wait(10, milliseconds(-1)) || wait(10, milliseconds(0)));
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(wait(10, milliseconds(50)));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(50));
  buffer->ExtendHoldTo(10);
  buffer->Finish();
  EXPECT_TRUE(wait(10, std::nullopt));  // reached, although also finished
}

}  // namespace
}  // namespace corvane::control::window
