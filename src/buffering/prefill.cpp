// AsyncWindowBuffer::Prefill: the caller's own thread fills the queue before the worker exists,
// through the same production and queueing steps as the worker, without waiting for room.
#include <stdexcept>
#include <utility>

#include "buffering/async_window_buffer_impl.hpp"

namespace corvane::control::window {

std::size_t AsyncWindowBuffer::Prefill(std::size_t max_windows) {
  Impl& state = *impl_;
  {
    auto lock = state.Lock();
    if (state.started) throw std::runtime_error("Prefill must be called before Start().");
  }
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
