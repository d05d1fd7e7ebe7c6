#include "corvane_shaper_engines/ringing_tuning.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <Eigen/QR>
#include <unsupported/Eigen/FFT>

namespace corvane::control::engines {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr Eigen::Index kMinimumSamples = 16;
constexpr double kMinimumPeriods = 2.0;

// A decaying sine plus an offset, x(t) = exp(-decay t) (a cos(w t) + b sin(w t)) + offset.
struct DampedSine {
  double decay_per_s;
  double frequency_rad_s;  // damped
  double a, b, offset;
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

// [rad/s] the frequency of the strongest spectral line of the samples less their mean: the
// peak of their spectrum, zero-padded to four times the length for a quarter-bin resolution.
double SpectralPeak(const Eigen::VectorXd& x, double sample_rate_hz) {
  const auto n = static_cast<std::size_t>(x.size());
  std::vector<double> padded(4 * n, 0.0);
  for (std::size_t k = 0; k < n; ++k) padded[k] = x(static_cast<Eigen::Index>(k)) - x.mean();
  std::vector<std::complex<double>> spectrum;
  Eigen::FFT<double>().fwd(spectrum, padded);
  std::size_t peak = 1;
  for (std::size_t line = 1; line < 2 * n; ++line) {
    if (std::norm(spectrum[line]) > std::norm(spectrum[peak])) peak = line;
  }
  return 2.0 * kPi * static_cast<double>(peak) / static_cast<double>(4 * n) * sample_rate_hz;
}

// Columns exp(-decay t) cos(w t), exp(-decay t) sin(w t), 1 of the model at times t.
Eigen::MatrixXd LinearBasis(const DampedSine& sine, const Eigen::VectorXd& t) {
  Eigen::MatrixXd basis(t.size(), 3);
  const Eigen::ArrayXd envelope = (-sine.decay_per_s * t.array()).exp();
  basis.col(0) = envelope * (sine.frequency_rad_s * t.array()).cos();
  basis.col(1) = envelope * (sine.frequency_rad_s * t.array()).sin();
  basis.col(2).setOnes();
  return basis;
}

// The amplitudes and offset that fit best for the sine's decay and frequency.
void FitLinear(DampedSine& sine, const Eigen::VectorXd& t, const Eigen::VectorXd& x) {
  const Eigen::Vector3d c = LinearBasis(sine, t).colPivHouseholderQr().solve(x);
  sine.a = c(0);
  sine.b = c(1);
  sine.offset = c(2);
}

Eigen::VectorXd Misfit(const DampedSine& sine, const Eigen::VectorXd& t, const Eigen::VectorXd& x) {
  return LinearBasis(sine, t) * Eigen::Vector3d(sine.a, sine.b, sine.offset) - x;
}

// The start of the fit: the spectral peak's frequency with the decay, out of a logarithmic
// range of damping ratios from 1e-4 to 0.5, that fits best.
DampedSine StartingSine(const Eigen::VectorXd& t, const Eigen::VectorXd& x, double sample_rate_hz) {
  const double w = SpectralPeak(x, sample_rate_hz);
  DampedSine best{0.0, w, 0.0, 0.0, 0.0};
  FitLinear(best, t, x);
  for (double z = 1e-4; z <= 0.5; z *= 1.3) {
    DampedSine trial{z * w, w, 0.0, 0.0, 0.0};
    FitLinear(trial, t, x);
    if (Misfit(trial, t, x).squaredNorm() < Misfit(best, t, x).squaredNorm()) best = trial;
  }
  return best;
}

// Gauss-Newton on all five parameters, with the step halved while it does not lower the misfit.
void FitNonlinear(DampedSine& sine, const Eigen::VectorXd& t, const Eigen::VectorXd& x) {
  for (int iteration = 0; iteration < 50; ++iteration) {
    const Eigen::MatrixXd basis = LinearBasis(sine, t);
    const Eigen::ArrayXd oscillation = (basis.col(0) * sine.a + basis.col(1) * sine.b).array();
    const Eigen::ArrayXd quadrature = (basis.col(1) * sine.a - basis.col(0) * sine.b).array();
    Eigen::MatrixXd jacobian(t.size(), 5);
    jacobian.col(0) = -t.array() * oscillation;  // d/d decay
    jacobian.col(1) = -t.array() * quadrature;   // d/d frequency
    jacobian.rightCols(3) = basis;
    const Eigen::VectorXd misfit = Misfit(sine, t, x);
    const Eigen::VectorXd step = jacobian.colPivHouseholderQr().solve(-misfit);
    double scale = 1.0;
    for (; scale > 1e-6; scale /= 2.0) {
      DampedSine trial{sine.decay_per_s + scale * step(0), sine.frequency_rad_s + scale * step(1),
                       sine.a + scale * step(2), sine.b + scale * step(3),
                       sine.offset + scale * step(4)};
      if (Misfit(trial, t, x).squaredNorm() < misfit.squaredNorm()) {
        sine = trial;
        break;
      }
    }
    if (scale <= 1e-6 || step.head(2).cwiseAbs().maxCoeff() < 1e-12 * sine.frequency_rad_s) return;
  }
}

void CheckUncertainty(double frequency_uncertainty) {
  if (!(frequency_uncertainty >= 0.0 && frequency_uncertainty < 1.0)) {
    throw std::invalid_argument("frequency_uncertainty must lie in [0, 1).");
  }
}

}  // namespace

RingingEstimate EstimateRinging(const Eigen::VectorXd& samples, double sample_rate_hz) {
  CheckRecording(samples, sample_rate_hz);
  const Eigen::VectorXd t =
      Eigen::VectorXd::LinSpaced(samples.size(), 0.0, static_cast<double>(samples.size() - 1)) /
      sample_rate_hz;
  DampedSine sine = StartingSine(t, samples, sample_rate_hz);
  FitNonlinear(sine, t, samples);

  const double periods = sine.frequency_rad_s * t(t.size() - 1) / (2.0 * kPi);
  if (!(periods >= kMinimumPeriods)) {
    throw std::invalid_argument("The ringing recording is too short: it covers " +
                                std::to_string(periods) + " periods of the ringing, at least 2 " +
                                "are needed.");
  }
  RingingEstimate estimate;
  estimate.amplitude = std::hypot(sine.a, sine.b);
  estimate.noise_rms =
      Misfit(sine, t, samples).norm() / std::sqrt(static_cast<double>(samples.size()));
  // A ringing explains most of what the samples vary by; a fit to noise explains little.
  const double spread_rms = (samples.array() - samples.mean()).matrix().norm() /
                            std::sqrt(static_cast<double>(samples.size()));
  if (!(sine.decay_per_s >= 0.0) || !(estimate.noise_rms < 0.7 * spread_rms)) {
    throw std::invalid_argument(
        "The ringing recording holds no ringing: no decaying oscillation stands out of the noise.");
  }
  const double natural = std::hypot(sine.decay_per_s, sine.frequency_rad_s);
  estimate.mode = {natural / (2.0 * kPi), sine.decay_per_s / natural};
  return estimate;
}

double WorstVibration(const ImpulseSequence& shaper, const VibrationMode& mode,
                      double frequency_uncertainty) {
  ValidateVibrationMode(mode);
  CheckUncertainty(frequency_uncertainty);
  constexpr int kPoints = 2000;
  double worst = 0.0;
  for (int point = 0; point <= kPoints; ++point) {
    const double offset = frequency_uncertainty * (2.0 * point / kPoints - 1.0);
    const VibrationMode met{mode.natural_frequency_hz * (1.0 + offset), mode.damping_ratio};
    worst = std::max(worst, ResidualVibration(shaper, met));
  }
  return worst;
}

ShaperChoice ChooseShaper(const VibrationMode& mode, double frequency_uncertainty,
                          double vibration_limit) {
  ValidateVibrationMode(mode);
  CheckUncertainty(frequency_uncertainty);
  if (!(vibration_limit > 0.0 && vibration_limit < 1.0)) {
    throw std::invalid_argument("vibration_limit must lie in (0, 1).");
  }
  std::optional<ShaperChoice> best;
  for (const ShaperKind kind : kShaperKinds) {
    ShaperChoice candidate{kind, {}, 0.0, 0.0};
    try {
      candidate.shaper = DesignShaper(kind, mode, vibration_limit);
    } catch (const std::domain_error&) {
      continue;  // no such design for this damping and limit
    }
    candidate.duration_s = candidate.shaper.times_s.back();
    candidate.worst_vibration = WorstVibration(candidate.shaper, mode, frequency_uncertainty);
    const bool shorter = !best || candidate.duration_s < best->duration_s ||
                         (candidate.duration_s == best->duration_s &&
                          candidate.worst_vibration < best->worst_vibration);
    // The EI family peaks at exactly the limit; rounding must not rule it out.
    const bool meets = candidate.worst_vibration <= vibration_limit * (1.0 + 1e-9);
    if (meets && shorter) best = std::move(candidate);
  }
  if (!best) {
    throw std::domain_error(
        "No shaper of the family keeps the vibration within vibration_limit over this band.");
  }
  return *best;
}

}  // namespace corvane::control::engines
