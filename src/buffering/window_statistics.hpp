// The statistics history of AsyncWindowBuffer: the compute time and the duration of every window
// that the production step recorded, in production order.
//
// Entries live in chunks of kChunkWindows. A chunk that is full never changes again, and the
// entries of the chunk being filled never change once written, so a reader takes a snapshot in
// constant time under the buffer's lock (a few shared pointers and counts) and reads the entries
// without the lock, however long the history. The writer (Prefill, then the worker) allocates
// before it takes the lock, so that a record under the lock only moves pointers.
//
// With a retention of N windows, only the chunks that hold the most recent N windows are kept;
// the sums over the dropped windows that the running margin needs are carried instead.
//
// A window discarded after it was recorded (a replacement of the reference took it back) keeps
// its entry: its compute time was spent. Its duration is never played, so it is listed apart, in
// a list that is replaced whole, never changed, so that a snapshot shares it as it shares chunks.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "window/async_buffer.hpp"

namespace corvane::control::window {

inline constexpr std::size_t kChunkWindows = 4096;

struct StatisticsChunk {
  std::array<double, kChunkWindows> compute_s;   // [s] charged per window
  std::array<double, kChunkWindows> duration_s;  // [s] duration per window
};

// A recorded window whose duration is never played.
struct UnplayedWindow {
  std::size_t window = 0;   // its place among the recorded windows, from 0
  double duration_s = 0.0;  // [s] the duration recorded for it
};

// Ascending by window; entries before the oldest retained window may already have left it.
using UnplayedList = std::vector<UnplayedWindow>;

// The first entry of `list` at or after `window`.
inline UnplayedList::const_iterator FirstFrom(const UnplayedList& list, std::size_t window) {
  return std::lower_bound(
      list.begin(), list.end(), window,
      [](const UnplayedWindow& entry, std::size_t place) { return entry.window < place; });
}

// Full chunks, oldest first. A slot, once written, never changes while the list is shared.
using ChunkList = std::vector<std::shared_ptr<const StatisticsChunk>>;

// A consistent view of the retained history, cheap to copy and read without the lock.
struct StatisticsSnapshot {
  std::shared_ptr<const ChunkList> sealed;      // null until a chunk has filled
  std::size_t first_sealed = 0;                 // slot of the oldest retained full chunk
  std::size_t sealed_count = 0;                 // slots written
  std::shared_ptr<const StatisticsChunk> open;  // the chunk being filled; null before any entry
  std::size_t open_windows = 0;                 // entries of `open` written
  std::size_t reported_windows = 0;             // the most recent windows that Qualify judges
  double played_before_s = 0.0;   // [s] durations of the windows before the retained ones, summed
  double spent_before_s = 0.0;    // [s] compute times of those windows, summed in the same order
  double prefill_credit_s = 0.0;  // [s] compute times of the first prefill_windows windows, summed

  std::size_t first_retained = 0;                // the oldest retained window's place
  std::shared_ptr<const UnplayedList> unplayed;  // null until a recorded window is discarded
  double unplayed_before_s = 0.0;  // [s] durations of unplayed windows that have left `unplayed`

  std::size_t RetainedWindows() const {
    return (sealed_count - first_sealed) * kChunkWindows + open_windows;
  }
  // [s] What the windows before the retained ones played: their durations, less the unplayed.
  double PlayedBeforeRetained() const;
  // Calls visit(compute_s, duration_s) for every retained window, oldest first.
  template <typename Visit>
  void ForEachRetained(Visit&& visit) const {
    for (std::size_t slot = first_sealed; slot < sealed_count; ++slot) {
      const StatisticsChunk& chunk = *(*sealed)[slot];
      for (std::size_t i = 0; i < kChunkWindows; ++i)
        visit(chunk.compute_s[i], chunk.duration_s[i]);
    }
    for (std::size_t i = 0; i < open_windows; ++i) visit(open->compute_s[i], open->duration_s[i]);
  }
  // Calls visit(compute_s, played_s, duration_s) for every retained window, oldest first, where
  // played_s is its duration, or 0 when the window was discarded unplayed.
  template <typename Visit>
  void ForEachRetainedPlayed(Visit&& visit) const {
    if (!unplayed) {
      ForEachRetained(
          [&](double compute_s, double duration_s) { visit(compute_s, duration_s, duration_s); });
      return;
    }
    auto next = FirstFrom(*unplayed, first_retained);
    std::size_t window = first_retained;
    ForEachRetained([&](double compute_s, double duration_s) {
      const bool played = next == unplayed->end() || next->window != window++;
      if (!played) ++next;
      visit(compute_s, played ? duration_s : 0.0, duration_s);
    });
  }
};

class WindowStatistics {
 public:
  // What one record needs allocated before the lock is taken; empty while the open chunk has
  // room. Whatever it still holds after the record (the pointers it replaced) is freed with it,
  // after the lock has been released.
  struct Growth {
    std::shared_ptr<StatisticsChunk> open;  // the next chunk to fill
    std::shared_ptr<ChunkList> sealed;      // a new list, when the current one has no free slot
    std::size_t first_sealed = 0;           // the retained chunks once the full one is sealed
    std::size_t sealed_count = 0;
    double played_before_s = 0.0;
    double spent_before_s = 0.0;
  };

  explicit WindowStatistics(std::size_t prefill_windows) : prefill_windows_(prefill_windows) {}

  // Keeps the statistics of only the most recent `windows` (at least 1); set before any record.
  void RetainOnly(std::size_t windows) { retained_windows_ = windows; }

  // The writer's allocation step, without the lock: reads only what the writer alone changes.
  Growth PrepareRecord() const;
  // With the lock held: appends one entry in constant time. Never throws.
  void Record(double compute_s, double duration_s, Growth& growth) noexcept;
  // With the lock held, in constant time.
  StatisticsSnapshot Snapshot() const;

  // The recorded windows whose duration is never played.
  struct Unplayed {
    std::shared_ptr<const UnplayedList> list;
    double before_s = 0.0;  // [s] durations of the entries folded out of `list`
  };
  // With the lock held: the unplayed windows as they are now.
  const Unplayed& CurrentUnplayed() const { return unplayed_; }
  // With the lock held: a new unplayed list, `base` with `discarded` (ascending, recorded
  // windows) added, and the entries before the oldest retained window folded into the sum.
  // Throws std::bad_alloc.
  Unplayed PrepareUnplayed(const Unplayed& base, const UnplayedList& discarded) const;
  // With the lock held: the prepared list takes effect; `prepared` gets the list it replaced.
  void MarkUnplayed(Unplayed& prepared) noexcept;
  ProductionTotals Totals() const { return totals_; }

 private:
  std::size_t KeptChunks() const;

  const std::size_t prefill_windows_;
  std::optional<std::size_t> retained_windows_;  // absent: the whole history
  std::shared_ptr<ChunkList> sealed_;
  std::size_t first_sealed_ = 0;
  std::size_t sealed_count_ = 0;
  std::shared_ptr<StatisticsChunk> open_;
  std::size_t open_windows_ = 0;
  double played_before_s_ = 0.0;
  double spent_before_s_ = 0.0;
  double prefill_credit_s_ = 0.0;
  ProductionTotals totals_;
  Unplayed unplayed_;
};

}  // namespace corvane::control::window
