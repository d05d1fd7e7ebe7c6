// How long a window lasts when it is played, in seconds.
#pragma once

#include "window/records.hpp"

namespace corvane::control::window {

// The window's duration in seconds, decided in this order:
//   1. the span of its time stamps, when it has at least two and the span is positive;
//   2. without a "sample_time_s" entry: the row count (each sample taken as one second);
//   3. the row count times the "sample_time_s" value, when that parses (std::stod) to a finite,
//      positive number; otherwise the row count again.
// Never throws.
double WindowDurationSeconds(const WindowPayload& window) noexcept;

}  // namespace corvane::control::window
