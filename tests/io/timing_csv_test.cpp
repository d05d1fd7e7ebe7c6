// The timing log's CSV: the header, one line per entry in its order, and a file that cannot be
// written.
#include "corvane_shaper_io/timing_csv.hpp"

#include <sstream>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

namespace corvane::control::io {
namespace {

TEST(TimingCsvTest, WritesAHeaderAndALinePerEntryInItsOrder) {
  window::WindowTiming late{7, 70, 80, 1.5, 0.25, 0.01, 1.75, 3, 2.0, -0.000000001};
  window::WindowTiming huge{18446744073709551615u, 0, 1, 0.0, 0.0, 1e9, 0.0, 1, 0.0, 0.0};
  std::ostringstream out;
  WriteTimingCsv(out, {late, huge});
  EXPECT_EQ(out.str(), std::string(kTimingCsvHeader) +
                           "\n7,70,80,1.500000000,0.250000000,0.010000000,1.750000000,3,"
                           "2.000000000,-0.000000001\n"
                           "18446744073709551615,0,1,0.000000000,0.000000000,"
                           "1000000000.000000000,0.000000000,1,0.000000000,0.000000000\n");
}

TEST(TimingCsvTest, NamesTheFileItCannotWrite) {
  try {
    WriteTimingCsv("/nonexistent/timing.csv", {});
    FAIL() << "no error";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
    EXPECT_NE(std::string(error.what()).find("/nonexistent/timing.csv"), std::string::npos);
  }
}

}  // namespace
}  // namespace corvane::control::io
