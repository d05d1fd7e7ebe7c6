// FiniteWindowProducer: replays a fixed mainline list through ProduceNext and a fixed tail list
// through Finalize. The stored windows are never modified; each call hands out a copy.
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include "window/producers.hpp"

namespace corvane::control::window {

struct CORVANE_HIDDEN FiniteWindowProducer::Impl {
  std::vector<WindowPayload> mainline;  // handed out by ProduceNext, in order
  std::vector<WindowPayload> tail;      // handed out by Finalize, in order
  std::size_t next_mainline = 0;        // index of the next mainline window
  std::size_t next_tail = 0;            // index of the next tail window
  bool prepared = false;                // PrepareSession has run
};

namespace {

// Throws the validator's std::invalid_argument for the first invalid window of the list.
void ValidateEach(const std::vector<WindowPayload>& windows) {
  for (const WindowPayload& window : windows) {
    ValidateWindowPayload(window);
  }
}

// A copy of windows[next] with the cursor moved past it, or empty once the list is used up.
std::optional<WindowPayload> CopyNext(const std::vector<WindowPayload>& windows,
                                      std::size_t& next) {
  if (next >= windows.size()) {
    return std::nullopt;
  }
  return windows[next++];
}

}  // namespace

FiniteWindowProducer::FiniteWindowProducer(std::vector<WindowPayload> mainline,
                                           std::vector<WindowPayload> tail)
    : impl_(std::make_unique<Impl>()) {
  impl_->mainline = std::move(mainline);
  impl_->tail = std::move(tail);
  // Mainline first, then tail, so the reported fault is the first bad window in replay order.
  ValidateEach(impl_->mainline);
  ValidateEach(impl_->tail);
}

// Moving a unique_ptr releases the source before the old state is deleted, so assigning a
// producer to itself keeps its state.
FiniteWindowProducer::FiniteWindowProducer(FiniteWindowProducer&& other) noexcept = default;
FiniteWindowProducer& FiniteWindowProducer::operator=(FiniteWindowProducer&& other) noexcept =
    default;
FiniteWindowProducer::~FiniteWindowProducer() = default;

void FiniteWindowProducer::PrepareSession() {
  if (impl_->prepared) {
    throw std::runtime_error("FiniteWindowProducer may only be prepared once.");
  }
  impl_->prepared = true;
}

std::optional<WindowPayload> FiniteWindowProducer::ProduceNext() {
  if (!impl_->prepared) {
    throw std::runtime_error("PrepareSession() must run before ProduceNext().");
  }
  return CopyNext(impl_->mainline, impl_->next_mainline);
}

bool FiniteWindowProducer::IsExhausted() const {
  return impl_->next_mainline >= impl_->mainline.size();
}

std::optional<WindowPayload> FiniteWindowProducer::Finalize() {
  // The missing preparation is reported first, even when the mainline is empty.
  if (!impl_->prepared) {
    throw std::runtime_error("PrepareSession() must run before Finalize().");
  }
  if (!IsExhausted()) {
    throw std::runtime_error("Finalize() requires an exhausted mainline sequence.");
  }
  return CopyNext(impl_->tail, impl_->next_tail);
}

}  // namespace corvane::control::window
