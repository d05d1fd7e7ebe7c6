#include "engines/input_shaper.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace corvane::examples {

namespace cw = control::window;

namespace {

constexpr double kPi = 3.14159265358979323846;

// What the closed forms below need of a mode with natural frequency f and damping ratio z:
//   K  = exp(-z pi / sqrt(1 - z^2)),  the decay of the vibration over half a damped period;
//   Td = 1 / (f sqrt(1 - z^2)),       the damped period.
struct ModeTerms {
  double decay;            // K
  double damped_period_s;  // Td
};

ModeTerms TermsOf(const VibrationMode& mode) {
  const double f = mode.natural_frequency_hz;
  const double z = mode.damping_ratio;
  if (!std::isfinite(f) || f <= 0.0 || !(z >= 0.0 && z < 1.0)) {
    throw std::invalid_argument(
        "VibrationMode needs a finite positive frequency and a damping ratio in [0, 1).");
  }
  const double root = std::sqrt(1.0 - z * z);
  return {std::exp(-z * kPi / root), 1.0 / (f * root)};
}

// Impulses at the given times with amplitudes proportional to `weights`, scaled to sum to 1.
ImpulseSequence Normalized(std::vector<double> weights, std::vector<double> times_s) {
  double sum = 0.0;
  for (const double weight : weights) sum += weight;
  for (double& weight : weights) weight /= sum;
  return {std::move(weights), std::move(times_s)};
}

}  // namespace

// Singer and Seering (1990), "Preshaping command inputs to reduce system vibration":
//   A = [1, K] / (1 + K),  t = [0, Td / 2].
ImpulseSequence ZvShaper(const VibrationMode& mode) {
  const ModeTerms terms = TermsOf(mode);
  const double k = terms.decay;
  return Normalized({1.0, k}, {0.0, terms.damped_period_s / 2.0});
}

// Singer and Seering (1990), as above:
//   A = [1, 2K, K^2] / (1 + K)^2,  t = [0, Td / 2, Td].
ImpulseSequence ZvdShaper(const VibrationMode& mode) {
  const ModeTerms terms = TermsOf(mode);
  const double k = terms.decay;
  const double td = terms.damped_period_s;
  return Normalized({1.0, 2.0 * k, k * k}, {0.0, td / 2.0, td});
}

// Singhose, Seering and Singer (1994), "Residual vibration reduction using vector diagrams to
// generate shaped inputs": for an undamped mode and a tolerable vibration V,
//   A = [(1 + V) / 4, (1 - V) / 2, (1 + V) / 4],  t = [0, T / 2, T].
// Damping is taken in as ZV and ZVD take it: impulse i is scaled by K^i (then all are scaled to
// sum to 1) and spaced by half the damped period Td. This is exact for z = 0 and leaves a
// residual vibration close to V for light damping.
ImpulseSequence EiShaper(const VibrationMode& mode, double tolerable_vibration) {
  const double v = tolerable_vibration;
  if (!(v >= 0.0 && v < 1.0)) {
    throw std::invalid_argument("tolerable_vibration must lie in [0, 1).");
  }
  const ModeTerms terms = TermsOf(mode);
  const double k = terms.decay;
  const double td = terms.damped_period_s;
  return Normalized({(1.0 + v) / 4.0, (1.0 - v) / 2.0 * k, (1.0 + v) / 4.0 * k * k},
                    {0.0, td / 2.0, td});
}

InputShaper::InputShaper(cw::SampleMatrix trajectory, double sample_time_s, ImpulseSequence shaper,
                         Eigen::Index window_samples)
    : trajectory_(std::move(trajectory)),
      sample_time_s_(sample_time_s),
      shaper_(std::move(shaper)),
      window_samples_(window_samples) {
  if (trajectory_.rows() < 1 || trajectory_.cols() < 1 || !trajectory_.allFinite()) {
    throw std::invalid_argument("The trajectory must hold finite samples of at least one joint.");
  }
  if (!std::isfinite(sample_time_s) || sample_time_s <= 0.0) {
    throw std::invalid_argument("sample_time_s must be finite and positive.");
  }
  const auto& times = shaper_.times_s;
  if (times.empty() || times.size() != shaper_.amplitudes.size() || times.front() != 0.0 ||
      !std::is_sorted(times.begin(), times.end()) || !std::isfinite(times.back())) {
    throw std::invalid_argument("The shaper needs one time per amplitude, from 0 upwards.");
  }
  if (window_samples < 1) throw std::invalid_argument("window_samples must be positive.");
  const auto extra = static_cast<Eigen::Index>(std::ceil(times.back() / sample_time_s - 1e-9));
  shaped_samples_ = trajectory_.rows() + extra;
}

void InputShaper::Prepare() {
  cursor_ = 0;
  ended_ = false;
}

void InputShaper::Advance(std::optional<std::size_t> /*steps*/) {}

std::optional<cw::ShapedTrajectoryWindow> InputShaper::NextWindow() {
  if (!HasMoreWindows()) return std::nullopt;
  const auto started = std::chrono::steady_clock::now();
  const Eigen::Index rows = std::min(window_samples_, shaped_samples_ - cursor_);
  cw::ShapedTrajectoryWindow window = ShapeWindow(cursor_, rows);
  cursor_ += rows;
  window.compute_time_s =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  return window;
}

bool InputShaper::HasMoreWindows() const { return !ended_ && cursor_ < shaped_samples_; }

void InputShaper::Cancel() { ended_ = true; }

void InputShaper::Finalize() { ended_ = true; }

cw::ShapedTrajectoryWindow InputShaper::ShapeWindow(Eigen::Index first, Eigen::Index rows) const {
  // One sample either side, for the central differences of velocity and acceleration.
  const cw::SampleMatrix around = ShapedPositions(first - 1, rows + 2);
  const auto before = around.topRows(rows);
  const auto at = around.middleRows(1, rows);
  const auto after = around.bottomRows(rows);
  const double h = sample_time_s_;

  cw::ShapedTrajectoryWindow window;
  window.positions = at;
  window.velocities = (after - before) / (2.0 * h);
  window.accelerations = (after - 2.0 * at + before) / (h * h);
  window.time_s = Eigen::VectorXd::LinSpaced(rows, static_cast<double>(first),
                                             static_cast<double>(first + rows - 1)) *
                  h;
  window.start_index = static_cast<std::size_t>(first);
  window.stop_index = static_cast<std::size_t>(first + rows);
  window.is_tail = first >= trajectory_.rows();
  return window;
}

cw::SampleMatrix InputShaper::ShapedPositions(Eigen::Index first, Eigen::Index rows) const {
  cw::SampleMatrix positions = cw::SampleMatrix::Zero(rows, trajectory_.cols());
  for (std::size_t i = 0; i < shaper_.times_s.size(); ++i) {
    const double delay = shaper_.times_s[i] / sample_time_s_;  // in samples
    for (Eigen::Index row = 0; row < rows; ++row) {
      const double sample = static_cast<double>(first + row) - delay;
      positions.row(row) += shaper_.amplitudes[i] * TrajectoryAt(sample);
    }
  }
  return positions;
}

Eigen::RowVectorXd InputShaper::TrajectoryAt(double sample) const {
  const Eigen::Index last = trajectory_.rows() - 1;
  if (sample <= 0.0) return trajectory_.row(0);
  if (sample >= static_cast<double>(last)) return trajectory_.row(last);
  const auto below = static_cast<Eigen::Index>(std::floor(sample));
  const double fraction = sample - static_cast<double>(below);
  return (1.0 - fraction) * trajectory_.row(below) + fraction * trajectory_.row(below + 1);
}

}  // namespace corvane::examples
