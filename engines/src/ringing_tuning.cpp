#include "corvane_shaper_engines/ringing_tuning.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <Eigen/QR>

#include "angles.hpp"
#include "design_reach.hpp"
#include "ringing_steps.hpp"
#include "shaping_taps.hpp"
#include "vibration.hpp"

namespace corvane::control::engines {

namespace {

constexpr Eigen::Index kMinimumSamples = 16;
constexpr double kMinimumPeriods = 2.0;
// Of the sample rate: a ringing above a quarter of it has fewer than four samples per period.
constexpr double kNearNyquistShare = 0.25;

// A decaying sine on a straight line,
// x(t) = exp(-decay t) (a cos(w t) + b sin(w t)) + offset + drift t.
// Time in samples: decay [1/sample] and damped frequency [rad/sample].
struct DampedSine {
  double decay;
  double frequency;
  Eigen::Vector4d linear;  // a, b, offset, drift
};

void CheckRecording(const Eigen::VectorXd& samples, double sample_rate_hz) {
  if (!std::isfinite(sample_rate_hz) || sample_rate_hz <= 0.0) {
    throw std::invalid_argument("sample_rate_hz must be finite and positive.");
  }
  if (samples.size() < kMinimumSamples) {
    throw std::invalid_argument("The ringing recording is too short: it holds " +
                                std::to_string(samples.size()) + " samples, at least " +
                                std::to_string(kMinimumSamples) + " are needed.");
  }
  if (!samples.allFinite()) {
    throw std::invalid_argument("The ringing recording holds values that are not finite.");
  }
  const double spread = samples.maxCoeff() - samples.minCoeff();
  if (!(spread > 1e-12 * samples.cwiseAbs().maxCoeff())) {
    throw std::invalid_argument(
        "The ringing recording holds no ringing: its samples are constant.");
  }
}

// The samples over their largest magnitude, so that no sum of squares overflows. Throws
// std::invalid_argument when they lie on a straight line.
Eigen::VectorXd Normalised(const Eigen::VectorXd& samples) {
  const Eigen::VectorXd x = samples / samples.cwiseAbs().maxCoeff();
  const Eigen::VectorXd rest = WithoutTrend(x);
  if (!(rest.maxCoeff() - rest.minCoeff() > 1e-9 * (x.maxCoeff() - x.minCoeff()))) {
    throw std::invalid_argument(
        "The ringing recording holds no ringing: its samples lie on a straight line.");
  }
  return x;
}

// Columns exp(-decay t) cos(w t), exp(-decay t) sin(w t), 1, t of the model at times t.
Eigen::MatrixXd LinearBasis(const DampedSine& sine, const Eigen::VectorXd& t) {
  Eigen::MatrixXd basis(t.size(), 4);
  const Eigen::ArrayXd envelope = (-sine.decay * t.array()).exp();
  basis.col(0) = envelope * (sine.frequency * t.array()).cos();
  basis.col(1) = envelope * (sine.frequency * t.array()).sin();
  basis.col(2).setOnes();
  basis.col(3) = t;
  return basis;
}

// Fits the amplitudes, offset and drift best for the sine's decay and frequency; returns the
// squared norm of the misfit.
double FitLinear(DampedSine& sine, const Eigen::VectorXd& t, const Eigen::VectorXd& x) {
  const Eigen::MatrixXd basis = LinearBasis(sine, t);
  sine.linear = basis.householderQr().solve(x);
  return (basis * sine.linear - x).squaredNorm();
}

Eigen::VectorXd Misfit(const DampedSine& sine, const Eigen::VectorXd& t, const Eigen::VectorXd& x) {
  return LinearBasis(sine, t) * sine.linear - x;
}

// The start of the fit: the frequency of the strongest spectral line that the recording covers
// at least twice, once rid of its trend, with the decay, out of a logarithmic range of damping
// ratios from 1e-4 to 0.9, that fits best.
DampedSine StartingSine(const Eigen::VectorXd& t, const Eigen::VectorXd& x) {
  const double duration = t(t.size() - 1);
  const double w =
      2.0 * kPi * SpectralPeakHz(PaddedSpectrum(WithoutTrend(x), 1.0), kMinimumPeriods / duration);
  DampedSine best{0.0, w, {}};
  double best_misfit = FitLinear(best, t, x);
  for (double z = 1e-4; z <= 0.9; z *= 1.3) {
    DampedSine trial{z * w, w, {}};
    const double misfit = FitLinear(trial, t, x);
    if (misfit < best_misfit) std::tie(best, best_misfit) = std::pair(trial, misfit);
  }
  return best;
}

// Gauss-Newton on all six parameters (five with the decay held where it is), with the step halved
// while it does not lower the misfit.
void FitNonlinear(DampedSine& sine, const Eigen::VectorXd& t, const Eigen::VectorXd& x,
                  bool free_decay) {
  const Eigen::Index first = free_decay ? 0 : 1;
  for (int iteration = 0; iteration < 50; ++iteration) {
    const Eigen::MatrixXd basis = LinearBasis(sine, t);
    const double a = sine.linear(0), b = sine.linear(1);
    const Eigen::ArrayXd oscillation = (basis.col(0) * a + basis.col(1) * b).array();
    const Eigen::ArrayXd quadrature = (basis.col(1) * a - basis.col(0) * b).array();
    Eigen::MatrixXd jacobian(t.size(), 6);
    jacobian.col(0) = -t.array() * oscillation;  // d/d decay
    jacobian.col(1) = -t.array() * quadrature;   // d/d frequency
    jacobian.rightCols(4) = basis;
    const Eigen::VectorXd misfit = basis * sine.linear - x;
    Eigen::VectorXd step = Eigen::VectorXd::Zero(6);
    step.tail(6 - first) = jacobian.rightCols(6 - first).householderQr().solve(-misfit);
    const double before = misfit.squaredNorm();
    double scale = 1.0, after = before;
    for (; scale > 1e-6; scale /= 2.0) {
      DampedSine trial{sine.decay + scale * step(0), sine.frequency + scale * step(1),
                       sine.linear + scale * step.tail(4)};
      after = Misfit(trial, t, x).squaredNorm();
      if (after < before) {
        sine = trial;
        break;
      }
    }
    // Converged once a step no longer moves the misfit or the frequency.
    if (scale <= 1e-6 || before - after < 1e-12 * before ||
        step.head(2).cwiseAbs().maxCoeff() < 1e-12 * sine.frequency) {
      return;
    }
  }
}

// The fitted sine, its decay held at 0 where it came out negative. Throws std::invalid_argument
// when the oscillation grows by more than a tenth over the recording: no free ringing does.
DampedSine FitRinging(const Eigen::VectorXd& t, const Eigen::VectorXd& x) {
  DampedSine sine = StartingSine(t, x);
  FitNonlinear(sine, t, x, true);
  if (sine.decay < 0.0) {
    if (std::exp(-sine.decay * t(t.size() - 1)) > 1.1) {
      throw std::invalid_argument(
          "The ringing recording holds no free ringing: its oscillation grows.");
    }
    sine.decay = 0.0;
    FitLinear(sine, t, x);
    FitNonlinear(sine, t, x, false);
  }
  return sine;
}

// Throws std::invalid_argument unless the recording covers two periods of the fitted ringing
// and the ringing lasts that long (its envelope above 1 % of its start).
void CheckPeriods(const DampedSine& sine, double duration) {
  const double periods = sine.frequency * duration / (2.0 * kPi);
  if (periods >= kMinimumPeriods) return;
  const double lasting = sine.frequency * std::log(100.0) / (2.0 * kPi * sine.decay);
  if (lasting < kMinimumPeriods) {
    throw std::invalid_argument(
        "The ringing recording holds a ringing too strongly damped to read: it dies out within " +
        std::to_string(lasting) + " periods, at least 2 are needed.");
  }
  throw std::invalid_argument("The ringing recording is too short: it covers " +
                              std::to_string(periods) + " periods of the ringing, at least 2 " +
                              "are needed.");
}

void CheckUncertainty(double frequency_uncertainty) {
  if (!(frequency_uncertainty >= 0.0 && frequency_uncertainty < 1.0)) {
    throw std::invalid_argument("frequency_uncertainty must lie in [0, 1).");
  }
}

void CheckLimit(double vibration_limit) {
  if (!(vibration_limit > 0.0 && vibration_limit < 1.0)) {
    throw std::invalid_argument("vibration_limit must lie in (0, 1).");
  }
}

// The worst residual vibration that a valid shaper leaves over the band, on a grid of 2,001
// frequencies.
double WorstOverBand(const ImpulseSequence& shaper, const VibrationMode& mode,
                     double frequency_uncertainty) {
  constexpr int kPoints = 2000;
  double worst = 0.0;
  for (int point = 0; point <= kPoints; ++point) {
    const double offset = frequency_uncertainty * (2.0 * point / kPoints - 1.0);
    const VibrationMode met{mode.natural_frequency_hz * (1.0 + offset), mode.damping_ratio};
    worst = std::max(worst, UncheckedResidualVibration(shaper, met));
  }
  return worst;
}

bool IsExtraInsensitive(ShaperKind kind) {
  return kind == ShaperKind::kEi || kind == ShaperKind::kTwoHumpEi ||
         kind == ShaperKind::kThreeHumpEi;
}

// The design of `kind` for the band, judged as applied at sample_time_s when given, or nothing
// when the kind has no design at the mode's damping ratio. An EI design that the sampling lifts
// above the limit is redesigned with its tolerance lowered by as much, up to four times.
std::optional<ShaperChoice> Candidate(ShaperKind kind, const VibrationMode& mode,
                                      double frequency_uncertainty, double vibration_limit,
                                      std::optional<double> sample_time_s) {
  ShaperChoice candidate{kind, {}, 0.0, 0.0};
  double tolerance = vibration_limit;
  for (int attempt = 0; attempt < 5; ++attempt) {
    std::optional<ImpulseSequence> design = DesignIfExists(kind, mode, tolerance);
    if (!design) return std::nullopt;
    candidate.shaper = *std::move(design);
    candidate.worst_vibration =
        sample_time_s
            ? WorstVibration(candidate.shaper, mode, frequency_uncertainty, *sample_time_s)
            : WorstOverBand(candidate.shaper, mode, frequency_uncertainty);
    if (!sample_time_s || !IsExtraInsensitive(kind) ||
        candidate.worst_vibration <= vibration_limit) {
      break;
    }
    tolerance *= vibration_limit / candidate.worst_vibration;
  }
  candidate.duration_s = candidate.shaper.times_s.back();
  return candidate;
}

// The shortest candidate that meets the limit (of equally long ones, the smaller worst case).
// Throws std::domain_error when none does.
ShaperChoice Choose(const VibrationMode& mode, double frequency_uncertainty, double vibration_limit,
                    std::optional<double> sample_time_s) {
  std::optional<ShaperChoice> best;
  for (const ShaperKind kind : kShaperKinds) {
    std::optional<ShaperChoice> candidate =
        Candidate(kind, mode, frequency_uncertainty, vibration_limit, sample_time_s);
    if (!candidate) continue;
    const bool shorter = !best || candidate->duration_s < best->duration_s ||
                         (candidate->duration_s == best->duration_s &&
                          candidate->worst_vibration < best->worst_vibration);
    // The EI family peaks at exactly the limit; rounding must not rule it out.
    const bool meets = candidate->worst_vibration <= vibration_limit * (1.0 + 1e-9);
    if (meets && shorter) best = std::move(candidate);
  }
  if (!best) {
    throw std::domain_error(
        "No shaper of the family keeps the vibration within vibration_limit over this band.");
  }
  return *best;
}

}  // namespace

RingingEstimate EstimateRinging(const Eigen::VectorXd& samples, double sample_rate_hz) {
  CheckRecording(samples, sample_rate_hz);
  // Fitted in samples and in units of the largest magnitude, so that no rate or scale overflows:
  // decay and frequency per sample.
  const double scale = samples.cwiseAbs().maxCoeff();
  const Eigen::VectorXd x = Normalised(samples);
  const auto n = static_cast<double>(samples.size());
  const Eigen::VectorXd k = Eigen::VectorXd::LinSpaced(samples.size(), 0.0, n - 1.0);
  const DampedSine sine = FitRinging(k, x);
  CheckPeriods(sine, n - 1.0);
  RingingEstimate estimate;
  estimate.amplitude = std::hypot(sine.linear(0), sine.linear(1)) * scale;
  const double misfit_rms = Misfit(sine, k, x).norm() / std::sqrt(n);
  estimate.noise_rms = misfit_rms * scale;
  // A ringing explains most of what the samples vary by about their trend; a fit to noise
  // explains little.
  if (!(misfit_rms < 0.7 * WithoutTrend(x).norm() / std::sqrt(n))) {
    throw std::invalid_argument(
        "The ringing recording holds no ringing: no decaying oscillation stands out of the noise.");
  }
  const double natural = std::hypot(sine.decay, sine.frequency);
  estimate.mode = {natural / (2.0 * kPi) * sample_rate_hz, sine.decay / natural};
  if (!(estimate.mode.natural_frequency_hz > 0.0)) {
    throw std::invalid_argument("sample_rate_hz is too low: the ringing's frequency underflows.");
  }
  estimate.near_nyquist = sine.frequency / (2.0 * kPi) > kNearNyquistShare;
  return estimate;
}

double WorstVibration(const ImpulseSequence& shaper, const VibrationMode& mode,
                      double frequency_uncertainty) {
  ValidateVibrationMode(mode);
  CheckUncertainty(frequency_uncertainty);
  ValidateImpulseSequence(shaper);
  return WorstOverBand(shaper, mode, frequency_uncertainty);
}

double WorstVibration(const ImpulseSequence& shaper, const VibrationMode& mode,
                      double frequency_uncertainty, double sample_time_s) {
  ValidateVibrationMode(mode);
  CheckUncertainty(frequency_uncertainty);
  return WorstOverBand(ShapingTaps(shaper, sample_time_s).Impulses(sample_time_s), mode,
                       frequency_uncertainty);
}

ShaperChoice ChooseShaper(const VibrationMode& mode, double frequency_uncertainty,
                          double vibration_limit) {
  ValidateVibrationMode(mode);
  CheckUncertainty(frequency_uncertainty);
  CheckLimit(vibration_limit);
  return Choose(mode, frequency_uncertainty, vibration_limit, std::nullopt);
}

ShaperChoice ChooseShaper(const VibrationMode& mode, double frequency_uncertainty,
                          double vibration_limit, double sample_time_s) {
  ValidateVibrationMode(mode);
  CheckUncertainty(frequency_uncertainty);
  CheckLimit(vibration_limit);
  if (!std::isfinite(sample_time_s) || sample_time_s <= 0.0) {
    throw std::invalid_argument("sample_time_s must be finite and positive.");
  }
  if (!(mode.natural_frequency_hz * (1.0 + frequency_uncertainty) * 2.0 * sample_time_s < 1.0)) {
    throw std::invalid_argument(
        "The mode's band reaches the Nyquist frequency of sample_time_s: no shaper applied at "
        "that period can shape it.");
  }
  try {
    return Choose(mode, frequency_uncertainty, vibration_limit, sample_time_s);
  } catch (const std::domain_error&) {
    ChooseShaper(mode, frequency_uncertainty, vibration_limit);  // throws when none would meet
    throw std::domain_error(
        "No shaper of the family keeps the vibration within vibration_limit over this band once "
        "applied at sample_time_s: the mode is too close to the Nyquist frequency.");
  }
}

}  // namespace corvane::control::engines
