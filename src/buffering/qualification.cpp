// AsyncWindowBuffer::Qualify: whether window production keeps up with real time, judged on the
// recorded compute times and window durations.
//
// Two tests decide. No window may cost more than `compute_fraction_limit` of its own duration
// (and every duration must be positive). And a consumer that plays the windows back to back,
// starting once the first prefill_windows windows exist, must never overtake production: the
// running margin (played duration + prefill credit - compute spent) must never be negative.
#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <vector>

#include "buffering/async_window_buffer_impl.hpp"

namespace corvane::control::window {
namespace {

// Sum of values[0] to values[count - 1], added left to right from 0.
double SumOfFirst(const std::vector<double>& values, std::size_t count) {
  double sum = 0.0;
  for (std::size_t i = 0; i < count; ++i) sum += values[i];
  return sum;
}

// The first maximum, scanning in order.
double Maximum(const std::vector<double>& values) {
  double maximum = values.front();
  for (std::size_t i = 1; i < values.size(); ++i) {
    if (values[i] > maximum) maximum = values[i];
  }
  return maximum;
}

// The 0.99 quantile of the ascending order s of `values`, interpolated between s[lo] and s[hi]
// around pos = 0.99 * (n - 1), as s[lo] * (1 - frac) + frac * s[hi] with the first product
// fused into the addition. Two selections find s[lo] and s[hi] in linear time, with exactly the
// values a full sort would put there; `values` is reordered.
double Quantile99(std::vector<double>& values) {
  const double pos = 0.99 * static_cast<double>(values.size() - 1);
  const auto lo = static_cast<std::size_t>(std::floor(pos));
  const auto hi = static_cast<std::size_t>(std::ceil(pos));
  const double frac = pos - static_cast<double>(lo);

  const auto hi_it = values.begin() + static_cast<std::ptrdiff_t>(hi);
  std::nth_element(values.begin(), hi_it, values.end());
  const double at_hi = *hi_it;
  // Everything before s[hi] is no greater than it, so s[lo] = s[hi - 1] is their maximum.
  const double at_lo = lo == hi ? at_hi : *std::max_element(values.begin(), hi_it);
  return std::fma(at_lo, 1.0 - frac, frac * at_hi);
}

// Fills the margin figures and the verdict, visiting every window even after a violation.
void JudgePlayback(const std::vector<double>& compute_s, const std::vector<double>& duration_s,
                   double prefill_credit_s, QualificationReport& report) {
  const double limit = report.compute_fraction_limit;
  double played_s = 0.0;
  double spent_s = 0.0;
  double min_margin_s = std::numeric_limits<double>::infinity();
  std::size_t underruns = 0;
  bool over_limit = false;
  for (std::size_t i = 0; i < compute_s.size(); ++i) {
    played_s += duration_s[i];
    spent_s += compute_s[i];
    const double margin_s = (played_s + prefill_credit_s) - spent_s;
    if (margin_s < min_margin_s) min_margin_s = margin_s;
    if (margin_s < 0.0) ++underruns;
    // A window without a positive duration fails whatever it cost; a fraction equal to the
    // limit passes.
    if (!(duration_s[i] > 0.0) || limit < compute_s[i] / duration_s[i]) over_limit = true;
  }
  report.min_margin_s = min_margin_s;
  report.underrun_windows = underruns;
  report.qualified = !over_limit && underruns == 0;
}

}  // namespace

QualificationReport AsyncWindowBuffer::Qualify(double compute_fraction_limit) {
  if (!std::isfinite(compute_fraction_limit) || compute_fraction_limit <= 0.0) {
    throw std::invalid_argument("compute_fraction_limit must be finite and positive.");
  }
  // The copy is the only work done under the lock.
  std::vector<double> compute_s;
  std::vector<double> duration_s;
  {
    auto lock = impl_->Lock();
    compute_s = impl_->compute_times_s;
    duration_s = impl_->window_durations_s;
  }

  QualificationReport report;
  report.compute_fraction_limit = compute_fraction_limit;
  report.prefill_windows = impl_->prefill_windows;
  report.total_windows = compute_s.size();
  if (compute_s.empty()) return report;  // an empty history qualifies, every figure zero

  report.max_compute_time_s = Maximum(compute_s);
  report.total_compute_time_s = SumOfFirst(compute_s, compute_s.size());
  // The compute time of the first prefill_windows windows was spent before playback began.
  const double prefill_credit_s =
      SumOfFirst(compute_s, std::min(impl_->prefill_windows, compute_s.size()));
  JudgePlayback(compute_s, duration_s, prefill_credit_s, report);
  report.p99_compute_time_s = Quantile99(compute_s);  // last: it reorders compute_s
  return report;
}

}  // namespace corvane::control::window
