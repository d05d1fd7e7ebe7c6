// Taking the buffer's lock, and waiting for a condition, without being put to sleep when the
// lock or the condition is only microseconds away.
//
// A thread that blocks on a mutex or a condition variable is put to sleep, and waking it is a
// system call on the thread that lets it go on, followed by a wake-up that on a virtual machine
// can take a hundred microseconds. The buffer's lock scopes last well under a microsecond, and a
// worker and a consumer that keep pace with each other meet their conditions just as quickly,
// so both steps first look again for a short while. Between two looks at a condition the
// thread yields the processor: where busy threads outnumber cores, the thread it waits for may
// need that very core to make progress.
#include <algorithm>
#include <chrono>
#include <thread>

#include "buffering/async_window_buffer_impl.hpp"
#include "common/timed_wait.hpp"

namespace corvane::control::window {
namespace {

// try_lock attempts before Lock() blocks.
constexpr int kLockSpinAttempts = 200;

// How long a condition is looked for before the thread sleeps.
constexpr std::chrono::nanoseconds kLookout = std::chrono::microseconds(50);

inline void RelaxCpu() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

}  // namespace

std::unique_lock<std::mutex> AsyncWindowBuffer::Impl::Lock() {
  for (int attempt = 0; attempt < kLockSpinAttempts; ++attempt) {
    if (mutex.try_lock()) return std::unique_lock<std::mutex>(mutex, std::adopt_lock);
    RelaxCpu();
  }
  return std::unique_lock<std::mutex>(mutex);
}

// A condition that already holds, or a zero or negative time-out, costs no clock read and no
// look. The looks count against the time-out: the sleep that follows gets only what is left.
bool AsyncWindowBuffer::Impl::Await(std::unique_lock<std::mutex>& lock, bool (Impl::*ready)() const,
                                    std::optional<std::chrono::nanoseconds> timeout) {
  using Clock = std::chrono::steady_clock;
  const auto holds = [this, ready] { return (this->*ready)(); };
  if (holds() || (timeout && *timeout <= std::chrono::nanoseconds::zero())) {
    return WaitWithTimeout(cv, lock, timeout, holds);
  }
  const Clock::time_point begun = Clock::now();
  const std::chrono::nanoseconds limit = timeout ? std::min(*timeout, kLookout) : kLookout;
  Clock::duration looked{};
  do {
    lock.unlock();
    std::this_thread::yield();
    lock = Lock();
    looked = Clock::now() - begun;
  } while (!holds() && looked < limit);
  if (timeout) *timeout -= std::chrono::duration_cast<std::chrono::nanoseconds>(looked);
  return WaitWithTimeout(cv, lock, timeout, holds);
}

}  // namespace corvane::control::window
