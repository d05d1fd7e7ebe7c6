#include "demo/timing.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <utility>

#include <corvane_shaper_io/timing_csv.hpp>

#include "demo/gnuplot.hpp"

namespace corvane::demo {

namespace cw = control::window;

namespace {

// Enough for 655 s of 1 ms windows however long the monitor lags.
constexpr std::size_t kLogWindows = 65536;
constexpr auto kMonitorPeriod = std::chrono::milliseconds(100);

bool IsLate(const std::vector<std::size_t>& late_windows, std::size_t window) {
  return std::binary_search(late_windows.begin(), late_windows.end(), window);
}

// A line per entry: queued [s], compute [ms], popped [s], margin [ms], and 1 when it was popped
// after a deadline miss, else 0.
void WriteEntries(std::FILE* file, const TimingRecord& record,
                  const std::vector<std::size_t>& late_windows) {
  for (const cw::WindowTiming& entry : record.entries) {
    std::fprintf(file, "%.6f %.6f %.6f %.6f %d\n", entry.queued_s, 1e3 * entry.compute_time_s,
                 entry.popped_s, 1e3 * entry.margin_s,
                 IsLate(late_windows, static_cast<std::size_t>(entry.sequence)) ? 1 : 0);
  }
}

// A line per popped window: pop latency [ms], and 1 when it was popped after a deadline miss.
void WriteLatencies(std::FILE* file, const std::vector<double>& pop_latencies_s,
                    const std::vector<std::size_t>& late_windows) {
  for (std::size_t i = 0; i < pop_latencies_s.size(); ++i) {
    std::fprintf(file, "%.6f %d\n", 1e3 * pop_latencies_s[i], IsLate(late_windows, i) ? 1 : 0);
  }
}

// The histogram's bin width [ms]: 40 bins over the latencies' range, at least 1 us wide.
double BinWidthMs(const std::vector<double>& pop_latencies_s) {
  if (pop_latencies_s.empty()) return 1e-3;
  const auto [low, high] = std::minmax_element(pop_latencies_s.begin(), pop_latencies_s.end());
  return std::max(1e3 * (*high - *low) / 40.0, 1e-3);
}

}  // namespace

std::shared_ptr<cw::TimingLog> AttachTimingLog(cw::AsyncWindowBuffer& buffer, bool wanted) {
  if (!wanted) return nullptr;
  auto log = std::make_shared<cw::TimingLog>(kLogWindows);
  buffer.AttachTimingLog(log);
  return log;
}

TimingMonitor::TimingMonitor(std::shared_ptr<const cw::TimingLog> log) : log_(std::move(log)) {
  if (!log_) return;
  thread_ = std::thread([this, stopped = stop_.get_future()] {
    while (stopped.wait_for(kMonitorPeriod) == std::future_status::timeout) ReadNew();
  });
}

TimingMonitor::~TimingMonitor() {
  if (thread_.joinable()) Finish();
}

void TimingMonitor::ReadNew() {
  cw::TimingRead read = log_->Read(next_);
  record_.entries.insert(record_.entries.end(), read.entries.begin(), read.entries.end());
  record_.overwritten_windows += read.overwritten_windows;
  next_ = read.next_sequence;
}

TimingRecord TimingMonitor::Finish() {
  if (!log_) return {};
  stop_.set_value();
  thread_.join();
  ReadNew();
  return std::move(record_);
}

void WriteTimingCsv(const std::string& path, const TimingRecord& record) {
  control::io::WriteTimingCsv(path, record.entries);
  std::printf("Timing log of %zu windows written to %s", record.entries.size(),
              std::filesystem::absolute(path).c_str());
  if (record.overwritten_windows > 0) {
    std::printf(" (%zu more overwritten before the monitor read them)", record.overwritten_windows);
  }
  std::printf("\n");
}

std::vector<double> LoggedPopLatencies(const TimingRecord& record) {
  std::vector<double> latencies_s;
  for (const cw::WindowTiming& entry : record.entries) {
    latencies_s.push_back(entry.popped_s - (entry.queued_s + entry.margin_s));
  }
  return latencies_s;
}

std::string TimingPlotPath(const std::string& plot_path) {
  std::filesystem::path path(plot_path);
  return (path.parent_path() / (path.stem().string() + "-timing.png")).string();
}

void WriteTimingPlot(const std::string& path, const TimingRecord& record,
                     const std::vector<double>& pop_latencies_s,
                     const std::vector<std::size_t>& late_windows) {
  DrawPng(path, 1000, 800, [&](std::FILE* gnuplot) {
    std::fprintf(gnuplot, "$timing << EOD\n");
    WriteEntries(gnuplot, record, late_windows);
    std::fprintf(gnuplot, "EOD\n$latency << EOD\n");
    WriteLatencies(gnuplot, pop_latencies_s, late_windows);
    std::fprintf(
        gnuplot,
        "EOD\nset multiplot layout 3,1 title 'Timing of every window'\nset lmargin 12\n"
        "set key outside top center horizontal\nset xlabel 'time queued [s]'\n"
        "set ylabel 'compute time [ms]'\n"
        "plot $timing using 1:2 with impulses lc 'blue' title 'compute time'\n"
        "set xlabel 'time popped [s]'\nset ylabel 'margin [ms]'\n"
        "plot $timing using 3:4 with lines lc 'gray50' title 'margin', "
        "$timing using 3:($4 < 0 ? $4 : 1/0) with points pt 7 lc 'red' title 'late window', "
        "$timing using 3:($5 > 0 ? $4 : 1/0) with points pt 2 ps 2 lc 'black' "
        "title 'popped after a deadline miss'\n"
        "width = %.9g\nbin(x) = width * floor(x / width)\nset boxwidth width\n"
        "set style fill solid 0.6\nset xlabel 'pop latency: from when the window was due "
        "until the loop had it [ms]'\nset ylabel 'windows'\nset logscale y\nset yrange [0.8:*]\n"
        "plot $latency using (bin($1)):($2 > 0 ? 0 : 1) smooth frequency with boxes "
        "lc 'blue' title 'on time', "
        "$latency using (bin($1)):($2 > 0 ? 1 : 0) smooth frequency with boxes lc 'red' "
        "title 'after a deadline miss (%zu windows)'\n"
        "unset multiplot\n",
        BinWidthMs(pop_latencies_s), late_windows.size());
  });
}

}  // namespace corvane::demo
