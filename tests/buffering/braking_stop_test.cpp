// The reference of a smooth stop, spliced onto the plan it ends, checked against the plan's own
// finite differences: continuous across the join, within the plan's limits, as short as they
// allow, and at rest.
#include "buffering/braking_stop.hpp"

#include <cmath>
#include <stdexcept>
#include <utility>

#include <gtest/gtest.h>

namespace corvane::control::window {
namespace {

constexpr Eigen::Index kHold = 5;

// Two joints moving along an S-curve, the second at -0.4 times the first: the jerk, 1e-6 a sample
// cubed, raises the acceleration for 50 samples, holds it for 30 and lowers it for 50; the joint
// cruises for 100 samples, brakes the same way and rests for 100.
SampleMatrix SCurveMove() {
  Eigen::VectorXd jerk = Eigen::VectorXd::Zero(460);
  for (const auto& [first, sign] : {std::pair{0, 1.0}, {80, -1.0}, {230, -1.0}, {310, 1.0}}) {
    jerk.segment(first, 50).setConstant(1e-6 * sign);
  }
  Eigen::VectorXd position = jerk;
  for (int order = 0; order < 3; ++order) {
    for (Eigen::Index k = 1; k < position.size(); ++k) position(k) += position(k - 1);
  }
  SampleMatrix plan(position.size(), 2);
  plan << position, -0.4 * position;
  return plan;
}

// One joint resting for 50 samples, moving 1 rad along a cosine over 400 and resting again: its
// acceleration jumps where the move starts and ends, so its jerk limits nothing.
SampleMatrix CosineMove() {
  const Eigen::ArrayXd s = (Eigen::ArrayXd::LinSpaced(500, -50.0, 449.0) / 400.0).max(0.0).min(1.0);
  return SampleMatrix(0.5 * (1.0 - (3.141592653589793 * s).cos()));
}

SampleMatrix Differences(const SampleMatrix& rows, int order) {
  SampleMatrix d = rows;
  for (int k = 0; k < order; ++k) d = (d.bottomRows(d.rows() - 1) - d.topRows(d.rows() - 1)).eval();
  return d;
}

double Largest(const SampleMatrix& rows, int order, Eigen::Index joint) {
  return Differences(rows, order).col(joint).cwiseAbs().maxCoeff();
}

// The stop that follows sample join - 1 of `plan`, within the plan's limits.
SampleMatrix StopAfter(const SampleMatrix& plan, Eigen::Index join) {
  const Eigen::Index before = std::min<Eigen::Index>(join, 3);
  return BrakingStop(plan.middleRows(join - before, before), LimitsOf(plan), std::size_t{kHold});
}

TEST(BrakingStopTest, BrakesWithoutAKinkWithinThePlansLimitsAndRests) {
  struct Case {
    const char* name;
    std::size_t join;
    bool brakes;
    SampleMatrix plan = SCurveMove();
  };
  for (const Case& c :
       {Case{"raising the acceleration", 25, true}, Case{"accelerating", 65, true},
        Case{"cruising", 200, true}, Case{"braking", 290, true},
        Case{"at rest after the move", 450, false}, Case{"on the first sample", 1, false},
        Case{"cruising where the acceleration limits", 250, true, CosineMove()}}) {
    SCOPED_TRACE(c.name);
    const SampleMatrix& plan = c.plan;
    const SampleMatrix stop = StopAfter(plan, Eigen::Index(c.join));
    const auto join = static_cast<Eigen::Index>(c.join);
    SampleMatrix spliced(join + stop.rows(), plan.cols());
    spliced << plan.topRows(join), stop;
    const Eigen::Index braking = stop.rows() - kHold;
    EXPECT_EQ(braking > 0, c.brakes);
    EXPECT_TRUE(
        Differences(stop.bottomRows(std::min(braking, Eigen::Index{1}) + kHold), 1).isZero(0.0));
    if (!c.brakes) {
      EXPECT_EQ(stop.row(0), plan.row(join - 1));
      continue;
    }
    // From three samples before the join on, so that the acceleration's change into the join is
    // held to the plan's jerk too.
    const SampleMatrix after = spliced.bottomRows(stop.rows() + 3);
    double reach = 0.0;  // how close the braking comes to a limit of the plan
    for (Eigen::Index joint = 0; joint < plan.cols(); ++joint) {
      const double acceleration = Largest(plan, 2, joint);
      const double jerk = Largest(plan, 3, joint);
      EXPECT_LE(Largest(after, 2, joint), 1.01 * acceleration);
      EXPECT_LE(Largest(after, 3, joint), 1.01 * jerk);
      reach = std::max(
          {reach, Largest(after, 2, joint) / acceleration, Largest(after, 3, joint) / jerk});
      // Braking never turns the joint back.
      const double direction = plan(join - 1, joint) - plan(join - 2, joint);
      EXPECT_GE((Differences(after, 1).col(joint) * direction).minCoeff(), 0.0);
    }
    // A sample fewer would have broken a limit, so the braking comes within a few per cent of one.
    EXPECT_GT(reach, 0.95);
  }
}

TEST(BrakingStopTest, HoldsAtOnceWhatItCannotBrakeAndRefusesWhatItCannotRead) {
  struct Case {
    const char* name;
    SampleMatrix plan;
    std::size_t join;
    Eigen::Index held_row;  // -1: brakes
  };
  SampleMatrix parabola(4, 1);
  parabola << 0.0, 1.0, 4.0, 9.0;
  SampleMatrix overflowing(4, 1);
  overflowing << 1.7e308, -1.7e308, 1.7e308, -1.7e308;
  const SampleMatrix huge = 1e307 * parabola;
  for (const Case& c : {Case{"a ramp that never accelerates",
                             SampleMatrix(Eigen::VectorXd::LinSpaced(50, 0.0, 49.0)), 30, 29},
                        Case{"differences that overflow", overflowing, 4, 3},
                        Case{"a braking that would overflow", huge, 4, 3},
                        Case{"braking no longer than the plan", parabola, 4, -1}}) {
    SCOPED_TRACE(c.name);
    const SampleMatrix stop = StopAfter(c.plan, Eigen::Index(c.join));
    if (c.held_row >= 0) {
      EXPECT_EQ(stop, c.plan.row(c.held_row).replicate(kHold, 1));
    } else {
      EXPECT_LE(stop.rows(), c.plan.rows() + kHold);
      EXPECT_TRUE(stop.allFinite());
    }
  }
  const auto message = [](const SampleMatrix& before, const ReferenceLimits& limits) {
    try {
      BrakingStop(before, limits, std::size_t{kHold});
    } catch (const std::invalid_argument& error) {
      return std::string(error.what());
    }
    return std::string("no error");
  };
  EXPECT_EQ(message(SampleMatrix(0, 1), LimitsOf(parabola)),
            "before must hold at least one sample.");
  EXPECT_EQ(message(SCurveMove().topRows(3), LimitsOf(parabola)),
            "limits must hold one value per joint of before.");
}

// Read block by block, overlapping by three samples, a stored reference gives the limits of its
// kept samples whatever the block; with a retention, of the retained ones.
TEST(BrakingStopTest, ReadsTheLimitsOfTheKeptSamplesWhateverTheBlock) {
  const SampleMatrix plan = SCurveMove();
  AppendableReferenceBuffer stored(2);
  AppendableReferenceBuffer retained(2, 100);
  stored.AppendReference(plan);
  retained.AppendReference(plan);
  for (const std::size_t block : {1u, 2u, 3u, 4u, 7u, 4096u}) {
    SCOPED_TRACE(block);
    const ReferenceLimits read = ReadLimits(stored, block);
    const ReferenceLimits expected = LimitsOf(plan);
    EXPECT_EQ(read.acceleration, expected.acceleration);
    EXPECT_EQ(read.jerk, expected.jerk);
    EXPECT_EQ(read.samples, 460u);
    const ReferenceLimits tail = LimitsOf(plan.bottomRows(100));
    EXPECT_EQ(ReadLimits(retained, block).jerk, tail.jerk);
  }
  EXPECT_THROW(ReadLimits(stored, 0), std::invalid_argument);
}

}  // namespace
}  // namespace corvane::control::window
