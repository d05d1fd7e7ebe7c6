// AsyncWindowBuffer::Prefill: the caller's own thread fills the queue before the worker exists,
// through the same production and queueing steps as the worker, without waiting for room.
#include <stdexcept>
#include <utility>

#include "buffering/async_window_buffer_impl.hpp"

namespace corvane::control::window {

// The producer and the statistics writer serve one thread at a time, so a second call that comes
// while the first runs is refused. The claim is taken in the lock scope that tests `started`.
void AsyncWindowBuffer::Impl::ClaimPrefill() {
  auto lock = Lock();
  if (started) throw std::runtime_error("Prefill must be called before Start().");
  if (prefilling) {
    throw std::runtime_error("Prefill must not be called while another Prefill call runs.");
  }
  prefilling = true;
}

void AsyncWindowBuffer::Impl::ReleasePrefill() noexcept {
  auto lock = Lock();
  prefilling = false;
}

std::size_t AsyncWindowBuffer::Prefill(std::size_t max_windows) {
  Impl& state = *impl_;
  state.ClaimPrefill();
  struct Release {  // gives the claim back on every way out
    Impl& state;
    ~Release() { state.ReleasePrefill(); }
  } release{state};
  state.PrepareSessionOnce();

  // Stops at exhaustion and at the first empty result; a failure passes to the caller, leaving
  // the windows queued so far, with their statistics.
  std::size_t queued = 0;
  while (queued < max_windows) {
    if (state.ProducerExhausted()) break;
    std::optional<WindowPayload> window = state.ProduceWindow();
    if (!window) break;
    state.QueueWindow(std::move(*window));
    ++queued;
  }
  return queued;
}

}  // namespace corvane::control::window
