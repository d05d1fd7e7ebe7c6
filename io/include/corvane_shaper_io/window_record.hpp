// Records of a run: the windows a control loop popped, with when it popped them, saved to a file
// and read back as a producer that plays exactly the same samples. docs/records.md documents the
// file format (MessagePack entries: a header with the format's version, one entry per window, a
// closing entry with the window count).
#pragma once

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <native/export.hpp>
#include <window/producers.hpp>
#include <window/records.hpp>

namespace corvane::control::io {

// One popped window of a recorded run.
struct RecordedWindow {
  control::window::WindowPayload window;  // the window as the loop popped it
  double popped_s = 0.0;  // [s] when the loop popped it, on the recording caller's clock
};

// A record file that is truncated, corrupt or of another version. The message is one sentence
// that names the file and the byte offset at fault.
class CORVANE_EXPORT RecordFileError : public std::runtime_error {
 public:
  // path: the file (or the name given to ParseRecord). offset_bytes: where the fault lies.
  RecordFileError(const std::string& message, std::string path, std::size_t offset_bytes);
  ~RecordFileError() override;

  // The file at fault.
  const std::string& path() const noexcept { return path_; }
  // [bytes] from the file's start to the fault.
  std::size_t offset_bytes() const noexcept { return offset_bytes_; }

 private:
  std::string path_;
  std::size_t offset_bytes_;
};

// Writes a record file as a run goes: each Append() writes one window to the file, Close() the
// closing entry. Append() allocates (it encodes the window into a buffer and writes it), so it
// belongs on the loop's non-real-time side, or behind a buffer of popped windows. A file whose
// writer was never closed lacks its closing entry, and the reader refuses it as truncated.
// Used from one thread at a time.
class CORVANE_EXPORT RecordWriter {
 public:
  // Creates the file at path (replacing one that exists) and writes the header. Throws
  // std::system_error naming the file when it cannot be created or written.
  explicit RecordWriter(const std::string& path);
  // Takes over the other writer's file; the other may only be destroyed or assigned to.
  RecordWriter(RecordWriter&& other) noexcept;
  // Closes this writer's file as the destructor does, then takes over the other's.
  RecordWriter& operator=(RecordWriter&& other) noexcept;
  RecordWriter(const RecordWriter&) = delete;
  RecordWriter& operator=(const RecordWriter&) = delete;
  // Closes the file if Close() has not; an error then is lost, so call Close() to see it.
  ~RecordWriter();

  // Appends one popped window. popped_s: [s] when the loop popped it, finite. Throws
  // std::invalid_argument naming popped_s or, with the validator's message, the invalid window;
  // std::runtime_error after Close(); std::system_error naming the file when writing fails.
  void Append(const control::window::WindowPayload& window, double popped_s);
  // Writes the closing entry and closes the file; a second call does nothing. Throws
  // std::system_error naming the file when writing or closing fails.
  void Close();
  // Windows appended so far.
  std::size_t windows() const;
  // The file written.
  const std::string& path() const;

 private:
  struct CORVANE_HIDDEN Impl;
  std::unique_ptr<Impl> impl_;
};

// Every window of the record file at path, in the order they were appended. Throws
// RecordFileError when the file is truncated, corrupt, holds an invalid window or is of another
// version, and std::system_error naming the file when it cannot be read.
std::vector<RecordedWindow> CORVANE_EXPORT ReadRecord(const std::string& path);

// The windows of a record held in memory; name stands for the file in error messages. Throws
// RecordFileError as ReadRecord does.
std::vector<RecordedWindow> CORVANE_EXPORT ParseRecord(const std::string& bytes,
                                                       const std::string& name);

// A producer that replays the recorded windows, in order, through ProduceNext: the same
// samples, ranges, compute times and metadata as were popped.
control::window::FiniteWindowProducer CORVANE_EXPORT
ReplayProducer(const std::vector<RecordedWindow>& record);

}  // namespace corvane::control::io
