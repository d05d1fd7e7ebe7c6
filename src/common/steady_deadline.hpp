// Time-outs of the library's waits: a std::optional<std::chrono::nanoseconds> where absent means
// "no limit", zero or negative means "do not wait", and anything else is a deadline on the steady
// clock, fixed once when the wait begins.
#pragma once

#include <chrono>

namespace corvane::control::window {

// The steady-clock deadline `timeout` from now. A time-out of zero or less gives now (the
// condition is checked once); one too long to represent gives the clock's end of time.
inline std::chrono::steady_clock::time_point DeadlineAfter(std::chrono::nanoseconds timeout) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point now = Clock::now();
  if (timeout <= std::chrono::nanoseconds::zero()) return now;
  if (timeout > Clock::time_point::max() - now) return Clock::time_point::max();
  return now + timeout;
}

}  // namespace corvane::control::window
