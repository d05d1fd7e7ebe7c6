// Record files: what is written reads back bit for bit, and every damaged file is refused with
// an error that names the file and the byte at fault.
#include <cfloat>
#include <cmath>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "corvane_shaper_io/window_record.hpp"
#include "support/same_bits.hpp"

namespace {

namespace cw = corvane::control::window;
namespace cio = corvane::control::io;
using corvane::testing::SameBits;

// Every optional present, values whose bits a careless encoding changes (-0.0, a subnormal,
// whole numbers that fit an integer), a range at the top of std::size_t, awkward metadata.
cio::RecordedWindow Full() {
  cio::RecordedWindow recorded{{}, 3.0};
  cw::WindowPayload& window = recorded.window;
  window.positions = cw::SampleMatrix{{-0.0, 4.9e-324, DBL_MAX}, {1.0, -2.0, 0.1}};
  window.velocities = -window.positions;
  window.accelerations = cw::SampleMatrix::Constant(2, 3, 7.0);
  window.time_s = Eigen::Vector2d(0.0, 1e-3);
  window.start_index = SIZE_MAX - 2;
  window.stop_index = SIZE_MAX;
  window.compute_time_s = 2.0;
  window.metadata = {{"", ""}, {"is_tail", "true"}, {std::string("a\0b", 3), "\xc3\xa9"}};
  return recorded;
}

// No optional, no metadata, no rows.
cio::RecordedWindow Bare() {
  return {cw::WindowPayload{cw::SampleMatrix(0, 2), {}, {}, {}, 5, 5, 0.5, {}}, -0.0};
}

template <typename Array>
bool Same(const std::optional<Array>& left, const std::optional<Array>& right) {
  return left.has_value() == right.has_value() && (!left || SameBits(*left, *right));
}

// Writes the record to a file of the running test's own, since tests may run in parallel.
std::string Write(const std::vector<cio::RecordedWindow>& record) {
  const std::string path = ::testing::TempDir() +
                           ::testing::UnitTest::GetInstance()->current_test_info()->name() +
                           ".record";
  cio::RecordWriter writer(path);
  for (const cio::RecordedWindow& recorded : record)
    writer.Append(recorded.window, recorded.popped_s);
  return path;  // the writer closes the file as it goes out of scope
}

std::string Bytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

TEST(WindowRecord, ReadsBackEveryWindowBitForBit) {
  const std::vector<cio::RecordedWindow> written = {Full(), Bare(), Full()};
  const std::vector<cio::RecordedWindow> read = cio::ReadRecord(Write(written));
  ASSERT_EQ(read.size(), written.size());
  for (std::size_t i = 0; i < read.size(); ++i) {
    const cw::WindowPayload& a = read[i].window;
    const cw::WindowPayload& b = written[i].window;
    SCOPED_TRACE(i);
    EXPECT_TRUE(SameBits(a.positions, b.positions));
    EXPECT_TRUE(Same(a.velocities, b.velocities) && Same(a.accelerations, b.accelerations));
    EXPECT_TRUE(Same(a.time_s, b.time_s));
    EXPECT_EQ(std::make_pair(a.start_index, a.stop_index),
              std::make_pair(b.start_index, b.stop_index));
    EXPECT_TRUE(SameBits(Eigen::Vector2d(a.compute_time_s, read[i].popped_s),
                         Eigen::Vector2d(b.compute_time_s, written[i].popped_s)));
    EXPECT_EQ(a.metadata, b.metadata);
  }
  EXPECT_TRUE(cio::ReadRecord(Write({})).empty());
}

TEST(WindowRecord, RefusesDamagedFilesNamingTheByte) {
  const std::string good = Bytes(Write({Full(), Bare()}));
  const std::size_t size = good.size();
  const std::size_t closing = size - 10;  // {"windows": 2}
  const std::size_t window = 39;          // after {"format": ..., "version": 1}
  const auto at = [&](std::size_t offset, std::string text) {
    return [=](std::string bytes) { return bytes.replace(offset, text.size(), text); };
  };
  struct Case {
    const char* fault;
    std::function<std::string(std::string)> damage;
    std::size_t offset;
  };
  const Case cases[] = {
      {"no window record header", [](std::string) { return std::string(); }, 0},
      {"no window record header", at(10, "X"), 0},
      {"format version 2 (this library reads version 1)", at(window - 1, "\x02"), 0},
      {"an entry from byte 39 cut short", [&](std::string b) { return b.substr(0, 100); }, 100},
      {"an entry from byte 0 cut short", [&](std::string b) { return b.substr(0, 20); }, 20},
      {"no closing entry", [&](std::string b) { return b.substr(0, closing); }, closing},
      {"bytes that are not MessagePack", at(window, "\xc1"), window},
      {"an entry from byte 39 cut short", at(window + 11, "\xdd\xff\xff\xff"), size},
      {"a malformed 'positions'", at(window + 12, "\x03"), window},
      {"a window entry without 'popped_s'", at(good.find("popped_s"), "popped_x"), window},
      {"a window that fails validation (compute_time_s must be finite and non-negative)",
       at(good.find("compute_time_s") + 14, "\xcb\xbf\xf0"), window},
      {"a closing entry whose count differs from the 2 windows stored", at(size - 1, "\x03"),
       closing},
      {"data after its closing entry", [](std::string b) { return b + '\0'; }, size},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.fault);
    try {
      cio::ParseRecord(c.damage(good), "run.record");
      ADD_FAILURE() << "no error";
    } catch (const cio::RecordFileError& error) {
      EXPECT_EQ(std::string(error.what()), "The record file 'run.record' has " +
                                               std::string(c.fault) + " at byte " +
                                               std::to_string(c.offset) + ".");
      EXPECT_EQ(error.offset_bytes(), c.offset);
    }
  }
}

TEST(WindowRecord, WriterRefusesWhatItCannotStoreAndClosesEveryFile) {
  EXPECT_THROW(cio::RecordWriter("/nonexistent/run.record"), std::system_error);
  EXPECT_THROW(cio::ReadRecord("/nonexistent/run.record"), std::system_error);
  cio::RecordWriter full("/dev/full");  // accepts the data, then cannot store it
  full.Append(Full().window, 0.0);
  EXPECT_THROW(full.Close(), std::system_error);

  const std::string path = ::testing::TempDir() + "refused.record";
  cio::RecordWriter writer(path);
  cw::WindowPayload invalid = Full().window;
  invalid.compute_time_s = -1.0;
  EXPECT_THROW(writer.Append(invalid, 0.0), std::invalid_argument);
  EXPECT_THROW(writer.Append(Full().window, NAN), std::invalid_argument);
  writer.Close();
  EXPECT_THROW(writer.Append(Full().window, 0.0), std::runtime_error);
  EXPECT_TRUE(cio::ReadRecord(path).empty());  // nothing refused reached the file

  cio::RecordWriter replaced(path);
  replaced.Append(Full().window, 0.0);
  replaced = cio::RecordWriter(path + ".next");  // closes the file it leaves
  EXPECT_EQ(cio::ReadRecord(path).size(), 1u);
}

}  // namespace
