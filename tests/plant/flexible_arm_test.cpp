// The simulated arm, moved by the stream in lockstep, held against closed-form theory.
#include <gtest/gtest.h>

#include "plant/experiment.hpp"

namespace {

namespace cp = corvane::plant;
namespace cs = corvane::control::engines;

// How far a simulated ratio may lie from the closed form: the arm is not quite linear (its joints
// couple through their velocities) and the shaping stage interpolates delays between samples.
constexpr double kRatioTolerance = 0.02;
// What the simulation may add to a shaper's residual vibration at its design mode; EI leaves
// exactly its 5 % tolerance there in theory, so a bound of 5 % alone would test rounding.
constexpr double kVibrationExcess = 0.002;

TEST(FlexibleArm, VibrationUnderShapingMatchesTheory) {
  cp::PlantExperiment experiment(2);
  const cp::ArmMode& mode = experiment.mode();
  EXPECT_NEAR(mode.measured.mode.natural_frequency_hz / mode.linearised.natural_frequency_hz, 1.0,
              0.01);

  struct Case {
    cs::ShaperKind kind;
    double limit;  // residual vibration allowed at the design mode
  };
  for (const Case& shaper : {Case{cs::ShaperKind::kZv, 1.0}, Case{cs::ShaperKind::kZvd, 0.02},
                             Case{cs::ShaperKind::kEi, 0.05}}) {
    for (const double error : {-0.2, 0.0, 0.2}) {
      const cp::ShaperTrial trial = experiment.Trial(shaper.kind, error);
      SCOPED_TRACE(std::string(cs::ShaperName(shaper.kind)) + " " + std::to_string(error));
      for (const double ratio : trial.ratios) {
        EXPECT_NEAR(ratio, trial.predicted_ratio, kRatioTolerance);
        if (error == 0.0) {
          EXPECT_LE(ratio * trial.decay, shaper.limit + kVibrationExcess);
        }
      }
    }
  }
}

}  // namespace
