#include "demo/report.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "demo/gnuplot.hpp"

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

// Writes every sample as a line: time, reference per joint, command per joint, and the shaped
// reference per joint when there is one.
void WriteSamples(std::FILE* file, const DemoRun& run, double sample_time_s, char separator) {
  const auto& command = run.playback.command;
  const bool shaped = run.shaped_reference.rows() > 0;
  for (Eigen::Index k = 0; k < command.rows(); ++k) {
    std::fprintf(file, "%.6f", static_cast<double>(k) * sample_time_s);
    for (const auto* series : {&run.reference, &command, &run.shaped_reference}) {
      if (series == &run.shaped_reference && !shaped) break;
      for (Eigen::Index j = 0; j < command.cols(); ++j) {
        std::fprintf(file, "%c%.9g", separator, (*series)(k, j));
      }
    }
    std::fputc('\n', file);
  }
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
  for (const char* series : {"reference", "command", "shaped"}) {
    if (series == std::string("shaped") && run.shaped_reference.rows() == 0) break;
    for (Eigen::Index j = 1; j <= joints; ++j) {
      std::fprintf(file.get(), ",%s_%ld", series, static_cast<long>(j));
    }
  }
  std::fputc('\n', file.get());
  WriteSamples(file.get(), run, sample_time_s, ',');
  std::printf("CSV written to %s\n", std::filesystem::absolute(path).c_str());
}

void WritePlot(const std::string& path, const DemoRun& run, double sample_time_s) {
  const long joints = static_cast<long>(run.playback.command.cols());
  DrawPng(path, 1000, static_cast<int>(180 * joints + 60), [&](std::FILE* gnuplot) {
    std::fprintf(gnuplot, "$samples << EOD\n");
    WriteSamples(gnuplot, run, sample_time_s, ' ');
    std::fprintf(gnuplot,
                 "EOD\nset key outside right top\nset xlabel 'time [s]'\n"
                 "set multiplot layout %ld,1 title 'reference and command'\n",
                 joints);
    for (long j = 1; j <= joints; ++j) {
      std::fprintf(gnuplot,
                   "set ylabel 'joint %ld [rad]'\n"
                   "plot $samples using 1:%ld with lines lw 4 lc 'gray70' title 'reference', ",
                   j, 1 + j);
      if (run.shaped_reference.rows() > 0) {
        std::fprintf(gnuplot, "$samples using 1:%ld with lines lw 2 lc 'orange' title 'shaped', ",
                     1 + 2 * joints + j);
      }
      std::fprintf(gnuplot, "$samples using 1:%ld with lines lc 'blue' title 'command'\n",
                   1 + joints + j);
    }
    std::fprintf(gnuplot, "unset multiplot\n");
  });
}

}  // namespace corvane::demo
