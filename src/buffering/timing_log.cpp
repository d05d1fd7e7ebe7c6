// TimingLog: the ring of window timings and the stream's counters; and the buffer's steps that
// attach a log and record into it.
#include "window/timing_log.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <utility>

#include "buffering/async_window_buffer_impl.hpp"
#include "buffering/timing_log_impl.hpp"

namespace corvane::control::window {
namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;
// The fields of an entry are stored with release and loaded with acquire order (plain moves on
// x86): a reader that loads a field written after a version change then sees that change too.
constexpr auto kRelease = std::memory_order_release;
constexpr auto kAcquire = std::memory_order_acquire;

constexpr std::uint64_t Writing(std::uint64_t sequence) { return 2 * sequence + 1; }
constexpr std::uint64_t Written(std::uint64_t sequence) { return 2 * sequence + 2; }

// Stores `value` into a field whose only writer is the caller when it improves on the field's.
template <typename Better>
void KeepBest(std::atomic<double>& field, double value, bool first, Better better) {
  if (first || better(value, field.load(kRelaxed))) field.store(value, kRelaxed);
}

}  // namespace

TimingLog::Impl::Impl(std::size_t capacity_in)
    : capacity(capacity_in),
      origin(Clock::now()),
      slots(new Slot[capacity_in]),
      next_due_s(std::numeric_limits<double>::quiet_NaN()) {}

// The fields are stored between the two versions; a reader that sees the same complete version
// before and after its reads has read them whole.
void TimingLog::Impl::RecordQueued(const WindowProduction& production, Clock::time_point queued_at,
                                   std::size_t depth) noexcept {
  const std::uint64_t sequence = next_sequence.load(kRelaxed);
  const std::uint64_t queued = queued_windows.load(kRelaxed);
  Slot& slot = SlotOf(sequence);
  slot.queued_version.store(Writing(sequence), kRelaxed);
  slot.start_index.store(production.start_index, kRelease);
  slot.stop_index.store(production.stop_index, kRelease);
  slot.production_start_s.store(Seconds(production.start), kRelease);
  slot.compute_time_s.store(production.compute_time_s, kRelease);
  slot.duration_s.store(production.duration_s, kRelease);
  slot.queued_s.store(Seconds(queued_at), kRelease);
  slot.queue_depth_windows.store(depth, kRelease);
  slot.queued_version.store(Written(sequence), kRelease);

  KeepBest(max_compute_time_s, production.compute_time_s, queued == 0, std::greater<>());
  next_sequence.store(sequence + 1, kRelease);
  queued_windows.store(queued + 1, kRelease);
}

// The forgotten windows were never popped, so no reader has read their entries; the entries are
// overwritten as their sequences are queued again.
void TimingLog::Impl::ForgetNewest(std::size_t windows) noexcept {
  next_sequence.store(next_sequence.load(kRelaxed) - windows, kRelease);
}

// The window popped now is the oldest queued one, so its sequence is the count of earlier pops.
// Its entry may already have been overwritten by a later window's, when the ring is smaller than
// the queue: the pop is then counted, and the next window is taken as due when it is popped.
void TimingLog::Impl::RecordPopped(Clock::time_point popped_at) noexcept {
  const std::uint64_t sequence = popped_windows.load(kRelaxed);
  Slot& slot = SlotOf(sequence);
  const double popped_s = Seconds(popped_at);
  if (slot.queued_version.load(kRelaxed) != Written(sequence)) {
    next_due_s = std::numeric_limits<double>::quiet_NaN();
    popped_windows.store(sequence + 1, kRelease);
    return;
  }
  const double due_s = std::isnan(next_due_s) ? popped_s : next_due_s;
  const double margin_s = due_s - slot.queued_s.load(kRelaxed);
  slot.popped_version.store(Writing(sequence), kRelaxed);
  slot.popped_s.store(popped_s, kRelease);
  slot.margin_s.store(margin_s, kRelease);
  slot.popped_version.store(Written(sequence), kRelease);
  next_due_s = popped_s + slot.duration_s.load(kRelaxed);

  KeepBest(min_margin_s, margin_s, !margin_recorded, std::less<>());
  margin_recorded = true;
  if (margin_s < 0.0) underrun_windows.store(underrun_windows.load(kRelaxed) + 1, kRelaxed);
  popped_windows.store(sequence + 1, kRelease);
}

bool TimingLog::Impl::ReadEntry(std::uint64_t sequence, WindowTiming& entry) const noexcept {
  const Slot& slot = SlotOf(sequence);
  const std::uint64_t queued = slot.queued_version.load(kAcquire);
  const std::uint64_t popped = slot.popped_version.load(kAcquire);
  if (queued != Written(sequence) || popped != Written(sequence)) return false;
  entry.sequence = sequence;
  entry.start_index = slot.start_index.load(kAcquire);
  entry.stop_index = slot.stop_index.load(kAcquire);
  entry.production_start_s = slot.production_start_s.load(kAcquire);
  entry.compute_time_s = slot.compute_time_s.load(kAcquire);
  entry.duration_s = slot.duration_s.load(kAcquire);
  entry.queued_s = slot.queued_s.load(kAcquire);
  entry.queue_depth_windows = slot.queue_depth_windows.load(kAcquire);
  entry.popped_s = slot.popped_s.load(kAcquire);
  entry.margin_s = slot.margin_s.load(kAcquire);
  return slot.queued_version.load(kRelaxed) == queued &&
         slot.popped_version.load(kRelaxed) == popped;
}

TimingLog::TimingLog(std::size_t capacity_windows) {
  if (capacity_windows == 0 || capacity_windows > kMaxCapacityWindows) {
    throw std::invalid_argument("capacity_windows must be from 1 to 16777216.");
  }
  impl_ = std::make_unique<Impl>(capacity_windows);
}

TimingLog::~TimingLog() = default;

std::size_t TimingLog::capacity_windows() const { return impl_->capacity; }

std::chrono::steady_clock::time_point TimingLog::Origin() const { return impl_->origin; }

// Entries older than the ring's reach are counted without being looked at; any other entry that
// changes while it is read was overwritten too.
TimingRead TimingLog::Read(std::uint64_t sequence) const {
  const std::uint64_t popped = impl_->popped_windows.load(kAcquire);
  const std::uint64_t queued = impl_->next_sequence.load(kAcquire);
  const std::uint64_t reach = queued > impl_->capacity ? queued - impl_->capacity : 0;
  TimingRead read;
  read.next_sequence = std::max(sequence, popped);
  std::uint64_t next = std::max(sequence, reach);
  if (next > sequence && sequence < popped) {
    read.overwritten_windows = static_cast<std::size_t>(std::min(next, popped) - sequence);
  }
  read.entries.reserve(static_cast<std::size_t>(popped > next ? popped - next : 0));
  for (WindowTiming entry; next < popped; ++next) {
    if (impl_->ReadEntry(next, entry)) {
      read.entries.push_back(entry);
    } else {
      ++read.overwritten_windows;
    }
  }
  return read;
}

TimingCounters TimingLog::Counters() const {
  TimingCounters counters;
  counters.queued_windows = impl_->queued_windows.load(kRelaxed);
  counters.popped_windows = impl_->popped_windows.load(kRelaxed);
  counters.underrun_windows = impl_->underrun_windows.load(kRelaxed);
  counters.deadline_misses = impl_->deadline_misses.load(kRelaxed);
  counters.max_compute_time_s = impl_->max_compute_time_s.load(kRelaxed);
  counters.min_margin_s = impl_->min_margin_s.load(kRelaxed);
  return counters;
}

void TimingLog::ReportDeadlineMiss() noexcept { impl_->deadline_misses.fetch_add(1, kRelaxed); }

// A log that was attached before keeps its first buffer, and a buffer that has produced a window
// keeps running without a log: its entries would not match its windows.
void AsyncWindowBuffer::AttachTimingLog(std::shared_ptr<TimingLog> log) {
  if (!log) throw std::invalid_argument("log must not be null.");
  auto lock = impl_->Lock();
  if (impl_->started || impl_->prefilling || impl_->statistics.Totals().total_windows > 0) {
    throw std::runtime_error("AttachTimingLog must be called before Prefill() and Start().");
  }
  if (impl_->timing) throw std::runtime_error("AttachTimingLog can only be called once.");
  if (log->impl_->attached.exchange(true)) {
    throw std::invalid_argument("log must not be attached to a buffer already.");
  }
  impl_->timing = std::move(log);
}

void AsyncWindowBuffer::Impl::RecordQueueTiming(std::chrono::steady_clock::time_point queued_at) {
  timing->impl_->RecordQueued(production, queued_at, queue.size());
}

void AsyncWindowBuffer::Impl::ForgetQueueTiming(std::size_t windows) {
  timing->impl_->ForgetNewest(windows);
}

void AsyncWindowBuffer::Impl::RecordPopTiming() {
  timing->impl_->RecordPopped(std::chrono::steady_clock::now());
}

}  // namespace corvane::control::window
