// Private state of AsyncWindowBuffer, shared by the files that implement the buffer: the
// consumer side (async_window_buffer.cpp), the worker loop (worker_loop.cpp), Prefill
// (prefill.cpp) and the qualification report (qualification.cpp).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "buffering/timing_log_impl.hpp"
#include "buffering/window_statistics.hpp"
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
  std::mutex mutex;                                       // guards everything below but `worker`
  std::condition_variable cv;                             // every wait of the buffer
  std::deque<WindowPayload> queue;                        // produced, not yet popped; oldest first
  std::thread worker;  // touched only by Start/Join/Close/dtor/move
  bool started = false;
  bool session_prepared = false;  // only Prefill (before Start) and the worker use it: no lock
  bool stop_requested = false;
  bool producer_finished = false;
  std::exception_ptr failure;             // what ended the worker, rethrown by Pop
  std::optional<std::string> last_error;  // its text
  WindowStatistics statistics;            // compute time and duration per produced window
  std::shared_ptr<TimingLog> timing;      // the attached timing log; null without one
  WindowProduction production;  // the last produced window's timing: producing thread only

  // The worker thread's whole body: session, initial, steady and tail phases, then the end.
  // Returns normally in every case; a failure is stored for the consumer.
  void Run() noexcept;

  // Takes the lock.
  std::unique_lock<std::mutex> Lock() { return std::unique_lock<std::mutex>(mutex); }

  // Sets `started`; throws std::runtime_error when it was set already.
  void MarkStarted();

  // The conditions that the consumer and the worker wait for; with the lock held.
  bool HasWindowOrEnd() const;
  bool HasRoomOrStop() const;

  // Steps shared by the worker and Prefill.
  void PrepareSessionOnce();
  std::optional<WindowPayload> ProduceWindow();
  void QueueWindow(WindowPayload&& window);

  // The timing log's hooks, with the lock held and a log attached: the window just queued at the
  // back, and the one just popped from the front.
  void RecordQueueTiming(std::chrono::steady_clock::time_point queued_at);
  void RecordPopTiming();

 private:
  void RunInitialPhase();
  void RunSteadyPhase();
  void RunTailPhase();
  bool StopRequested();
  bool WaitForRoom();
  void RecordStatistics(double charged_s, double duration_s);
  void CaptureFailure() noexcept;
  void MarkFinished() noexcept;
};

}  // namespace corvane::control::window
