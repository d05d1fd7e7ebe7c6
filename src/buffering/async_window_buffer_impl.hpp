// Private state of AsyncWindowBuffer, shared by the files that implement the buffer: the
// consumer side (async_window_buffer.cpp), the worker loop (worker_loop.cpp), Prefill
// (prefill.cpp) and the qualification report (qualification.cpp).
#pragma once

#include <chrono>
#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "buffering/timing_log_impl.hpp"
#include "buffering/window_replacement.hpp"
#include "buffering/window_ring.hpp"
#include "buffering/window_statistics.hpp"
#include "common/priority_inheriting_mutex.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {

struct CORVANE_HIDDEN AsyncWindowBuffer::Impl {
  Impl(std::unique_ptr<WindowProducerSession> producer_in, std::size_t prefill_windows_in,
       std::optional<std::size_t> max_buffered_windows_in);

  // Fields in the order of their construction; they are destroyed in reverse, so the producer
  // goes last, after the worker has been joined and the queue dropped.
  std::unique_ptr<WindowProducerSession> producer;
  const std::size_t prefill_windows;                      // windows of the worker's initial phase
  const std::optional<std::size_t> max_buffered_windows;  // queue capacity; absent: unbounded
  // Guards everything below but `worker` and the worker's own fields. Priority-inheriting, so
  // that a monitor of normal priority holding it cannot keep a real-time consumer waiting.
  PriorityInheritingMutex mutex;
  PriorityInheritingConditionVariable cv;  // every wait of the buffer
  WindowRing queue;                        // produced, not yet popped; oldest first
  std::thread worker;                      // touched only by Start/Join/Close/dtor/move
  bool started = false;
  bool session_prepared = false;  // only Prefill (before Start) and the worker use it: no lock
  bool prefilling = false;        // a Prefill call is driving the producer
  bool stop_requested = false;
  bool producer_finished = false;
  std::exception_ptr failure;                     // what ended the worker, rethrown by Pop
  std::optional<std::string> last_error;          // its text
  WindowStatistics statistics;                    // compute time and duration per produced window
  std::shared_ptr<TimingLog> timing;              // the attached timing log; null without one
  bool worker_waits_for_room = false;             // the worker sleeps in its wait for room
  bool ready_raised = false;                      // the producer signalled a window may be ready
  std::unique_ptr<ReplacementState> replacement;  // null unless the producer can resume

  // The worker's own; set before it starts, or by it alone.
  bool idle_waits = false;  // nothing ready: sleep (until a signal, stop or back-off), not yield
  ReadySignallingProducer* ready_source = nullptr;  // the producer's signal, when it has one
  RecyclingWindowProducer* recycling = nullptr;     // the producer writes into given storage
  WindowPayload spare;                              // storage for the next window to produce
  WindowProduction production;                      // the last produced window's timing
  // The idle sleeps of a waiting worker whose producer has no ready signal: from the first, each
  // twice the last, up to the longest.
  static constexpr std::chrono::nanoseconds kFirstIdleSleep = std::chrono::microseconds(50);
  static constexpr std::chrono::nanoseconds kLongestIdleSleep = std::chrono::milliseconds(1);
  std::chrono::nanoseconds idle_sleep = kFirstIdleSleep;  // the next idle sleep

  // The worker thread's whole body: session, initial, steady and tail phases, then the end.
  // Returns normally in every case; a failure is stored for the consumer.
  void Run() noexcept;

  // Takes the lock.
  std::unique_lock<PriorityInheritingMutex> Lock() {
    return std::unique_lock<PriorityInheritingMutex>(mutex);
  }

  // Sets `started`; throws std::runtime_error when it was set already or a Prefill call runs.
  void MarkStarted();
  // Lets one Prefill call at a time drive the producer: sets `prefilling`, or throws
  // std::runtime_error after Start() or while another Prefill call runs. Release clears it.
  void ClaimPrefill();
  void ReleasePrefill() noexcept;

  // The conditions that the consumer and the worker wait for; with the lock held.
  bool HasWindowOrEnd() const;
  bool HasRoomOrStop() const;
  // With the lock held: waits as Pop does; true when a window is at the front, false at the
  // deadline or at an end without failure; rethrows the failure at an end with one.
  bool WaitForWindow(std::unique_lock<PriorityInheritingMutex>& lock,
                     std::optional<std::chrono::nanoseconds> timeout);
  // With the lock held, after a window was taken without a wake: whether the worker sleeps for
  // room and the queue has fallen to half its capacity, so that it must be woken now.
  bool WorkerNeedsWake() const;
  // Wakes a worker that sleeps because its producer had nothing ready.
  void RaiseReady();

  // Steps shared by the worker and Prefill.
  void PrepareSessionOnce();
  std::optional<WindowPayload> ProduceWindow();
  void QueueWindow(WindowPayload&& window);

  // The timing log's hooks, with the lock held and a log attached: the window just queued (the
  // last produced), the `windows` queued last that a replacement discarded, and the one just
  // popped from the front.
  void RecordQueueTiming(std::chrono::steady_clock::time_point queued_at);
  void ForgetQueueTiming(std::size_t windows);
  void RecordPopTiming();

  // The replacement of the unplayed reference (window_replacement.cpp). Replace() runs on the
  // caller's thread; `samples` null means holding the last command for hold_samples samples from
  // the earliest index, which an absent start_index asks for.
  void EnableReplacement();
  ReferenceReplacement Replace(AppendableReferenceBuffer& reference,
                               std::optional<std::size_t> start_index, const SampleMatrix* samples,
                               std::size_t hold_samples, bool finish);
  // Steps of the producing thread: the exhaustion test, which a pending replacement overrules;
  // the resumption before a window; and the queueing of a window, stamped with its plan, unless a
  // replacement has made it stale.
  bool ProducerExhausted();
  void ResumeIfReplaced();
  bool ReplacedMeanwhile();
  void QueueUnlessReplaced(WindowPayload& window);

 private:
  void RunInitialPhase();
  void RunSteadyPhase();
  void RunTailPhase();
  bool StopRequested();
  bool WaitForRoom();
  // The worker's production step: the window is written into `spare`.
  bool ProduceIntoSpare();
  // The worker's step when its producer had nothing ready: a yield, or an idle sleep.
  void IdleUntilReady();
  void ConnectProducerExtensions();
  void DisconnectReadySignal() noexcept;
  // Validates a produced window and records its statistics.
  void Charge(const WindowPayload& window, std::chrono::steady_clock::time_point t0,
              std::chrono::steady_clock::time_point t1);
  void RecordStatistics(double charged_s, double duration_s);
  void CaptureFailure() noexcept;
  void MarkFinished() noexcept;
};

}  // namespace corvane::control::window
