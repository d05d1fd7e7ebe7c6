#include "corvane_shaper_engines/impulse_sequence.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <stdexcept>

#include "angles.hpp"
#include "shaping_taps.hpp"
#include "vibration.hpp"

namespace corvane::control::engines {

namespace cw = control::window;

namespace {

// Delays from 2^53 samples up no longer count whole samples exactly.
constexpr double kLongestDelaySamples = 9007199254740992.0;

void RequirePeriod(double sample_time_s) {
  if (!std::isfinite(sample_time_s) || sample_time_s <= 0.0) {
    throw std::invalid_argument("sample_time_s must be finite and positive.");
  }
}

}  // namespace

void ValidateVibrationMode(const VibrationMode& mode) {
  const double f = mode.natural_frequency_hz;
  if (!std::isfinite(f) || f <= 0.0) {
    throw std::invalid_argument("natural_frequency_hz must be finite and positive.");
  }
  if (!(mode.damping_ratio >= 0.0 && mode.damping_ratio < 1.0)) {
    throw std::invalid_argument("damping_ratio must lie in [0, 1).");
  }
}

void ValidateImpulseSequence(const ImpulseSequence& shaper) {
  const auto& times = shaper.times_s;
  const auto& amplitudes = shaper.amplitudes;
  if (times.empty() || times.size() != amplitudes.size()) {
    throw std::invalid_argument(
        "The shaper needs at least one impulse and one time per amplitude.");
  }
  const auto finite = [](double value) { return std::isfinite(value); };
  if (!std::all_of(times.begin(), times.end(), finite) ||
      !std::all_of(amplitudes.begin(), amplitudes.end(), finite)) {
    throw std::invalid_argument("The shaper's amplitudes and times must be finite.");
  }
  if (times.front() != 0.0 || !std::is_sorted(times.begin(), times.end())) {
    throw std::invalid_argument("The shaper's times must run from 0 upwards.");
  }
  double sum = 0.0, size = 0.0;
  for (const double amplitude : amplitudes) {
    sum += amplitude;
    size += std::abs(amplitude);
  }
  if (!(std::abs(sum - 1.0) <= 1e-9 * size)) {
    throw std::invalid_argument("The shaper's amplitudes must sum to 1.");
  }
}

double ResidualVibration(const ImpulseSequence& shaper, const VibrationMode& mode) {
  ValidateImpulseSequence(shaper);
  ValidateVibrationMode(mode);
  return UncheckedResidualVibration(shaper, mode);
}

double UncheckedResidualVibration(const ImpulseSequence& shaper, const VibrationMode& mode) {
  const double f = mode.natural_frequency_hz;
  const double z = mode.damping_ratio;
  const double end = shaper.times_s.back();
  if (!std::isfinite(2.0 * kPi * f * end)) {
    throw std::invalid_argument(
        "natural_frequency_hz is too high for the shaper: its phase over the shaper's duration "
        "is not finite.");
  }
  // Each impulse, seen from the last one: a phasor of length A_i exp(-z w (tn - t_i)).
  std::complex<double> sum = 0.0;
  for (std::size_t i = 0; i < shaper.times_s.size(); ++i) {
    const double t = shaper.times_s[i];
    sum += shaper.amplitudes[i] * std::exp(-z * 2.0 * kPi * (f * (end - t))) *
           std::polar(1.0, std::sqrt(1.0 - z * z) * 2.0 * kPi * (f * t));
  }
  return std::abs(sum);
}

double SampledResidualVibration(const ImpulseSequence& shaper, const VibrationMode& mode,
                                double sample_time_s) {
  ValidateVibrationMode(mode);
  const ImpulseSequence applied = ShapingTaps(shaper, sample_time_s).Impulses(sample_time_s);
  if (!std::isfinite(applied.times_s.back())) {
    throw std::invalid_argument(
        "sample_time_s is too long for the shaper: its whole-sample delays are not finite.");
  }
  return UncheckedResidualVibration(applied, mode);
}

Eigen::Index ShaperSamples(const ImpulseSequence& shaper, double sample_time_s) {
  return ShapingTaps(shaper, sample_time_s).history_rows();
}

cw::SampleMatrix ShapeSamples(const cw::SampleMatrix& reference, double sample_time_s,
                              const ImpulseSequence& shaper) {
  if (reference.rows() < 1 || reference.cols() < 1 || !reference.allFinite()) {
    throw std::invalid_argument("The reference must hold finite samples of at least one joint.");
  }
  return ShapingTaps(shaper, sample_time_s).Shape(reference, 0, reference.rows());
}

ShapingTaps::ShapingTaps(const ImpulseSequence& shaper, double sample_time_s) {
  ValidateImpulseSequence(shaper);
  RequirePeriod(sample_time_s);
  for (std::size_t i = 0; i < shaper.times_s.size(); ++i) {
    // [samples]; a delay within rounding of a whole sample count is taken as that count.
    const double delay = shaper.times_s[i] / sample_time_s;
    if (!(delay < kLongestDelaySamples)) {
      throw std::invalid_argument(
          "sample_time_s is too short for the shaper: its duration spans more samples than can "
          "be counted.");
    }
    const double nearest = std::round(delay);
    const double whole = std::abs(delay - nearest) < 1e-9 ? nearest : std::floor(delay);
    const double fraction = std::max(delay - whole, 0.0);
    const auto lag = static_cast<Eigen::Index>(whole);
    taps_.push_back({lag, shaper.amplitudes[i] * (1.0 - fraction)});
    if (fraction > 0.0) taps_.push_back({lag + 1, shaper.amplitudes[i] * fraction});
    history_rows_ = std::max(history_rows_, taps_.back().lag);
  }
}

ImpulseSequence ShapingTaps::Impulses(double sample_time_s) const {
  std::vector<Tap> by_lag = taps_;
  std::stable_sort(by_lag.begin(), by_lag.end(),
                   [](const Tap& a, const Tap& b) { return a.lag < b.lag; });
  ImpulseSequence impulses;
  for (const Tap& tap : by_lag) {
    impulses.amplitudes.push_back(tap.weight);
    impulses.times_s.push_back(static_cast<double>(tap.lag) * sample_time_s);
  }
  return impulses;
}

cw::SampleMatrix ShapingTaps::Shape(const cw::SampleMatrix& source, Eigen::Index first,
                                    Eigen::Index rows) const {
  const Eigen::Index last = source.rows() - 1;
  cw::SampleMatrix shaped = cw::SampleMatrix::Zero(rows, source.cols());
  for (Eigen::Index row = 0; row < rows; ++row) {
    for (const Tap& tap : taps_) {
      const Eigen::Index read = std::clamp<Eigen::Index>(first + row - tap.lag, 0, last);
      shaped.row(row) += tap.weight * source.row(read);
    }
  }
  return shaped;
}

}  // namespace corvane::control::engines
