// The chunked statistics history: allocation without the lock, constant-time steps under it.
#include "buffering/window_statistics.hpp"

#include <algorithm>
#include <limits>

namespace corvane::control::window {

// Enough full chunks to hold the retained windows while the open chunk is still empty. Rounded
// up without adding first, so that a retention near the top of std::size_t keeps every chunk.
std::size_t WindowStatistics::KeptChunks() const {
  if (!retained_windows_) return std::numeric_limits<std::size_t>::max();
  return *retained_windows_ / kChunkWindows + (*retained_windows_ % kChunkWindows != 0 ? 1 : 0);
}

// When the open chunk is full, it is sealed into the next slot of the list. Chunks beyond the
// retention leave from the front, their sums carried in production order. A list without a
// free slot, or one that drops a chunk, is replaced by a new list of what it keeps (with room to
// double), so that a dropped chunk is freed as soon as no snapshot holds it, and copying lists
// costs a constant amount per window.
WindowStatistics::Growth WindowStatistics::PrepareRecord() const {
  Growth growth;
  if (open_ && open_windows_ < kChunkWindows) return growth;
  growth.open = std::make_shared<StatisticsChunk>();
  growth.first_sealed = first_sealed_;
  growth.sealed_count = sealed_count_;
  growth.played_before_s = played_before_s_;
  growth.spent_before_s = spent_before_s_;
  if (!open_) return growth;  // the very first entry: nothing to seal

  const std::size_t count = sealed_count_ + 1;
  std::size_t first = first_sealed_;
  while (count - first > KeptChunks()) {  // at least one chunk is kept: `first` is a full slot
    const StatisticsChunk& dropped = *(*sealed_)[first++];
    for (std::size_t i = 0; i < kChunkWindows; ++i) {
      growth.played_before_s += dropped.duration_s[i];
      growth.spent_before_s += dropped.compute_s[i];
    }
  }
  if (sealed_ && count <= sealed_->size() && first == first_sealed_) {
    growth.first_sealed = first;
    growth.sealed_count = count;
    return growth;
  }
  growth.sealed = std::make_shared<ChunkList>(std::max<std::size_t>(8, 2 * (count - first)));
  if (sealed_) {
    std::copy(sealed_->begin() + static_cast<std::ptrdiff_t>(first),
              sealed_->begin() + static_cast<std::ptrdiff_t>(sealed_count_),
              growth.sealed->begin());
  }
  growth.first_sealed = 0;
  growth.sealed_count = count - first;
  return growth;
}

// The slot that receives the full chunk lies beyond every snapshot's count, so no reader looks
// at it while it is written.
void WindowStatistics::Record(double compute_s, double duration_s, Growth& growth) noexcept {
  if (growth.open) {
    if (open_) {
      if (growth.sealed) std::swap(sealed_, growth.sealed);
      (*sealed_)[growth.sealed_count - 1] = std::move(open_);
      first_sealed_ = growth.first_sealed;
      sealed_count_ = growth.sealed_count;
      played_before_s_ = growth.played_before_s;
      spent_before_s_ = growth.spent_before_s;
    }
    std::swap(open_, growth.open);
    open_windows_ = 0;
  }
  open_->compute_s[open_windows_] = compute_s;
  open_->duration_s[open_windows_] = duration_s;
  ++open_windows_;

  if (totals_.total_windows < prefill_windows_) prefill_credit_s_ += compute_s;
  if (totals_.total_windows == 0 || compute_s > totals_.max_compute_time_s) {
    totals_.max_compute_time_s = compute_s;
  }
  totals_.total_compute_time_s += compute_s;
  ++totals_.total_windows;
}

StatisticsSnapshot WindowStatistics::Snapshot() const {
  StatisticsSnapshot snapshot;
  snapshot.sealed = sealed_;
  snapshot.first_sealed = first_sealed_;
  snapshot.sealed_count = sealed_count_;
  snapshot.open = open_;
  snapshot.open_windows = open_windows_;
  snapshot.played_before_s = played_before_s_;
  snapshot.spent_before_s = spent_before_s_;
  snapshot.prefill_credit_s = prefill_credit_s_;
  const std::size_t retained = snapshot.RetainedWindows();
  snapshot.reported_windows = std::min(retained, retained_windows_.value_or(retained));
  snapshot.first_retained = totals_.total_windows - retained;
  snapshot.unplayed = unplayed_;
  return snapshot;
}

// Without unplayed windows, exactly the carried sum.
double StatisticsSnapshot::PlayedBeforeRetained() const {
  if (!unplayed.recent) return played_before_s;
  return played_before_s - UnplayedCursor(unplayed).AddUntil(first_retained, unplayed.before_s);
}

namespace {

// Takes back into a list the full blocks of `next` that hold `window` or a later one, and returns
// their entries followed by the recent ones, with room for `extra` more.
UnplayedList ReopenFrom(UnplayedWindows& next, std::size_t window, std::size_t extra) {
  std::size_t kept = next.sealed_count;
  while (kept > next.first_sealed && next.blocks->slots[kept - 1]->back().window >= window) --kept;
  UnplayedList open;
  open.reserve((next.sealed_count - kept) * kUnplayedBlockWindows +
               (next.recent ? next.recent->size() : 0) + extra);
  for (std::size_t slot = kept; slot < next.sealed_count; ++slot) {
    const UnplayedBlock& block = *next.blocks->slots[slot];
    open.insert(open.end(), block.begin() + (slot == next.first_sealed ? next.first_entry : 0),
                block.end());
  }
  if (next.recent) open.insert(open.end(), next.recent->begin(), next.recent->end());
  if (kept == next.first_sealed) next.first_entry = 0;
  next.sealed_count = kept;
  return open;
}

// Adds the ascending `discarded` to the ascending `open`, keeping it ascending.
void MergeInto(UnplayedList& open, const UnplayedList& discarded) {
  const auto middle = open.insert(open.end(), discarded.begin(), discarded.end());
  std::inplace_merge(
      open.begin(), middle, open.end(),
      [](const UnplayedWindow& a, const UnplayedWindow& b) { return a.window < b.window; });
}

// Folds the entries before `first_retained` into before_s, in window order; `open` holds the
// entries after the full blocks.
void FoldBefore(UnplayedWindows& next, UnplayedList& open, std::size_t first_retained) {
  UnplayedCursor cursor(next);
  next.before_s = cursor.AddUntil(first_retained, next.before_s);
  next.first_sealed = cursor.slot();
  if (next.first_sealed < next.sealed_count) {
    next.first_entry = cursor.entry();
    return;
  }
  next.first_entry = 0;
  open.erase(open.begin(), open.begin() + static_cast<std::ptrdiff_t>(cursor.entry()));
}

// Writes `block` into the slot after the last of `next`: in place when no version has written
// that slot yet, else (the slots are full, or another version went on from this one) into new
// slots holding the blocks `next` keeps, with room to double.
void AppendBlock(UnplayedWindows& next, std::shared_ptr<const UnplayedBlock> block) {
  if (!next.blocks || next.sealed_count != next.blocks->written ||
      next.sealed_count == next.blocks->slots.size()) {
    const std::size_t kept = next.sealed_count - next.first_sealed;
    auto blocks = std::make_shared<UnplayedBlocks>(std::max<std::size_t>(8, 2 * (kept + 1)));
    if (next.blocks) {
      std::copy_n(next.blocks->slots.begin() + static_cast<std::ptrdiff_t>(next.first_sealed), kept,
                  blocks->slots.begin());
    }
    next.blocks = std::move(blocks);
    next.first_sealed = 0;
    next.sealed_count = kept;
  }
  next.blocks->slots[next.sealed_count++] = std::move(block);
  next.blocks->written = next.sealed_count;
}

// Moves the oldest entries of `open` into full blocks, a block at a time, while two blocks' worth
// remain, so that the next change copies fewer.
void SealFull(UnplayedWindows& next, UnplayedList& open) {
  std::size_t sealed = 0;
  for (; open.size() - sealed >= 2 * kUnplayedBlockWindows; sealed += kUnplayedBlockWindows) {
    auto block = std::make_shared<UnplayedBlock>();
    std::copy_n(open.begin() + static_cast<std::ptrdiff_t>(sealed), kUnplayedBlockWindows,
                block->begin());
    AppendBlock(next, std::move(block));
  }
  open.erase(open.begin(), open.begin() + static_cast<std::ptrdiff_t>(sealed));
}

}  // namespace

// The merge keeps the list ascending: a replacement may discard windows recorded before others
// that an earlier one discarded, while those are still queued; the blocks holding those are
// reopened. The entries are folded before any is sealed, in the order a plain list would fold
// them, so that every sum is the same to the bit.
UnplayedWindows WindowStatistics::PrepareUnplayed(const UnplayedWindows& base,
                                                  const UnplayedList& discarded) const {
  UnplayedWindows next = base;
  auto open = std::make_shared<UnplayedList>(ReopenFrom(
      next, discarded.empty() ? ~std::size_t{0} : discarded.front().window, discarded.size()));
  MergeInto(*open, discarded);
  next.recent = open;
  FoldBefore(next, *open, Snapshot().first_retained);
  SealFull(next, *open);
  return next;
}

void WindowStatistics::MarkUnplayed(UnplayedWindows& prepared) noexcept {
  std::swap(unplayed_, prepared);
}

}  // namespace corvane::control::window
