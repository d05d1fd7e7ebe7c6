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
// blocks that a snapshot shares as it shares chunks (see UnplayedWindows).
#pragma once

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

// Ascending by window.
using UnplayedList = std::vector<UnplayedWindow>;

inline constexpr std::size_t kUnplayedBlockWindows = 128;
using UnplayedBlock = std::array<UnplayedWindow, kUnplayedBlockWindows>;

// Full blocks of unplayed windows in a fixed number of slots. A slot is written once, at the
// high-water mark `written`, and never again: a version of the list reads only the slots it
// counts, so what it holds never changes, and two versions that part ways (a replacement
// prepared while the producing thread drops a stale window) never write over each other.
struct UnplayedBlocks {
  explicit UnplayedBlocks(std::size_t capacity) : slots(capacity) {}
  std::vector<std::shared_ptr<const UnplayedBlock>> slots;
  std::size_t written = 0;  // slots written, by any version
};

// The recorded windows whose duration is never played, ascending by window: the full blocks in
// slots [first_sealed, sealed_count), from entry first_entry of the first, then `recent`. A
// change copies `recent` (fewer than two blocks' worth), and the full blocks only when it inserts
// a window before one they hold: discarded windows are queued ones, so that takes more than a
// block's worth discarded since, ahead of a window still queued. Its cost does not grow with the
// windows discarded before. Entries before the oldest retained window may already be folded out.
struct UnplayedWindows {
  std::shared_ptr<UnplayedBlocks> blocks;  // null until a block has filled; written under the lock
  std::size_t first_sealed = 0;
  std::size_t first_entry = 0;  // entries of the first full block folded out
  std::size_t sealed_count = 0;
  std::shared_ptr<const UnplayedList> recent;  // null until a recorded window is discarded
  double before_s = 0.0;  // [s] durations of the entries folded out, summed in window order
};

// Reads the entries of an UnplayedWindows in window order.
class UnplayedCursor {
 public:
  explicit UnplayedCursor(const UnplayedWindows& unplayed)
      : unplayed_(unplayed),
        slot_(unplayed.first_sealed),
        entry_(unplayed.first_sealed < unplayed.sealed_count ? unplayed.first_entry : 0) {}

  // The entry under the cursor; null past the last.
  const UnplayedWindow* Current() const {
    if (slot_ < unplayed_.sealed_count) return &(*unplayed_.blocks->slots[slot_])[entry_];
    const UnplayedList* recent = unplayed_.recent.get();
    return recent != nullptr && entry_ < recent->size() ? &(*recent)[entry_] : nullptr;
  }
  void Advance() {
    if (++entry_ == kUnplayedBlockWindows && slot_ < unplayed_.sealed_count) {
      ++slot_;
      entry_ = 0;
    }
  }
  // Adds to `sum_s`, in order, the durations of the entries before `window`, and stops at the
  // first entry at or after it. Returns the sum.
  double AddUntil(std::size_t window, double sum_s) {
    for (const UnplayedWindow* entry = Current(); entry != nullptr && entry->window < window;
         entry = Current()) {
      sum_s += entry->duration_s;
      Advance();
    }
    return sum_s;
  }
  std::size_t slot() const { return slot_; }    // a full block's slot, or sealed_count
  std::size_t entry() const { return entry_; }  // in that block, or in `recent`

 private:
  const UnplayedWindows& unplayed_;
  std::size_t slot_;
  std::size_t entry_;
};

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

  std::size_t first_retained = 0;  // the oldest retained window's place
  UnplayedWindows unplayed;

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
    if (!unplayed.recent) {
      ForEachRetained(
          [&](double compute_s, double duration_s) { visit(compute_s, duration_s, duration_s); });
      return;
    }
    UnplayedCursor next(unplayed);
    next.AddUntil(first_retained, 0.0);
    std::size_t window = first_retained;
    ForEachRetained([&](double compute_s, double duration_s) {
      const UnplayedWindow* entry = next.Current();
      const bool played = entry == nullptr || entry->window != window++;
      if (!played) next.Advance();
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

  // With the lock held: the unplayed windows as they are now.
  const UnplayedWindows& CurrentUnplayed() const { return unplayed_; }
  // With the lock held: a new version of the unplayed windows, `base` with `discarded`
  // (ascending, recorded windows) added, and the entries before the oldest retained window
  // folded into the sum. Takes time in the entries copied (see UnplayedWindows) and in those
  // folded out, each once; when the slots are full, a copy of one pointer per full block kept
  // gives them room to double.
  // Throws std::bad_alloc.
  UnplayedWindows PrepareUnplayed(const UnplayedWindows& base, const UnplayedList& discarded) const;
  // With the lock held: the prepared version takes effect; `prepared` gets the one it replaced.
  void MarkUnplayed(UnplayedWindows& prepared) noexcept;
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
  UnplayedWindows unplayed_;
};

}  // namespace corvane::control::window
