#include "plant/residual_vibration.hpp"

#include <cmath>
#include <stdexcept>

#include <Eigen/QR>

namespace corvane::plant {

namespace cs = control::engines;

namespace {

// [rad/s] the mode's decay rate zeta w and its damped angular frequency wd.
struct DampedSine {
  double decay_per_s;
  double angular_frequency;
};

DampedSine DampedSineOf(const cs::VibrationMode& mode) {
  const double w = 2.0 * M_PI * mode.natural_frequency_hz;
  const double zeta = mode.damping_ratio;
  return {zeta * w, w * std::sqrt(1.0 - zeta * zeta)};
}

}  // namespace

double FittedAmplitude(const Eigen::VectorXd& signal, double sample_time_s, SampleSpan span,
                       const cs::VibrationMode& mode) {
  return FittedAmplitudes(signal, sample_time_s, span, {mode}).front();
}

std::vector<double> FittedAmplitudes(const Eigen::VectorXd& signal, double sample_time_s,
                                     SampleSpan span, const std::vector<cs::VibrationMode>& modes) {
  if (span.first < 0 || span.count < 3 || span.first + span.count > signal.size()) {
    throw std::invalid_argument("The fitted span must lie within the signal.");
  }
  const auto columns = static_cast<Eigen::Index>(2 * modes.size() + 1);
  Eigen::MatrixXd basis(span.count, columns);
  for (Eigen::Index k = 0; k < span.count; ++k) {
    const double t = static_cast<double>(k) * sample_time_s;
    for (std::size_t m = 0; m < modes.size(); ++m) {
      const DampedSine sine = DampedSineOf(modes[m]);
      const double envelope = std::exp(-sine.decay_per_s * t);
      basis(k, static_cast<Eigen::Index>(2 * m)) = envelope * std::cos(sine.angular_frequency * t);
      basis(k, static_cast<Eigen::Index>(2 * m + 1)) =
          envelope * std::sin(sine.angular_frequency * t);
    }
    basis(k, columns - 1) = 1.0;
  }
  const Eigen::VectorXd fit =
      basis.colPivHouseholderQr().solve(signal.segment(span.first, span.count));
  std::vector<double> amplitudes;
  for (std::size_t m = 0; m < modes.size(); ++m) {
    amplitudes.push_back(fit.segment<2>(static_cast<Eigen::Index>(2 * m)).norm());
  }
  return amplitudes;
}

double Decay(const cs::VibrationMode& mode, double duration_s) {
  return std::exp(-DampedSineOf(mode).decay_per_s * duration_s);
}

double SameTimeVibrationRatio(const cs::ImpulseSequence& shaper, const cs::VibrationMode& mode) {
  return cs::ResidualVibration(shaper, mode) / Decay(mode, shaper.times_s.back());
}

}  // namespace corvane::plant
