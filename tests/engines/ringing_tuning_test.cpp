#include <corvane_shaper_engines/ringing_tuning.hpp>

#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace corvane::control::engines {
namespace {

constexpr double kPi = 3.14159265358979323846;

// A free ringing x(t) = exp(-z w t) cos(wd t + phase) + offset over `seconds`, sampled at
// rate_hz, with white noise of 1 % of the ringing's first amplitude.
Eigen::VectorXd Ringing(const VibrationMode& mode, double rate_hz, double seconds, double phase,
                        double offset, unsigned seed) {
  std::mt19937 random(seed);
  std::normal_distribution<double> noise(0.0, 0.01);
  const double w = 2 * kPi * mode.natural_frequency_hz, z = mode.damping_ratio;
  const auto n = static_cast<Eigen::Index>(seconds * rate_hz);
  const Eigen::ArrayXd t = Eigen::ArrayXd::LinSpaced(n, 0, static_cast<double>(n - 1)) / rate_hz;
  const Eigen::ArrayXd ringing = (-z * w * t).exp() * (w * std::sqrt(1 - z * z) * t + phase).cos();
  return ringing.matrix() + Eigen::VectorXd::NullaryExpr(n, [&] { return offset + noise(random); });
}

// Deflection (with a rest offset) and acceleration (none) recordings of modes from 3 to 40 Hz:
// frequency within 1 %, damping within 10 %, and the chosen shaper keeps its band under 5 %
// by the closed form, evaluated here on its own grid at the estimated mode.
TEST(RingingTuningTest, RecoversTheModeAndChoosesAShaperThatMeetsItsBand) {
  struct Case {
    VibrationMode mode;
    double rate_hz, seconds, phase, offset, uncertainty;
    ShaperKind expected;
  };
  const Case cases[] = {{{40.0, 0.1}, 1000, 0.5, 0.3, 0.2, 0.2, ShaperKind::kEi},
                        {{6.0, 0.05}, 500, 3.0, -1.2, 0.0, 0.02, ShaperKind::kZv},
                        {{9.0, 0.08}, 1000, 1.5, 0.7, 0.1, 0.1, ShaperKind::kEi},
                        {{15.0, 0.02}, 1000, 2.0, 2.0, -0.5, 0.3, ShaperKind::kTwoHumpEi},
                        {{3.0, 0.01}, 200, 8.0, 0.0, 0.0, 0.45, ShaperKind::kThreeHumpEi}};
  unsigned seed = 1;
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.mode.natural_frequency_hz << " Hz");
    const RingingEstimate estimate = EstimateRinging(
        Ringing(c.mode, c.rate_hz, c.seconds, c.phase, c.offset, seed++), c.rate_hz);
    EXPECT_NEAR(estimate.mode.natural_frequency_hz / c.mode.natural_frequency_hz, 1.0, 0.01);
    EXPECT_NEAR(estimate.mode.damping_ratio / c.mode.damping_ratio, 1.0, 0.1);
    EXPECT_NEAR(estimate.noise_rms, 0.01, 0.002);

    const ShaperChoice choice = ChooseShaper(estimate.mode, c.uncertainty);
    EXPECT_EQ(choice.kind, c.expected) << ShaperName(choice.kind);
    EXPECT_EQ(choice.duration_s, choice.shaper.times_s.back());
    double worst = 0.0;
    for (int i = -100; i <= 100; ++i) {
      const double f = estimate.mode.natural_frequency_hz * (1 + c.uncertainty * i / 100.0);
      worst = std::max(worst, ResidualVibration(choice.shaper, {f, estimate.mode.damping_ratio}));
    }
    EXPECT_LE(worst, choice.worst_vibration + 1e-12);
    EXPECT_LE(choice.worst_vibration, 0.05 * (1 + 1e-9));
  }
}

// Recordings that cannot be read say why; so does a band that no shaper meets.
TEST(RingingTuningTest, RefusesRecordingsItCannotReadSayingWhy) {
  const VibrationMode mode{10.0, 0.05};
  Eigen::VectorXd with_nan = Ringing(mode, 1000, 1.0, 0, 0, 1);
  with_nan(500) = std::numeric_limits<double>::quiet_NaN();
  std::mt19937 random(2);
  std::normal_distribution<double> noise;
  const Eigen::VectorXd white = Eigen::VectorXd::NullaryExpr(1000, [&] { return noise(random); });
  const struct {
    Eigen::VectorXd samples;
    double rate_hz;
    const char* says;
  } cases[] = {{Ringing(mode, 1000, 0.01, 0, 0, 1), 1000, "too short: it holds 10 samples"},
               {Ringing(mode, 1000, 0.15, 0, 0, 1), 1000, "too short: it covers 1.4"},
               {with_nan, 1000, "not finite"},
               {Eigen::VectorXd::Constant(100, 3.0), 1000, "no ringing: its samples are constant"},
               {white, 1000, "no ringing"},
               {Ringing(mode, 1000, 1.0, 0, 0, 1), 0.0, "sample_rate_hz"}};
  for (const auto& c : cases) {
    EXPECT_THAT([&] { EstimateRinging(c.samples, c.rate_hz); },
                testing::ThrowsMessage<std::invalid_argument>(testing::HasSubstr(c.says)));
  }
  EXPECT_THROW(ChooseShaper(mode, 0.9), std::domain_error);
  EXPECT_THROW(ChooseShaper(mode, 1.0), std::invalid_argument);
}

// Recordings the estimate misread: an undamped ringing (refused for a decay of -6e-17 /s, and
// with 5 % noise for 8 of 20 seeds), a drift or an exponential settling under the ringing (the
// peak locked onto them: "too short"), and a ringing that dies out within a period ("too short").
TEST(RingingTuningTest, ReadsUndampedAndDriftingRingingsAndNamesWhatItCannotRead) {
  const Eigen::ArrayXd t = Eigen::ArrayXd::LinSpaced(1000, 0.0, 0.999);
  const struct {
    Eigen::VectorXd samples;
    double damping_ratio;
  } read[] = {
      {(2 * kPi * 20 * t + 0.3).cos(), 0.0},
      {Ringing({20.0, 0.02}, 1000, 1.0, 0.3, 0.0, 3) + (2.0 * t).matrix(), 0.02},
      {Ringing({20.0, 0.02}, 1000, 1.0, 0.3, 0.0, 4) + (3 * (-t / 0.3).exp()).matrix(), 0.02}};
  for (const auto& c : read) {
    const RingingEstimate estimate = EstimateRinging(c.samples, 1000);
    EXPECT_NEAR(estimate.mode.natural_frequency_hz, 20.0, 0.1);
    EXPECT_NEAR(estimate.mode.damping_ratio, c.damping_ratio, 0.002);
    EXPECT_GE(estimate.mode.damping_ratio, 0.0);
  }
  std::normal_distribution<double> noise(0.0, 0.05);
  for (const double z : {0.0, 3e-5}) {
    for (unsigned seed = 0; seed < 20; ++seed) {
      std::mt19937 random(seed);
      const Eigen::VectorXd noisy =
          Ringing({20.0, z}, 1000, 1.0, 0.3, 0.0, seed) +
          Eigen::VectorXd::NullaryExpr(1000, [&] { return noise(random); });
      EXPECT_GE(EstimateRinging(noisy, 1000).mode.damping_ratio, 0.0) << z << " " << seed;
    }
  }
  EXPECT_THAT(
      [] {
        EstimateRinging(Ringing({10.0, 0.9}, 1000, 1.0, 0.0, 0.0, 5), 1000);
      },
      testing::ThrowsMessage<std::invalid_argument>(testing::HasSubstr("damped")));
}

// A 600 Hz ringing sampled at 1 kHz reads as 400 Hz; the estimate flags a peak that close to the
// Nyquist frequency, and not one well below it.
TEST(RingingTuningTest, FlagsARingingNearTheNyquistFrequency) {
  EXPECT_TRUE(EstimateRinging(Ringing({600, 0.01}, 1000, 1.0, 0.0, 0.0, 6), 1000).near_nyquist);
  EXPECT_FALSE(EstimateRinging(Ringing({200, 0.01}, 1000, 1.0, 0.0, 0.0, 7), 1000).near_nyquist);
}

// The choice at 1 kHz meets the limit by the sampled closed form, recomputed here on a grid of
// its own, and says why it refuses a mode too close to the Nyquist frequency.
TEST(RingingTuningTest, ChoosesByTheVibrationAsSampledAndRefusesModesNearNyquist) {
  for (const double f : {40.0, 150.0}) {
    const ShaperChoice choice = ChooseShaper({f, 0.02}, 0.2, 0.05, 0.001);
    for (int i = -100; i <= 100; ++i) {
      const VibrationMode met{f * (1 + 0.2 * i / 100.0), 0.02};
      EXPECT_LE(SampledResidualVibration(choice.shaper, met, 0.001), 0.05 * (1 + 1e-9)) << f;
    }
  }
  EXPECT_THAT(
      [] {
        ChooseShaper({200, 0.02}, 0.2, 0.05, 0.001);
      },
      testing::ThrowsMessage<std::domain_error>(testing::HasSubstr("Nyquist")));
  EXPECT_THAT(
      [] {
        ChooseShaper({450, 0.02}, 0.2, 0.05, 0.001);
      },
      testing::ThrowsMessage<std::invalid_argument>(testing::HasSubstr("sample_time_s")));
}

// Designs exist up to the damping ratio the query gives and not beyond.
TEST(RingingTuningTest, MaximumDampingRatioIsWhereDesignsEnd) {
  for (const ShaperKind kind :
       {ShaperKind::kEi, ShaperKind::kTwoHumpEi, ShaperKind::kThreeHumpEi}) {
    const double end = MaximumDampingRatio(kind, 0.2).value();
    SCOPED_TRACE(testing::Message() << ShaperName(kind) << " " << end);
    EXPECT_NO_THROW(DesignShaper(kind, {1.0, end - 1e-6}, 0.2));
    EXPECT_THROW(DesignShaper(kind, {1.0, end + 1e-5}, 0.2), std::domain_error);
  }
  EXPECT_EQ(MaximumDampingRatio(ShaperKind::kZvd, 0.2), 1.0);
}

}  // namespace
}  // namespace corvane::control::engines
