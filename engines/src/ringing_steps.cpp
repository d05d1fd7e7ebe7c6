#include "ringing_steps.hpp"

#include <cmath>
#include <complex>

#include <Eigen/QR>
#include <unsupported/Eigen/FFT>

namespace corvane::control::engines {

Eigen::VectorXd WithoutTrend(const Eigen::VectorXd& samples) {
  Eigen::MatrixXd line(samples.size(), 2);
  line.col(0).setOnes();
  line.col(1) = Eigen::VectorXd::LinSpaced(samples.size(), -1.0, 1.0);
  return samples - line * line.colPivHouseholderQr().solve(samples);
}

std::size_t SmoothFftLength(std::size_t at_least) {
  for (std::size_t length = at_least;; ++length) {
    std::size_t rest = length;
    for (const std::size_t factor : {std::size_t{2}, std::size_t{3}, std::size_t{5}}) {
      while (rest % factor == 0) rest /= factor;
    }
    if (rest == 1) return length;
  }
}

Spectrum PaddedSpectrum(const Eigen::VectorXd& samples, double sample_rate_hz) {
  const std::size_t length = SmoothFftLength(4 * static_cast<std::size_t>(samples.size()));
  std::vector<double> padded(length, 0.0);
  Eigen::Map<Eigen::VectorXd>(padded.data(), samples.size()) = samples;
  std::vector<std::complex<double>> lines;
  Eigen::FFT<double>().fwd(lines, padded);
  Spectrum spectrum{std::vector<double>(length / 2 + 1),
                    sample_rate_hz / static_cast<double>(length)};
  for (std::size_t line = 0; line < spectrum.power.size(); ++line) {
    spectrum.power[line] = std::norm(lines[line]);
  }
  return spectrum;
}

double SpectralPeakHz(const Spectrum& spectrum, double lowest_hz) {
  auto peak = static_cast<std::size_t>(std::ceil(lowest_hz / spectrum.line_hz));
  for (std::size_t line = peak + 1; line < spectrum.power.size(); ++line) {
    if (spectrum.power[line] > spectrum.power[peak]) peak = line;
  }
  return peak < spectrum.power.size() ? static_cast<double>(peak) * spectrum.line_hz : lowest_hz;
}

}  // namespace corvane::control::engines
