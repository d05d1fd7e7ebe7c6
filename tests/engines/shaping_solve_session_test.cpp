#include <corvane_shaper_engines/shaping_solve_session.hpp>

#include <algorithm>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include <gtest/gtest.h>
#include <corvane_shaper_engines/shaper_designs.hpp>
#include <window/reference_buffer.hpp>

#include "support/follow_reference_solver.hpp"

namespace corvane::control::engines {
namespace {

namespace cw = control::window;

constexpr double kSampleTimeS = 0.001;
constexpr std::size_t kApply = 10;
constexpr std::size_t kLookahead = 30;  // shorter than the 50 ms shaper

// Two joints over 400 samples: a swing, and a ramp that stops at sample 250.
cw::SampleMatrix Reference() {
  const Eigen::ArrayXd k = Eigen::ArrayXd::LinSpaced(400, 0.0, 399.0);
  cw::SampleMatrix reference(400, 2);
  reference.col(0) = (k * 0.02).sin();
  reference.col(1) = k.min(250.0) * 0.004;
  return reference;
}

struct Stream {
  cw::SampleMatrix shaped;  // the windows end to end
  cw::SampleMatrix stored;  // the reference with its held samples
};

// Streams Reference() in blocks of `block_rows`, asking the producer for `windows_per_block`
// windows after each block, through the shaping stage in front of an echo that answers solve
// `fail_at` wrongly; then finishes the reference and drains the producer.
Stream StreamShaped(const ImpulseSequence& shaper, Eigen::Index block_rows, int windows_per_block,
                    std::optional<std::size_t> fail_at) {
  const cw::SampleMatrix reference = Reference();
  auto stored = std::make_shared<cw::AppendableReferenceBuffer>(2);
  cw::AppendableLiftedMpcWindowProducer producer(
      std::make_unique<ShapingSolveSession>(
          std::make_unique<cw::testing::FollowReferenceSolver>(fail_at), shaper, kSampleTimeS),
      stored, kApply, kLookahead, kSampleTimeS, 0);
  producer.PrepareSession();
  Stream stream{cw::SampleMatrix(0, 2), {}};
  const auto produce = [&] {
    try {
      const std::optional<cw::WindowPayload> window = producer.ProduceNext();
      if (!window) return;
      stream.shaped.conservativeResize(stream.shaped.rows() + window->positions.rows(), 2);
      stream.shaped.bottomRows(window->positions.rows()) = window->positions;
    } catch (const std::runtime_error&) {  // the echo's scripted extra row: asked again
    }
  };
  for (Eigen::Index first = 0; first < reference.rows(); first += block_rows) {
    stored->AppendReference(reference.middleRows(first, std::min(block_rows, 400 - first)));
    for (int window = 0; window < windows_per_block; ++window) produce();
  }
  stored->Finish();
  while (!producer.IsExhausted()) produce();
  stream.stored = stored->PositionsCopy();
  return stream;
}

// The stage shapes each window with the history of the windows before it, so the stream equals
// the offline shaping of the whole stored reference, held samples and all, even when the
// producer refuses an answer and asks for the same window again.
TEST(ShapingSolveSessionTest, StreamedShapingEqualsOfflineShaping) {
  struct Case {
    const char* name;
    Eigen::Index block_rows;
    int windows_per_block;  // 10 rows each: more than a block holds makes the producer hold
    std::optional<std::size_t> fail_at;
    bool holds;
  };
  const Case cases[] = {{"on time", 40, 4, std::nullopt, false},
                        {"late", 37, 5, std::nullopt, true},
                        {"failed solve", 40, 4, 7, false},
                        {"late, failed solve", 23, 3, 12, true}};
  for (const ImpulseSequence& shaper : {EiShaper({20.0, 0.1}), ZvdShaper({7.3, 0.02})}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      const Stream stream = StreamShaped(shaper, c.block_rows, c.windows_per_block, c.fail_at);
      EXPECT_EQ(stream.stored.rows() > 400, c.holds);
      ASSERT_EQ(stream.shaped.rows(), stream.stored.rows());
      const cw::SampleMatrix offline = ShapeSamples(stream.stored, kSampleTimeS, shaper);
      EXPECT_LE((stream.shaped - offline).cwiseAbs().maxCoeff(), 1e-12);
      EXPECT_GT((stream.shaped - stream.stored).cwiseAbs().maxCoeff(), 0.01);  // it did shape
    }
  }
}

// Half now, half 2.5 samples later: a ramp k comes out as k - 1.25 once both halves have
// started, the second half reading between samples and resting on sample 0 before it.
TEST(ShapingSolveSessionTest, OfflineShapingInterpolatesDelaysBetweenSamples) {
  const cw::SampleMatrix ramp = Eigen::VectorXd::LinSpaced(8, 0.0, 7.0);
  const cw::SampleMatrix shaped = ShapeSamples(ramp, kSampleTimeS, {{0.5, 0.5}, {0.0, 0.0025}});
  EXPECT_DOUBLE_EQ(shaped(1, 0), 0.5);
  for (Eigen::Index k = 3; k < 8; ++k)
    EXPECT_DOUBLE_EQ(shaped(k, 0), static_cast<double>(k) - 1.25);
  EXPECT_THROW(ShapingSolveSession(nullptr, {{1.0}, {0.0}}, kSampleTimeS), std::invalid_argument);
}

}  // namespace
}  // namespace corvane::control::engines
