// The demo's timing log: attached to the buffer before it starts, read by a monitor thread while
// the loop plays, then written as CSV and drawn.
#pragma once

#include <cstddef>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <window/async_buffer.hpp>
#include <window/timing_log.hpp>

namespace corvane::demo {

// Every entry a monitor read, in the order popped, and the windows whose entries it missed.
struct TimingRecord {
  std::vector<control::window::WindowTiming> entries;
  std::size_t overwritten_windows = 0;
};

// A log attached to `buffer`, which must not have started; null when `wanted` is false.
std::shared_ptr<control::window::TimingLog> AttachTimingLog(
    control::window::AsyncWindowBuffer& buffer, bool wanted);

// Reads a timing log every 100 ms on a thread of its own, as an integrator's monitor would,
// keeping what it reads, until Finish(). Does nothing over a null log.
class TimingMonitor {
 public:
  explicit TimingMonitor(std::shared_ptr<const control::window::TimingLog> log);
  TimingMonitor(const TimingMonitor&) = delete;
  TimingMonitor& operator=(const TimingMonitor&) = delete;
  ~TimingMonitor();
  // Ends the thread, reads the rest, and returns everything read.
  TimingRecord Finish();

 private:
  void ReadNew();

  std::shared_ptr<const control::window::TimingLog> log_;
  TimingRecord record_;
  std::uint64_t next_ = 0;
  std::promise<void> stop_;
  std::thread thread_;
};

// Writes the record as CSV (corvane::shaper_io) and says where. Throws std::system_error when
// the file cannot be written.
void WriteTimingCsv(const std::string& path, const TimingRecord& record);

// The timing figure's file beside the plot: "run.png" gives "run-timing.png".
std::string TimingPlotPath(const std::string& plot_path);

// The pop latency of every entry by the log's own reckoning: its pop time after its due time.
std::vector<double> LoggedPopLatencies(const TimingRecord& record);

// Compute time and margin per window against time, with the windows that came late and those
// popped after a deadline miss marked, and a histogram of the loop's pop latencies, the windows
// popped after a deadline miss apart. `late_windows` are the indices of those windows in the
// order popped. Throws std::runtime_error when gnuplot is missing or fails.
void WriteTimingPlot(const std::string& path, const TimingRecord& record,
                     const std::vector<double>& pop_latencies_s,
                     const std::vector<std::size_t>& late_windows);

}  // namespace corvane::demo
