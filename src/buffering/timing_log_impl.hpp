// Private state of TimingLog: the ring of entries, the counters, and the two recording steps that
// the buffer calls with its lock held.
//
// Every field of an entry is an atomic, guarded by a sequence number per writer: the producing
// side's fields by `queued_version`, the pop's by `popped_version`. Entry n is written as version
// 2n + 1 and complete as 2n + 2, so a reader knows both whether a slot holds the entry it wants and
// whether it changed while being read, without ever making a writer wait. Each field has one writer
// at a time: the buffer's lock orders the worker (or Prefill) and the consumers among themselves.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "window/timing_log.hpp"

namespace corvane::control::window {

// What the production step knows of a window before it is queued.
struct WindowProduction {
  std::size_t start_index = 0;  // its global sample range
  std::size_t stop_index = 0;
  std::chrono::steady_clock::time_point start;  // when the producer was asked for it
  double compute_time_s = 0.0;                  // [s] charged to it
  double duration_s = 0.0;                      // [s] its duration when played
};

struct CORVANE_HIDDEN TimingLog::Impl {
  using Clock = std::chrono::steady_clock;

  struct Slot {
    std::atomic<std::uint64_t> queued_version{0};
    std::atomic<std::size_t> start_index{0};
    std::atomic<std::size_t> stop_index{0};
    std::atomic<double> production_start_s{0.0};
    std::atomic<double> compute_time_s{0.0};
    std::atomic<double> duration_s{0.0};
    std::atomic<double> queued_s{0.0};
    std::atomic<std::size_t> queue_depth_windows{0};
    std::atomic<std::uint64_t> popped_version{0};
    std::atomic<double> popped_s{0.0};
    std::atomic<double> margin_s{0.0};
  };

  explicit Impl(std::size_t capacity_in);

  // With the buffer's lock held, once the window `production` describes is at the back of the
  // queue of `depth` windows.
  void RecordQueued(const WindowProduction& production, Clock::time_point queued_at,
                    std::size_t depth) noexcept;
  // With the buffer's lock held, once the oldest queued window has left the queue.
  void RecordPopped(Clock::time_point popped_at) noexcept;
  // With the buffer's lock held, once the `windows` queued last have left the queue unpopped (a
  // replacement discarded them): the windows queued next take their sequences, so that a pop's
  // sequence stays the count of earlier pops.
  void ForgetNewest(std::size_t windows) noexcept;
  // Copies entry `sequence` into `entry`; false when the ring no longer holds it whole.
  bool ReadEntry(std::uint64_t sequence, WindowTiming& entry) const noexcept;

  double Seconds(Clock::time_point at) const {
    return std::chrono::duration<double>(at - origin).count();
  }
  Slot& SlotOf(std::uint64_t sequence) const { return slots[sequence % capacity]; }

  const std::size_t capacity;
  const Clock::time_point origin;
  const std::unique_ptr<Slot[]> slots;
  std::atomic<bool> attached{false};
  // The counters; each has one writer at a time.
  std::atomic<std::uint64_t> queued_windows{0};
  std::atomic<std::uint64_t> next_sequence{0};  // queued_windows less the windows forgotten
  std::atomic<std::uint64_t> popped_windows{0};
  std::atomic<std::uint64_t> underrun_windows{0};
  std::atomic<std::uint64_t> deadline_misses{0};
  std::atomic<double> max_compute_time_s{0.0};
  std::atomic<double> min_margin_s{0.0};
  // When the next window to be popped is due, in log seconds; NaN when unknown (before the first
  // pop, or after a window whose entry was overwritten before its pop). Guarded by the buffer's
  // lock.
  double next_due_s;
  bool margin_recorded = false;  // whether min_margin_s holds a margin yet; guarded likewise
};

}  // namespace corvane::control::window
