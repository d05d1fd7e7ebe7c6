#include <corvane_shaper_engines/multi_mode_shaper.hpp>

#include <cmath>
#include <limits>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>
#include <corvane_shaper_engines/ringing_tuning.hpp>

namespace corvane::control::engines {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// Convolution multiplies the vibration curves: a wrong time sum, amplitude product or merge of
// coincident impulses breaks the product somewhere on this grid; ZV * ZV of one mode is ZVD.
TEST(MultiModeShaperTest, ConvolutionMultipliesTheVibrationCurves) {
  const VibrationMode low{7.0, 0.02}, high{26.0, 0.03};
  const ImpulseSequence a = EiShaper(low), b = ZvShaper(high);
  const ImpulseSequence product = ConvolveShapers(a, b);
  for (double hz = 2.0; hz < 60.0; hz += 0.37) {
    for (const double zeta : {0.0, 0.03, 0.2}) {
      const VibrationMode mode{hz, zeta};
      EXPECT_NEAR(ResidualVibration(product, mode),
                  ResidualVibration(a, mode) * ResidualVibration(b, mode), 1e-12);
    }
  }
  const ImpulseSequence zvd = ZvdShaper(low), twice = ConvolveShapers(ZvShaper(low), ZvShaper(low));
  ASSERT_EQ(twice.times_s.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_NEAR(twice.amplitudes[i], zvd.amplitudes[i], 1e-12);
    EXPECT_NEAR(twice.times_s[i], zvd.times_s[i], 1e-12);
  }
}

// The choice keeps every band within the limit and is no longer than the convolution of each
// band's own ChooseShaper() choice; for two close modes one design may cover both.
TEST(MultiModeShaperTest, ChoiceMeetsEveryBandAndIsShortest) {
  struct Case {
    std::vector<ModeBand> bands;
  };
  const Case cases[] = {
      {{{{20.0, 0.03}, 0.05}, {{22.0, 0.03}, 0.05}}},
      {{{{8.7, 0.02}, 0.21}, {{26.2, 0.03}, 0.08}}},
      {{{{3.0, 0.0}, 0.1}, {{11.0, 0.05}, 0.0}, {{40.0, 0.01}, 0.15}}},
  };
  for (const Case& c : cases) {
    const MultiModeChoice choice = ChooseMultiModeShaper(c.bands);
    double separate_s = 0.0;
    for (std::size_t band = 0; band < c.bands.size(); ++band) {
      const ModeBand& b = c.bands[band];
      EXPECT_LE(WorstVibration(choice.shaper, b.mode, b.frequency_uncertainty), 0.05 + 1e-9);
      EXPECT_NEAR(choice.worst_vibration[band],
                  WorstVibration(choice.shaper, b.mode, b.frequency_uncertainty), 1e-12);
      separate_s += ChooseShaper(b.mode, b.frequency_uncertainty).duration_s;
    }
    EXPECT_LE(choice.duration_s, separate_s + 1e-12);
    EXPECT_DOUBLE_EQ(choice.duration_s, choice.shaper.times_s.back());
  }
}

TEST(MultiModeShaperTest, RefusesBadArgumentsByName) {
  const ModeBand good{{10.0, 0.02}, 0.1};
  struct Case {
    std::vector<ModeBand> bands;
    double limit;
    const char* named;
  };
  const Case cases[] = {
      {{}, 0.05, "bands"},
      {{good, good, good, good}, 0.05, "bands"},
      {{{{kNan, 0.02}, 0.1}}, 0.05, "natural_frequency_hz"},
      {{{{10.0, 1.0}, 0.1}}, 0.05, "damping_ratio"},
      {{{{10.0, 0.02}, 1.0}}, 0.05, "frequency_uncertainty"},
      {{{{10.0, 0.02}, kNan}}, 0.05, "frequency_uncertainty"},
      {{good}, 0.0, "vibration_limit"},
      {{good}, kNan, "vibration_limit"},
  };
  for (const Case& c : cases) {
    try {
      ChooseMultiModeShaper(c.bands, c.limit);
      ADD_FAILURE() << c.named;
    } catch (const std::invalid_argument& error) {
      EXPECT_NE(std::string(error.what()).find(c.named), std::string::npos) << error.what();
    }
  }
  EXPECT_THROW(ChooseMultiModeShaper({{{10.0, 0.02}, 0.9}}, 0.001), std::domain_error);
  EXPECT_THROW(MultiModeShaper({ShaperKind::kZv}, {}), std::invalid_argument);
  EXPECT_THROW(ConvolveShapers({{1.0}, {kNan}}, ZvShaper({5.0, 0.0})), std::invalid_argument);
}

}  // namespace
}  // namespace corvane::control::engines
