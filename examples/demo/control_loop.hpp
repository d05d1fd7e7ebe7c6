// The demo's control loop: a fixed-rate loop that takes one window each time the previous one
// has been played.
#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

#include <window/async_buffer.hpp>
#include <window/records.hpp>
#include <window/timing_log.hpp>

namespace corvane::demo {

struct Playback {
  control::window::SampleMatrix command;  // every played sample, in order
  std::vector<double> pop_waits_s;        // [s] time spent in the pop call, one entry a window
  // [s] from when each window was due (unpaced: asked for) until the pop returned it
  std::vector<double> pop_latencies_s;
  std::size_t deadline_misses = 0;        // windows that were not ready when they were due
  std::vector<std::size_t> late_windows;  // the windows popped after a miss, in the order popped
};

// Pops the windows of a started buffer until it completes. The first window is due at `start`,
// each next one when the previous has played for its rows times sample_time_s. The loop sleeps
// until each due time on an absolute schedule and takes the window with PopNowait(); a window
// not ready then is a deadline miss, and the loop holds the last command and looks again one
// sample later. With `fast` nothing is paced: it waits in Pop() instead. Prints a progress line
// every second of motion. Reports each deadline miss to `timing`, when there is one. Throws
// std::runtime_error when no window comes for 2 s; passes the buffer's failure on.
Playback PlayWindows(control::window::AsyncWindowBuffer& buffer, double sample_time_s,
                     std::chrono::steady_clock::time_point start, bool fast,
                     control::window::TimingLog* timing);

}  // namespace corvane::demo
