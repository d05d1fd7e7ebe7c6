// Scheduling and CPU-time helpers for the threads of the buffer benchmarks.
#pragma once

#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <cstring>
#include <optional>
#include <string>

namespace corvane::bench {

// Pins the calling thread to `cpu` under SCHED_FIFO at `priority`; the error text when the system
// refuses.
inline std::optional<std::string> BecomeRealTimeOn(int cpu, int priority = 10) {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  CPU_SET(static_cast<std::size_t>(cpu), &cpus);
  sched_param parameters{};
  parameters.sched_priority = priority;
  int error = pthread_setaffinity_np(pthread_self(), sizeof cpus, &cpus);
  if (error == 0) error = pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters);
  if (error != 0) return std::string(std::strerror(error));
  return std::nullopt;
}

// Pins the calling thread to `cpu`, keeping its policy.
inline void PinTo(int cpu) {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  CPU_SET(static_cast<std::size_t>(cpu), &cpus);
  pthread_setaffinity_np(pthread_self(), sizeof cpus, &cpus);
}

inline double SecondsOf(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// CPU time the calling thread has used, in seconds.
inline double ThreadCpuSeconds() { return SecondsOf(CLOCK_THREAD_CPUTIME_ID); }

}  // namespace corvane::bench
