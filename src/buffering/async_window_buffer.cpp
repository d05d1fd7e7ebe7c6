// AsyncWindowBuffer: construction, lifecycle (start, stop, join, close, moves, destruction) and
// the consumer side (pop and the state queries).
#include <stdexcept>
#include <utility>

#include "buffering/async_window_buffer_impl.hpp"
#include "common/timed_wait.hpp"

namespace corvane::control::window {
namespace {

// Slots an unbounded queue starts with; it doubles them when they are all taken.
constexpr std::size_t kUnboundedSlots = 16;

}  // namespace

AsyncWindowBuffer::Impl::Impl(std::unique_ptr<WindowProducerSession> producer_in,
                              std::size_t prefill_windows_in,
                              std::optional<std::size_t> max_buffered_windows_in)
    : producer(std::move(producer_in)),
      prefill_windows(prefill_windows_in),
      max_buffered_windows(max_buffered_windows_in),
      queue(max_buffered_windows_in.value_or(kUnboundedSlots)),
      statistics(prefill_windows_in) {}

// The producer is moved in first, so the caller's pointer is empty whatever follows, and a
// failed check destroys it with the state. The checks run in this order and report the first
// that fails.
AsyncWindowBuffer::AsyncWindowBuffer(std::unique_ptr<WindowProducerSession> producer,
                                     std::size_t prefill_windows,
                                     std::optional<std::size_t> max_buffered_windows)
    : impl_(std::make_unique<Impl>(std::move(producer), prefill_windows, max_buffered_windows)) {
  if (!impl_->producer) throw std::invalid_argument("producer must not be null.");
  if (max_buffered_windows && *max_buffered_windows == 0) {
    throw std::invalid_argument("max_buffered_windows must be positive when provided.");
  }
  if (max_buffered_windows && *max_buffered_windows < prefill_windows) {
    throw std::invalid_argument("prefill_windows must not exceed queue capacity.");
  }
}

// The worker holds a pointer to the Impl, not to this object, so a running worker is unaffected.
AsyncWindowBuffer::AsyncWindowBuffer(AsyncWindowBuffer&& other) noexcept = default;

AsyncWindowBuffer& AsyncWindowBuffer::operator=(AsyncWindowBuffer&& other) noexcept {
  if (this == &other) return *this;
  if (impl_) {
    Stop();  // virtual: a subclass's own stop runs too
    Join(std::nullopt);
  }
  impl_ = std::move(other.impl_);  // drops the old state, its queue and its producer
  return *this;
}

// Only this class's own Stop() can run here: a subclass part is already destroyed. The Impl
// then goes, and with it, last of all, the producer.
AsyncWindowBuffer::~AsyncWindowBuffer() {
  if (!impl_) return;
  AsyncWindowBuffer::Stop();
  Join(std::nullopt);
}

void AsyncWindowBuffer::Impl::MarkStarted() {
  auto lock = Lock();
  if (started) throw std::runtime_error("AsyncWindowBuffer::Start() can only be called once.");
  if (prefilling) {
    throw std::runtime_error("AsyncWindowBuffer::Start() must not be called while Prefill runs.");
  }
  started = true;
}

// A thread that cannot be created leaves `started` set: this buffer can never be started.
void AsyncWindowBuffer::Start() {
  impl_->MarkStarted();
  Impl* const state = impl_.get();
  impl_->worker = std::thread([state] { state->Run(); });
}

void AsyncWindowBuffer::Stop() {
  {
    auto lock = impl_->Lock();
    impl_->stop_requested = true;
  }
  impl_->cv.notify_all();
}

void AsyncWindowBuffer::Close() {
  Stop();
  Join(std::nullopt);
}

bool AsyncWindowBuffer::Join(std::optional<std::chrono::nanoseconds> timeout) {
  if (!impl_->worker.joinable()) return true;  // never started, or joined already
  if (timeout) {
    auto lock = impl_->Lock();
    const bool finished =
        WaitWithTimeout(impl_->cv, lock, timeout, [this] { return impl_->producer_finished; });
    if (!finished) return false;  // the worker runs on; the caller may join again
  }
  impl_->worker.join();
  return true;
}

bool AsyncWindowBuffer::Impl::HasWindowOrEnd() const {
  return !queue.empty() || producer_finished || stop_requested;
}

// A zero time-out only tests; any other wait sleeps on the condition variable at once.
bool AsyncWindowBuffer::Impl::WaitForWindow(std::unique_lock<PriorityInheritingMutex>& lock,
                                            std::optional<std::chrono::nanoseconds> timeout) {
  if (!WaitWithTimeout(cv, lock, timeout, [this] { return HasWindowOrEnd(); })) {
    return false;  // deadline passed: nothing to report yet
  }
  // Queued windows always come out before the end, and before the failure that ended it.
  if (queue.empty() && failure) std::rethrow_exception(failure);
  return !queue.empty();
}

std::optional<WindowPayload> AsyncWindowBuffer::Pop(
    std::optional<std::chrono::nanoseconds> timeout) {
  Impl& state = *impl_;
  auto lock = state.Lock();
  if (!state.WaitForWindow(lock, timeout)) return std::nullopt;
  std::optional<WindowPayload> window(std::move(state.queue.front()));
  state.queue.pop_front();
  if (state.timing) state.RecordPopTiming();
  lock.unlock();
  state.cv.notify_all();  // a worker may be waiting for room
  return window;
}

bool AsyncWindowBuffer::Impl::WorkerNeedsWake() const {
  return worker_waits_for_room && queue.size() <= max_buffered_windows.value_or(0) / 2;
}

bool AsyncWindowBuffer::PopInto(WindowPayload& window,
                                std::optional<std::chrono::nanoseconds> timeout) {
  Impl& state = *impl_;
  auto lock = state.Lock();
  if (!state.WaitForWindow(lock, timeout)) return false;
  std::swap(window, state.queue.front());
  state.queue.pop_front();
  if (state.timing) state.RecordPopTiming();
  const bool wake = state.WorkerNeedsWake();
  lock.unlock();
  if (wake) state.cv.notify_all();
  return true;
}

std::optional<WindowPayload> AsyncWindowBuffer::PopNowait() {
  return Pop(std::chrono::nanoseconds::zero());
}

bool AsyncWindowBuffer::HasBufferedData() const {
  auto lock = impl_->Lock();
  return !impl_->queue.empty();
}

bool AsyncWindowBuffer::IsComplete() const {
  auto lock = impl_->Lock();
  return impl_->producer_finished && impl_->queue.empty();
}

std::optional<std::string> AsyncWindowBuffer::LastError() const {
  auto lock = impl_->Lock();
  return impl_->last_error;
}

}  // namespace corvane::control::window
