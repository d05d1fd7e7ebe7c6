// Timed waits on a condition variable. A time-out is a std::optional<std::chrono::nanoseconds>:
// absent means "no limit", zero or negative means "only test, never wait", and anything else is
// a deadline on the steady clock, fixed once when the wait begins.
#pragma once

#include <chrono>
#include <optional>

namespace corvane::control::window {

// The steady-clock deadline `timeout` (positive) from now; one too far to represent gives the
// clock's end of time instead of overflowing.
inline std::chrono::steady_clock::time_point DeadlineAfter(std::chrono::nanoseconds timeout) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point now = Clock::now();
  if (timeout > Clock::time_point::max() - now) return Clock::time_point::max();
  return now + timeout;
}

// Waits on `cv`, with `lock` held, until `ready()` holds or the time-out passes; `ready` is
// tested before the first wait and after every wake-up. Returns ready(). A zero or negative
// time-out only tests it: the thread is never put to sleep, not even for an expired deadline.
// Works with any condition variable that offers wait(lock, ready) and wait_until(lock, deadline,
// ready) on the steady clock.
template <typename ConditionVariable, typename Lock, typename Ready>
bool WaitWithTimeout(ConditionVariable& cv, Lock& lock,
                     std::optional<std::chrono::nanoseconds> timeout, Ready ready) {
  if (!timeout) {
    cv.wait(lock, ready);
    return true;
  }
  if (*timeout <= std::chrono::nanoseconds::zero()) return ready();
  return cv.wait_until(lock, DeadlineAfter(*timeout), ready);
}

}  // namespace corvane::control::window
