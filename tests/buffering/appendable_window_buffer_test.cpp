// The streaming buffer: forwarding to the reference buffer, the stop that finishes the reference
// first, and a producer that reads behind the reference's retention. A stream end to end is the
// streaming soak's.
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "support/follow_reference_solver.hpp"
#include "support/scripted_producer.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {
namespace {

using testing::MessageOf;
using testing::Recorded;
using testing_support::Guarded;

// A buffer over a reference of two joints whose producer, as the lifted-MPC producer does, waits
// for the first reference sample; `recorded` counts its calls.
struct Stream {
  std::shared_ptr<AppendableReferenceBuffer> reference =
      std::make_shared<AppendableReferenceBuffer>(2);
  Recorded recorded{testing::Altered(testing::Script(), [reference = reference](auto, auto) {
    reference->WaitUntilSamples(1);
    return std::optional<WindowPayload>();
  })};
  AppendableWindowBuffer buffer{std::move(recorded.producer), reference};
};

SampleMatrix Block(Eigen::Index rows, double first_value) {
  SampleMatrix block(rows, 2);
  for (Eigen::Index r = 0; r < rows; ++r) block.row(r).setConstant(first_value + double(r));
  return block;
}

TEST(AppendableWindowBufferTest, ConstructorChecksTheBaseFirst) {
  using Error = std::invalid_argument;
  EXPECT_EQ(MessageOf<Error>([] { AppendableWindowBuffer(nullptr, nullptr); }),
            "producer must not be null.");
  EXPECT_EQ(MessageOf<Error>([] { AppendableWindowBuffer(Recorded().producer, nullptr, 2, 1); }),
            "prefill_windows must not exceed queue capacity.");
  Recorded recorded;
  EXPECT_EQ(
      MessageOf<Error>([&] { AppendableWindowBuffer(std::move(recorded.producer), nullptr); }),
      "reference_buffer must not be null.");
  EXPECT_EQ(recorded.log->Count(testing::CallLog::kDestroy), 1u);
}

TEST(AppendableWindowBufferTest, ForwardsToTheSharedReference) {
  Stream stream;
  const AppendedRange range = stream.buffer.AppendReference(Block(2, 1.0));
  EXPECT_EQ(range.start_index, 0u);
  EXPECT_EQ(range.stop_index, 2u);
  EXPECT_EQ(stream.buffer.AvailableReferenceSamples(), 2u);
  const SampleMatrix before = stream.buffer.ReferencePositions();
  stream.buffer.AppendReference(Block(1, 3.0));
  EXPECT_EQ(before.rows(), 2);  // a copy, not a view
  EXPECT_EQ(stream.reference->available_samples(), 3u);

  stream.buffer.Stop();
  EXPECT_TRUE(stream.reference->is_finished());
  EXPECT_EQ(MessageOf<std::runtime_error>([&] { stream.buffer.AppendReference(Block(1, 4.0)); }),
            "Cannot append reference samples after Finish().");
}

// A producer blocked on its first reference sample is released by the stop of Close() and by
// the destructor, each called once the producer has begun to wait.
TEST(AppendableWindowBufferTest, CloseAndDestructionReturnWhileTheProducerWaitsForSamples) {
  {
    Stream stream;
    stream.buffer.Start();
    ASSERT_TRUE(stream.recorded.log->WaitFor(testing::CallLog::kProduce, 1));
    Guarded([&] { stream.buffer.Close(); }, "Close");
    EXPECT_FALSE(stream.buffer.PopNowait().has_value());
    EXPECT_TRUE(stream.buffer.IsComplete());
  }
  auto stream = std::make_unique<Stream>();
  stream->buffer.Start();
  ASSERT_TRUE(stream->recorded.log->WaitFor(testing::CallLog::kProduce, 1));
  Guarded([&] { stream.reset(); }, "destruction");
}

// Ten samples arrive before the producer starts; it asks for sample 0, of which 4 are kept. Its
// failure names the first retained sample.
TEST(AppendableWindowBufferTest, AProducerReadingBehindTheRetentionFailsItsWorker) {
  auto reference = std::make_shared<AppendableReferenceBuffer>(1, 4);
  reference->AppendReference(SampleMatrix::Zero(10, 1));
  AppendableWindowBuffer buffer(
      std::make_unique<AppendableLiftedMpcWindowProducer>(
          std::make_unique<testing::FollowReferenceSolver>(), reference, 2, 3, 0.001, 0),
      reference, 0, 4, 100);
  buffer.Start();
  const std::string dropped =
      "Requested window starts at sample 0, before the first retained sample 6.";
  EXPECT_EQ(MessageOf<std::invalid_argument>([&] { buffer.Pop(testing_support::kHangLimit); }),
            dropped);
  EXPECT_EQ(buffer.LastError(), dropped);
}

}  // namespace
}  // namespace corvane::control::window
