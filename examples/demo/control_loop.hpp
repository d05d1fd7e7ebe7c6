// The demo's control loop: it takes one window each time the previous one has been played.
#pragma once

#include <chrono>
#include <vector>

#include <window/async_buffer.hpp>
#include <window/records.hpp>

namespace corvane::demo {

struct Playback {
  control::window::SampleMatrix command;  // every played sample, in order
  std::vector<double> pop_waits_s;        // [s] time spent waiting in Pop, one entry a window
};

// Pops the windows of a started buffer until it completes. The first window plays from `start`,
// each for its rows times sample_time_s, and the next is popped when it has been played; with
// `fast` nothing waits for playback. Prints a progress line every second of motion.
// Throws std::runtime_error when no window comes for 2 s; passes the buffer's failure on.
Playback PlayWindows(control::window::AsyncWindowBuffer& buffer, double sample_time_s,
                     std::chrono::steady_clock::time_point start, bool fast);

}  // namespace corvane::demo
