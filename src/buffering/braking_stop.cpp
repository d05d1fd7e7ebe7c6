#include "buffering/braking_stop.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace corvane::control::window {
namespace {

// A slack for rounding when a braking is held against the plan's own differences.
constexpr double kLimitSlack = 1.0 + 1e-9;

// Where the plan is at one row, counted in samples: backward differences of second order for the
// velocity and of first order for the acceleration, and lower orders near the first row.
struct RowState {
  Eigen::RowVectorXd position;      // [plan unit]
  Eigen::RowVectorXd velocity;      // [plan unit / sample]
  Eigen::RowVectorXd acceleration;  // [plan unit / sample^2]
};

RowState StateAt(const SampleMatrix& plan, Eigen::Index row) {
  const Eigen::RowVectorXd zero = Eigen::RowVectorXd::Zero(plan.cols());
  RowState state{plan.row(row), zero, zero};
  if (row >= 2) {
    state.acceleration = plan.row(row) - 2.0 * plan.row(row - 1) + plan.row(row - 2);
    state.velocity = plan.row(row) - plan.row(row - 1) + 0.5 * state.acceleration;
  } else if (row == 1) {
    state.velocity = plan.row(1) - plan.row(0);
  }
  return state;
}

// The largest magnitude, joint by joint, of the plan's differences of the given order; zero when
// the plan has too few rows for one.
Eigen::RowVectorXd LargestDifference(const SampleMatrix& plan, int order) {
  SampleMatrix difference = plan;
  for (int k = 0; k < order; ++k) {
    const Eigen::Index rows = difference.rows() - 1;
    if (rows < 1) return Eigen::RowVectorXd::Zero(plan.cols());
    difference = (difference.bottomRows(rows) - difference.topRows(rows)).eval();
  }
  return difference.cwiseAbs().colwise().maxCoeff();
}

// The largest |acceleration| and |jerk| of one joint braking from velocity v0 and acceleration a0
// to rest over `samples`: with s = t / samples, the velocity is
//   v0 (1 - 3 s^2 + 2 s^3) + a0 samples (s - 2 s^2 + s^3),
// its acceleration times samples is c0 + c1 s + c2 s^2, and its jerk times samples^2 is
// c1 + 2 c2 s, largest at an end.
struct Peaks {
  double acceleration = 0.0;  // [plan unit / sample^2]
  double jerk = 0.0;          // [plan unit / sample^3]
};

Peaks BrakingPeaks(double v0, double a0, double samples) {
  const double c0 = a0 * samples;
  const double c1 = -6.0 * v0 - 4.0 * a0 * samples;
  const double c2 = 6.0 * v0 + 3.0 * a0 * samples;
  double acceleration = std::abs(c0);  // it ends at zero
  if (c2 != 0.0) {
    const double vertex = -c1 / (2.0 * c2);
    if (vertex > 0.0 && vertex < 1.0) {
      acceleration = std::max(acceleration, std::abs(c0 + vertex * (c1 + vertex * c2)));
    }
  }
  return {acceleration / samples,
          std::max(std::abs(c1), std::abs(c1 + 2.0 * c2)) / samples / samples};
}

// Whether braking every joint over `samples` stays within the limits; a joint that the plan never
// accelerates sets no limit.
bool WithinLimits(const RowState& from, const ReferenceLimits& limits, double samples) {
  for (Eigen::Index joint = 0; joint < from.position.size(); ++joint) {
    const Peaks peaks = BrakingPeaks(from.velocity(joint), from.acceleration(joint), samples);
    const double acceleration_limit = limits.acceleration(joint) * kLimitSlack;
    const double jerk_limit = limits.jerk(joint) * kLimitSlack;
    if ((acceleration_limit > 0.0 && peaks.acceleration > acceleration_limit) ||
        (jerk_limit > 0.0 && peaks.jerk > jerk_limit)) {
      return false;
    }
  }
  return true;
}

// The fewest samples, at most `longest`, over which the braking stays within the limits; 0 when
// they limit no joint that moves, or the figures overflowed.
Eigen::Index BrakingSamples(const RowState& from, const ReferenceLimits& limits,
                            Eigen::Index longest) {
  const bool moving =
      (from.velocity.array() != 0.0).any() || (from.acceleration.array() != 0.0).any();
  const bool limited = (limits.acceleration.array() > 0.0).any();
  const bool finite = from.velocity.allFinite() && from.acceleration.allFinite() &&
                      limits.acceleration.allFinite() && limits.jerk.allFinite();
  if (!moving || !limited || !finite) return 0;
  const auto fits = [&](Eigen::Index samples) {
    return WithinLimits(from, limits, static_cast<double>(samples));
  };
  // Double until it fits, then halve the interval down to the fewest samples that fit.
  Eigen::Index fitting = 1;
  while (fitting < longest && !fits(fitting)) fitting = std::min(2 * fitting, longest);
  Eigen::Index too_few = fitting / 2;
  while (fitting - too_few > 1) {
    const Eigen::Index middle = too_few + (fitting - too_few) / 2;
    (fits(middle) ? fitting : too_few) = middle;
  }
  return fitting;
}

// The positions at samples 1 ... `samples` after `from`: the integral of the cubic velocity.
SampleMatrix BrakingRows(const RowState& from, Eigen::Index samples) {
  const double duration = static_cast<double>(samples);
  SampleMatrix rows(samples, from.position.size());
  for (Eigen::Index k = 0; k < samples; ++k) {
    const double s = static_cast<double>(k + 1) / duration;
    const double s2 = s * s;
    const double from_velocity = s - s2 * s + 0.5 * s2 * s2;
    const double from_acceleration = duration * (0.5 * s2 - 2.0 / 3.0 * s2 * s + 0.25 * s2 * s2);
    rows.row(k) = from.position + duration * (from_velocity * from.velocity +
                                              from_acceleration * from.acceleration);
  }
  return rows;
}

SampleMatrix Held(const Eigen::RowVectorXd& position, std::size_t hold_samples) {
  return position.replicate(static_cast<Eigen::Index>(hold_samples), 1);
}

}  // namespace

ReferenceLimits LimitsOf(const SampleMatrix& plan) {
  return {LargestDifference(plan, 2), LargestDifference(plan, 3),
          static_cast<std::size_t>(plan.rows())};
}

// Each block starts three samples before the first sample not read yet, so that every difference
// lies whole in one block. A copy refused because the retention dropped its start, or because the
// reference was cut short meanwhile, moves the start on or the end back, so the loop ends.
ReferenceLimits ReadLimits(const AppendableReferenceBuffer& reference, std::size_t block_samples) {
  std::size_t next = reference.first_retained_sample();
  std::size_t stop = reference.available_samples();
  const std::size_t first = next;
  ReferenceLimits limits;
  SampleMatrix block;
  while (next < stop) {
    const std::size_t kept = reference.first_retained_sample();
    next = std::max(next, kept);
    const std::size_t from = std::max(kept, next - std::min<std::size_t>(next, 3));
    const std::size_t to = std::min(stop, next + block_samples);
    if (next >= to) break;
    try {
      reference.CopyWindowWithTerminalPadding(from, to, block);
    } catch (const std::invalid_argument&) {
      stop = std::min(stop, reference.available_samples());
      continue;
    }
    const ReferenceLimits read = LimitsOf(block);
    if (limits.samples == 0) {
      limits = read;
    } else {
      limits.acceleration = limits.acceleration.cwiseMax(read.acceleration);
      limits.jerk = limits.jerk.cwiseMax(read.jerk);
    }
    limits.samples = to - first;
    next = to;
  }
  return limits;
}

SampleMatrix BrakingStop(const SampleMatrix& before, const ReferenceLimits& limits,
                         std::size_t hold_samples) {
  const RowState from = StateAt(before, before.rows() - 1);
  const Eigen::Index samples = BrakingSamples(
      from, limits, std::max<Eigen::Index>(1, static_cast<Eigen::Index>(limits.samples)));
  if (samples == 0) return Held(from.position, hold_samples);
  const SampleMatrix braking = BrakingRows(from, samples);
  if (!braking.allFinite()) return Held(from.position, hold_samples);
  SampleMatrix stop(samples + static_cast<Eigen::Index>(hold_samples), before.cols());
  stop.topRows(samples) = braking;
  stop.bottomRows(static_cast<Eigen::Index>(hold_samples)) =
      Held(braking.row(samples - 1), hold_samples);
  return stop;
}

}  // namespace corvane::control::window
