// The replacement of the unplayed reference: the caller's three steps (take the tail out behind a
// fence, replace the reference, commit or put the tail back) and the producing thread's part
// (resume, stamp the plan, drop what a replacement made stale).
//
// No producer call and no reference call happens under the buffer's lock, and the buffer's lock
// and the reference's lock are never held together. Only the serial lock of the replacements is
// held across the steps.
#include <algorithm>
#include <deque>
#include <list>
#include <stdexcept>
#include <string>
#include <utility>

#include "buffering/async_window_buffer_impl.hpp"
#include "buffering/braking_stop.hpp"

namespace corvane::control::window {
namespace {

// What the first step took out of the queue, to be discarded or put back.
struct HeldTail {
  std::size_t start_index = 0;                    // first sample replaced
  std::size_t resume_index = 0;                   // first sample produced again
  std::size_t produced_stop = 0;                  // the end of production before the step
  std::optional<CommandSample> previous_command;  // the command at resume_index - 1
  std::deque<WindowPayload> windows;              // queued windows holding start_index or later
  std::list<JoinPoint> joins;                     // their last rows
  UnplayedWindows unplayed;                       // freed after the lock: a version replaced
};

CommandSample LastRow(const WindowPayload& window) {
  const Eigen::Index last = window.positions.rows() - 1;
  CommandSample command{window.positions.row(last), std::nullopt, std::nullopt};
  if (window.velocities) command.velocities = window.velocities->row(last);
  if (window.accelerations) command.accelerations = window.accelerations->row(last);
  return command;
}

// Drops the join points that no replacement can resume after any more: those before the end of
// the last window handed out. They move to `dropped`, to be freed after the lock is released.
void PruneJoins(ReplacementState& state, std::size_t earliest, std::list<JoinPoint>& dropped) {
  auto first_kept = state.joins.begin();
  while (first_kept != state.joins.end() && first_kept->stop_index < earliest) ++first_kept;
  dropped.splice(dropped.end(), state.joins, state.joins.begin(), first_kept);
}

// Step one, under the buffer's lock: checks the index and takes the queued windows from it on out
// of the queue. Windows before start_index stay queued and may still be popped.
HeldTail TakeTail(ReplacementState& state, WindowRing& queue,
                  std::optional<std::size_t> start_index) {
  const std::size_t earliest = state.Earliest(queue);
  HeldTail held;
  held.start_index = start_index.value_or(earliest);
  if (held.start_index < earliest) {
    throw std::invalid_argument("start_index must be at least the earliest replaceable index " +
                                std::to_string(earliest) + ".");
  }
  while (!queue.empty() && queue.back().stop_index > held.start_index) {
    held.windows.push_front(std::move(queue.back()));
    queue.pop_back();
  }
  held.produced_stop = state.produced_stop;
  held.resume_index = held.windows.empty() ? state.produced_stop : held.windows.front().start_index;
  auto first_held = state.joins.begin();
  while (first_held != state.joins.end() && first_held->stop_index <= held.resume_index) {
    if (first_held->stop_index == held.resume_index) held.previous_command = first_held->command;
    ++first_held;
  }
  held.joins.splice(held.joins.end(), state.joins, first_held, state.joins.end());
  state.produced_stop = held.resume_index;
  state.fenced = true;
  return held;
}

// `base` with the windows of `joins` unplayed, under the buffer's lock.
UnplayedWindows UnplayedWith(const WindowStatistics& statistics, const UnplayedWindows& base,
                             const std::list<JoinPoint>& joins) {
  UnplayedList discarded;
  discarded.reserve(joins.size());
  for (const JoinPoint& join : joins) discarded.push_back({join.window, join.duration_s});
  return statistics.PrepareUnplayed(base, discarded);
}

// Step three after a refusal, under the buffer's lock: everything goes back as it was.
void PutTailBack(ReplacementState& state, WindowRing& queue, HeldTail& held) {
  held.unplayed = std::move(state.fenced_unplayed);
  for (WindowPayload& window : held.windows) queue.PushSwap(window);
  state.joins.splice(state.joins.end(), held.joins);
  state.produced_stop = held.produced_stop;
  state.fenced = false;
}

// Step three after success, under the buffer's lock: the tail is discarded and the worker is
// told where to resume.
ReferenceReplacement CommitTail(ReplacementState& state, WindowStatistics& statistics,
                                HeldTail& held, std::size_t stop_index) {
  statistics.MarkUnplayed(state.fenced_unplayed);
  held.unplayed = std::move(state.fenced_unplayed);
  ++state.plan;
  state.pending = PendingResume{held.resume_index, std::move(held.previous_command), state.plan};
  state.fenced = false;
  state.totals.replacements = state.plan;
  state.totals.discarded_windows += held.windows.size();
  for (const JoinPoint& join : held.joins) {
    state.totals.discarded_compute_time_s += join.charged_s;
    state.totals.discarded_duration_s += join.duration_s;
  }
  return {held.start_index, stop_index, held.resume_index, held.windows.size(), state.plan};
}

// The samples of a smooth stop from the reference's sample `start` on: the stored reference
// braked to rest within `limits` (see BrakingStop), then held.
SampleMatrix StopSamples(const AppendableReferenceBuffer& reference, std::size_t start,
                         const ReferenceLimits& limits, std::size_t hold_samples) {
  if (reference.available_samples() == 0) {
    throw std::invalid_argument("StopSmoothly() needs a first reference sample.");
  }
  // With no sample before the join kept (none yet, or dropped by the retention, which
  // ReplaceReference then refuses, naming the first kept one) the first kept sample is held.
  const std::size_t kept = reference.first_retained_sample();
  if (start <= kept) {
    return reference.WindowWithTerminalPadding(kept, kept + 1)
        .positions.replicate(static_cast<Eigen::Index>(hold_samples), 1);
  }
  const std::size_t from = std::max(kept, start - std::min<std::size_t>(start, 3));
  const SampleMatrix before = reference.WindowWithTerminalPadding(from, start).positions;
  // Limits read before the first sample was stored are those of the samples before the join.
  return BrakingStop(before, limits.samples > 0 ? limits : LimitsOf(before), hold_samples);
}

}  // namespace

void AsyncWindowBuffer::Impl::EnableReplacement() {
  auto* resumable = dynamic_cast<ResumableWindowProducer*>(producer.get());
  if (resumable == nullptr || !resumable->CanResume()) return;
  replacement = std::make_unique<ReplacementState>(*resumable, resumable->FirstGlobalIndex());
}

ReferenceReplacement AsyncWindowBuffer::Impl::Replace(AppendableReferenceBuffer& reference,
                                                      std::optional<std::size_t> start_index,
                                                      const SampleMatrix* samples,
                                                      std::size_t hold_samples, bool finish) {
  ReplacementState& state = *replacement;
  std::lock_guard<std::mutex> serial(state.serial);
  // A stop reads the stored reference before the fence goes up, so that the worker goes on
  // producing meanwhile.
  const ReferenceLimits limits = samples == nullptr ? ReadLimits(reference) : ReferenceLimits{};
  HeldTail held;
  {
    auto lock = Lock();
    if (stop_requested || producer_finished || state.closed) {
      throw std::runtime_error("ReplaceReference() cannot run once the worker has ended.");
    }
    held = TakeTail(state, queue, start_index);
    try {  // allocated now, so that the commit cannot fail
      state.fenced_unplayed = UnplayedWith(statistics, statistics.CurrentUnplayed(), held.joins);
    } catch (...) {
      PutTailBack(state, queue, held);
      throw;
    }
  }

  AppendedRange range;
  try {
    const std::size_t first = state.producer.FirstGlobalIndex();
    range = samples != nullptr
                ? reference.ReplaceReference(held.start_index - first, *samples, finish)
                : reference.ReplaceReference(
                      held.start_index - first,
                      StopSamples(reference, held.start_index - first, limits, hold_samples), true);
    range.stop_index += first;
    reference.KeepFrom(held.resume_index - first);  // the worker reads again from there
  } catch (...) {
    {
      auto lock = Lock();
      PutTailBack(state, queue, held);
    }
    cv.notify_all();
    throw;
  }

  ReferenceReplacement result;
  {
    auto lock = Lock();
    result = CommitTail(state, statistics, held, range.stop_index);
    if (timing) ForgetQueueTiming(held.windows.size());
    ready_raised = true;  // a worker asleep for want of a window has one to make now
  }
  cv.notify_all();
  return result;  // the discarded windows are freed here, without the lock
}

// A replacement that is between its steps may yet move the producer back, so the producing
// thread waits for it; one that is pending does move it back. Once the worker leaves (Prefill
// leaves the worker to come), replacements are refused.
bool AsyncWindowBuffer::Impl::ProducerExhausted() {
  if (!producer->IsExhausted()) return false;
  if (!replacement) return true;
  auto lock = Lock();
  cv.wait(lock, [this] { return !replacement->fenced || stop_requested; });
  const bool exhausted = !replacement->pending.has_value();
  replacement->closed = exhausted && started;
  return exhausted;
}

// A resumption is taken only between replacements, so that it matches the reference; should a
// later replacement shorten the reference while the producer resumes, the resumption it failed
// is superseded, and the later one is taken instead.
void AsyncWindowBuffer::Impl::ResumeIfReplaced() {
  while (true) {
    std::optional<PendingResume> pending;
    {
      auto lock = Lock();
      cv.wait(lock, [this] { return !replacement->fenced || stop_requested; });
      pending.swap(replacement->pending);
    }
    if (!pending) return;
    replacement->adopted_plan = pending->plan;
    try {
      replacement->producer.Resume(pending->start_index, pending->previous_command);
      return;
    } catch (...) {
      if (!ReplacedMeanwhile()) throw;
    }
  }
}

// Whether a replacement came while the producer was producing: then what the producer threw
// concerned the plan that replacement ended (its cursor may lie past a shortened reference), and
// the production step takes it as nothing ready; the next step resumes the producer at the join.
bool AsyncWindowBuffer::Impl::ReplacedMeanwhile() {
  auto lock = Lock();
  cv.wait(lock, [this] { return !replacement->fenced || stop_requested; });
  return replacement->fenced || replacement->pending.has_value();
}

// The plan is stamped and what the join point needs is allocated before the lock is taken, and
// what pruning drops is freed after it has been released. A window produced for a plan that has
// moved on is discarded; one queued leaves `window` with the slot's old storage, as QueueWindow.
void AsyncWindowBuffer::Impl::QueueUnlessReplaced(WindowPayload& window) {
  ReplacementState& state = *replacement;
  if (state.adopted_plan > 0) {
    window.metadata[kReplacementsMetadataKey] = std::to_string(state.adopted_plan);
  }
  std::list<JoinPoint> join;
  join.push_back(JoinPoint{window.stop_index, 0, LastRow(window), production.compute_time_s,
                           production.duration_s});
  const auto queued_at =
      timing ? std::chrono::steady_clock::now() : std::chrono::steady_clock::time_point();
  std::list<JoinPoint> dropped;
  UnplayedWindows unplayed, fenced_unplayed;  // the versions replaced, freed after the lock
  {
    auto lock = Lock();
    cv.wait(lock, [&state, this] { return !state.fenced || stop_requested; });
    // The production step recorded it last (tail windows, never discarded, are not recorded).
    join.front().window = statistics.Totals().total_windows - 1;
    if (state.fenced || state.adopted_plan != state.plan) {
      unplayed = UnplayedWith(statistics, statistics.CurrentUnplayed(), join);
      if (state.fenced) {  // stopped meanwhile: the commit to come must not forget this window
        fenced_unplayed = UnplayedWith(statistics, state.fenced_unplayed, join);
        std::swap(fenced_unplayed, state.fenced_unplayed);
      }
      statistics.MarkUnplayed(unplayed);
      ++state.totals.discarded_windows;
      state.totals.discarded_compute_time_s += production.compute_time_s;
      state.totals.discarded_duration_s += production.duration_s;
      return;
    }
    state.produced_stop = window.stop_index;
    queue.PushSwap(window);
    if (timing) RecordQueueTiming(queued_at);
    state.joins.splice(state.joins.end(), join);
    PruneJoins(state, state.Earliest(queue), dropped);
  }
  cv.notify_all();
}

ReferenceReplacement AppendableWindowBuffer::ReplaceReference(std::size_t start_index,
                                                              const SampleMatrix& samples,
                                                              bool finish) {
  if (!impl_->replacement) {
    throw std::runtime_error("ReplaceReference() needs a producer that can resume.");
  }
  return impl_->Replace(*reference_buffer_, start_index, &samples, 0, finish);
}

ReferenceReplacement AppendableWindowBuffer::StopSmoothly(std::size_t hold_samples) {
  if (hold_samples == 0) throw std::invalid_argument("hold_samples must be positive.");
  if (!impl_->replacement) {
    throw std::runtime_error("StopSmoothly() needs a producer that can resume.");
  }
  return impl_->Replace(*reference_buffer_, std::nullopt, nullptr, hold_samples, true);
}

std::size_t AppendableWindowBuffer::EarliestReplaceableIndex() const {
  if (!impl_->replacement) {
    throw std::runtime_error("EarliestReplaceableIndex() needs a producer that can resume.");
  }
  auto lock = impl_->Lock();
  return impl_->replacement->Earliest(impl_->queue);
}

ReplacementTotals AppendableWindowBuffer::Replacements() const {
  if (!impl_->replacement) return {};
  auto lock = impl_->Lock();
  return impl_->replacement->totals;
}

}  // namespace corvane::control::window
