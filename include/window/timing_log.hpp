// The timing log of a window buffer: for every window queued, when its production started, what
// it cost, when it was queued and behind how many others, when the loop took it and how long
// before it was due; and counters of the whole stream that any thread reads in constant time.
//
// The log is a ring of entries allocated once, at construction. The buffer writes an entry when
// it queues a window and completes it when a pop hands the window over; neither step waits for
// anything, allocates or takes a lock of the log's own. A monitor thread reads the entries it has
// not seen yet with Read(), without holding up the worker or the loop, and learns how many were
// overwritten before it came to them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "native/export.hpp"

namespace corvane::control::window {

// The timing of one window. Times are seconds on the steady clock since the log was constructed:
// construct it when the stream starts.
struct WindowTiming {
  // The window's place in the order of queueing, from 0; windows that a replacement discarded
  // from the queue (AppendableWindowBuffer::ReplaceReference) leave no place, and no entry.
  std::uint64_t sequence = 0;
  std::size_t start_index = 0;      // first global sample index of the window
  std::size_t stop_index = 0;       // one past its last global sample index
  double production_start_s = 0.0;  // [s] when the producer was asked for it
  double compute_time_s = 0.0;      // [s] compute time charged to it; Finalize()'s for a last one
  double duration_s = 0.0;          // [s] how long it lasts when played
  double queued_s = 0.0;            // [s] when it was queued
  std::size_t queue_depth_windows = 0;  // windows in the queue once it was queued, itself included
  double popped_s = 0.0;                // [s] when a pop handed it to the loop
  // [s] how long before it was due it was queued. A window is due when the one before it has
  // played: at that one's pop time plus its duration; the first window is due when it is popped.
  // Negative for a window that came late (an underrun).
  double margin_s = 0.0;
};

// Counters of the stream since the log was attached, as one snapshot.
struct TimingCounters {
  std::size_t queued_windows = 0;    // windows queued, those a replacement discarded included
  std::size_t popped_windows = 0;    // windows handed to the loop
  std::size_t underrun_windows = 0;  // popped windows with a negative margin
  std::size_t deadline_misses = 0;   // misses the loop reported with ReportDeadlineMiss()
  double max_compute_time_s = 0.0;   // [s] longest compute time of a queued window; 0 before one
  double min_margin_s = 0.0;         // [s] worst margin of a popped window; 0 before one
};

// What one Read() found.
struct TimingRead {
  std::vector<WindowTiming> entries;    // windows popped from the sequence asked on, oldest first
  std::size_t overwritten_windows = 0;  // popped windows from there on whose entry was overwritten
  std::uint64_t next_sequence = 0;      // where the next read starts: one past the last popped
};

// A bounded log of window timings and the stream's counters, shared by a buffer (the writer) and
// any number of readers. Attach it with AsyncWindowBuffer::AttachTimingLog before the first
// window is produced. Every operation may be called from any thread; none waits for another.
class CORVANE_EXPORT TimingLog {
 public:
  // Keeps the entries of the most recent capacity_windows queued windows; make it larger than
  // the queue capacity plus the windows a reader lets pass between two reads. Allocates the ring
  // here, about 100 bytes a window. Throws std::invalid_argument unless capacity_windows is from
  // 1 to kMaxCapacityWindows.
  explicit TimingLog(std::size_t capacity_windows);
  TimingLog(const TimingLog&) = delete;
  TimingLog& operator=(const TimingLog&) = delete;
  ~TimingLog();

  // The largest capacity a log takes (16,777,216 windows).
  static constexpr std::size_t kMaxCapacityWindows = std::size_t{1} << 24;

  // The number of entries the ring keeps.
  std::size_t capacity_windows() const;
  // The steady-clock time from which every time of the log counts.
  std::chrono::steady_clock::time_point Origin() const;
  // The entries of the windows popped from `sequence` on that the ring still holds, and how many
  // it no longer holds. Windows queued but not yet popped are left for a later read; read again
  // from next_sequence. Allocates the result; never waits for the worker or the loop.
  TimingRead Read(std::uint64_t sequence) const;
  // The counters, in constant time. Each is exact; they are read one after another, while the
  // stream may move on.
  TimingCounters Counters() const;
  // Counts one deadline miss: for the loop to call when a window was not there in time. Never
  // waits, never allocates, never throws.
  void ReportDeadlineMiss() noexcept;

 private:
  friend class AsyncWindowBuffer;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace corvane::control::window
