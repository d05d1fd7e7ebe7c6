#include "corvane_shaper_io/timing_csv.hpp"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <system_error>

namespace corvane::control::io {
namespace {

// One entry's line, in the header's order, without its line end.
std::string CsvLine(const window::WindowTiming& entry) {
  char line[320];
  std::snprintf(line, sizeof line, "%" PRIu64 ",%zu,%zu,%.9f,%.9f,%.9f,%.9f,%zu,%.9f,%.9f",
                entry.sequence, entry.start_index, entry.stop_index, entry.production_start_s,
                entry.compute_time_s, entry.duration_s, entry.queued_s, entry.queue_depth_windows,
                entry.popped_s, entry.margin_s);
  return line;
}

}  // namespace

void WriteTimingCsv(std::ostream& out, const std::vector<window::WindowTiming>& entries) {
  out << kTimingCsvHeader << '\n';
  for (const window::WindowTiming& entry : entries) out << CsvLine(entry) << '\n';
  out.flush();
  if (!out) {
    throw std::system_error(std::make_error_code(std::errc::io_error),
                            "The timing log could not be written");
  }
}

void WriteTimingCsv(const std::string& path, const std::vector<window::WindowTiming>& entries) {
  std::ofstream file(path);
  try {
    if (!file) throw std::system_error(errno, std::generic_category());
    WriteTimingCsv(file, entries);
  } catch (const std::system_error& error) {
    throw std::system_error(error.code(), "The timing log could not be written to " + path);
  }
}

}  // namespace corvane::control::io
