// What the demo prints and writes about a run.
#pragma once

#include <string>

#include "demo/modes.hpp"
#include "demo/options.hpp"

namespace corvane::demo {

// One line naming the mode and its settings, printed before the run.
void PrintHeader(const DemoOptions& options);

// Windows, samples, held samples, pop waits, and the qualification as a table.
void PrintReport(const DemoOptions& options, const DemoRun& run);

// A CSV file: time_s, then the reference and the command of every joint (and the shaped
// reference, when the run shaped it), a row per sample.
// Throws std::runtime_error when the file cannot be written.
void WriteCsv(const std::string& path, const DemoRun& run, double sample_time_s);

// A PNG of reference (and shaped reference) against command, a panel per joint, by gnuplot.
// Throws std::runtime_error when gnuplot is missing or fails.
void WritePlot(const std::string& path, const DemoRun& run, double sample_time_s);

}  // namespace corvane::demo
