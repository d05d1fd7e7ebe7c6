#include "corvane_shaper_engines/ringing_modes.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>

#include <Eigen/Eigenvalues>
#include <Eigen/QR>
#include <Eigen/SVD>

namespace corvane::control::engines {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr Eigen::Index kMinimumSamples = 16;
constexpr Eigen::Index kPencilColumns = 100;  // most columns of the pencil's Hankel matrix
constexpr double kSecondModeF = 10.0;         // F statistic above which a second mode is there
constexpr double kSeparation = 3.0;           // standard deviations between resolved modes

// A sum of decaying sines plus an offset:
//   x(t) = sum_k exp(-d_k t) (a_k cos(w_k t) + b_k sin(w_k t)) + c,
// as p = [d_0, w_0, a_0, b_0, d_1, ..., c].
struct SineSum {
  Eigen::VectorXd p;
  Eigen::Index modes() const { return (p.size() - 1) / 4; }
};

void CheckRecording(const Eigen::VectorXd& samples, double sample_rate_hz) {
  if (!std::isfinite(sample_rate_hz) || sample_rate_hz <= 0.0) {
    throw std::invalid_argument("sample_rate_hz must be finite and positive.");
  }
  if (samples.size() < kMinimumSamples) {
    throw std::invalid_argument(
        "The ringing recording is too short: it holds fewer than 16 "
        "samples.");
  }
  if (!samples.allFinite()) {
    throw std::invalid_argument("The ringing recording holds values that are not finite.");
  }
}

// Columns per mode exp(-d t) cos(w t) and exp(-d t) sin(w t), then ones.
Eigen::MatrixXd Basis(const SineSum& sum, const Eigen::VectorXd& t) {
  Eigen::MatrixXd basis(t.size(), 2 * sum.modes() + 1);
  for (Eigen::Index k = 0; k < sum.modes(); ++k) {
    const Eigen::ArrayXd envelope = (-sum.p(4 * k) * t.array()).exp();
    basis.col(2 * k) = envelope * (sum.p(4 * k + 1) * t.array()).cos();
    basis.col(2 * k + 1) = envelope * (sum.p(4 * k + 1) * t.array()).sin();
  }
  basis.rightCols(1).setOnes();
  return basis;
}

Eigen::VectorXd Misfit(const SineSum& sum, const Eigen::VectorXd& t, const Eigen::VectorXd& x) {
  Eigen::VectorXd model = Eigen::VectorXd::Constant(t.size(), sum.p(sum.p.size() - 1));
  const Eigen::MatrixXd basis = Basis(sum, t);
  for (Eigen::Index k = 0; k < sum.modes(); ++k) {
    model += basis.col(2 * k) * sum.p(4 * k + 2) + basis.col(2 * k + 1) * sum.p(4 * k + 3);
  }
  return model - x;
}

Eigen::MatrixXd Jacobian(const SineSum& sum, const Eigen::VectorXd& t) {
  const Eigen::MatrixXd basis = Basis(sum, t);
  Eigen::MatrixXd jacobian(t.size(), sum.p.size());
  for (Eigen::Index k = 0; k < sum.modes(); ++k) {
    const double a = sum.p(4 * k + 2), b = sum.p(4 * k + 3);
    const Eigen::ArrayXd oscillation = (basis.col(2 * k) * a + basis.col(2 * k + 1) * b).array();
    const Eigen::ArrayXd quadrature = (basis.col(2 * k + 1) * a - basis.col(2 * k) * b).array();
    jacobian.col(4 * k) = -t.array() * oscillation;
    jacobian.col(4 * k + 1) = -t.array() * quadrature;
    jacobian.col(4 * k + 2) = basis.col(2 * k);
    jacobian.col(4 * k + 3) = basis.col(2 * k + 1);
  }
  jacobian.rightCols(1).setOnes();
  return jacobian;
}

// The amplitudes and offset that fit best for the sum's decays and frequencies.
void FitLinear(SineSum& sum, const Eigen::VectorXd& t, const Eigen::VectorXd& x) {
  const Eigen::VectorXd c = Basis(sum, t).colPivHouseholderQr().solve(x);
  for (Eigen::Index k = 0; k < sum.modes(); ++k) {
    sum.p(4 * k + 2) = c(2 * k);
    sum.p(4 * k + 3) = c(2 * k + 1);
  }
  sum.p(sum.p.size() - 1) = c(c.size() - 1);
}

// Decays and frequencies [1/s, rad/s] of the `modes` oscillating poles of a matrix pencil of the
// samples (modes pairs and the offset's pole), the least damped first; empty when the pencil
// finds fewer oscillating poles.
std::optional<SineSum> PencilPoles(const Eigen::VectorXd& x, double sample_rate_hz,
                                   Eigen::Index modes) {
  const Eigen::Index columns = std::min(kPencilColumns, x.size() / 3);
  Eigen::MatrixXd hankel(x.size() - columns, columns + 1);
  for (Eigen::Index j = 0; j <= columns; ++j) hankel.col(j) = x.segment(j, hankel.rows());
  const Eigen::Index order = 2 * modes + 1;
  const Eigen::MatrixXd v =
      Eigen::BDCSVD<Eigen::MatrixXd>(hankel, Eigen::ComputeThinV).matrixV().leftCols(order);
  const Eigen::MatrixXd shift =
      v.topRows(columns).completeOrthogonalDecomposition().solve(v.bottomRows(columns));
  std::vector<std::complex<double>> poles;
  const Eigen::VectorXcd eigenvalues = Eigen::EigenSolver<Eigen::MatrixXd>(shift).eigenvalues();
  for (const std::complex<double> z : eigenvalues) {
    const std::complex<double> s = std::log(z) * sample_rate_hz;
    if (s.imag() > 1e-9 * sample_rate_hz) poles.push_back(s);
  }
  if (static_cast<Eigen::Index>(poles.size()) < modes) return std::nullopt;
  std::sort(poles.begin(), poles.end(),
            [](auto a, auto b) { return -a.real() / std::abs(a) < -b.real() / std::abs(b); });
  SineSum sum{Eigen::VectorXd::Zero(4 * modes + 1)};
  for (Eigen::Index k = 0; k < modes; ++k) {
    sum.p(4 * k) = std::max(0.0, -poles[static_cast<std::size_t>(k)].real());
    sum.p(4 * k + 1) = poles[static_cast<std::size_t>(k)].imag();
  }
  return sum;
}

// Gauss-Newton on every parameter, with the step halved while it does not lower the misfit.
void FitNonlinear(SineSum& sum, const Eigen::VectorXd& t, const Eigen::VectorXd& x) {
  for (int iteration = 0; iteration < 100; ++iteration) {
    const Eigen::VectorXd misfit = Misfit(sum, t, x);
    const Eigen::VectorXd step = Jacobian(sum, t).colPivHouseholderQr().solve(-misfit);
    double scale = 1.0;
    for (; scale > 1e-6; scale /= 2.0) {
      const SineSum trial{sum.p + scale * step};
      if (Misfit(trial, t, x).squaredNorm() < misfit.squaredNorm()) {
        sum = trial;
        break;
      }
    }
    if (scale <= 1e-6) return;
  }
}

// A fit of `modes` modes, its misfit and its estimates; empty when it fails to find them.
struct Fit {
  SineSum sum;
  RingingModes modes;
  bool decaying = true;  // every mode decays, none grows
};

std::optional<Fit> FitModes(const Eigen::VectorXd& t, const Eigen::VectorXd& x,
                            double sample_rate_hz, Eigen::Index modes) {
  std::optional<SineSum> sum = PencilPoles(x, sample_rate_hz, modes);
  if (!sum) return std::nullopt;
  FitLinear(*sum, t, x);
  FitNonlinear(*sum, t, x);
  const Eigen::VectorXd misfit = Misfit(*sum, t, x);
  if (!misfit.allFinite()) return std::nullopt;
  const Eigen::MatrixXd jacobian = Jacobian(*sum, t);
  const double variance = misfit.squaredNorm() /
                          static_cast<double>(std::max<Eigen::Index>(1, t.size() - sum->p.size()));
  const Eigen::MatrixXd covariance =
      variance * (jacobian.transpose() * jacobian)
                     .completeOrthogonalDecomposition()
                     .solve(Eigen::MatrixXd::Identity(sum->p.size(), sum->p.size()));
  Fit fit{*sum, {}, true};
  fit.modes.noise_rms = misfit.norm() / std::sqrt(static_cast<double>(t.size()));
  for (Eigen::Index k = 0; k < modes; ++k) {
    const double d = sum->p(4 * k), w = sum->p(4 * k + 1);
    const double natural = std::hypot(d, w);
    // Gradients of f = natural / 2 pi and zeta = d / natural against d and w.
    const Eigen::Vector2d frequency_gradient = Eigen::Vector2d(d, w) / (2.0 * kPi * natural);
    const Eigen::Vector2d damping_gradient =
        Eigen::Vector2d(w * w, -d * w) / (natural * natural * natural);
    const Eigen::Matrix2d block = covariance.block<2, 2>(4 * k, 4 * k);
    ModeEstimate estimate;
    estimate.mode = {natural / (2.0 * kPi), d / natural};
    estimate.amplitude = std::hypot(sum->p(4 * k + 2), sum->p(4 * k + 3));
    estimate.frequency_uncertainty_hz =
        std::sqrt(std::max(0.0, frequency_gradient.dot(block * frequency_gradient)));
    estimate.damping_uncertainty =
        std::sqrt(std::max(0.0, damping_gradient.dot(block * damping_gradient)));
    fit.decaying = fit.decaying && d >= 0.0 && natural > 0.0;
    fit.modes.modes.push_back(estimate);
  }
  std::sort(fit.modes.modes.begin(), fit.modes.modes.end(), [](const auto& a, const auto& b) {
    return a.mode.natural_frequency_hz < b.mode.natural_frequency_hz;
  });
  return fit;
}

// The fit leaves an oscillation rather than noise: neighbouring misfits correlate by more than
// four standard deviations of white noise's correlation, 1 / sqrt(samples).
bool LeavesOscillation(const Fit& fit, const Eigen::VectorXd& t, const Eigen::VectorXd& x) {
  const Eigen::VectorXd misfit = Misfit(fit.sum, t, x);
  const Eigen::Index n = misfit.size();
  const double lag_one = misfit.head(n - 1).dot(misfit.tail(n - 1));
  return lag_one > 4.0 / std::sqrt(static_cast<double>(n)) * misfit.squaredNorm();
}

// Both modes of a two-mode fit decay, lie below the Nyquist frequency, stand out of the noise
// without dwarfing the samples (amplitude below ten times their largest excursion), and lie
// apart.
bool Resolved(const Fit& fit, double sample_rate_hz, double excursion) {
  const ModeEstimate& low = fit.modes.modes[0];
  const ModeEstimate& high = fit.modes.modes[1];
  const auto plausible = [&](const ModeEstimate& estimate) {
    return estimate.amplitude > kSeparation * fit.modes.noise_rms &&
           estimate.amplitude < 10.0 * excursion && estimate.mode.damping_ratio < 1.0 &&
           estimate.mode.natural_frequency_hz < 0.5 * sample_rate_hz;
  };
  return fit.decaying && plausible(low) && plausible(high) &&
         high.mode.natural_frequency_hz - low.mode.natural_frequency_hz >
             kSeparation * (low.frequency_uncertainty_hz + high.frequency_uncertainty_hz);
}

std::string Hz(double frequency) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f Hz", frequency);
  return text;
}

}  // namespace

RingingModes EstimateRingingModes(const Eigen::VectorXd& samples, double sample_rate_hz) {
  CheckRecording(samples, sample_rate_hz);
  const Eigen::VectorXd t =
      Eigen::VectorXd::LinSpaced(samples.size(), 0.0, static_cast<double>(samples.size() - 1)) /
      sample_rate_hz;
  const double spread_rms = (samples.array() - samples.mean()).matrix().norm() /
                            std::sqrt(static_cast<double>(samples.size()));
  const std::optional<Fit> one = FitModes(t, samples, sample_rate_hz, 1);
  const std::optional<Fit> two = FitModes(t, samples, sample_rate_hz, 2);
  const bool one_fits = one && one->decaying && one->modes.modes[0].mode.damping_ratio < 1.0 &&
                        one->modes.noise_rms < 0.7 * spread_rms;
  // A second mode is there when one mode leaves an oscillation behind, or when a second mode
  // explains what one leaves (an F test of the four parameters it adds); beyond the rounding of
  // an exact fit.
  const double one_misfit = one ? one->modes.noise_rms : spread_rms;
  const auto square = [](double value) { return value * value; };
  const double f_statistic =
      two ? (square(one_misfit) - square(two->modes.noise_rms)) / 4.0 /
                (square(two->modes.noise_rms) / static_cast<double>(samples.size() - 9))
          : 0.0;
  const bool second =
      (f_statistic > kSecondModeF || (one && LeavesOscillation(*one, t, samples))) &&
      one_misfit > 1e-6 * spread_rms;
  if (second) {
    const double excursion = (samples.array() - samples.mean()).abs().maxCoeff();
    if (two && Resolved(*two, sample_rate_hz, excursion)) return two->modes;
    const std::string near =
        one ? " near " + Hz(one->modes.modes[0].mode.natural_frequency_hz) : "";
    throw std::domain_error("The ringing recording holds two modes" + near +
                            " that cannot be told apart: record a longer or less noisy ringing.");
  }
  if (!one_fits) {
    throw std::invalid_argument(
        "The ringing recording holds no ringing: no decaying oscillation stands out of the noise.");
  }
  return one->modes;
}

}  // namespace corvane::control::engines
