// How the worker thread of a window buffer is scheduled: its policy and priority, the CPUs it may
// run on and its name. Given to AsyncWindowBuffer::Start(const WorkerSettings&).
#pragma once

#include <string>
#include <vector>

namespace corvane::control::window {

// The scheduling policy of the worker thread.
enum class WorkerPolicy {
  kNormal,      // the system's time-sharing policy (SCHED_OTHER)
  kFifo,        // real-time, runs until it blocks or yields (SCHED_FIFO)
  kRoundRobin,  // real-time, time-sliced among threads of equal priority (SCHED_RR)
  kInherit,     // no policy asked for: the starting thread's policy and priority, unchanged
};

// What the worker does when its producer, not exhausted, has no window ready.
enum class WorkerIdle {
  kAutomatic,  // kWait when the worker runs under a real-time policy, else kYield
  kYield,      // yields the processor once and asks again, as a worker of plain Start() does
  kWait,       // sleeps until the producer's ready signal (ReadySignallingProducer) or a stop;
               // without such a signal, for a back-off from 50 us doubling up to 1 ms
};

// Scheduling of the worker thread. The defaults change nothing: the worker then runs as the
// thread that starts it would create it. Each setting left at its default keeps what the starting
// thread has, so asking for a name or CPUs alone leaves the policy and priority as they are.
struct WorkerSettings {
  WorkerPolicy policy = WorkerPolicy::kInherit;  // scheduling policy
  int priority = 0;       // 1 (lowest) to 99 on Linux for kFifo and kRoundRobin; 0 for the others
  std::vector<int> cpus;  // CPU numbers the worker may run on; empty: those of the starting thread
  std::string name;       // thread name, at most 15 characters; empty: the starting thread's name
  WorkerIdle idle = WorkerIdle::kAutomatic;  // what the worker does when nothing is ready
};

}  // namespace corvane::control::window
