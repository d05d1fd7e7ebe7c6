// The appendable reference buffer: one mutex guards the store, one condition variable wakes the
// threads that wait for samples. Blocks are checked before the lock is taken, and waiters are
// notified only after it has been released.
//
// Sample i lives in row i % rows of the store. Without a retention the store holds exactly the
// samples so far, so that is row i. With a retention of R samples the store grows by doubling up
// to R rows and from then on is a ring: an append writes only its own rows, whatever the length
// of the stream, and overwrites the oldest samples.
#include "window/reference_buffer.hpp"

#include <algorithm>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "common/timed_wait.hpp"
#include "records/record_rules.hpp"

namespace corvane::control::window {

struct CORVANE_HIDDEN AppendableReferenceBuffer::Impl {
  std::mutex mutex;
  std::condition_variable cv;              // signalled when samples are added or on Finish()
  std::optional<std::size_t> joint_count;  // fixed at construction or by the first append
  SampleMatrix positions;  // every sample so far, or the ring of the most recent ones
  bool finished = false;   // set by Finish(), never cleared
  std::optional<std::size_t> retention_samples;  // absent: every sample is kept
  std::size_t sample_count = 0;                  // samples stored so far, dropped ones included
  std::size_t lost_before = 0;  // samples before it were dropped before a replacement shortened it
  std::optional<std::size_t> keep_from;  // first sample a reader has yet to read; absent: none

  // The helpers below expect the caller to hold `mutex`.
  std::size_t SampleCount() const { return sample_count; }
  // Index of the oldest sample still stored.
  std::size_t FirstRetained() const;
  // The most samples that can be stored without dropping one that a reader has yet to read;
  // absent when nothing limits it.
  std::optional<std::size_t> UnreadLimit() const;
  // Throws std::runtime_error, naming `argument`, when storing samples up to `samples` would drop
  // one that a reader has yet to read.
  void CheckKeepsUnread(std::size_t samples, const char* argument) const;
  // Makes room for samples up to `samples`, keeping every stored sample in its row.
  void ReserveFor(std::size_t samples);
  // Writes the rows of `rows` as the samples from `first` on, wrapping around the ring.
  template <typename Rows>
  void WriteRows(const Rows& rows, std::size_t first);
  // Copies the samples [first, first + out.rows()) into `out`, unwrapping the ring.
  template <typename Out>
  void ReadRows(std::size_t first, Out&& out) const;
  // Stores the rows of a non-empty block whose shape and values have been checked.
  AppendedRange StoreBlock(const SampleMatrix& command);
  // Repeats the last sample until `target_samples` are stored; returns how many it added.
  std::size_t HoldLastSampleTo(std::size_t target_samples);
  // Drops the samples from `start` on and stores the rows of a checked block in their place.
  AppendedRange ReplaceFrom(std::size_t start, const SampleMatrix& samples);
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

// A replacement shortens the stream, but the ring rows of the samples it dropped may already hold
// newer ones, so what was lost before it stays lost.
std::size_t AppendableReferenceBuffer::Impl::FirstRetained() const {
  if (!retention_samples || sample_count <= *retention_samples) return lost_before;
  return std::max(lost_before, sample_count - *retention_samples);
}

// The retention keeps the samples from count - retention on, so the mark's sample stays while the
// count is at most mark + retention (saturated at the top of std::size_t).
std::optional<std::size_t> AppendableReferenceBuffer::Impl::UnreadLimit() const {
  if (!retention_samples || !keep_from) return std::nullopt;
  return *keep_from +
         std::min(*retention_samples, std::numeric_limits<std::size_t>::max() - *keep_from);
}

// The first sample that would go unread is the reader's mark, or the oldest stored one when the
// mark lies before it.
void AppendableReferenceBuffer::Impl::CheckKeepsUnread(std::size_t samples,
                                                       const char* argument) const {
  const std::optional<std::size_t> limit = UnreadLimit();
  if (!limit || samples <= *limit) return;
  throw std::runtime_error(std::string(argument) + " would drop reference sample " +
                           std::to_string(std::max(*keep_from, FirstRetained())) +
                           ", which has not been read yet.");
}

// Without a retention the store grows to exactly the new size. With one it doubles until it holds
// the retention; nothing has wrapped before that, so every row stays where it was.
void AppendableReferenceBuffer::Impl::ReserveFor(std::size_t samples) {
  const auto rows = static_cast<std::size_t>(positions.rows());
  if (!retention_samples) {
    GrowStoreTo(positions, samples);
  } else if (samples > rows && rows < *retention_samples) {
    GrowStoreTo(positions, std::min(*retention_samples, std::max(samples, 2 * rows)));
  }
}

namespace {

// Calls copy(slot, offset, rows) for each stretch of `count` samples from `first` on that lies
// in one piece in a store of `capacity` rows: samples first + offset and on live in rows slot and
// on. There are at most two stretches when count <= capacity.
template <typename Copy>
void ForEachStretch(std::size_t first, std::size_t count, std::size_t capacity, Copy copy) {
  for (std::size_t offset = 0; offset < count;) {
    const std::size_t slot = (first + offset) % capacity;
    const std::size_t rows = std::min(count - offset, capacity - slot);
    copy(ToIndex(slot), ToIndex(offset), ToIndex(rows));
    offset += rows;
  }
}

}  // namespace

// Of a block longer than the store only its last rows survive, so only they are written.
template <typename Rows>
void AppendableReferenceBuffer::Impl::WriteRows(const Rows& rows, std::size_t first) {
  const auto capacity = static_cast<std::size_t>(positions.rows());
  const auto count = static_cast<std::size_t>(rows.rows());
  const std::size_t skipped = count > capacity ? count - capacity : 0;
  ForEachStretch(first + skipped, count - skipped, capacity,
                 [&](Eigen::Index slot, Eigen::Index offset, Eigen::Index stretch) {
                   positions.middleRows(slot, stretch) =
                       rows.middleRows(offset + ToIndex(skipped), stretch);
                 });
}

template <typename Out>
void AppendableReferenceBuffer::Impl::ReadRows(std::size_t first, Out&& out) const {
  ForEachStretch(first, static_cast<std::size_t>(out.rows()),
                 static_cast<std::size_t>(positions.rows()),
                 [&](Eigen::Index slot, Eigen::Index offset, Eigen::Index stretch) {
                   out.middleRows(offset, stretch) = positions.middleRows(slot, stretch);
                 });
}

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
  CheckKeepsUnread(new_count, "command");
  ReserveFor(new_count);
  WriteRows(command, count);
  sample_count = new_count;
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
  CheckKeepsUnread(target_samples, "target_samples");
  // The store may move as it grows, and the ring may overwrite it, so the held sample is copied
  // out first.
  SampleMatrix last_sample(1, positions.cols());
  ReadRows(count - 1, last_sample);
  ReserveFor(target_samples);
  WriteRows(last_sample.replicate(ToIndex(target_samples - count), 1), count);
  sample_count = target_samples;
  return target_samples - count;
}

// Every check comes before the first change, so a refused replacement leaves the samples as they
// were. Without a retention the store is resized once, straight to the samples kept plus the new
// ones: it is reallocated at most once, and not at all for a block as long as the tail it replaces.
AppendedRange AppendableReferenceBuffer::Impl::ReplaceFrom(std::size_t start,
                                                           const SampleMatrix& samples) {
  if (finished) {
    throw std::runtime_error("Cannot replace reference samples after Finish().");
  }
  if (start > sample_count) {
    throw std::invalid_argument("start_index must not exceed the " + std::to_string(sample_count) +
                                " stored samples.");
  }
  if (start < FirstRetained()) {
    throw std::invalid_argument("start_index " + std::to_string(start) +
                                " is before the first retained sample " +
                                std::to_string(FirstRetained()) + ".");
  }
  if (samples.rows() > 0 && joint_count && samples.cols() != ToIndex(*joint_count)) {
    throw std::invalid_argument("command joint count does not match the appendable buffer.");
  }
  CheckKeepsUnread(start + static_cast<std::size_t>(samples.rows()), "samples");
  lost_before = FirstRetained();
  if (!retention_samples) GrowStoreTo(positions, start + static_cast<std::size_t>(samples.rows()));
  sample_count = start;
  if (samples.rows() == 0) return {start, start};
  return StoreBlock(samples);
}

AppendableReferenceBuffer::AppendableReferenceBuffer(std::optional<std::size_t> joint_count) {
  if (joint_count.has_value() && *joint_count == 0) {
    throw std::invalid_argument("joint_count must be positive when provided.");
  }
  impl_ = std::make_unique<Impl>();
  impl_->joint_count = joint_count;
  impl_->positions.resize(0, ToIndex(joint_count.value_or(0)));
}

AppendableReferenceBuffer::AppendableReferenceBuffer(std::optional<std::size_t> joint_count,
                                                     std::size_t retention_samples)
    : AppendableReferenceBuffer(joint_count) {
  if (retention_samples == 0) {
    throw std::invalid_argument("retention_samples must be positive.");
  }
  impl_->retention_samples = retention_samples;
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

AppendedRange AppendableReferenceBuffer::ReplaceReference(std::size_t start_index,
                                                          const SampleMatrix& samples,
                                                          bool finish) {
  if (samples.rows() > 0) CheckCommandBlock(samples);
  AppendedRange range;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    range = impl_->ReplaceFrom(start_index, samples);
    impl_->finished = finish;
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
  ReferenceWindow window;
  window.terminal_padding_samples = CopyWindowWithTerminalPadding(start, stop, window.positions);
  return window;
}

std::size_t AppendableReferenceBuffer::CopyWindowWithTerminalPadding(
    std::size_t start, std::size_t stop, SampleMatrix& positions) const {
  if (start >= stop) {
    throw std::invalid_argument("Invalid reference window indices.");
  }
  std::lock_guard<std::mutex> lock(impl_->mutex);
  const std::size_t count = impl_->SampleCount();
  if (count <= start) {
    throw std::invalid_argument("Requested window starts beyond available samples.");
  }
  if (start < impl_->FirstRetained()) {
    throw std::invalid_argument("Requested window starts at sample " + std::to_string(start) +
                                ", before the first retained sample " +
                                std::to_string(impl_->FirstRetained()) + ".");
  }
  // Rows [start, end) are stored samples; the rows after them repeat sample end - 1, which is
  // then the last stored sample.
  const std::size_t end = std::min(count, stop);
  positions.resize(ToIndex(stop - start), impl_->positions.cols());
  impl_->ReadRows(start, positions.topRows(ToIndex(end - start)));
  positions.bottomRows(ToIndex(stop - end)).rowwise() = positions.row(ToIndex(end - start - 1));
  return stop - end;
}

bool AppendableReferenceBuffer::WaitUntilSamples(std::size_t count,
                                                 std::optional<std::chrono::nanoseconds> timeout) {
  std::unique_lock<std::mutex> lock(impl_->mutex);
  const auto done = [this, count] { return impl_->SampleCount() >= count || impl_->finished; };
  WaitWithTimeout(impl_->cv, lock, timeout, done);
  // Reached, even when the stream is also finished; not reached when it ended or timed out.
  return impl_->SampleCount() >= count;
}

void AppendableReferenceBuffer::KeepFrom(std::size_t first_unread) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->keep_from = first_unread;
}

std::optional<std::size_t> AppendableReferenceBuffer::appendable_samples() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  const std::optional<std::size_t> limit = impl_->UnreadLimit();
  if (!limit) return std::nullopt;
  return *limit > impl_->sample_count ? *limit - impl_->sample_count : 0;
}

std::optional<std::size_t> AppendableReferenceBuffer::retention_samples() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->retention_samples;
}

std::size_t AppendableReferenceBuffer::available_samples() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->SampleCount();
}

bool AppendableReferenceBuffer::is_finished() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->finished;
}

std::size_t AppendableReferenceBuffer::first_retained_sample() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->FirstRetained();
}

SampleMatrix AppendableReferenceBuffer::PositionsCopy() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  if (!impl_->retention_samples) return impl_->positions;
  const std::size_t first = impl_->FirstRetained();
  SampleMatrix retained(ToIndex(impl_->SampleCount() - first), impl_->positions.cols());
  impl_->ReadRows(first, retained);
  return retained;
}

}  // namespace corvane::control::window
