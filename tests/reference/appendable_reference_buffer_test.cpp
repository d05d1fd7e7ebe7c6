// Waiting for samples. What each call stores, returns and throws, in every order of calls and
// with or without a retention, is checked against a model by fuzz/reference_buffer_fuzzer.cpp,
// whose corpus runs as a test.
#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

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
