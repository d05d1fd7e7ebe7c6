// A reference buffer with a retention against one without, fed the same random appends and holds:
// every retained sample reads the same, a dropped one fails naming the first retained sample, and
// so does a producer that reads behind the retention, as a failure of its worker.
#include <memory>
#include <random>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "support/follow_reference_solver.hpp"
#include "support/scripted_producer.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {
namespace {

using testing::MessageOf;

std::string DroppedMessage(std::size_t start, std::size_t first) {
  return "Requested window starts at sample " + std::to_string(start) +
         ", before the first retained sample " + std::to_string(first) + ".";
}

TEST(RetainedReferenceTest, ReadsEveryRetainedSampleAsAFullBufferDoes) {
  for (std::size_t retention : {1u, 3u, 7u, 64u}) {
    SCOPED_TRACE(::testing::Message() << "retention " << retention);
    AppendableReferenceBuffer full(2), kept(2, retention);
    std::mt19937 random(static_cast<unsigned>(retention));
    double value = 0.0;
    for (int step = 0; step < 300; ++step) {
      const std::size_t count = full.available_samples();
      if (count > 0 && random() % 4 == 0) {
        const std::size_t target = count + random() % (2 * retention + 2);
        ASSERT_EQ(kept.ExtendHoldTo(target), full.ExtendHoldTo(target));
      } else {
        SampleMatrix block(1 + random() % (2 * retention + 1), 2);
        for (Eigen::Index r = 0; r < block.rows(); ++r) block.row(r).setConstant(++value);
        const AppendedRange range = kept.AppendReference(block);
        ASSERT_EQ(range.stop_index, full.AppendReference(block).stop_index);
      }
      const std::size_t n = full.available_samples();
      const std::size_t first = n > retention ? n - retention : 0;
      ASSERT_EQ(kept.available_samples(), n);
      ASSERT_EQ(kept.PositionsCopy(), full.PositionsCopy().bottomRows(Eigen::Index(n - first)));
      const std::size_t start = random() % n, stop = start + 1 + random() % (retention + 3);
      if (start < first) {
        EXPECT_EQ(
            MessageOf<std::invalid_argument>([&] { kept.WindowWithTerminalPadding(start, stop); }),
            DroppedMessage(start, first));
        continue;
      }
      const ReferenceWindow got = kept.WindowWithTerminalPadding(start, stop);
      const ReferenceWindow want = full.WindowWithTerminalPadding(start, stop);
      ASSERT_EQ(got.positions, want.positions) << "window [" << start << ", " << stop << ")";
      ASSERT_EQ(got.terminal_padding_samples, want.terminal_padding_samples);
    }
  }
}

TEST(RetainedReferenceTest, RefusesNoRetentionAndFailsAProducerBehindIt) {
  EXPECT_EQ(MessageOf<std::invalid_argument>([] { AppendableReferenceBuffer(2, 0); }),
            "retention_samples must be positive.");
  EXPECT_EQ(MessageOf<std::invalid_argument>([] { AppendableReferenceBuffer(0, 0); }),
            "joint_count must be positive when provided.");

  // Ten samples arrive before the producer starts; it asks for sample 0, of which 4 are kept.
  auto reference = std::make_shared<AppendableReferenceBuffer>(1, 4);
  reference->AppendReference(SampleMatrix::Zero(10, 1));
  AppendableWindowBuffer buffer(
      std::make_unique<AppendableLiftedMpcWindowProducer>(
          std::make_unique<testing::FollowReferenceSolver>(), reference, 2, 3, 0.001, 0),
      reference, 0, 4, 100);
  buffer.Start();
  EXPECT_EQ(MessageOf<std::invalid_argument>([&] { buffer.Pop(testing_support::kHangLimit); }),
            DroppedMessage(0, 6));
  EXPECT_EQ(buffer.LastError(), DroppedMessage(0, 6));
}

}  // namespace
}  // namespace corvane::control::window
