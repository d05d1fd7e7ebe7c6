#include "buffering/window_duration.hpp"

#include <cmath>
#include <exception>
#include <optional>
#include <string>

namespace corvane::control::window {
namespace {

// The last time stamp minus the first, when there are at least two and the span is positive.
std::optional<double> TimeStampSpan(const WindowPayload& window) {
  if (!window.time_s || window.time_s->size() < 2) return std::nullopt;
  const double span = (*window.time_s)(window.time_s->size() - 1) - (*window.time_s)(0);
  if (span > 0.0) return span;
  return std::nullopt;  // zero, negative or NaN
}

// The text as a usable sample period: parsed (std::stod), finite and positive.
std::optional<double> ParseSamplePeriod(const std::string& text) noexcept {
  double period = 0.0;
  try {
    period = std::stod(text);
  } catch (const std::exception&) {  // no number at the start, or out of the range of double
    return std::nullopt;
  }
  if (period > 0.0 && std::isfinite(period)) return period;
  return std::nullopt;
}

// The "sample_time_s" entry as a usable sample period.
std::optional<double> DeclaredSamplePeriod(const WindowPayload& window) noexcept {
  const auto entry = window.metadata.find("sample_time_s");
  if (entry == window.metadata.end()) return std::nullopt;
  return ParseSamplePeriod(entry->second);
}

}  // namespace

double WindowDurationSeconds(const WindowPayload& window) noexcept {
  if (const auto span = TimeStampSpan(window)) return *span;
  const auto rows = static_cast<double>(window.positions.rows());
  if (const auto period = DeclaredSamplePeriod(window)) return rows * *period;
  return rows;
}

}  // namespace corvane::control::window
