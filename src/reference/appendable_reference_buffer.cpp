// The appendable reference buffer: one mutex guards the store, one condition variable wakes the
// threads that wait for samples. Blocks are checked before the lock is taken, and waiters are
// notified only after it has been released.
#include "window/reference_buffer.hpp"

#include <algorithm>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <new>
#include <stdexcept>
#include <utility>

#include "common/timed_wait.hpp"
#include "records/record_rules.hpp"

namespace corvane::control::window {

struct CORVANE_HIDDEN AppendableReferenceBuffer::Impl {
  std::mutex mutex;
  std::condition_variable cv;              // signalled when samples are added or on Finish()
  std::optional<std::size_t> joint_count;  // fixed at construction or by the first append
  SampleMatrix positions;                  // every sample so far, exactly as many rows as stored
  bool finished = false;                   // set by Finish(), never cleared

  // The helpers below expect the caller to hold `mutex`.
  std::size_t SampleCount() const { return static_cast<std::size_t>(positions.rows()); }
  // Stores the rows of a non-empty block whose shape and values have been checked.
  AppendedRange StoreBlock(const SampleMatrix& command);
  // Repeats the last sample until `target_samples` are stored; returns how many it added.
  std::size_t HoldLastSampleTo(std::size_t target_samples);
};

namespace {

// A count of rows as an Eigen index. A count beyond every index (2^63 rows or more) could never
// be allocated; casting it would give a negative index that slips past Eigen's size checks.
Eigen::Index ToIndex(std::size_t count) {
  if (count > static_cast<std::size_t>(std::numeric_limits<Eigen::Index>::max())) {
    throw std::bad_array_new_length();
  }
  return static_cast<Eigen::Index>(count);
}

// A block is checked whole before any of it is stored: first its shape, then every value.
void CheckCommandBlock(const SampleMatrix& command) {
  if (command.cols() < 1) {
    throw std::invalid_argument("command must have at least one joint column.");
  }
  if (!detail::IsFinite(command)) {
    throw std::invalid_argument("command must be finite.");
  }
}

// Grows the store in place to `samples` rows, keeping the rows already stored. The store keeps
// no spare capacity: the block is reallocated to exactly the new size.
void GrowStoreTo(SampleMatrix& store, std::size_t samples) {
  store.conservativeResize(ToIndex(samples), Eigen::NoChange);
}

}  // namespace

// The finished state is checked before the joint count, and the first block fixes the joint
// count; a failed check leaves the stored samples as they were.
AppendedRange AppendableReferenceBuffer::Impl::StoreBlock(const SampleMatrix& command) {
  const std::size_t count = SampleCount();
  if (finished) {
    throw std::runtime_error("Cannot append reference samples after Finish().");
  }
  if (!joint_count.has_value()) {
    joint_count = static_cast<std::size_t>(command.cols());
    positions.resize(0, command.cols());
  }
  if (command.cols() != ToIndex(*joint_count)) {
    throw std::invalid_argument("command joint count does not match the appendable buffer.");
  }
  const std::size_t new_count = count + static_cast<std::size_t>(command.rows());
  GrowStoreTo(positions, new_count);
  positions.bottomRows(command.rows()) = command;
  return {count, new_count};
}

std::size_t AppendableReferenceBuffer::Impl::HoldLastSampleTo(std::size_t target_samples) {
  const std::size_t count = SampleCount();
  if (count == 0) {
    throw std::invalid_argument("Cannot extend hold before the first reference sample.");
  }
  if (count >= target_samples) {
    return 0;
  }
  // The store may move as it grows, so the held sample is copied out first.
  const Eigen::RowVectorXd last_sample = positions.row(ToIndex(count - 1));
  GrowStoreTo(positions, target_samples);
  positions.bottomRows(ToIndex(target_samples - count)).rowwise() = last_sample;
  return target_samples - count;
}

AppendableReferenceBuffer::AppendableReferenceBuffer(std::optional<std::size_t> joint_count) {
  if (joint_count.has_value() && *joint_count == 0) {
    throw std::invalid_argument("joint_count must be positive when provided.");
  }
  impl_ = std::make_unique<Impl>();
  impl_->joint_count = joint_count;
  impl_->positions.resize(0, ToIndex(joint_count.value_or(0)));
}

AppendableReferenceBuffer::AppendableReferenceBuffer(AppendableReferenceBuffer&& other) noexcept =
    default;

AppendableReferenceBuffer& AppendableReferenceBuffer::operator=(
    AppendableReferenceBuffer&& other) noexcept = default;

AppendableReferenceBuffer::~AppendableReferenceBuffer() = default;

// The block is checked before the lock is taken, so a malformed one never holds up readers.
// Waiters are woken only when rows were added, after the lock has been released.
AppendedRange AppendableReferenceBuffer::AppendReference(const SampleMatrix& command) {
  if (command.rows() == 0) {
    // An empty block appends nothing: it is neither checked nor announced.
    const std::size_t count = available_samples();
    return {count, count};
  }
  CheckCommandBlock(command);
  AppendedRange range;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    range = impl_->StoreBlock(command);
  }
  impl_->cv.notify_all();
  return range;
}

void AppendableReferenceBuffer::Finish() {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->finished = true;
  }
  impl_->cv.notify_all();
}

std::size_t AppendableReferenceBuffer::ExtendHoldTo(std::size_t target_samples) {
  std::size_t added = 0;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    added = impl_->HoldLastSampleTo(target_samples);
  }
  if (added > 0) {
    impl_->cv.notify_all();
  }
  return added;
}

ReferenceWindow AppendableReferenceBuffer::WindowWithTerminalPadding(std::size_t start,
                                                                     std::size_t stop) const {
  if (start >= stop) {
    throw std::invalid_argument("Invalid reference window indices.");
  }
  std::lock_guard<std::mutex> lock(impl_->mutex);
  const std::size_t count = impl_->SampleCount();
  if (count <= start) {
    throw std::invalid_argument("Requested window starts beyond available samples.");
  }
  // Rows [start, end) are stored samples; the rows after them repeat sample end - 1, which is
  // then the last stored sample.
  const std::size_t end = std::min(count, stop);
  ReferenceWindow window;
  window.positions.resize(ToIndex(stop - start), impl_->positions.cols());
  window.positions.topRows(ToIndex(end - start)) =
      impl_->positions.middleRows(ToIndex(start), ToIndex(end - start));
  window.positions.bottomRows(ToIndex(stop - end)).rowwise() =
      impl_->positions.row(ToIndex(end - 1));
  window.terminal_padding_samples = stop - end;
  return window;
}

bool AppendableReferenceBuffer::WaitUntilSamples(std::size_t count,
                                                 std::optional<std::chrono::nanoseconds> timeout) {
  std::unique_lock<std::mutex> lock(impl_->mutex);
  const auto done = [this, count] { return impl_->SampleCount() >= count || impl_->finished; };
  WaitWithTimeout(impl_->cv, lock, timeout, done);
  // Reached, even when the stream is also finished; not reached when it ended or timed out.
  return impl_->SampleCount() >= count;
}

std::size_t AppendableReferenceBuffer::available_samples() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->SampleCount();
}

bool AppendableReferenceBuffer::is_finished() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->finished;
}

SampleMatrix AppendableReferenceBuffer::PositionsCopy() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->positions;
}

}  // namespace corvane::control::window
