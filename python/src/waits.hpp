// Waits that Ctrl-C interrupts and that interpreter exit cannot turn into an abort.
//
// A blocking call of the library gives up the GIL while it waits, so Python's signal handlers
// cannot run until it returns. The module therefore waits in slices of at most kWaitSlice and
// lets Python handle pending signals between them: Ctrl-C raises KeyboardInterrupt within about
// one slice, and the interrupted call has changed nothing that a later call needs.
//
// The GIL is taken back in plain code, not in a destructor: once Python has begun to shut down,
// a daemon thread that takes the GIL is ended by unwinding its stack, which would abort the
// process if it had to pass through a destructor.
#pragma once

#include <cxxabi.h>

#include <chrono>
#include <exception>
#include <optional>
#include <type_traits>
#include <utility>

#include "errors.hpp"

namespace corvane::python {

// The longest slice of a wait, and so about the longest that Ctrl-C waits for an answer.
inline constexpr std::chrono::milliseconds kWaitSlice{50};

// The end of a wait that began at construction: never for an absent limit.
class Deadline {
 public:
  explicit Deadline(const Timeout& timeout);
  // The time-out for the next slice: at most kWaitSlice, and no more than what is left.
  std::chrono::nanoseconds NextSlice() const;
  bool Passed() const;

 private:
  std::optional<std::chrono::steady_clock::time_point> end_;
};

// Raises KeyboardInterrupt (or whatever a Python signal handler raises) when a signal is
// pending; needs the GIL.
void HandlePendingSignals();

// Runs `call` with the GIL released and returns its result; its exception passes through once
// the GIL is held again. Needs the GIL.
template <class Call>
std::invoke_result_t<Call> WithoutGil(Call&& call) {
  using Result = std::invoke_result_t<Call>;
  PyThreadState* const thread = PyEval_SaveThread();
  std::optional<std::conditional_t<std::is_void_v<Result>, bool, Result>> result;
  std::exception_ptr failure;
  try {
    if constexpr (std::is_void_v<Result>) {
      std::forward<Call>(call)();
    } else {
      result.emplace(std::forward<Call>(call)());
    }
  } catch (abi::__forced_unwind&) {  // the thread is being ended: let the unwinding go on
    throw;
  } catch (...) {
    failure = std::current_exception();
  }
  PyEval_RestoreThread(thread);
  if (failure) std::rethrow_exception(failure);
  if constexpr (!std::is_void_v<Result>) return std::move(*result);
}

// Calls `attempt` without the GIL until it returns a result, handling pending signals between
// calls; `attempt` waits at most one slice and returns an empty optional to be called again.
template <class Attempt>
auto UntilDone(Attempt attempt) {
  for (;;) {
    auto result = WithoutGil(attempt);
    if (result) return std::move(*result);
    HandlePendingSignals();
  }
}

}  // namespace corvane::python
