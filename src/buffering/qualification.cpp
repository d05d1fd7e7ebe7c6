// AsyncWindowBuffer::Qualify: whether window production keeps up with real time, judged on the
// recorded compute times and window durations; and the statistics retention and running totals
// beside it.
//
// Two tests decide. No window may cost more than `compute_fraction_limit` of its own duration
// (and every duration must be positive). And a consumer that plays the windows back to back,
// starting once the first prefill_windows windows exist, must never overtake production: the
// running margin (played duration + prefill credit - compute spent) must never be negative. A
// window that a replacement discarded was produced, so it is judged against the limit and its
// compute time is spent; but it is never played, so it adds nothing to the played duration.
//
// Only a snapshot of the history is taken under the lock, in constant time; the history itself
// is read without the lock. Every figure is formed by the same operations, in the same order, as
// over a plain copy of the whole history, so the report is the same to the last bit.
#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <vector>

#include "buffering/async_window_buffer_impl.hpp"

namespace corvane::control::window {
namespace {

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

// Fills every figure but the quantile in one pass over the reported windows, visiting each even
// after a violation, and returns their compute times for the quantile. The running sums start
// from those of the windows before the reported ones, so each margin is the one the whole
// history gives that window.
std::vector<double> JudgePlayback(const StatisticsSnapshot& history, QualificationReport& report) {
  const double limit = report.compute_fraction_limit;
  std::size_t unreported = history.RetainedWindows() - history.reported_windows;
  std::vector<double> compute_s;
  compute_s.reserve(history.reported_windows);
  double played_s = history.PlayedBeforeRetained();
  double spent_s = history.spent_before_s;
  double min_margin_s = std::numeric_limits<double>::infinity();
  std::size_t underruns = 0;
  bool over_limit = false;
  history.ForEachRetainedPlayed([&](double window_compute_s, double play_s, double duration_s) {
    played_s += play_s;
    spent_s += window_compute_s;
    if (unreported > 0) {
      --unreported;
      return;
    }
    if (compute_s.empty() || window_compute_s > report.max_compute_time_s) {
      report.max_compute_time_s = window_compute_s;  // the first maximum, scanning in order
    }
    report.total_compute_time_s += window_compute_s;
    compute_s.push_back(window_compute_s);
    const double margin_s = (played_s + history.prefill_credit_s) - spent_s;
    if (margin_s < min_margin_s) min_margin_s = margin_s;
    if (margin_s < 0.0) ++underruns;
    // A window without a positive duration fails whatever it cost; a fraction equal to the
    // limit passes.
    if (!(duration_s > 0.0) || limit < window_compute_s / duration_s) over_limit = true;
  });
  report.min_margin_s = min_margin_s;
  report.underrun_windows = underruns;
  report.qualified = !over_limit && underruns == 0;
  return compute_s;
}

}  // namespace

QualificationReport AsyncWindowBuffer::Qualify(double compute_fraction_limit) {
  if (!std::isfinite(compute_fraction_limit) || compute_fraction_limit <= 0.0) {
    throw std::invalid_argument("compute_fraction_limit must be finite and positive.");
  }
  StatisticsSnapshot history;
  {
    auto lock = impl_->Lock();
    history = impl_->statistics.Snapshot();
  }

  QualificationReport report;
  report.compute_fraction_limit = compute_fraction_limit;
  report.prefill_windows = impl_->prefill_windows;
  report.total_windows = history.reported_windows;
  if (history.reported_windows == 0) return report;  // an empty history qualifies, figures zero

  std::vector<double> compute_s = JudgePlayback(history, report);
  report.p99_compute_time_s = Quantile99(compute_s);
  return report;
}

// The base checks come first; on this last one the buffer is destroyed, unstarted, with the
// producer it took.
AsyncWindowBuffer::AsyncWindowBuffer(std::unique_ptr<WindowProducerSession> producer,
                                     std::size_t prefill_windows,
                                     std::optional<std::size_t> max_buffered_windows,
                                     std::size_t statistics_retention_windows)
    : AsyncWindowBuffer(std::move(producer), prefill_windows, max_buffered_windows) {
  if (statistics_retention_windows == 0) {
    throw std::invalid_argument("statistics_retention_windows must be positive.");
  }
  impl_->statistics.RetainOnly(statistics_retention_windows);
}

ProductionTotals AsyncWindowBuffer::Totals() const {
  auto lock = impl_->Lock();
  return impl_->statistics.Totals();
}

}  // namespace corvane::control::window
