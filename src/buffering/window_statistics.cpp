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
  return snapshot;
}

}  // namespace corvane::control::window
