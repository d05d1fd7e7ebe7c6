#include "demo/control_loop.hpp"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

namespace corvane::demo {

namespace cw = control::window;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto kStallTimeout = std::chrono::seconds(2);

double Seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

// The windows' rows, one after another.
cw::SampleMatrix Stack(const std::vector<cw::SampleMatrix>& windows) {
  Eigen::Index rows = 0;
  for (const cw::SampleMatrix& window : windows) rows += window.rows();
  cw::SampleMatrix stacked(rows, windows.empty() ? 0 : windows.front().cols());
  Eigen::Index at = 0;
  for (const cw::SampleMatrix& window : windows) {
    stacked.middleRows(at, window.rows()) = window;
    at += window.rows();
  }
  return stacked;
}

}  // namespace

Playback PlayWindows(cw::AsyncWindowBuffer& buffer, double sample_time_s, Clock::time_point start,
                     bool fast) {
  Playback playback;
  std::vector<cw::SampleMatrix> played;
  Clock::time_point due = start;  // when the next window starts playing
  Eigen::Index samples = 0;
  for (int second = 1;;) {
    const Clock::time_point asked = Clock::now();
    std::optional<cw::WindowPayload> window = buffer.Pop(kStallTimeout);
    const Clock::time_point arrived = Clock::now();
    if (!window) {
      if (buffer.IsComplete()) break;
      throw std::runtime_error("No window arrived within 2 s.");
    }
    playback.pop_waits_s.push_back(Seconds(arrived - asked));
    const Eigen::Index rows = window->positions.rows();
    played.push_back(std::move(window->positions));
    samples += rows;
    if (static_cast<double>(samples) * sample_time_s >= second) {
      std::printf("  %3d s played, %zu windows\n", second++, played.size());
      std::fflush(stdout);
    }
    if (!fast) {
      // A window that arrives late plays from its arrival.
      due = std::max(due, arrived) +
            std::chrono::duration_cast<Clock::duration>(
                std::chrono::duration<double>(static_cast<double>(rows) * sample_time_s));
      std::this_thread::sleep_until(due);
    }
  }
  playback.command = Stack(played);
  return playback;
}

}  // namespace corvane::demo
