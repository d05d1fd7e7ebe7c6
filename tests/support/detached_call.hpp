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
#include <memory>
#include <thread>
#include <type_traits>
#include <utility>

namespace corvane::testing_support {

// How long a test waits for a call that should return promptly.
inline constexpr std::chrono::seconds kHangLimit{10};

// Calls `call` and returns its result; `call`, with what it captured, is gone by the end of the
// statement that calls this.
template <typename Call>
decltype(auto) CallAndDrop(Call call) {
  return call();
}

template <typename Call>
auto StartDetached(Call call) -> std::future<decltype(call())> {
  using Result = decltype(call());
  auto promise = std::make_shared<std::promise<Result>>();
  std::future<Result> result = promise->get_future();
  // The call is dropped before its result is announced, so nothing that the test shares with it
  // (a mock checked at destruction, say) outlives the test's wait.
  std::thread([promise, call = std::move(call)]() mutable {
    try {
      if constexpr (std::is_void_v<Result>) {
        CallAndDrop(std::move(call));
        promise->set_value();
      } else {
        Result value = CallAndDrop(std::move(call));
        promise->set_value(std::move(value));
      }
    } catch (...) {
      promise->set_exception(std::current_exception());
    }
  }).detach();
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
