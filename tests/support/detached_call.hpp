// Runs a call that may block on a thread of its own, so that a test can wait for its result
// with a deadline: a call that never returns fails its test instead of hanging the run.
//
// The thread is detached and may outlive the test, so the call must own everything it uses
// (capture by value or by std::shared_ptr, never references to the test's locals).
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <utility>

namespace corvane::testing_support {

// How long a test waits for a call that should return promptly.
inline constexpr std::chrono::seconds kHangLimit{10};

template <typename Call>
auto StartDetached(Call call) -> std::future<decltype(call())> {
  std::packaged_task<decltype(call())()> task(std::move(call));
  auto result = task.get_future();
  std::thread(std::move(task)).detach();
  return result;
}

// Whether `result` became ready within kHangLimit.
template <typename T>
bool ReadyInTime(const std::future<T>& result) {
  return result.wait_for(kHangLimit) == std::future_status::ready;
}

// Runs `call` on a thread of its own and returns its result. Should it not return within
// kHangLimit, the whole test program aborts with a message naming `what` instead of hanging.
template <typename Call>
auto Guarded(Call call, const char* what = "a blocking call") {
  auto result = StartDetached(std::move(call));
  if (!ReadyInTime(result)) {
    std::fprintf(stderr, "%s did not return within %lld s\n", what,
                 static_cast<long long>(kHangLimit.count()));
    std::abort();
  }
  return result.get();
}

}  // namespace corvane::testing_support
