#include <corvane_shaper_engines/ringing_modes.hpp>

#include <cmath>
#include <limits>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>
#include <corvane_shaper_engines/multi_mode_shaper.hpp>
#include <corvane_shaper_engines/ringing_tuning.hpp>

namespace corvane::control::engines {
namespace {

constexpr double kRateHz = 1000.0;

// Equal ringings of `modes` from a unit deflection, plus uniform noise of peak `noise` from a
// fixed linear congruential sequence.
Eigen::VectorXd Ringing(const std::vector<VibrationMode>& modes, Eigen::Index samples,
                        double noise) {
  Eigen::VectorXd x = Eigen::VectorXd::Zero(samples);
  unsigned state = 1;
  for (Eigen::Index k = 0; k < samples; ++k) {
    const double t = static_cast<double>(k) / kRateHz;
    for (const VibrationMode& m : modes) {
      const double w = 2.0 * M_PI * m.natural_frequency_hz, z = m.damping_ratio;
      x(k) += std::exp(-z * w * t) * std::cos(w * std::sqrt(1.0 - z * z) * t);
    }
    state = state * 1103515245u + 12345u;
    x(k) += noise * (static_cast<double>(state >> 8) / (1 << 24) - 0.5);
  }
  return x;
}

// The estimate finds each mode within its stated uncertainty (and a floor for rounding), and
// a second mode only where there is one. Two modes at 20 and 22 Hz merged into one would fail
// the count.
TEST(RingingModesTest, ResolvesEachModeWithinItsUncertainty) {
  struct Case {
    std::vector<VibrationMode> modes;
    Eigen::Index samples;
    double noise;
  };
  const Case cases[] = {
      {{{20.0, 0.03}, {22.0, 0.03}}, 1000, 0.0},
      {{{20.0, 0.03}, {22.0, 0.03}}, 300, 0.01},
      {{{20.0, 0.03}, {22.0, 0.03}}, 1000, 0.5},
      {{{6.9, 0.021}, {28.1, 0.031}}, 1500, 0.01},
      {{{19.7, 0.004}}, 1000, 0.0},
      {{{19.7, 0.004}}, 1000, 0.1},
  };
  for (const Case& c : cases) {
    const RingingModes estimate =
        EstimateRingingModes(Ringing(c.modes, c.samples, c.noise), kRateHz);
    ASSERT_EQ(estimate.modes.size(), c.modes.size()) << c.modes[0].natural_frequency_hz;
    for (std::size_t m = 0; m < c.modes.size(); ++m) {
      const ModeEstimate& found = estimate.modes[m];
      EXPECT_NEAR(found.mode.natural_frequency_hz, c.modes[m].natural_frequency_hz,
                  4.0 * found.frequency_uncertainty_hz + 1e-9);
      EXPECT_NEAR(found.mode.damping_ratio, c.modes[m].damping_ratio,
                  4.0 * found.damping_uncertainty + 1e-9);
      EXPECT_NEAR(found.amplitude, 1.0, 0.05);
    }
  }
}

// The modes the estimate resolves give a two-mode shaper that holds both true modes within the
// 5 % limit, where the single-mode estimate's EI does not.
TEST(RingingModesTest, TwoModeShaperFromTheEstimateHoldsBothModes) {
  const std::vector<VibrationMode> truth{{20.0, 0.03}, {22.0, 0.03}};
  const Eigen::VectorXd x = Ringing(truth, 1000, 0.01);
  const RingingModes estimate = EstimateRingingModes(x, kRateHz);
  ASSERT_EQ(estimate.modes.size(), 2u);
  const ImpulseSequence shaper =
      ChooseMultiModeShaper({{estimate.modes[0].mode, 0.02}, {estimate.modes[1].mode, 0.02}})
          .shaper;
  const ImpulseSequence merged = ChooseShaper(EstimateRinging(x, kRateHz).mode, 0.0).shaper;
  for (const VibrationMode& mode : truth) {
    EXPECT_LE(ResidualVibration(shaper, mode), 0.05);
    EXPECT_GT(ResidualVibration(merged, mode), 0.05);
  }
}

TEST(RingingModesTest, RefusesWhatItCannotRead) {
  const Eigen::VectorXd good = Ringing({{20.0, 0.03}}, 200, 0.0);
  Eigen::VectorXd holed = good;
  holed(7) = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    Eigen::VectorXd samples;
    double rate_hz;
  };
  const Case cases[] = {
      {good, 0.0},
      {good, std::numeric_limits<double>::infinity()},
      {good, std::numeric_limits<double>::quiet_NaN()},
      {good.head(15), kRateHz},
      {holed, kRateHz},
      {Eigen::VectorXd::Constant(200, 3.0), kRateHz},
      {Ringing({}, 500, 1.0), kRateHz},
  };
  for (const Case& c : cases) {
    EXPECT_THROW(EstimateRingingModes(c.samples, c.rate_hz), std::invalid_argument);
  }
  // Two modes 2 Hz apart in 0.3 s of heavy noise: a second mode shows, but cannot be resolved.
  EXPECT_THROW(EstimateRingingModes(Ringing({{20.0, 0.03}, {22.0, 0.03}}, 300, 0.5), kRateHz),
               std::domain_error);
}

}  // namespace
}  // namespace corvane::control::engines
