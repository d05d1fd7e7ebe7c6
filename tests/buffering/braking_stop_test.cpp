// The reference of a smooth stop, spliced onto the plan it ends, checked against the plan's own
// finite differences: continuous across the join, within the plan's limits, as short as they
// allow, and at rest.
#include "buffering/braking_stop.hpp"

#include <cmath>
#include <utility>

#include <gtest/gtest.h>

namespace corvane::control::window {
namespace {

constexpr Eigen::Index kHold = 5;

// Two joints on an S-curve, the second at -0.4 times the first: a jerk of 1e-6 a sample cubed
// raises the acceleration for 50 samples, holds it for 30 and lowers it for 50; the joints cruise
// for 100 samples, brake the same way and rest for 100.
SampleMatrix SCurveMove() {
  Eigen::VectorXd position = Eigen::VectorXd::Zero(460);
  for (const auto& [first, sign] : {std::pair{0, 1.0}, {80, -1.0}, {230, -1.0}, {310, 1.0}}) {
    position.segment(first, 50).setConstant(1e-6 * sign);
  }
  for (int order = 0; order < 3; ++order) {
    for (Eigen::Index k = 1; k < position.size(); ++k) position(k) += position(k - 1);
  }
  return (SampleMatrix(460, 2) << position, -0.4 * position).finished();
}

// One joint moving 1 rad along a cosine over 400 samples between rests: its acceleration jumps
// where the move starts and ends, so that its jerk limits nothing.
SampleMatrix CosineMove() {
  const Eigen::ArrayXd s = (Eigen::ArrayXd::LinSpaced(500, -50.0, 449.0) / 400.0).max(0.0).min(1.0);
  return SampleMatrix(0.5 * (1.0 - (3.141592653589793 * s).cos()));
}

// The largest |difference| of the given order, joint by joint.
Eigen::RowVectorXd Largest(SampleMatrix rows, int order) {
  for (int k = 0; k < order; ++k)
    rows = (rows.bottomRows(rows.rows() - 1) - rows.topRows(rows.rows() - 1)).eval();
  return rows.cwiseAbs().colwise().maxCoeff();
}

// The stop after sample join - 1 of `plan`, spliced onto the plan.
SampleMatrix Spliced(const SampleMatrix& plan, Eigen::Index join) {
  const Eigen::Index before = std::min<Eigen::Index>(join, 3);
  const SampleMatrix stop =
      BrakingStop(plan.middleRows(join - before, before), LimitsOf(plan), std::size_t{kHold});
  return (SampleMatrix(join + stop.rows(), plan.cols()) << plan.topRows(join), stop).finished();
}

TEST(BrakingStopTest, BrakesWithoutAKinkWithinThePlansLimitsAsSoonAsTheyAllowAndRests) {
  struct Case {
    const char* name;
    Eigen::Index join;
    SampleMatrix plan = SCurveMove();
  };
  for (const Case& c :
       {Case{"raising the acceleration", 25}, Case{"accelerating", 65}, Case{"cruising", 200},
        Case{"braking", 290}, Case{"cruising where the acceleration limits", 250, CosineMove()}}) {
    SCOPED_TRACE(c.name);
    const SampleMatrix spliced = Spliced(c.plan, c.join);
    EXPECT_TRUE(Largest(spliced.bottomRows(kHold), 1).isZero(0.0));
    // From three samples before the join, so that the acceleration's change into it counts too.
    const SampleMatrix after = spliced.bottomRows(spliced.rows() - c.join + 3);
    const Eigen::RowVectorXd acceleration = Largest(after, 2).cwiseQuotient(Largest(c.plan, 2));
    const Eigen::RowVectorXd jerk = Largest(after, 3).cwiseQuotient(Largest(c.plan, 3));
    EXPECT_LE(std::max(acceleration.maxCoeff(), jerk.maxCoeff()), 1.01);
    // A sample fewer would break a limit, so the braking comes within a few per cent of one.
    EXPECT_GT(std::max(acceleration.maxCoeff(), jerk.maxCoeff()), 0.95);
  }
}

TEST(BrakingStopTest, HoldsAtOnceWhatItCannotBrakeAndReadsTheKeptSamplesBlockByBlock) {
  struct Case {
    const char* name;
    SampleMatrix plan;
    Eigen::Index join;
  };
  const SampleMatrix parabola = Eigen::Vector4d(0.0, 1.0, 4.0, 9.0);
  for (const Case& c :
       {Case{"at rest after the move", SCurveMove(), 450},
        Case{"on the first sample", SCurveMove(), 1},
        Case{"a ramp that never accelerates", Eigen::VectorXd::LinSpaced(50, 0, 49), 30},
        Case{"differences that overflow", Eigen::Vector4d(1.7e308, -1.7e308, 1.7e308, -1.7e308), 4},
        Case{"a braking that would overflow", 1e307 * parabola, 4}}) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Spliced(c.plan, c.join).bottomRows(kHold),
              c.plan.row(c.join - 1).replicate(kHold, 1));
  }
  EXPECT_LE(Spliced(parabola, 4).rows(), 4 + 4 + kHold);  // brakes no longer than the plan lasts

  // Blocks overlap by three samples, so every difference is read whole; a retention keeps 100.
  const SampleMatrix plan = SCurveMove();
  AppendableReferenceBuffer stored(2), retained(2, 100);
  stored.AppendReference(plan);
  retained.AppendReference(plan);
  for (const std::size_t block : {1u, 2u, 3u, 4u, 7u, 4096u}) {
    SCOPED_TRACE(block);
    for (const auto& [read, rows] : {std::pair{ReadLimits(stored, block), plan},
                                     {ReadLimits(retained, block), plan.bottomRows(100)}}) {
      EXPECT_EQ(read.acceleration, LimitsOf(rows).acceleration);
      EXPECT_EQ(read.jerk, LimitsOf(rows).jerk);
      EXPECT_EQ(read.samples, std::size_t(rows.rows()));
    }
  }
}

}  // namespace
}  // namespace corvane::control::window
