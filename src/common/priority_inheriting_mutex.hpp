// A mutex that lends its holder the priority of the threads waiting for it, and the condition
// variable that works with it. A normal-priority thread that holds the lock while a real-time
// thread waits for it runs at the waiter's priority until it unlocks, so that a busy thread of
// middle priority cannot keep the real-time waiter off the lock (priority inversion).
//
// Both follow the standard library's Lockable and condition-variable conventions, so that
// std::unique_lock and WaitWithTimeout take them as they take std::mutex. Failures are
// std::system_error, as for std::mutex.
#pragma once

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <system_error>

namespace corvane::control::window {

namespace detail {
inline void ThrowIfFailed(int error, const char* call) {
  if (error != 0) throw std::system_error(error, std::generic_category(), call);
}
}  // namespace detail

class PriorityInheritingMutex {
 public:
  // Falls back to a plain mutex where the system offers no priority inheritance.
  PriorityInheritingMutex() {
    pthread_mutexattr_t attributes;
    detail::ThrowIfFailed(pthread_mutexattr_init(&attributes), "pthread_mutexattr_init");
    const int protocol = pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    const int error = pthread_mutex_init(&mutex_, protocol == 0 ? &attributes : nullptr);
    pthread_mutexattr_destroy(&attributes);
    detail::ThrowIfFailed(error, "pthread_mutex_init");
  }
  ~PriorityInheritingMutex() { pthread_mutex_destroy(&mutex_); }
  PriorityInheritingMutex(const PriorityInheritingMutex&) = delete;
  PriorityInheritingMutex& operator=(const PriorityInheritingMutex&) = delete;

  void lock() { detail::ThrowIfFailed(pthread_mutex_lock(&mutex_), "pthread_mutex_lock"); }
  bool try_lock() { return pthread_mutex_trylock(&mutex_) == 0; }
  void unlock() noexcept { pthread_mutex_unlock(&mutex_); }
  pthread_mutex_t* native_handle() noexcept { return &mutex_; }

 private:
  pthread_mutex_t mutex_;
};

// Waits measure their deadlines on the steady clock (CLOCK_MONOTONIC).
class PriorityInheritingConditionVariable {
 public:
  using Lock = std::unique_lock<PriorityInheritingMutex>;

  PriorityInheritingConditionVariable() {
    pthread_condattr_t attributes;
    detail::ThrowIfFailed(pthread_condattr_init(&attributes), "pthread_condattr_init");
    int error = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    if (error == 0) error = pthread_cond_init(&cv_, &attributes);
    pthread_condattr_destroy(&attributes);
    detail::ThrowIfFailed(error, "pthread_cond_init");
  }
  ~PriorityInheritingConditionVariable() { pthread_cond_destroy(&cv_); }
  PriorityInheritingConditionVariable(const PriorityInheritingConditionVariable&) = delete;
  PriorityInheritingConditionVariable& operator=(const PriorityInheritingConditionVariable&) =
      delete;

  void notify_all() noexcept { pthread_cond_broadcast(&cv_); }

  template <typename Ready>
  void wait(Lock& lock, Ready ready) {
    while (!ready()) pthread_cond_wait(&cv_, lock.mutex()->native_handle());
  }

  // Returns ready(); false only when the deadline passed with ready() false.
  template <typename Ready>
  bool wait_until(Lock& lock, std::chrono::steady_clock::time_point deadline, Ready ready) {
    const auto since_epoch = deadline.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since_epoch);
    timespec until{};
    until.tv_sec = static_cast<time_t>(seconds.count());
    until.tv_nsec = static_cast<long>((since_epoch - seconds).count());
    while (!ready()) {
      if (pthread_cond_timedwait(&cv_, lock.mutex()->native_handle(), &until) == ETIMEDOUT) {
        return ready();
      }
    }
    return true;
  }

 private:
  pthread_cond_t cv_;
};

}  // namespace corvane::control::window
