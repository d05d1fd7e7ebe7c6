#include "corvane_shaper_engines/shaper_designs.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <Eigen/QR>

namespace corvane::control::engines {

namespace {

constexpr double kPi = 3.14159265358979323846;

// Checks the mode, then the tolerance.
void ValidateDesign(const VibrationMode& mode, double vibration_tolerance) {
  ValidateVibrationMode(mode);
  if (!(vibration_tolerance > 0.0 && vibration_tolerance < 1.0)) {
    throw std::invalid_argument("vibration_tolerance must lie in (0, 1).");
  }
}

// Impulses `spacing` [rad] apart, in units where the natural frequency is 1 rad/s, with
// amplitudes pattern[i] * decay^i scaled to sum to 1; times then scaled to seconds for `mode`.
ImpulseSequence Geometric(const VibrationMode& mode, const std::vector<double>& pattern,
                          double decay, double spacing) {
  ImpulseSequence shaper;
  double scale = 1.0, sum = 0.0;
  for (std::size_t i = 0; i < pattern.size(); ++i, scale *= decay) {
    shaper.amplitudes.push_back(pattern[i] * scale);
    shaper.times_s.push_back(static_cast<double>(i) * spacing /
                             (2.0 * kPi * mode.natural_frequency_hz));
    sum += shaper.amplitudes.back();
  }
  for (double& amplitude : shaper.amplitudes) amplitude /= sum;
  return shaper;
}

// The damped half period in units of the natural frequency, pi / sqrt(1 - z^2), and the decay of
// the vibration over `fraction` of it, exp(-fraction z pi / sqrt(1 - z^2)).
double HalfPeriod(double z) { return kPi / std::sqrt(1.0 - z * z); }
double Decay(double z, double fraction) { return std::exp(-fraction * z * HalfPeriod(z)); }

// ---------------------------------------------------------------------------------------------
// The extra-insensitive family, as constraint equations solved by Newton's method.
//
// Singhose, Seering and Singer (1994) and Singhose, Porter, Tuttle and Singer (1997, "Vibration
// reduction using multi-hump input shapers") design these shapers by their vibration curve
// V(w): the curve rises to humps of exactly the tolerance Vtol, each a local maximum
// (V = Vtol, dV/dw = 0), and falls to zero between and beyond them (V = 0). With n impulses
// (amplitudes summing to 1, the first at t = 0) the hump and zero frequencies are unknowns too:
//   EI:       3 impulses; a hump at the design frequency, a zero either side;
//   2-hump:   4 impulses; a zero at the design frequency, a hump then a zero either side;
//   3-hump:   5 impulses; a hump at the design frequency, a zero, a hump, a zero either side.
// Each is a square system. For an undamped mode the published closed forms solve it exactly
// (impulses half a period apart); the damped design is followed from there by continuation in
// the damping ratio, so the design property holds exactly at every damping.
// ---------------------------------------------------------------------------------------------

struct HumpLayout {
  std::size_t impulses;
  bool hump_at_design;     // else a zero at the design frequency
  std::size_t side_humps;  // free humps on either side
  std::size_t side_zeros;  // free zeros on either side
};

// Unknowns, in units where the design's natural frequency is 1 rad/s.
struct HumpUnknowns {
  std::vector<double> amplitudes;
  std::vector<double> times;  // the first 0
  std::vector<double> humps;  // free hump frequencies
  std::vector<double> zeros;  // free zero frequencies
};

Eigen::VectorXd Pack(const HumpUnknowns& u) {
  std::vector<double> all(u.amplitudes);
  all.insert(all.end(), u.times.begin() + 1, u.times.end());
  all.insert(all.end(), u.humps.begin(), u.humps.end());
  all.insert(all.end(), u.zeros.begin(), u.zeros.end());
  return Eigen::Map<const Eigen::VectorXd>(all.data(), static_cast<Eigen::Index>(all.size()));
}

HumpUnknowns Unpack(const HumpLayout& layout, const Eigen::VectorXd& x) {
  const std::size_t n = layout.impulses;
  const std::size_t humps = 2 * layout.side_humps;
  const double* p = x.data();
  HumpUnknowns u;
  u.amplitudes.assign(p, p + n);
  u.times.push_back(0.0);
  u.times.insert(u.times.end(), p + n, p + 2 * n - 1);
  u.humps.assign(p + 2 * n - 1, p + 2 * n - 1 + humps);
  u.zeros.assign(p + 2 * n - 1 + humps, p + x.size());
  return u;
}

// The vibration phasor W(w) = sum A_i exp(-z w (tn - t_i)) exp(i w sqrt(1 - z^2) t_i), |W| = V,
// and its derivative against w.
struct Phasor {
  std::complex<double> value;
  std::complex<double> slope;
};

Phasor PhasorAt(const HumpUnknowns& u, double z, double w) {
  const double end = u.times.back();
  Phasor phasor;
  for (std::size_t i = 0; i < u.amplitudes.size(); ++i) {
    const double t = u.times[i];
    const std::complex<double> rate(-z * (end - t), std::sqrt(1.0 - z * z) * t);
    const std::complex<double> term = u.amplitudes[i] * std::exp(rate * w);
    phasor.value += term;
    phasor.slope += rate * term;
  }
  return phasor;
}

// Appends V(w) - Vtol and dV/dw for a hump at w.
void HumpResiduals(const HumpUnknowns& u, double z, double tolerance, double w,
                   std::vector<double>& out) {
  const Phasor p = PhasorAt(u, z, w);
  const double v = std::abs(p.value);
  out.push_back(v - tolerance);
  out.push_back(std::real(std::conj(p.value) * p.slope) / v);
}

// Appends the real and imaginary parts of W(w) for a zero at w.
void ZeroResiduals(const HumpUnknowns& u, double z, double w, std::vector<double>& out) {
  const std::complex<double> value = PhasorAt(u, z, w).value;
  out.push_back(value.real());
  out.push_back(value.imag());
}

Eigen::VectorXd Residuals(const HumpLayout& layout, const Eigen::VectorXd& x, double z,
                          double tolerance) {
  const HumpUnknowns u = Unpack(layout, x);
  std::vector<double> out;
  double sum = 0.0;
  for (const double amplitude : u.amplitudes) sum += amplitude;
  out.push_back(sum - 1.0);
  if (layout.hump_at_design) {
    HumpResiduals(u, z, tolerance, 1.0, out);
  } else {
    ZeroResiduals(u, z, 1.0, out);
  }
  for (const double w : u.humps) HumpResiduals(u, z, tolerance, w, out);
  for (const double w : u.zeros) ZeroResiduals(u, z, w, out);
  return Eigen::Map<const Eigen::VectorXd>(out.data(), static_cast<Eigen::Index>(out.size()));
}

// Newton's method with a central-difference Jacobian; true once every residual is below 1e-13.
bool SolveHumps(const HumpLayout& layout, Eigen::VectorXd& x, double z, double tolerance) {
  const Eigen::Index size = x.size();
  for (int iteration = 0; iteration < 50; ++iteration) {
    const Eigen::VectorXd r = Residuals(layout, x, z, tolerance);
    if (!r.allFinite()) return false;
    if (r.cwiseAbs().maxCoeff() < 1e-13) return true;
    Eigen::MatrixXd jacobian(size, size);
    for (Eigen::Index j = 0; j < size; ++j) {
      const double h = 1e-7 * (1.0 + std::abs(x(j)));
      Eigen::VectorXd up = x, down = x;
      up(j) += h;
      down(j) -= h;
      jacobian.col(j) =
          (Residuals(layout, up, z, tolerance) - Residuals(layout, down, z, tolerance)) / (2 * h);
    }
    x -= jacobian.colPivHouseholderQr().solve(r);
  }
  return false;
}

// The undamped vibration curve's local minima and maxima nearest the design frequency, on
// either side, as the starting values of the free frequencies.
void SeedFrequencies(const HumpLayout& layout, HumpUnknowns& u) {
  constexpr int kSteps = 4000;
  std::vector<double> below_max, above_max, below_min, above_min;
  double before = std::abs(PhasorAt(u, 0.0, 0.0).value);
  double at = std::abs(PhasorAt(u, 0.0, 2.0 / kSteps).value);
  for (int step = 2; step < kSteps; ++step) {
    const double w = static_cast<double>(step - 1) * 2.0 / kSteps;
    const double after = std::abs(PhasorAt(u, 0.0, w + 2.0 / kSteps).value);
    if (std::abs(w - 1.0) > 1e-3) {
      if (at > before && at >= after) (w < 1.0 ? below_max : above_max).push_back(w);
      if (at < before && at <= after) (w < 1.0 ? below_min : above_min).push_back(w);
    }
    before = at;
    at = after;
  }
  // The `count` nearest the design frequency on either side, below first.
  const auto nearest = [](std::vector<double> below, std::vector<double> above, std::size_t count,
                          std::vector<double>& into) {
    std::reverse(below.begin(), below.end());
    below.resize(std::min(count, below.size()));
    above.resize(std::min(count, above.size()));
    into.insert(into.end(), below.begin(), below.end());
    into.insert(into.end(), above.begin(), above.end());
  };
  nearest(below_max, above_max, layout.side_humps, u.humps);
  nearest(below_min, above_min, layout.side_zeros, u.zeros);
}

// The design of `layout` for the mode, started from the undamped closed-form amplitudes at
// impulses half a period apart and followed in steps of 0.02 of damping ratio. Throws
// std::domain_error naming the design when the continuation loses it: no solution, or one with
// an amplitude that is not positive or impulses out of order.
ImpulseSequence HumpShaper(const VibrationMode& mode, double tolerance, const HumpLayout& layout,
                           std::vector<double> undamped_amplitudes, const char* name) {
  const auto lost = [name] {
    return std::domain_error(std::string("No ") + name +
                             " shaper exists for this damping ratio and vibration tolerance.");
  };
  HumpUnknowns seed{std::move(undamped_amplitudes), {}, {}, {}};
  for (std::size_t i = 0; i < layout.impulses; ++i) {
    seed.times.push_back(kPi * static_cast<double>(i));
  }
  SeedFrequencies(layout, seed);
  if (seed.humps.size() + seed.zeros.size() != 2 * (layout.side_humps + layout.side_zeros)) {
    throw lost();
  }
  Eigen::VectorXd x = Pack(seed);
  const double z = mode.damping_ratio;
  const int steps = std::max(1, static_cast<int>(std::ceil(z / 0.02)));
  for (int step = 0; step <= steps; ++step) {
    if (!SolveHumps(layout, x, z * step / steps, tolerance)) throw lost();
  }
  const HumpUnknowns u = Unpack(layout, x);
  const bool positive =
      std::all_of(u.amplitudes.begin(), u.amplitudes.end(), [](double a) { return a > 0.0; });
  const bool increasing =
      std::adjacent_find(u.times.begin(), u.times.end(), std::greater_equal<>()) == u.times.end();
  if (!positive || !increasing) throw lost();
  ImpulseSequence shaper{u.amplitudes, {}};
  for (const double t : u.times) {
    shaper.times_s.push_back(t / (2.0 * kPi * mode.natural_frequency_hz));
  }
  return shaper;
}

}  // namespace

const char* ShaperName(ShaperKind kind) {
  switch (kind) {
    case ShaperKind::kZv:
      return "ZV";
    case ShaperKind::kMzv:
      return "MZV";
    case ShaperKind::kZvd:
      return "ZVD";
    case ShaperKind::kEi:
      return "EI";
    case ShaperKind::kTwoHumpEi:
      return "2H-EI";
    case ShaperKind::kThreeHumpEi:
      return "3H-EI";
  }
  return "?";
}

// Singer and Seering (1990), "Preshaping command inputs to reduce system vibration": with
// K = exp(-z pi / sqrt(1 - z^2)) and Td the damped period,
//   A = [1, K] / (1 + K),  t = [0, Td / 2].
ImpulseSequence ZvShaper(const VibrationMode& mode) {
  ValidateVibrationMode(mode);
  const double z = mode.damping_ratio;
  return Geometric(mode, {1.0, 1.0}, Decay(z, 1.0), HalfPeriod(z));
}

// The vector diagram of Singhose, Seering and Singer (1994) with impulses 135 degrees of the
// damped period apart: phasors at 0, 135 and 270 degrees cancel for lengths 1 : sqrt(2) : 1. The
// damping shrinks each phasor by K = exp(-0.75 z pi / sqrt(1 - z^2)) per spacing, so
//   A = [1, sqrt(2) K, K^2] / (1 + sqrt(2) K + K^2),  t = [0, 3 Td / 8, 3 Td / 4].
ImpulseSequence MzvShaper(const VibrationMode& mode) {
  ValidateVibrationMode(mode);
  const double z = mode.damping_ratio;
  return Geometric(mode, {1.0, std::sqrt(2.0), 1.0}, Decay(z, 0.75), 0.75 * HalfPeriod(z));
}

// Singer and Seering (1990), as ZV:
//   A = [1, 2K, K^2] / (1 + K)^2,  t = [0, Td / 2, Td].
ImpulseSequence ZvdShaper(const VibrationMode& mode) {
  ValidateVibrationMode(mode);
  const double z = mode.damping_ratio;
  return Geometric(mode, {1.0, 2.0, 1.0}, Decay(z, 1.0), HalfPeriod(z));
}

// Undamped closed form (Singhose, Seering and Singer 1994):
//   A = [(1 + V) / 4, (1 - V) / 2, (1 + V) / 4],  t = [0, T / 2, T].
ImpulseSequence EiShaper(const VibrationMode& mode, double vibration_tolerance) {
  ValidateDesign(mode, vibration_tolerance);
  const double v = vibration_tolerance;
  return HumpShaper(mode, v, {3, true, 0, 1}, {(1 + v) / 4, (1 - v) / 2, (1 + v) / 4}, "EI");
}

// Undamped closed form (Singhose, Porter, Tuttle and Singer 1997), impulses T / 2 apart:
//   X = (V^2 (sqrt(1 - V^2) + 1))^(1/3),  A1 = A4 = (3 X^2 + 2 X + 3 V^2) / (16 X),
//   A2 = A3 = 1/2 - A1.
ImpulseSequence TwoHumpEiShaper(const VibrationMode& mode, double vibration_tolerance) {
  ValidateDesign(mode, vibration_tolerance);
  const double v = vibration_tolerance;
  const double x = std::cbrt(v * v * (std::sqrt(1 - v * v) + 1));
  const double a1 = (3 * x * x + 2 * x + 3 * v * v) / (16 * x);
  return HumpShaper(mode, v, {4, false, 1, 1}, {a1, 0.5 - a1, 0.5 - a1, a1}, "two-hump EI");
}

// Undamped closed form (Singhose, Porter, Tuttle and Singer 1997), impulses T / 2 apart:
//   A1 = A5 = (1 + 3 V + 2 sqrt(2 V (V + 1))) / 16,  A2 = A4 = (1 - V) / 4,
//   A3 = 1 - 2 (A1 + A2).
ImpulseSequence ThreeHumpEiShaper(const VibrationMode& mode, double vibration_tolerance) {
  ValidateDesign(mode, vibration_tolerance);
  const double v = vibration_tolerance;
  const double a1 = (1 + 3 * v + 2 * std::sqrt(2 * v * (v + 1))) / 16;
  const double a2 = (1 - v) / 4;
  return HumpShaper(mode, v, {5, true, 1, 2}, {a1, a2, 1 - 2 * (a1 + a2), a2, a1}, "three-hump EI");
}

ImpulseSequence DesignShaper(ShaperKind kind, const VibrationMode& mode,
                             double vibration_tolerance) {
  ValidateDesign(mode, vibration_tolerance);
  switch (kind) {
    case ShaperKind::kZv:
      return ZvShaper(mode);
    case ShaperKind::kMzv:
      return MzvShaper(mode);
    case ShaperKind::kZvd:
      return ZvdShaper(mode);
    case ShaperKind::kEi:
      return EiShaper(mode, vibration_tolerance);
    case ShaperKind::kTwoHumpEi:
      return TwoHumpEiShaper(mode, vibration_tolerance);
    case ShaperKind::kThreeHumpEi:
      return ThreeHumpEiShaper(mode, vibration_tolerance);
  }
  throw std::invalid_argument("kind must be one of the ShaperKind values.");
}

}  // namespace corvane::control::engines
