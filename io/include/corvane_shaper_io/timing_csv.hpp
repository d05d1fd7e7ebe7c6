// The timing log as CSV, which spreadsheets and PlotJuggler open as they are.
//
// The first line names the columns, in this order; then one line per window, oldest first:
//   sequence             the window's place in the order of queueing, from 0
//   start_index          first global sample index of the window
//   stop_index           one past its last global sample index
//   production_start_s   [s] when the producer was asked for it
//   compute_time_s       [s] compute time charged to it
//   duration_s           [s] how long it lasts when played
//   queued_s             [s] when it was queued
//   queue_depth_windows  windows in the queue once it was queued, itself included
//   popped_s             [s] when a pop handed it to the loop
//   margin_s             [s] how long before it was due it was queued; negative when late
// Times are seconds from the stream's start (the log's origin), written to the nanosecond.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include <native/export.hpp>
#include <window/timing_log.hpp>

namespace corvane::control::io {

// The first line of the CSV, without its line end.
inline constexpr char kTimingCsvHeader[] =
    "sequence,start_index,stop_index,production_start_s,compute_time_s,duration_s,queued_s,"
    "queue_depth_windows,popped_s,margin_s";

// Writes the header line and a line per entry to `out`. Throws std::system_error when the stream
// fails.
CORVANE_EXPORT void WriteTimingCsv(std::ostream& out,
                                   const std::vector<window::WindowTiming>& entries);

// Writes the CSV to the file at `path`, replacing it. Throws std::system_error, naming the path,
// when the file cannot be written.
CORVANE_EXPORT void WriteTimingCsv(const std::string& path,
                                   const std::vector<window::WindowTiming>& entries);

}  // namespace corvane::control::io
