// AppendableWindowBuffer: an AsyncWindowBuffer that also holds the reference buffer its producer
// reads, so that one object appends reference, ends the stream and pops windows.
#include <stdexcept>
#include <utility>

#include "buffering/async_window_buffer_impl.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {

// The base's checks come first; should the reference buffer be missing, the base part (and with
// it the producer) is destroyed as the exception leaves.
AppendableWindowBuffer::AppendableWindowBuffer(
    std::unique_ptr<WindowProducerSession> producer,
    std::shared_ptr<AppendableReferenceBuffer> reference_buffer, std::size_t prefill_windows,
    std::optional<std::size_t> max_buffered_windows)
    : AsyncWindowBuffer(std::move(producer), prefill_windows, max_buffered_windows),
      reference_buffer_(std::move(reference_buffer)) {
  if (!reference_buffer_) throw std::invalid_argument("reference_buffer must not be null.");
  impl_->EnableReplacement();
}

AppendableWindowBuffer::AppendableWindowBuffer(
    std::unique_ptr<WindowProducerSession> producer,
    std::shared_ptr<AppendableReferenceBuffer> reference_buffer, std::size_t prefill_windows,
    std::optional<std::size_t> max_buffered_windows, std::size_t statistics_retention_windows)
    : AsyncWindowBuffer(std::move(producer), prefill_windows, max_buffered_windows,
                        statistics_retention_windows),
      reference_buffer_(std::move(reference_buffer)) {
  if (!reference_buffer_) throw std::invalid_argument("reference_buffer must not be null.");
  impl_->EnableReplacement();
}

AppendableWindowBuffer::AppendableWindowBuffer(AppendableWindowBuffer&& other) noexcept = default;

// The base stops this buffer through the override below while reference_buffer_ still names
// this buffer's own reference, then both parts take over the other's state.
AppendableWindowBuffer& AppendableWindowBuffer::operator=(AppendableWindowBuffer&& other) noexcept =
    default;

// A producer may be blocked waiting for its first reference sample; finishing the reference
// releases it, so the base part's stop and join that follow cannot hang.
AppendableWindowBuffer::~AppendableWindowBuffer() {
  if (reference_buffer_) reference_buffer_->Finish();
}

AppendedRange AppendableWindowBuffer::AppendReference(const SampleMatrix& command) {
  return reference_buffer_->AppendReference(command);
}

void AppendableWindowBuffer::Finish() { reference_buffer_->Finish(); }

// Finishing the reference first lets a worker blocked on reference samples return from the
// producer, so that it sees the stop.
void AppendableWindowBuffer::Stop() {
  reference_buffer_->Finish();
  AsyncWindowBuffer::Stop();
}

SampleMatrix AppendableWindowBuffer::ReferencePositions() const {
  return reference_buffer_->PositionsCopy();
}

std::size_t AppendableWindowBuffer::AvailableReferenceSamples() const {
  return reference_buffer_->available_samples();
}

std::optional<std::size_t> AppendableWindowBuffer::AppendableReferenceSamples() const {
  return reference_buffer_->appendable_samples();
}

}  // namespace corvane::control::window
