#include "demo/control_loop.hpp"

#include <time.h>

#include <cerrno>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <utility>

namespace corvane::demo {

namespace cw = control::window;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto kStallTimeout = std::chrono::seconds(2);

double Seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

Clock::duration FromSeconds(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// Sleeps until `due` on the monotonic clock (the steady clock's), whatever signals arrive: an
// absolute wake-up time keeps the schedule free of drift.
void SleepUntil(Clock::time_point due) {
  const auto since_epoch =
      std::chrono::duration_cast<std::chrono::nanoseconds>(due.time_since_epoch());
  timespec wake{};
  wake.tv_sec = static_cast<time_t>(since_epoch.count() / 1'000'000'000);
  wake.tv_nsec = static_cast<long>(since_epoch.count() % 1'000'000'000);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &wake, nullptr) == EINTR) {
  }
}

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
                     bool fast, cw::TimingLog* timing) {
  Playback playback;
  std::vector<cw::SampleMatrix> played;
  Eigen::Index scheduled = 0;  // sample periods from `start` to when the next window is due
  Clock::time_point last_window = Clock::now();
  bool missed = false;    // the window due now has been missed already
  Clock::time_point due;  // when the window due now first was
  Eigen::Index samples = 0;
  for (int second = 1;;) {
    const Clock::time_point wake =
        start + FromSeconds(static_cast<double>(scheduled) * sample_time_s);
    if (!fast) SleepUntil(wake);
    const Clock::time_point asked = Clock::now();
    if (!missed) due = fast ? asked : wake;
    std::optional<cw::WindowPayload> window = fast ? buffer.Pop(kStallTimeout) : buffer.PopNowait();
    const Clock::time_point answered = Clock::now();
    if (!window) {
      if (buffer.IsComplete()) break;
      if (answered - last_window >= kStallTimeout) {
        throw std::runtime_error("No window arrived within 2 s.");
      }
      if (!missed) {
        ++playback.deadline_misses;
        if (timing) timing->ReportDeadlineMiss();
      }
      missed = true;
      ++scheduled;  // hold the last command for one sample
      continue;
    }
    if (missed) playback.late_windows.push_back(played.size());
    missed = false;
    last_window = answered;
    playback.pop_waits_s.push_back(Seconds(answered - asked));
    playback.pop_latencies_s.push_back(Seconds(answered - due));
    const Eigen::Index rows = window->positions.rows();
    played.push_back(std::move(window->positions));
    samples += rows;
    if (static_cast<double>(samples) * sample_time_s >= second) {
      std::printf("  %3d s played, %zu windows\n", second++, played.size());
      std::fflush(stdout);
    }
    scheduled += rows;
  }
  playback.command = Stack(played);
  return playback;
}

}  // namespace corvane::demo
