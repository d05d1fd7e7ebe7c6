#include <corvane_shaper_engines/input_shaper.hpp>

#include <cmath>
#include <complex>
#include <cstddef>
#include <functional>
#include <limits>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <vector>

#include <corvane_shaper_engines/lifted_mpc_solver.hpp>
#include <corvane_shaper_engines/ringing_tuning.hpp>
#include <corvane_shaper_engines/shaper_designs.hpp>
#include <corvane_shaper_engines/shaping_solve_session.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <window/records.hpp>

namespace corvane::control::engines {
namespace {

namespace cw = control::window;

constexpr double kSampleTimeS = 0.001;
constexpr double kPi = 3.14159265358979323846;

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
  EXPECT_THAT(Impulses(EiShaper({2, 0}, 0.05)), near({0.2625, 0.475, 0.2625, 0, 0.25, 0.5}));
}

// Residual vibration of a damped mode after the shaper, after Singer and Seering: the modulus of
// the sum of A_i exp((z w + i wd) (t_i - tn)), tn the last impulse's time.
double ClosedFormVibration(const ImpulseSequence& shaper, double frequency_hz, double z) {
  const double w = 2.0 * kPi * frequency_hz;
  const std::complex<double> s(z * w, w * std::sqrt(1 - z * z));
  std::complex<double> sum = 0.0;
  for (std::size_t i = 0; i < shaper.times_s.size(); ++i) {
    sum += shaper.amplitudes[i] * std::exp(s * (shaper.times_s[i] - shaper.times_s.back()));
  }
  return std::abs(sum);
}

// Each design at 5 Hz over damping ratios and tolerances: the zero-vibration designs leave none
// at the design mode, the EI family its tolerance (two-hump EI: none) at a local maximum, and
// every EI design at most its tolerance across its published band (insensitivity for an
// undamped mode, at 2 % and 5 %: EI 0.25 and 0.40, two-hump 0.54 and 0.72, three-hump 0.78 and
// 0.96 of the design frequency; damping widens them).
TEST(InputShaperTest, ResidualVibrationMeetsEachDesignsProperty) {
  // By kind: the vibration at the design mode over V, and the band's half-widths for V of 2, 5 %.
  const double at_design[] = {0, 0, 0, 1, 0, 1};
  const double bands[][2] = {{0, 0}, {0, 0}, {0, 0}, {0.12, 0.19}, {0.26, 0.35}, {0.38, 0.47}};
  for (const ShaperKind kind : kShaperKinds) {
    const double peak = at_design[int(kind)];
    for (const double z : {0.0, 0.05, 0.1, 0.2}) {
      for (const int tolerance : {0, 1}) {
        const double v = tolerance == 0 ? 0.02 : 0.05, band = bands[int(kind)][tolerance];
        SCOPED_TRACE(testing::Message() << ShaperName(kind) << " z " << z << " V " << v);
        const ImpulseSequence shaper = DesignShaper(kind, {5.0, z}, v);
        EXPECT_NEAR(std::accumulate(shaper.amplitudes.begin(), shaper.amplitudes.end(), 0.0), 1,
                    1e-12);
        EXPECT_NEAR(ClosedFormVibration(shaper, 5.0, z), peak * v, 1e-10);
        if (peak > 0) {  // a hump: no more just either side
          EXPECT_LE(ClosedFormVibration(shaper, 5.0 * 1.001, z), v);
          EXPECT_LE(ClosedFormVibration(shaper, 5.0 * 0.999, z), v);
        }
        for (double f = 5.0 * (1 - band); f <= 5.0 * (1 + band); f += 0.001) {
          ASSERT_LE(ClosedFormVibration(shaper, f, z), v * (1 + 1e-9)) << f << " Hz";
          ASSERT_NEAR(ResidualVibration(shaper, {f, z}), ClosedFormVibration(shaper, f, z), 1e-12);
        }
      }
    }
  }
}

// Bad input is refused with std::invalid_argument, naming the argument.
TEST(InputShaperTest, DesignsRefuseBadInputNamingTheArgument) {
  const auto refuses = [](const char* argument) {
    return testing::ThrowsMessage<std::invalid_argument>(testing::HasSubstr(argument));
  };
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_THAT([] { ZvShaper({0.0, 0.1}); }, refuses("natural_frequency_hz"));
  EXPECT_THAT([&] { MzvShaper({nan, 0.1}); }, refuses("natural_frequency_hz"));
  EXPECT_THAT([] { ZvdShaper({2.0, 1.0}); }, refuses("damping_ratio"));
  EXPECT_THAT([] { EiShaper({2.0, -0.1}); }, refuses("damping_ratio"));
  EXPECT_THAT([] { TwoHumpEiShaper({2.0, 0.1}, 0.0); }, refuses("vibration_tolerance"));
  EXPECT_THAT([] { ThreeHumpEiShaper({2.0, 0.1}, 1.0); }, refuses("vibration_tolerance"));
  EXPECT_THAT([] { ResidualVibration({{1.0}, {0.1}}, {2.0, 0.1}); }, refuses("times"));
  EXPECT_THROW(ThreeHumpEiShaper({2.0, 0.3}, 0.3), std::domain_error);  // no such design
}

// Designs that exist and that a continuation in steps of 0.02 without step control lost, in an
// uneven pattern; each now has its design property, and the band choice no longer skips one.
TEST(InputShaperTest, ContinuationFindsEveryExtraInsensitiveDesignThatExists) {
  const struct {
    ShaperKind kind;
    double z, v, at_design;
  } cases[] = {{ShaperKind::kEi, 0.015, 0.001, 1},        {ShaperKind::kEi, 0.02, 0.001, 1},
               {ShaperKind::kEi, 0.025, 0.001, 1},        {ShaperKind::kThreeHumpEi, 0.11, 0.2, 1},
               {ShaperKind::kThreeHumpEi, 0.115, 0.2, 1}, {ShaperKind::kTwoHumpEi, 0.175, 0.2, 0},
               {ShaperKind::kTwoHumpEi, 0.185, 0.2, 0},   {ShaperKind::kTwoHumpEi, 0.195, 0.2, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << ShaperName(c.kind) << " z " << c.z << " V " << c.v);
    const ImpulseSequence shaper = DesignShaper(c.kind, {1.0, c.z}, c.v);
    for (const double a : shaper.amplitudes) EXPECT_GT(a, 0.0);
    EXPECT_NEAR(ClosedFormVibration(shaper, 1.0, c.z), c.at_design * c.v, 1e-10);
  }
  for (const double z : {0.105, 0.11, 0.115}) {
    EXPECT_EQ(ChooseShaper({10.0, z}, 0.65, 0.2).kind, ShaperKind::kThreeHumpEi) << z;
  }
}

// Inputs once accepted into nonsense (an impulse at time inf, NaN, an integer overflow, a step
// shaped to twice its height, NaN positions) are refused, naming what is at fault.
TEST(InputShaperTest, InputsThatGaveNonsenseAreRefusedByName) {
  const auto session = [](cw::SampleMatrix positions) {
    ShapingSolveSession stage(std::make_unique<LiftedMpcSolver>(kSampleTimeS, 10), {{1.0}, {0.0}},
                              kSampleTimeS);
    stage.Prepare();
    cw::WindowSlice request;
    request.positions = std::move(positions);
    request.stop_index = 10;
    request.metadata = {{"apply_samples", "1"}};
    stage.Solve(request);
  };
  const cw::SampleMatrix nan = cw::SampleMatrix::Constant(10, 1, std::nan(""));
  const struct {
    std::function<void()> call;
    const char* names;
  } cases[] = {{[] {
                  ZvShaper({1e-310, 0.0});
                },
                "natural_frequency_hz"},
               {[] {
                  ResidualVibration(ZvShaper({1.0, 0.0}), {1e308, 0.0});
                },
                "natural_frequency_hz"},
               {[] {
                  ShaperSamples({{0.5, 0.5}, {0.0, 1e10}}, 1e-10);
                },
                "sample_time_s"},
               {[] {
                  ShapeSamples(cw::SampleMatrix::Ones(5, 1), 1.0, {{1, 1}, {0, 1}});
                },
                "sum to 1"},
               {[&] { session(nan); }, "finite"},
               {[&] { session(cw::SampleMatrix(10, 0)); }, "one joint"},
               {[] {
                  LiftedMpcSolver(kSampleTimeS, 10, {HUGE_VAL, 0.0});
                },
                "LiftedMpcWeights"}};
  for (const auto& c : cases) {
    EXPECT_THAT(c.call, testing::ThrowsMessage<std::invalid_argument>(testing::HasSubstr(c.names)));
  }
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
double PlantVibration(const cw::SampleMatrix& command, const VibrationMode& mode) {
  using Complex = std::complex<double>;
  const double w = 2.0 * kPi * mode.natural_frequency_hz;
  const double z = mode.damping_ratio, wd = w * std::sqrt(1.0 - z * z);
  const Eigen::Index n = command.rows();
  const Eigen::ArrayXd t = Eigen::ArrayXd::LinSpaced(n - 1, static_cast<double>(1 - n), -1.0);
  const Eigen::ArrayXd steps = command.col(0).tail(n - 1) - command.col(0).head(n - 1);
  const Eigen::ArrayXcd phasors = (Complex(z * w, wd) * kSampleTimeS * t.cast<Complex>()).exp();
  return std::abs((steps.cast<Complex>() * phasors).sum()) * w / wd;
}

// Shaping scales the plant's residual vibration by the shaper's closed-form residual vibration;
// the delays, which fall between samples, are interpolated, so the two agree closely (rounding
// them to whole samples leaves errors of several percent).
TEST(InputShaperTest, ShapedCommandLeavesTheClosedFormShareOfTheVibration) {
  const VibrationMode mode{4.0, 0.02};
  const double unshaped = PlantVibration(QuinticMove(), mode);
  ASSERT_GT(unshaped, 0.05);
  for (const ShaperKind kind : kShaperKinds) {
    const ImpulseSequence design = DesignShaper(kind, mode, 0.03);
    InputShaper shaper(QuinticMove(), kSampleTimeS, design, 25);
    EXPECT_NEAR(PlantVibration(ShapedCommand(shaper), mode) / unshaped,
                ResidualVibration(design, mode), 1e-3)
        << ShaperName(kind);
  }
}

// A step shaped at 1 kHz and held over each sample leaves on an undamped mode what the sampled
// closed form says: near the Nyquist frequency the interpolated delays no longer cancel, and a
// ZV for 150 Hz leaves several percent where the continuous closed form says 0.
TEST(InputShaperTest, SampledVibrationIsWhatTheInterpolatedShaperLeaves) {
  cw::SampleMatrix step = cw::SampleMatrix::Ones(100, 1);
  step.topRows(10).setZero();
  for (const double f : {40.0, 150.0, 310.0}) {
    const VibrationMode mode{f, 0.0};
    for (const ImpulseSequence& shaper : {ZvShaper(mode), EiShaper(mode)}) {
      EXPECT_NEAR(PlantVibration(ShapeSamples(step, kSampleTimeS, shaper), mode) /
                      PlantVibration(step, mode),
                  SampledResidualVibration(shaper, mode, kSampleTimeS), 1e-9)
          << f;
    }
  }
  EXPECT_GT(SampledResidualVibration(ZvShaper({150, 0}), {150, 0}, kSampleTimeS), 0.04);
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
}  // namespace corvane::control::engines
