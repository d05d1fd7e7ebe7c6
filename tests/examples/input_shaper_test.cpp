#include "engines/input_shaper.hpp"

#include <cmath>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <window/records.hpp>

namespace {

namespace cw = corvane::control::window;
using corvane::examples::EiShaper;
using corvane::examples::ImpulseSequence;
using corvane::examples::InputShaper;
using corvane::examples::VibrationMode;
using corvane::examples::ZvdShaper;
using corvane::examples::ZvShaper;

constexpr double kSampleTimeS = 0.001;

void ExpectImpulses(const ImpulseSequence& shaper, const std::vector<double>& amplitudes,
                    const std::vector<double>& times_s) {
  ASSERT_EQ(shaper.amplitudes.size(), amplitudes.size());
  ASSERT_EQ(shaper.times_s.size(), times_s.size());
  for (std::size_t i = 0; i < amplitudes.size(); ++i) {
    EXPECT_NEAR(shaper.amplitudes[i], amplitudes[i], 1e-12) << "impulse " << i;
    EXPECT_NEAR(shaper.times_s[i], times_s[i], 1e-12) << "impulse " << i;
  }
}

// At 2 Hz and a damping ratio of 0.1: K = 0.72924761428767, Td = 0.50251890762961 s.
TEST(InputShaperTest, ImpulsesMatchTheClosedForms) {
  const VibrationMode mode{2.0, 0.1};
  const double half = 0.251259453814803;
  ExpectImpulses(ZvShaper(mode), {0.578286181653592, 0.421713818346408}, {0.0, half});
  ExpectImpulses(ZvdShaper(mode), {0.334414907891491, 0.487742547524202, 0.177842544584308},
                 {0.0, half, 2.0 * half});
  ExpectImpulses(EiShaper(mode, 0.05), {0.350705777346184, 0.462788159760529, 0.186506062893287},
                 {0.0, half, 2.0 * half});
  // Undamped, EI is (1 + V) / 4, (1 - V) / 2, (1 + V) / 4 over one period.
  ExpectImpulses(EiShaper({2.0, 0.0}, 0.05), {0.2625, 0.475, 0.2625}, {0.0, 0.25, 0.5});
  EXPECT_THROW(ZvShaper({0.0, 0.1}), std::invalid_argument);
  EXPECT_THROW(ZvdShaper({2.0, 1.0}), std::invalid_argument);
  EXPECT_THROW(EiShaper(mode, 1.0), std::invalid_argument);
}

// Every window of a prepared shaper, one after another; they must tile the shaped motion and
// be marked as tail exactly when they start past the unshaped trajectory.
cw::SampleMatrix ShapedCommand(InputShaper& shaper, std::size_t unshaped_samples) {
  shaper.Prepare();
  cw::SampleMatrix command(shaper.shaped_samples(), 1);
  std::size_t next = 0;
  while (const auto window = shaper.NextWindow()) {
    EXPECT_NO_THROW(cw::ValidateShapedTrajectoryWindow(*window));
    EXPECT_EQ(window->start_index, next);
    EXPECT_DOUBLE_EQ(window->time_s(0), static_cast<double>(next) * kSampleTimeS);
    EXPECT_EQ(window->is_tail, next >= unshaped_samples);
    command.middleRows(static_cast<Eigen::Index>(next), window->positions.rows()) =
        window->positions;
    next = window->stop_index;
  }
  EXPECT_EQ(next, static_cast<std::size_t>(shaper.shaped_samples()));
  EXPECT_FALSE(shaper.HasMoreWindows());
  return command;
}

// A 1 rad quintic move of 0.15 s, then 0.05 s at rest.
cw::SampleMatrix QuinticMove() {
  cw::SampleMatrix move = cw::SampleMatrix::Ones(200, 1);
  for (Eigen::Index k = 0; k <= 150; ++k) {
    const double s = static_cast<double>(k) / 150.0;
    move(k, 0) = s * s * s * (10.0 - 15.0 * s + 6.0 * s * s);
  }
  return move;
}

// Amplitude of the vibration that the mode y'' = w^2 (u - y) - 2 z w y' keeps once the command
// u (held over each sample) has come to rest; semi-implicit Euler, 100 steps a sample.
double ResidualVibration(const cw::SampleMatrix& command, const VibrationMode& mode) {
  const double w = 2.0 * 3.14159265358979323846 * mode.natural_frequency_hz;
  const double z = mode.damping_ratio;
  const double dt = kSampleTimeS / 100.0;
  double y = command(0, 0);
  double velocity = 0.0;
  for (Eigen::Index k = 0; k < command.rows(); ++k) {
    for (int step = 0; step < 100; ++step) {
      velocity += dt * (w * w * (command(k, 0) - y) - 2.0 * z * w * velocity);
      y += dt * velocity;
    }
  }
  const double error = y - command(command.rows() - 1, 0);
  return std::hypot(error, (velocity + z * w * error) / (w * std::sqrt(1.0 - z * z)));
}

TEST(InputShaperTest, ShapedCommandLeavesUnderFivePercentOfTheResidualVibration) {
  const VibrationMode mode{4.0, 0.02};
  const cw::SampleMatrix move = QuinticMove();
  const double unshaped = ResidualVibration(move, mode);
  ASSERT_GT(unshaped, 0.05);
  const std::pair<const char*, ImpulseSequence> designs[] = {
      {"ZV", ZvShaper(mode)}, {"ZVD", ZvdShaper(mode)}, {"EI", EiShaper(mode, 0.03)}};
  for (const auto& [name, design] : designs) {
    InputShaper shaper(move, kSampleTimeS, design, 25);
    const double shaped = ResidualVibration(ShapedCommand(shaper, 200), mode);
    EXPECT_LT(shaped / unshaped, 0.05) << name;
  }
}

TEST(InputShaperTest, WindowsTileTheShapedMotionAndEndOnTheFinalPose) {
  // ZV at 4 Hz, undamped: half of the move now, half 125 ms later; windows of 7, the last of 3.
  InputShaper shaper(QuinticMove(), kSampleTimeS, ZvShaper({4.0, 0.0}), 7);
  ASSERT_EQ(shaper.shaped_samples(), 325);
  const cw::SampleMatrix command = ShapedCommand(shaper, 200);
  EXPECT_NEAR(command(0, 0), 0.0, 1e-12);
  EXPECT_NEAR(command(75, 0), 0.5 * 0.5, 1e-12);  // halfway through the first half-move
  EXPECT_NEAR(command(324, 0), 1.0, 1e-12);

  shaper.Prepare();
  ASSERT_TRUE(shaper.NextWindow().has_value());
  shaper.Cancel();
  EXPECT_FALSE(shaper.NextWindow().has_value());
  shaper.Prepare();
  EXPECT_TRUE(shaper.HasMoreWindows());
  shaper.Finalize();
  EXPECT_FALSE(shaper.HasMoreWindows());
}

}  // namespace
