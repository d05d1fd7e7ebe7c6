#include "demo/report.hpp"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <vector>

namespace corvane::demo {

namespace {

// Nearest-rank quantile q (0 to 1] of values; 0 when there are none.
double Quantile(std::vector<double> values, double q) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  const auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(values.size())));
  return values[std::max<std::size_t>(rank, 1) - 1];
}

void Row(const char* label, const std::string& value) {
  std::printf("  %-22s %14s\n", label, value.c_str());
}

std::string Count(std::size_t count) { return std::to_string(count); }

std::string Milliseconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f ms", 1e3 * seconds);
  return text;
}

// Writes every sample as a line: time, reference per joint, command per joint.
void WriteSamples(std::FILE* file, const DemoRun& run, double sample_time_s, char separator) {
  const auto& command = run.playback.command;
  for (Eigen::Index k = 0; k < command.rows(); ++k) {
    std::fprintf(file, "%.6f", static_cast<double>(k) * sample_time_s);
    for (Eigen::Index j = 0; j < command.cols(); ++j) {
      std::fprintf(file, "%c%.9g", separator, run.reference(k, j));
    }
    for (Eigen::Index j = 0; j < command.cols(); ++j) {
      std::fprintf(file, "%c%.9g", separator, command(k, j));
    }
    std::fputc('\n', file);
  }
}

// Single-quoted gnuplot string: a quote inside is doubled.
std::string GnuplotQuoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace

void PrintHeader(const DemoOptions& options) {
  std::printf("corvane-window-demo: %s mode, %ld joints at %g Hz, %ld samples a window",
              ModeName(options.mode), static_cast<long>(options.joints), options.rate_hz,
              static_cast<long>(options.apply_samples));
  if (options.mode == Mode::kMpc) {
    std::printf(", lookahead %ld", static_cast<long>(options.lookahead_samples));
  }
  std::printf(", %s\n", options.fast ? "as fast as possible" : "in real time");
  std::fflush(stdout);
}

void PrintReport(const DemoOptions& options, const DemoRun& run) {
  const auto& waits = run.playback.pop_waits_s;
  const auto& command = run.playback.command;
  const double motion_s = static_cast<double>(command.rows()) * options.sample_time_s();
  std::printf("\nPlayed %.3f s of motion in %.3f s\n", motion_s, run.wall_time_s);
  Row("windows", Count(waits.size()));
  Row("samples", Count(static_cast<std::size_t>(command.rows())));
  Row("hold samples", Count(run.hold_samples));
  Row("pop wait p50", Milliseconds(Quantile(waits, 0.50)));
  Row("pop wait p99", Milliseconds(Quantile(waits, 0.99)));
  Row("pop wait max", Milliseconds(Quantile(waits, 1.0)));

  const auto& report = run.qualification;
  std::printf("\nQualification at a compute fraction limit of %.2f\n",
              report.compute_fraction_limit);
  Row("qualified", report.qualified ? "yes" : "no");
  Row("windows produced", Count(report.total_windows));
  Row("prefill windows", Count(report.prefill_windows));
  Row("max compute time", Milliseconds(report.max_compute_time_s));
  Row("p99 compute time", Milliseconds(report.p99_compute_time_s));
  Row("total compute time", Milliseconds(report.total_compute_time_s));
  Row("min margin", Milliseconds(report.min_margin_s));
  Row("underrun windows", Count(report.underrun_windows));
  // Qualify judges production against the windows' own durations; the control loop's misses are
  // what the machine saw.
  Row("deadline misses",
      options.fast ? std::string("not paced") : Count(run.playback.deadline_misses));
}

void WriteCsv(const std::string& path, const DemoRun& run, double sample_time_s) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "w"),
                                                             &std::fclose);
  if (!file) throw std::runtime_error("Cannot write " + path + ".");
  std::fprintf(file.get(), "time_s");
  const Eigen::Index joints = run.playback.command.cols();
  for (const char* series : {"reference", "command"}) {
    for (Eigen::Index j = 1; j <= joints; ++j) {
      std::fprintf(file.get(), ",%s_%ld", series, static_cast<long>(j));
    }
  }
  std::fputc('\n', file.get());
  WriteSamples(file.get(), run, sample_time_s, ',');
  std::printf("CSV written to %s\n", std::filesystem::absolute(path).c_str());
}

void WritePlot(const std::string& path, const DemoRun& run, double sample_time_s) {
  // Without gnuplot the pipe closes early; writes then fail instead of ending the program.
  std::signal(SIGPIPE, SIG_IGN);
  std::FILE* gnuplot = popen("gnuplot", "w");
  if (gnuplot == nullptr) throw std::runtime_error("Cannot start gnuplot.");
  const long joints = static_cast<long>(run.playback.command.cols());
  std::fprintf(gnuplot, "set terminal pngcairo size 1000,%ld\nset output %s\n", 180 * joints + 60,
               GnuplotQuoted(path).c_str());
  std::fprintf(gnuplot, "$samples << EOD\n");
  WriteSamples(gnuplot, run, sample_time_s, ' ');
  std::fprintf(gnuplot,
               "EOD\nset key outside right top\nset xlabel 'time [s]'\n"
               "set multiplot layout %ld,1 title 'reference and command'\n",
               joints);
  for (long j = 1; j <= joints; ++j) {
    std::fprintf(gnuplot,
                 "set ylabel 'joint %ld [rad]'\n"
                 "plot $samples using 1:%ld with lines lw 4 lc 'gray70' title 'reference', "
                 "$samples using 1:%ld with lines lc 'blue' title 'command'\n",
                 j, 1 + j, 1 + joints + j);
  }
  std::fprintf(gnuplot, "unset multiplot\n");
  if (pclose(gnuplot) != 0) {
    throw std::runtime_error("gnuplot could not draw " + path + " (is gnuplot-nox installed?).");
  }
  std::printf("Plot written to %s\n", std::filesystem::absolute(path).c_str());
}

}  // namespace corvane::demo
