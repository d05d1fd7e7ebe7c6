// The worker thread of AsyncWindowBuffer, and the window production and queueing steps that the
// worker shares with Prefill.
//
// No producer call and no validation ever happens under the lock; every lock scope here is a
// flag test, one queue operation (with a timing log, and the window's entry) or two statistics
// appends, and every notification follows the unlock.
#include <algorithm>
#include <exception>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "buffering/async_window_buffer_impl.hpp"
#include "buffering/window_duration.hpp"

namespace corvane::control::window {
namespace {

double SecondsBetween(std::chrono::steady_clock::time_point t0,
                      std::chrono::steady_clock::time_point t1) {
  const auto elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - t0);
  return static_cast<double>(elapsed.count()) / 1e9;
}

// What LastError gives when there is no memory to copy the failure's own text. It is short enough
// to be stored inside the string object itself, without allocating.
constexpr char kTextWithoutMemory[] = "Out of memory.";

// Sets `text` to the what() of `failure`, or to the generic text for an exception of another
// kind; should copying either fail, to kTextWithoutMemory.
void StoreFailureText(const std::exception_ptr& failure,
                      std::optional<std::string>& text) noexcept {
  try {
    try {
      std::rethrow_exception(failure);
    } catch (const std::exception& error) {
      text = error.what();
    } catch (...) {
      text = "Unknown native window producer failure.";
    }
  } catch (...) {
    text = kTextWithoutMemory;
  }
}

}  // namespace

// Neither the failure capture nor the end can throw, so nothing ever leaves the worker thread (a
// mutex that cannot be locked at all would end the process there).
void AsyncWindowBuffer::Impl::Run() noexcept {
  try {
    PrepareSessionOnce();
    ConnectProducerExtensions();
    RunInitialPhase();
    RunSteadyPhase();
    RunTailPhase();
  } catch (...) {
    CaptureFailure();
  }
  if (ready_source != nullptr) DisconnectReadySignal();
  MarkFinished();
}

// Finds what the producer offers beyond the session interface. Its ready signal is installed only
// for a worker that sleeps when nothing is ready.
void AsyncWindowBuffer::Impl::ConnectProducerExtensions() {
  recycling = dynamic_cast<RecyclingWindowProducer*>(producer.get());
  if (!idle_waits) return;
  ready_source = dynamic_cast<ReadySignallingProducer*>(producer.get());
  if (ready_source != nullptr) ready_source->SetReadySignal([this] { RaiseReady(); });
}

// As the worker ends. A failure here has no consumer left to reach; the producer then keeps a
// signal that nobody may raise once the buffer is gone, as its contract says.
void AsyncWindowBuffer::Impl::DisconnectReadySignal() noexcept {
  try {
    ready_source->SetReadySignal(nullptr);
  } catch (...) {
  }
}

void AsyncWindowBuffer::Impl::RaiseReady() {
  {
    auto lock = Lock();
    ready_raised = true;
  }
  cv.notify_all();
}

// Prefill (before Start) and the worker (after it) never run at once, so the flag needs no lock.
void AsyncWindowBuffer::Impl::PrepareSessionOnce() {
  if (session_prepared) return;
  producer->PrepareSession();
  session_prepared = true;
}

// Queues up to prefill_windows windows back to back. Every way out leads to the steady phase,
// which tests the stop and the exhaustion again.
void AsyncWindowBuffer::Impl::RunInitialPhase() {
  for (std::size_t queued = 0; queued < prefill_windows; ++queued) {
    if (ProducerExhausted()) return;
    if (!WaitForRoom()) return;
    if (!ProduceIntoSpare()) return;  // nothing ready: on to the steady phase without yielding
    QueueWindow(std::move(spare));    // spare gets the slot's old storage
  }
}

// One window at a time until a stop or the producer's exhaustion. A producer with nothing ready
// is asked again after the idle step.
void AsyncWindowBuffer::Impl::RunSteadyPhase() {
  while (true) {
    if (StopRequested()) return;
    if (ProducerExhausted()) return;
    if (!WaitForRoom()) return;
    if (!ProduceIntoSpare()) {
      IdleUntilReady();
      continue;
    }
    idle_sleep = kFirstIdleSleep;
    QueueWindow(std::move(spare));
  }
}

// A yield, as the plain loop does; or, for a worker set to wait, a sleep until the producer's
// ready signal or a stop, or without a signal one back-off step, each twice the last.
void AsyncWindowBuffer::Impl::IdleUntilReady() {
  if (!idle_waits) {
    std::this_thread::yield();
    return;
  }
  auto lock = Lock();
  const auto woken = [this] { return ready_raised || stop_requested; };
  if (ready_source != nullptr) {
    cv.wait(lock, woken);
  } else {
    cv.wait_until(lock, std::chrono::steady_clock::now() + idle_sleep, woken);
    idle_sleep = std::min(2 * idle_sleep, kLongestIdleSleep);
  }
  ready_raised = false;
}

// Drains the producer's final windows. They are validated and queued but neither charged nor
// recorded in the statistics; only a timing log gets their measured Finalize() time. A stopped
// producer is never finalised: the first test ends the phase.
void AsyncWindowBuffer::Impl::RunTailPhase() {
  while (true) {
    if (StopRequested()) return;
    if (!WaitForRoom()) return;
    const auto t0 = std::chrono::steady_clock::now();
    std::optional<WindowPayload> window = producer->Finalize();
    const auto t1 = std::chrono::steady_clock::now();
    if (!window) return;
    ValidateWindowPayload(*window);
    if (timing) {
      production = {window->start_index, window->stop_index, t0, SecondsBetween(t0, t1),
                    WindowDurationSeconds(*window)};
    }
    QueueWindow(std::move(*window));
  }
}

bool AsyncWindowBuffer::Impl::StopRequested() {
  auto lock = Lock();
  return stop_requested;
}

bool AsyncWindowBuffer::Impl::HasRoomOrStop() const {
  return stop_requested || !max_buffered_windows || queue.size() < *max_buffered_windows;
}

// Returns true when the queue has room, false when the wait ended in a stop (tested first).
// PopInto wakes a sleeping worker only at half capacity; the flag tells it that one sleeps.
bool AsyncWindowBuffer::Impl::WaitForRoom() {
  auto lock = Lock();
  worker_waits_for_room = true;
  cv.wait(lock, [this] { return HasRoomOrStop(); });
  worker_waits_for_room = false;
  return !stop_requested;
}

// The window production step: one timed ProduceNext() call. A window it yields is validated and
// charged the larger of the measured time and its own declared compute time.
std::optional<WindowPayload> AsyncWindowBuffer::Impl::ProduceWindow() {
  if (replacement) ResumeIfReplaced();
  const auto t0 = std::chrono::steady_clock::now();
  std::optional<WindowPayload> window;
  try {
    window = producer->ProduceNext();
  } catch (...) {
    if (!replacement || !ReplacedMeanwhile()) throw;
  }
  const auto t1 = std::chrono::steady_clock::now();
  if (!window) return std::nullopt;  // nothing ready: nothing recorded
  Charge(*window, t0, t1);
  return window;
}

// The worker's production step: as above, the window written into `spare`, through
// ProduceNextInto where the producer offers it.
bool AsyncWindowBuffer::Impl::ProduceIntoSpare() {
  if (replacement) ResumeIfReplaced();
  const auto t0 = std::chrono::steady_clock::now();
  bool produced = false;
  try {
    if (recycling != nullptr) {
      produced = recycling->ProduceNextInto(spare);
    } else if (std::optional<WindowPayload> window = producer->ProduceNext()) {
      spare = std::move(*window);  // what spare held is freed here, on the worker
      produced = true;
    }
  } catch (...) {
    if (!replacement || !ReplacedMeanwhile()) throw;
  }
  const auto t1 = std::chrono::steady_clock::now();
  if (produced) Charge(spare, t0, t1);
  return produced;
}

void AsyncWindowBuffer::Impl::Charge(const WindowPayload& window,
                                     std::chrono::steady_clock::time_point t0,
                                     std::chrono::steady_clock::time_point t1) {
  ValidateWindowPayload(window);
  const double charged_s = std::max(SecondsBetween(t0, t1), window.compute_time_s);
  const double duration_s = WindowDurationSeconds(window);
  RecordStatistics(charged_s, duration_s);
  production = {window.start_index, window.stop_index, t0, charged_s, duration_s};
}

// One entry for both figures, in one lock scope. What the entry needs allocated is allocated
// before the lock is taken, and what it replaces is freed after the lock has been released.
void AsyncWindowBuffer::Impl::RecordStatistics(double charged_s, double duration_s) {
  WindowStatistics::Growth growth = statistics.PrepareRecord();
  auto lock = Lock();
  statistics.Record(charged_s, duration_s, growth);
}

// The queueing step: the window is moved, never copied, to the back of the queue, and `window` is
// left holding the storage of whatever window that slot held last, for the worker to reuse. With
// a timing log, the window's entry is written in the same lock scope, so a pop always finds it.
void AsyncWindowBuffer::Impl::QueueWindow(WindowPayload&& window) {
  if (replacement) {
    QueueUnlessReplaced(window);
    return;
  }
  const auto queued_at =
      timing ? std::chrono::steady_clock::now() : std::chrono::steady_clock::time_point();
  {
    auto lock = Lock();
    queue.PushSwap(window);
    if (timing) RecordQueueTiming(queued_at);
  }
  cv.notify_all();
}

// Called from the handler of Run: keeps the exception for Pop and its text for LastError.
void AsyncWindowBuffer::Impl::CaptureFailure() noexcept {
  auto lock = Lock();
  failure = std::current_exception();
  StoreFailureText(failure, last_error);
}

void AsyncWindowBuffer::Impl::MarkFinished() noexcept {
  {
    auto lock = Lock();
    producer_finished = true;
  }
  cv.notify_all();
}

}  // namespace corvane::control::window
