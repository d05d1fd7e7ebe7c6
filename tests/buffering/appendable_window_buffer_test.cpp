// The streaming buffer: forwarding to the reference buffer, the stop that finishes the reference
// first, and a stream end to end with the lifted-MPC producer over a solver that follows it.
#include <random>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/follow_reference_solver.hpp"
#include "support/scripted_producer.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {
namespace {

using testing::MessageOf;
using testing::Recorded;
using testing_support::Guarded;

constexpr std::size_t kGlobalStart = 500;

struct Stream {
  std::shared_ptr<AppendableReferenceBuffer> reference =
      std::make_shared<AppendableReferenceBuffer>(2);
  AppendableWindowBuffer buffer;
  explicit Stream(std::optional<std::size_t> capacity = std::nullopt)
      : buffer(std::make_unique<AppendableLiftedMpcWindowProducer>(
                   std::make_unique<testing::FollowReferenceSolver>(), reference, 4, 10, 0.001,
                   kGlobalStart),
               reference, 0, capacity) {}
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
// the destructor.
TEST(AppendableWindowBufferTest, CloseAndDestructionReturnWhileTheProducerWaitsForSamples) {
  {
    Stream stream;
    stream.buffer.Start();
    Guarded([&] { stream.buffer.Close(); }, "Close");
    EXPECT_FALSE(stream.buffer.PopNowait().has_value());
    EXPECT_TRUE(stream.buffer.IsComplete());
  }
  auto stream = std::make_unique<Stream>();
  stream->buffer.Start();
  Guarded([&] { stream.reset(); }, "destruction");
}

// The caller appends blocks at irregular moments while the consumer pops. Windows tile the
// global index line, each one echoes the reference, held samples repeat the sample before them,
// and after Finish() every remaining window arrives before the buffer is complete.
TEST(AppendableWindowBufferTest, StreamsEveryAppendedSampleInOrder) {
  Stream stream(3);
  stream.buffer.Start();
  double appended = 0.0;  // sample values climb by one per appended sample
  std::thread planner([&] {
    std::mt19937 random(11);
    for (int block = 0; block < 200; ++block) {
      const auto rows = static_cast<Eigen::Index>(1 + random() % 7);
      stream.buffer.AppendReference(Block(rows, appended));
      appended += static_cast<double>(rows);
      if (random() % 4 == 0) std::this_thread::yield();  // now and then the planner falls behind
    }
    stream.buffer.Finish();
  });
  std::vector<WindowPayload> windows;
  while (auto window = Guarded([&] { return stream.buffer.Pop(); }, "Pop")) {
    windows.push_back(std::move(*window));
  }
  planner.join();
  EXPECT_TRUE(stream.buffer.IsComplete());
  EXPECT_EQ(stream.buffer.LastError(), std::nullopt);

  const SampleMatrix reference = stream.buffer.ReferencePositions();
  std::size_t next = kGlobalStart;
  for (const WindowPayload& window : windows) {
    ASSERT_EQ(window.start_index, next);
    const auto first = static_cast<Eigen::Index>(next - kGlobalStart);
    EXPECT_EQ(window.positions, reference.middleRows(first, window.positions.rows()));
    next = window.stop_index;
  }
  EXPECT_EQ(next - kGlobalStart, static_cast<std::size_t>(reference.rows()));
  // Every appended sample is in the reference, in order; a held one repeats its predecessor.
  double expected = 0.0;
  for (Eigen::Index r = 0; r < reference.rows(); ++r) {
    if (reference(r, 0) == expected) {
      expected += 1.0;
    } else {
      ASSERT_GT(r, 0);
      EXPECT_EQ(reference.row(r), reference.row(r - 1)) << "sample " << r;
    }
  }
  EXPECT_EQ(expected, appended);
}

}  // namespace
}  // namespace corvane::control::window
