// Steps of reading a mode from a recorded ringing, shared by the estimates that need them.
#pragma once

#include <cstddef>
#include <vector>

#include <Eigen/Core>

namespace corvane::control::engines {

// The samples less their least-squares straight line (offset and drift) over the sample index.
Eigen::VectorXd WithoutTrend(const Eigen::VectorXd& samples);

// The smallest length from `at_least` up whose only prime factors are 2, 3 and 5: the FFT stays
// O(n log n) at such a length, where a prime one would make it quadratic.
std::size_t SmoothFftLength(std::size_t at_least);

// The power spectrum of samples zero-padded to a smooth length of at least four times theirs,
// for a quarter-bin resolution.
struct Spectrum {
  std::vector<double> power;  // [unit^2] lines 0 to the Nyquist frequency
  double line_hz = 0.0;       // [Hz] the spacing of the lines
};
Spectrum PaddedSpectrum(const Eigen::VectorXd& samples, double sample_rate_hz);

// [Hz] the frequency of the strongest line from lowest_hz [Hz] up; lowest_hz when none is above.
double SpectralPeakHz(const Spectrum& spectrum, double lowest_hz);

}  // namespace corvane::control::engines
