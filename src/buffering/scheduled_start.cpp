// AsyncWindowBuffer::Start(const WorkerSettings&): the worker thread schedules itself as asked
// before it runs, and reports to the starting thread whether the system accepted every setting.
// A refused setting ends the new thread at once, and the buffer is left as it was before Start.
#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <cstddef>
#include <future>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "buffering/async_window_buffer_impl.hpp"

namespace corvane::control::window {
namespace {

[[noreturn]] void ThrowRefused(int error, const std::string& setting) {
  throw std::system_error(error, std::generic_category(),
                          "The worker thread could not be given " + setting);
}

// Longest thread name that Linux keeps, without the terminating zero.
constexpr std::size_t kMaxNameLength = 15;

void ApplyName(const std::string& name) {
  if (name.empty()) return;
  const std::string setting = "WorkerSettings::name \"" + name + "\"";
  if (name.size() > kMaxNameLength) ThrowRefused(ERANGE, setting);
  if (const int error = pthread_setname_np(pthread_self(), name.c_str())) {
    ThrowRefused(error, setting);
  }
}

// The kernel drops CPUs that do not exist or that the process may not use, as long as one is
// left; reading the set back finds any CPU that was dropped.
void ApplyCpus(const std::vector<int>& cpus) {
  if (cpus.empty()) return;
  cpu_set_t wanted;
  CPU_ZERO(&wanted);
  for (const int cpu : cpus) {
    if (cpu < 0 || cpu >= CPU_SETSIZE) {
      ThrowRefused(EINVAL, "WorkerSettings::cpus (CPU " + std::to_string(cpu) + ")");
    }
    CPU_SET(static_cast<std::size_t>(cpu), &wanted);
  }
  cpu_set_t granted;
  int error = pthread_setaffinity_np(pthread_self(), sizeof wanted, &wanted);
  if (error == 0) error = pthread_getaffinity_np(pthread_self(), sizeof granted, &granted);
  if (error != 0) ThrowRefused(error, "WorkerSettings::cpus");
  for (const int cpu : cpus) {
    if (!CPU_ISSET(static_cast<std::size_t>(cpu), &granted)) {
      ThrowRefused(EINVAL, "WorkerSettings::cpus (CPU " + std::to_string(cpu) + ")");
    }
  }
}

int SystemPolicy(WorkerPolicy policy) {
  switch (policy) {
    case WorkerPolicy::kFifo:
      return SCHED_FIFO;
    case WorkerPolicy::kRoundRobin:
      return SCHED_RR;
    case WorkerPolicy::kNormal:
    case WorkerPolicy::kInherit:
      break;
  }
  return SCHED_OTHER;
}

// Without a policy asked for, the thread keeps the one it was created with, and a priority has
// nothing to apply to.
void ApplyPolicy(WorkerPolicy policy, int priority) {
  const std::string setting =
      "WorkerSettings::policy and WorkerSettings::priority " + std::to_string(priority);
  if (policy == WorkerPolicy::kInherit) {
    if (priority != 0) ThrowRefused(EINVAL, setting);
    return;
  }
  sched_param parameters{};
  parameters.sched_priority = priority;
  if (const int error = pthread_setschedparam(pthread_self(), SystemPolicy(policy), &parameters)) {
    ThrowRefused(error, setting);
  }
}

// Applies `settings` to the calling thread, the name first, the policy last; throws
// std::system_error naming the first setting refused.
void ScheduleThisThread(const WorkerSettings& settings) {
  ApplyName(settings.name);
  ApplyCpus(settings.cpus);
  ApplyPolicy(settings.policy, settings.priority);
}

// Whether the worker, already scheduled, sleeps when its producer has nothing ready: as asked, or,
// when left automatic, under a real-time policy, whether asked for or inherited.
bool IdleWaits(WorkerIdle idle) {
  if (idle != WorkerIdle::kAutomatic) return idle == WorkerIdle::kWait;
  int policy = SCHED_OTHER;
  sched_param parameters{};
  pthread_getschedparam(pthread_self(), &policy, &parameters);
  return policy == SCHED_FIFO || policy == SCHED_RR;
}

}  // namespace

void AsyncWindowBuffer::Start(const WorkerSettings& settings) {
  impl_->MarkStarted();
  try {
    std::promise<void> scheduled;
    std::future<void> outcome = scheduled.get_future();
    Impl* const state = impl_.get();
    impl_->worker = std::thread([state, settings, scheduled = std::move(scheduled)]() mutable {
      try {
        ScheduleThisThread(settings);
      } catch (...) {
        scheduled.set_exception(std::current_exception());
        return;
      }
      state->idle_waits = IdleWaits(settings.idle);
      scheduled.set_value();
      state->Run();
    });
    outcome.get();
  } catch (...) {
    if (impl_->worker.joinable()) impl_->worker.join();
    {
      auto lock = impl_->Lock();
      impl_->started = false;
    }
    throw;
  }
}

}  // namespace corvane::control::window
