// The arm on a compliant shoulder: its mode map against free ringings, and the shaping of its
// moves against the closed form and the targets the poses demo reports.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "plant/pose_experiment.hpp"

namespace {

namespace cp = corvane::plant;

constexpr double kRatioTolerance = 0.02;
constexpr std::size_t kShoulder = 0, kPayload = 1;

std::size_t Index(cp::PoseShaping shaping) { return static_cast<std::size_t>(shaping); }

double Larger(const cp::PoseMoveResult& result) {
  return std::max(result.ratio[kShoulder], result.ratio[kPayload]);
}

// A map that fails to move the mode, or whose linearisation disagrees with the simulated arm's
// own ringing, fails here.
TEST(PoseExperiment, ModeMapMovesAndAgreesWithFreeRingings) {
  cp::PoseExperiment experiment;
  const auto& points = experiment.map().points();
  const double low = points.front().modes[kShoulder].natural_frequency_hz;
  const double high = points.back().modes[kShoulder].natural_frequency_hz;
  EXPECT_GE((high - low) / (high + low), 0.15);
  for (const cp::RingingCheck& check : experiment.ringings()) {
    ASSERT_EQ(check.measured.modes.size(), 2u);
    for (std::size_t mode = 0; mode < 2; ++mode) {
      EXPECT_NEAR(check.measured.modes[mode].mode.natural_frequency_hz /
                      check.linearised[mode].natural_frequency_hz,
                  1.0, 0.005);
    }
  }

  // Moves at the map's two ends (one 11 % below the tuning pose's mode, one 35 % above) and the
  // fastest sweep across it.
  for (const std::size_t move : {0u, 4u, 5u}) {
    SCOPED_TRACE(move);
    const std::vector<cp::PoseMoveResult> results = experiment.Run(move);
    const cp::PoseMoveResult& scheduled = results[Index(cp::PoseShaping::kScheduled)];
    const cp::PoseMoveResult& fixed = results[Index(cp::PoseShaping::kFixed)];
    const cp::PoseMoveResult& robust = results[Index(cp::PoseShaping::kRobust)];
    EXPECT_LE(scheduled.residual_rad[kShoulder], fixed.residual_rad[kShoulder] / 3.0);
    EXPECT_LT(scheduled.duration_s, robust.duration_s);
    EXPECT_LE(Larger(robust), Larger(results[Index(cp::PoseShaping::kPayloadOnly)]) / 3.0);
    const double change = experiment.moves()[move].mode_change_per_period;
    if (change > 0.0) {
      EXPECT_LE(scheduled.ratio[kShoulder], M_PI / 8.0 * change);
      continue;
    }
    for (const cp::PoseShaping shaping : {cp::PoseShaping::kPayloadOnly, cp::PoseShaping::kFixed,
                                          cp::PoseShaping::kRobust, cp::PoseShaping::kScheduled}) {
      const cp::PoseMoveResult& result = results[Index(shaping)];
      EXPECT_NEAR(result.ratio[kShoulder], result.theory[kShoulder], kRatioTolerance);
      // Under the payload-only shaper the shoulder rings on and leaks into the deflection.
      if (shaping != cp::PoseShaping::kPayloadOnly) {
        EXPECT_NEAR(result.ratio[kPayload], result.theory[kPayload], kRatioTolerance);
      }
    }
  }
}

}  // namespace
