// ShaperWindowProducer: forwards the session lifecycle to a trajectory-shaping handle and turns
// each shaped window it yields into a WindowPayload tagged with "is_tail".
#include <memory>
#include <optional>
#include <utility>

#include "native/error.hpp"
#include "window/producers.hpp"

namespace corvane::control::window {

struct CORVANE_HIDDEN ShaperWindowProducer::Impl {
  std::unique_ptr<TrajectoryWindowHandle> handle;  // never null while the state exists
  bool prepared = false;                           // the handle's Prepare() has returned
  bool finalized = false;                          // the handle's Finalize() has returned

  // Each flag is set only after the handle call returned normally, so a call that threw is
  // made again next time.
  void PrepareHandleOnce() {
    if (prepared) {
      return;
    }
    handle->Prepare();
    prepared = true;
  }

  void FinalizeHandleOnce() {
    if (finalized) {
      return;
    }
    handle->Finalize();
    finalized = true;
  }
};

namespace {

std::unique_ptr<TrajectoryWindowHandle> RequireHandle(
    std::unique_ptr<TrajectoryWindowHandle> handle) {
  if (!handle) {
    throw corvane::native::InvalidArgumentError(
        "ShaperWindowProducer requires a trajectory handle.", std::nullopt);
  }
  return handle;
}

// Polls the handle; when nothing is ready, advances it by one step and polls exactly once more.
std::optional<ShapedTrajectoryWindow> PollWithOneAdvance(TrajectoryWindowHandle& handle) {
  std::optional<ShapedTrajectoryWindow> window = handle.NextWindow();
  if (window) {
    return window;
  }
  handle.Advance(std::optional<std::size_t>{1});
  return handle.NextWindow();
}

// Moves the window's arrays into a payload. Velocities, accelerations and times are present
// whatever their size, and "is_tail" is the only metadata written.
WindowPayload ToPayload(ShapedTrajectoryWindow window) {
  WindowPayload payload;
  payload.positions = std::move(window.positions);
  payload.velocities = std::move(window.velocities);
  payload.accelerations = std::move(window.accelerations);
  payload.time_s = std::move(window.time_s);
  payload.start_index = window.start_index;
  payload.stop_index = window.stop_index;
  payload.compute_time_s = window.compute_time_s;
  payload.metadata = {{"is_tail", window.is_tail ? "true" : "false"}};
  return payload;
}

}  // namespace

ShaperWindowProducer::ShaperWindowProducer(std::unique_ptr<TrajectoryWindowHandle> handle)
    : impl_(std::make_unique<Impl>()) {
  impl_->handle = RequireHandle(std::move(handle));
}

ShaperWindowProducer::ShaperWindowProducer(ShaperWindowProducer&& other) noexcept = default;

// Destroying the old state deletes its handle without finalizing it; the finalizing step lives
// in the producer's destructor only. Moving a unique_ptr releases the source before the old
// state is deleted, so assigning a producer to itself keeps its state.
ShaperWindowProducer& ShaperWindowProducer::operator=(ShaperWindowProducer&& other) noexcept =
    default;

ShaperWindowProducer::~ShaperWindowProducer() {
  if (!impl_) {
    return;  // moved from
  }
  try {
    impl_->FinalizeHandleOnce();
  } catch (...) {
    // A destructor has no way to report the handle's failure; the handle is deleted regardless.
  }
}

void ShaperWindowProducer::PrepareSession() { impl_->PrepareHandleOnce(); }

std::optional<WindowPayload> ShaperWindowProducer::ProduceNext() {
  std::optional<ShapedTrajectoryWindow> window = PollWithOneAdvance(*impl_->handle);
  if (!window) {
    return std::nullopt;
  }
  return ToPayload(std::move(*window));
}

bool ShaperWindowProducer::IsExhausted() const { return !impl_->handle->HasMoreWindows(); }

std::optional<WindowPayload> ShaperWindowProducer::Finalize() {
  impl_->FinalizeHandleOnce();
  return std::nullopt;
}

}  // namespace corvane::control::window
