#include "engines/input_shaper.hpp"

#include <cmath>
#include <complex>
#include <cstddef>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <window/records.hpp>

namespace corvane::examples {
namespace {

namespace cw = control::window;

constexpr double kSampleTimeS = 0.001;

// The amplitudes, then the times of a shaper's impulses.
std::vector<double> Impulses(ImpulseSequence shaper) {
  shaper.amplitudes.insert(shaper.amplitudes.end(), shaper.times_s.begin(), shaper.times_s.end());
  return shaper.amplitudes;
}

// At 2 Hz and a damping ratio of 0.1: K = 0.72924761428767, Td = 0.50251890762961 s. Undamped,
// EI is (1 + V) / 4, (1 - V) / 2, (1 + V) / 4 over one period.
TEST(InputShaperTest, ImpulsesMatchTheClosedForms) {
  const auto near = [](std::vector<double> expected) {
    return testing::Pointwise(testing::DoubleNear(1e-12), expected);
  };
  const VibrationMode mode{2.0, 0.1};
  const double h = 0.251259453814803;  // Td / 2
  EXPECT_THAT(Impulses(ZvShaper(mode)), near({0.578286181653592, 0.421713818346408, 0, h}));
  EXPECT_THAT(Impulses(ZvdShaper(mode)),
              near({0.334414907891491, 0.487742547524202, 0.177842544584308, 0, h, 2 * h}));
  EXPECT_THAT(Impulses(EiShaper(mode, 0.05)),
              near({0.350705777346184, 0.462788159760529, 0.186506062893287, 0, h, 2 * h}));
  EXPECT_THAT(Impulses(EiShaper({2, 0}, 0.05)), near({0.2625, 0.475, 0.2625, 0, 0.25, 0.5}));
  EXPECT_THROW(ZvShaper({0.0, 0.1}), std::invalid_argument);
  EXPECT_THROW(ZvdShaper({2.0, 1.0}), std::invalid_argument);
  EXPECT_THROW(EiShaper(mode, 1.0), std::invalid_argument);
}

// A 1 rad quintic move of 0.15 s, then 0.05 s at rest.
cw::SampleMatrix QuinticMove() {
  const Eigen::ArrayXd s = (Eigen::ArrayXd::LinSpaced(200, 0.0, 199.0) / 150.0).min(1.0);
  return (s.cube() * (10.0 - 15.0 * s + 6.0 * s.square())).matrix();
}

// Every window of a freshly prepared shaper of QuinticMove(); they must be valid, tile the shaped
// motion and be marked as tail exactly when they start past the 200 unshaped samples.
cw::SampleMatrix ShapedCommand(InputShaper& shaper) {
  shaper.Prepare();
  cw::SampleMatrix command(shaper.shaped_samples(), 1);
  std::size_t next = 0;
  while (const auto window = shaper.NextWindow()) {
    EXPECT_NO_THROW(cw::ValidateShapedTrajectoryWindow(*window));
    EXPECT_EQ(window->start_index, next);
    EXPECT_DOUBLE_EQ(window->time_s(0), static_cast<double>(next) * kSampleTimeS);
    EXPECT_EQ(window->is_tail, next >= 200);
    command.middleRows(static_cast<Eigen::Index>(next), window->positions.rows()) =
        window->positions;
    next = window->stop_index;
  }
  EXPECT_EQ(next, static_cast<std::size_t>(shaper.shaped_samples()));
  EXPECT_FALSE(shaper.HasMoreWindows());
  return command;
}

// Amplitude of the vibration that the mode y'' = w^2 (u - y) - 2 z w y' keeps at the end of the
// command u, held over each sample: each step of u, t before the end, adds e^((z w + i wd) t) times
// its height to a phasor.
double ResidualVibration(const cw::SampleMatrix& command, const VibrationMode& mode) {
  using Complex = std::complex<double>;
  const double w = 2.0 * 3.14159265358979323846 * mode.natural_frequency_hz;
  const double z = mode.damping_ratio, wd = w * std::sqrt(1.0 - z * z);
  const Eigen::Index n = command.rows();
  const Eigen::ArrayXd t = Eigen::ArrayXd::LinSpaced(n - 1, static_cast<double>(1 - n), -1.0);
  const Eigen::ArrayXd steps = command.col(0).tail(n - 1) - command.col(0).head(n - 1);
  const Eigen::ArrayXcd phasors = (Complex(z * w, wd) * kSampleTimeS * t.cast<Complex>()).exp();
  return std::abs((steps.cast<Complex>() * phasors).sum()) * w / wd;
}

TEST(InputShaperTest, ShapedCommandLeavesUnderFivePercentOfTheResidualVibration) {
  const VibrationMode mode{4.0, 0.02};
  const double unshaped = ResidualVibration(QuinticMove(), mode);
  ASSERT_GT(unshaped, 0.05);
  for (const auto& [name, design] : {std::pair<const char*, ImpulseSequence>{"ZV", ZvShaper(mode)},
                                     {"ZVD", ZvdShaper(mode)},
                                     {"EI", EiShaper(mode, 0.03)}}) {
    InputShaper shaper(QuinticMove(), kSampleTimeS, design, 25);
    EXPECT_LT(ResidualVibration(ShapedCommand(shaper), mode) / unshaped, 0.05) << name;
  }
}

// ZV at 4 Hz, undamped: half of the move now, half 125 ms later; windows of 7, the last of 3.
TEST(InputShaperTest, WindowsTileTheShapedMotionAndStopWhenTheSessionEnds) {
  InputShaper shaper(QuinticMove(), kSampleTimeS, ZvShaper({4.0, 0.0}), 7);
  ASSERT_EQ(shaper.shaped_samples(), 325);
  const cw::SampleMatrix command = ShapedCommand(shaper);
  EXPECT_NEAR(command(0, 0), 0.0, 1e-12);
  EXPECT_NEAR(command(75, 0), 0.5 * 0.5, 1e-12);  // halfway through the first half-move
  EXPECT_NEAR(command(324, 0), 1.0, 1e-12);
  shaper.Prepare();
  ASSERT_TRUE(shaper.NextWindow().has_value());
  shaper.Cancel();
  EXPECT_FALSE(shaper.NextWindow().has_value());
  shaper.Prepare();
  shaper.Finalize();
  EXPECT_FALSE(shaper.HasMoreWindows());
}

}  // namespace
}  // namespace corvane::examples
