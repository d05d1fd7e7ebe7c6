#include "corvane_shaper_engines/shaper_designs.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <Eigen/QR>

#include "angles.hpp"
#include "design_reach.hpp"

namespace corvane::control::engines {

namespace {

// The damping ratio up to which a design is followed before it counts as existing for every
// damping ratio below 1.
constexpr double kDampingRatioReach = 0.999;

// Checks the mode, then the tolerance.
void ValidateDesign(const VibrationMode& mode, double vibration_tolerance) {
  ValidateVibrationMode(mode);
  if (!(vibration_tolerance > 0.0 && vibration_tolerance < 1.0)) {
    throw std::invalid_argument("vibration_tolerance must lie in (0, 1).");
  }
}

// The shaper with `times` [rad] in units where the natural frequency is 1 rad/s, scaled to
// seconds for `mode`. Throws std::invalid_argument naming natural_frequency_hz when so low a
// frequency puts the impulses beyond any finite time.
ImpulseSequence InSeconds(const VibrationMode& mode, std::vector<double> amplitudes,
                          const std::vector<double>& times) {
  ImpulseSequence shaper{std::move(amplitudes), {}};
  for (const double t : times) {
    shaper.times_s.push_back(t / (2.0 * kPi * mode.natural_frequency_hz));
  }
  if (!std::isfinite(shaper.times_s.back())) {
    throw std::invalid_argument(
        "natural_frequency_hz is too low: the shaper's impulses lie beyond any finite time.");
  }
  return shaper;
}

// Impulses `spacing` [rad] apart, in units where the natural frequency is 1 rad/s, with
// amplitudes pattern[i] * decay^i scaled to sum to 1; times then scaled to seconds for `mode`.
ImpulseSequence Geometric(const VibrationMode& mode, const std::vector<double>& pattern,
                          double decay, double spacing) {
  std::vector<double> amplitudes, times;
  double scale = 1.0, sum = 0.0;
  for (std::size_t i = 0; i < pattern.size(); ++i, scale *= decay) {
    amplitudes.push_back(pattern[i] * scale);
    times.push_back(static_cast<double>(i) * spacing);
    sum += amplitudes.back();
  }
  for (double& amplitude : amplitudes) amplitude /= sum;
  return InSeconds(mode, std::move(amplitudes), times);
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

// Newton's method with a central-difference Jacobian, each step halved until it lowers the
// residuals' norm; true once every residual is below 1e-13.
bool SolveHumps(const HumpLayout& layout, Eigen::VectorXd& x, double z, double tolerance) {
  const Eigen::Index size = x.size();
  Eigen::VectorXd r = Residuals(layout, x, z, tolerance);
  for (int iteration = 0; iteration < 12 && r.allFinite(); ++iteration) {
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
    const Eigen::VectorXd step = jacobian.colPivHouseholderQr().solve(r);
    double scale = 1.0;
    for (; scale > 1e-3; scale /= 2.0) {
      const Eigen::VectorXd trial = x - scale * step;
      const Eigen::VectorXd trial_r = Residuals(layout, trial, z, tolerance);
      if (trial_r.allFinite() && trial_r.norm() < r.norm()) {
        x = trial;
        r = trial_r;
        break;
      }
    }
    if (scale <= 1e-3) return false;
  }
  return false;
}

// The undamped vibration curve's local minima and maxima nearest the design frequency, on
// either side, as the starting values of the free frequencies: each side is walked outwards on a
// grid whose spacing grows with the distance from the design frequency, so that extremes close
// to it (those of a small tolerance) are told apart as well as far ones.
void SeedFrequencies(const HumpLayout& layout, HumpUnknowns& u) {
  constexpr int kSteps = 4000;
  for (const double side : {-1.0, 1.0}) {
    const auto frequency = [side](int step) {
      return 1.0 + side * std::pow(10.0, 6.0 * step / kSteps - 6.0);  // 1e-6 to 1 away
    };
    const auto vibration = [&](int step) {
      return std::abs(PhasorAt(u, 0.0, frequency(step)).value);
    };
    std::size_t humps = 0, zeros = 0;
    double before = vibration(0), at = vibration(1);
    for (int step = 1; step < kSteps; ++step) {
      const double after = vibration(step + 1);
      if (at > before && at >= after && humps++ < layout.side_humps) {
        u.humps.push_back(frequency(step));
      }
      if (at < before && at <= after && zeros++ < layout.side_zeros) {
        u.zeros.push_back(frequency(step));
      }
      before = std::exchange(at, after);
    }
  }
}

// True when the unknowns are a design: positive amplitudes, impulses in order, the free humps
// between the outermost zeros, which straddle the design frequency, and nowhere between those
// zeros a vibration above the tolerance.
bool IsDesign(const HumpLayout& layout, const Eigen::VectorXd& x, double z, double tolerance) {
  const HumpUnknowns u = Unpack(layout, x);
  const bool positive =
      std::all_of(u.amplitudes.begin(), u.amplitudes.end(), [](double a) { return a > 0.0; });
  const bool increasing =
      std::adjacent_find(u.times.begin(), u.times.end(), std::greater_equal<>()) == u.times.end();
  const auto extremes = std::minmax_element(u.zeros.begin(), u.zeros.end());
  const double low = *extremes.first;
  const double high = *extremes.second;
  if (!positive || !increasing || !(low < 1.0 && 1.0 < high)) return false;
  const bool humps_inside =
      std::all_of(u.humps.begin(), u.humps.end(), [&](double w) { return low < w && w < high; });
  constexpr int kPoints = 400;
  for (int point = 0; humps_inside && point <= kPoints; ++point) {
    const double w = low + (high - low) * point / kPoints;
    if (std::abs(PhasorAt(u, z, w).value) > tolerance * (1.0 + 1e-9) + 1e-12) return false;
  }
  return humps_inside;
}

// An extra-insensitive design: its layout, its undamped closed-form amplitudes (impulses half a
// period apart) and its name in messages.
struct HumpFamily {
  HumpLayout layout;
  std::vector<double> undamped_amplitudes;
  const char* name;
};

// How far the continuation of a design got.
struct Followed {
  std::optional<double> damping_ratio;  // the largest reached, none when not even undamped
  Eigen::VectorXd unknowns;             // the design there
};

// The design followed from the undamped closed form up to damping ratio `until`, in steps that
// double while they succeed (up to 0.05) and halve when the solve fails or the solution stops
// being a design, each started from the line through the last two designs. It stops where the
// step falls under 1e-7: the design ends there.
Followed FollowDesign(const HumpFamily& family, double tolerance, double until) {
  const HumpLayout& layout = family.layout;
  HumpUnknowns seed{family.undamped_amplitudes, {}, {}, {}};
  for (std::size_t i = 0; i < layout.impulses; ++i) {
    seed.times.push_back(kPi * static_cast<double>(i));
  }
  SeedFrequencies(layout, seed);
  Followed followed{std::nullopt, Pack(seed)};
  if (seed.humps.size() + seed.zeros.size() != 2 * (layout.side_humps + layout.side_zeros) ||
      !SolveHumps(layout, followed.unknowns, 0.0, tolerance) ||
      !IsDesign(layout, followed.unknowns, 0.0, tolerance)) {
    return followed;
  }
  double z = 0.0, step = 0.005, previous_z = 0.0;
  Eigen::VectorXd previous = followed.unknowns;
  while (z < until && step >= 1e-7) {
    const double next = std::min(until, z + step);
    Eigen::VectorXd x = followed.unknowns;
    if (z > previous_z) x += (followed.unknowns - previous) * ((next - z) / (z - previous_z));
    if (SolveHumps(layout, x, next, tolerance) && IsDesign(layout, x, next, tolerance)) {
      previous = std::exchange(followed.unknowns, x);
      previous_z = std::exchange(z, next);
      step = std::min(2.0 * step, 0.05);
    } else {
      step /= 2.0;
    }
  }
  followed.damping_ratio = z;
  return followed;
}

// The design of `family` for the mode, or nothing where the continuation ends before the mode's
// damping ratio.
std::optional<ImpulseSequence> HumpDesign(const VibrationMode& mode, double tolerance,
                                          const HumpFamily& family) {
  const Followed followed = FollowDesign(family, tolerance, mode.damping_ratio);
  if (!followed.damping_ratio || *followed.damping_ratio < mode.damping_ratio) return std::nullopt;
  const HumpUnknowns u = Unpack(family.layout, followed.unknowns);
  return InSeconds(mode, u.amplitudes, u.times);
}

// HumpDesign(), throwing std::domain_error naming the design where there is none.
ImpulseSequence HumpShaper(const VibrationMode& mode, double tolerance, const HumpFamily& family) {
  std::optional<ImpulseSequence> shaper = HumpDesign(mode, tolerance, family);
  if (!shaper) {
    throw std::domain_error(std::string("No ") + family.name +
                            " shaper exists for this damping ratio and vibration tolerance.");
  }
  return *std::move(shaper);
}

// Undamped closed form (Singhose, Seering and Singer 1994):
//   A = [(1 + V) / 4, (1 - V) / 2, (1 + V) / 4],  t = [0, T / 2, T].
HumpFamily EiFamily(double v) {
  return {{3, true, 0, 1}, {(1 + v) / 4, (1 - v) / 2, (1 + v) / 4}, "EI"};
}

// Undamped closed form (Singhose, Porter, Tuttle and Singer 1997), impulses T / 2 apart:
//   X = (V^2 (sqrt(1 - V^2) + 1))^(1/3),  A1 = A4 = (3 X^2 + 2 X + 3 V^2) / (16 X),
//   A2 = A3 = 1/2 - A1.
HumpFamily TwoHumpEiFamily(double v) {
  const double x = std::cbrt(v * v * (std::sqrt(1 - v * v) + 1));
  const double a1 = (3 * x * x + 2 * x + 3 * v * v) / (16 * x);
  return {{4, false, 1, 1}, {a1, 0.5 - a1, 0.5 - a1, a1}, "two-hump EI"};
}

// Undamped closed form (Singhose, Porter, Tuttle and Singer 1997), impulses T / 2 apart:
//   A1 = A5 = (1 + 3 V + 2 sqrt(2 V (V + 1))) / 16,  A2 = A4 = (1 - V) / 4,
//   A3 = 1 - 2 (A1 + A2).
HumpFamily ThreeHumpEiFamily(double v) {
  const double a1 = (1 + 3 * v + 2 * std::sqrt(2 * v * (v + 1))) / 16;
  const double a2 = (1 - v) / 4;
  return {{5, true, 1, 2}, {a1, a2, 1 - 2 * (a1 + a2), a2, a1}, "three-hump EI"};
}

// The extra-insensitive design of `kind`; nothing for a zero-vibration kind.
std::optional<HumpFamily> HumpFamilyOf(ShaperKind kind, double v) {
  switch (kind) {
    case ShaperKind::kEi:
      return EiFamily(v);
    case ShaperKind::kTwoHumpEi:
      return TwoHumpEiFamily(v);
    case ShaperKind::kThreeHumpEi:
      return ThreeHumpEiFamily(v);
    default:
      return std::nullopt;
  }
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

ImpulseSequence EiShaper(const VibrationMode& mode, double vibration_tolerance) {
  ValidateDesign(mode, vibration_tolerance);
  return HumpShaper(mode, vibration_tolerance, EiFamily(vibration_tolerance));
}

ImpulseSequence TwoHumpEiShaper(const VibrationMode& mode, double vibration_tolerance) {
  ValidateDesign(mode, vibration_tolerance);
  return HumpShaper(mode, vibration_tolerance, TwoHumpEiFamily(vibration_tolerance));
}

ImpulseSequence ThreeHumpEiShaper(const VibrationMode& mode, double vibration_tolerance) {
  ValidateDesign(mode, vibration_tolerance);
  return HumpShaper(mode, vibration_tolerance, ThreeHumpEiFamily(vibration_tolerance));
}

std::optional<double> MaximumDampingRatio(ShaperKind kind, double vibration_tolerance) {
  ValidateDesign({1.0, 0.0}, vibration_tolerance);
  const std::optional<HumpFamily> family = HumpFamilyOf(kind, vibration_tolerance);
  if (!family) return 1.0;
  const Followed followed = FollowDesign(*family, vibration_tolerance, kDampingRatioReach);
  return followed.damping_ratio && *followed.damping_ratio >= kDampingRatioReach
             ? std::optional<double>(1.0)
             : followed.damping_ratio;
}

std::optional<ImpulseSequence> DesignIfExists(ShaperKind kind, const VibrationMode& mode,
                                              double vibration_tolerance) {
  const std::optional<HumpFamily> family = HumpFamilyOf(kind, vibration_tolerance);
  if (!family) return DesignShaper(kind, mode, vibration_tolerance);
  ValidateDesign(mode, vibration_tolerance);
  return HumpDesign(mode, vibration_tolerance, *family);
}

ImpulseSequence DesignShaper(ShaperKind kind, const VibrationMode& mode,
                             double vibration_tolerance) {
  ValidateDesign(mode, vibration_tolerance);
  if (const std::optional<HumpFamily> family = HumpFamilyOf(kind, vibration_tolerance)) {
    return HumpShaper(mode, vibration_tolerance, *family);
  }
  switch (kind) {
    case ShaperKind::kZv:
      return ZvShaper(mode);
    case ShaperKind::kMzv:
      return MzvShaper(mode);
    case ShaperKind::kZvd:
      return ZvdShaper(mode);
    default:
      throw std::invalid_argument("kind must be one of the ShaperKind values.");
  }
}

}  // namespace corvane::control::engines
