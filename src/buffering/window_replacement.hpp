// Private state of the replacement of the unplayed reference, kept in AsyncWindowBuffer::Impl when
// the buffer's producer can resume.
//
// A replacement runs in three steps on the caller's thread. Under the buffer's lock it checks the
// index and takes the queued windows from it on out of the queue, leaving a fence up that holds the
// worker's next queueing step. Without the lock it replaces the reference (under the reference's
// own lock). Under the buffer's lock again it commits: the plan number grows, the windows taken
// out are discarded and the worker is told where to resume; or, when the reference refused, the
// windows go back and nothing has changed. The worker resumes its producer at its next production
// step, outside every lock, and drops the window it was producing when the plan moved on meanwhile.
#pragma once

#include <cstddef>
#include <list>
#include <mutex>
#include <optional>

#include "buffering/window_ring.hpp"
#include "buffering/window_statistics.hpp"
#include "window/async_buffer.hpp"
#include "window/replacement.hpp"

namespace corvane::control::window {

// The last row of one queued window, kept while a replacement may still resume after it.
struct CORVANE_HIDDEN JoinPoint {
  std::size_t stop_index = 0;  // one past the window's last sample (global index)
  std::size_t window = 0;      // its place among the recorded windows (statistics)
  CommandSample command;       // its last row
  double charged_s = 0.0;      // [s] compute time charged to the window
  double duration_s = 0.0;     // [s] its duration
};

// Where the worker resumes the producer before its next window.
struct CORVANE_HIDDEN PendingResume {
  std::size_t start_index = 0;                    // global index of the first sample to produce
  std::optional<CommandSample> previous_command;  // the command at start_index - 1
  std::size_t plan = 0;                           // the replacement count it belongs to
};

struct CORVANE_HIDDEN ReplacementState {
  ReplacementState(ResumableWindowProducer& producer_in, std::size_t first_global_index)
      : producer(producer_in), produced_stop(first_global_index) {}

  ResumableWindowProducer& producer;  // the buffer's producer, seen through its resumption
  std::mutex serial;                  // one replacement at a time; taken before the other locks

  // Guarded by the buffer's mutex.
  std::size_t plan = 0;                  // replacements committed
  std::size_t produced_stop = 0;         // end of the last queued window; the first sample before
  std::list<JoinPoint> joins;            // the last rows of the queued windows and the one before
  std::optional<PendingResume> pending;  // set by a replacement, taken by the worker
  bool fenced = false;                   // a replacement is between its steps
  bool closed = false;                   // the worker has left its production loop
  ReplacementTotals totals;
  // While fenced: the statistics' unplayed windows once the tail taken out is discarded, so that
  // the commit only swaps it in; what the producing thread drops meanwhile is added to it too.
  UnplayedWindows fenced_unplayed;

  // Used only by the thread that produces (Prefill before Start, then the worker).
  std::size_t adopted_plan = 0;  // the plan the producer works to

  // The earliest index a replacement may start at: the end of the last window handed out.
  std::size_t Earliest(WindowRing& queue) const {
    return queue.empty() ? produced_stop : queue.front().start_index;
  }
};

}  // namespace corvane::control::window
