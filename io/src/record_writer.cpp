// RecordWriter: encodes each appended window as one MessagePack entry and writes it at once, so
// that the file grows with the run; Close() adds the closing entry.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include <msgpack.hpp>

#include "corvane_shaper_io/window_record.hpp"
#include "record_format.hpp"

namespace corvane::control::io {

namespace cw = control::window;

struct CORVANE_HIDDEN RecordWriter::Impl {
  std::string path;
  std::FILE* file = nullptr;  // null once closed
  msgpack::sbuffer entry;     // the entry being encoded, reused from window to window
  std::size_t windows = 0;    // window entries written

  ~Impl() {
    if (file != nullptr) std::fclose(file);
  }

  // The emptied entry buffer (emptying drops what a failed encoding left).
  msgpack::sbuffer& StartEntry() {
    entry.clear();
    return entry;
  }

  // Writes the encoded entry to the file.
  void WriteEntry();
};

namespace {

using Packer = msgpack::packer<msgpack::sbuffer>;

[[noreturn]] void ThrowFileError(const std::string& path, const char* what) {
  throw std::system_error(errno, std::generic_category(),
                          "The record file '" + path + "' could not be " + what);
}

void PackKey(Packer& packer, const char* key) { packer.pack(std::string_view(key)); }

// A double as a MessagePack float64 with its exact bits. (The packer's pack_double stores a
// whole-numbered double as an integer, which would lose the sign of -0.0.)
void PackFloat64(msgpack::sbuffer& entry, double value) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof(bits));
  char bytes[9] = {static_cast<char>(0xcb)};
  for (int i = 0; i < 8; ++i) bytes[8 - i] = static_cast<char>((bits >> (8 * i)) & 0xffu);
  entry.write(bytes, sizeof(bytes));
}

void PackDoubles(Packer& packer, const double* data, Eigen::Index count) {
  const std::size_t size = static_cast<std::size_t>(count) * sizeof(double);
  if (size > UINT32_MAX) {
    throw std::invalid_argument("A recorded sample array must be smaller than 4 GiB.");
  }
  const auto bytes = static_cast<std::uint32_t>(size);
  packer.pack_bin(bytes);
  if (bytes > 0) packer.pack_bin_body(reinterpret_cast<const char*>(data), bytes);
}

void PackMatrix(Packer& packer, const std::optional<cw::SampleMatrix>& matrix) {
  if (!matrix) {
    packer.pack_nil();
    return;
  }
  packer.pack_array(3);
  packer.pack(static_cast<std::uint64_t>(matrix->rows()));
  packer.pack(static_cast<std::uint64_t>(matrix->cols()));
  PackDoubles(packer, matrix->data(), matrix->size());
}

void PackVector(Packer& packer, const std::optional<Eigen::VectorXd>& vector) {
  if (!vector) {
    packer.pack_nil();
    return;
  }
  PackDoubles(packer, vector->data(), vector->size());
}

void PackWindow(msgpack::sbuffer& entry, const cw::WindowPayload& window, double popped_s) {
  Packer packer(entry);
  packer.pack_map(format::kWindowKeys);
  PackKey(packer, format::kPositionsKey);
  PackMatrix(packer, window.positions);
  PackKey(packer, format::kVelocitiesKey);
  PackMatrix(packer, window.velocities);
  PackKey(packer, format::kAccelerationsKey);
  PackMatrix(packer, window.accelerations);
  PackKey(packer, format::kTimeKey);
  PackVector(packer, window.time_s);
  PackKey(packer, format::kStartIndexKey);
  packer.pack(static_cast<std::uint64_t>(window.start_index));
  PackKey(packer, format::kStopIndexKey);
  packer.pack(static_cast<std::uint64_t>(window.stop_index));
  PackKey(packer, format::kComputeTimeKey);
  PackFloat64(entry, window.compute_time_s);
  PackKey(packer, format::kMetadataKey);
  packer.pack(window.metadata);
  PackKey(packer, format::kPoppedKey);
  PackFloat64(entry, popped_s);
}

// Close() where nothing can report its failure: the file is then left without its closing
// entry, which the reader refuses as truncated.
void CloseQuietly(RecordWriter& writer) noexcept {
  try {
    writer.Close();
  } catch (const std::exception&) {
  }
}

}  // namespace

RecordWriter::RecordWriter(const std::string& path) : impl_(std::make_unique<Impl>()) {
  impl_->path = path;
  impl_->file = std::fopen(path.c_str(), "wb");
  if (impl_->file == nullptr) ThrowFileError(path, "created");
  Packer packer(impl_->StartEntry());
  packer.pack_map(2);
  PackKey(packer, format::kFormatKey);
  PackKey(packer, format::kFormatName);
  PackKey(packer, format::kVersionKey);
  packer.pack(format::kVersion);
  impl_->WriteEntry();
}

RecordWriter::RecordWriter(RecordWriter&& other) noexcept = default;

RecordWriter& RecordWriter::operator=(RecordWriter&& other) noexcept {
  if (this != &other) {
    CloseQuietly(*this);
    impl_ = std::move(other.impl_);
  }
  return *this;
}

RecordWriter::~RecordWriter() { CloseQuietly(*this); }

void RecordWriter::Append(const cw::WindowPayload& window, double popped_s) {
  if (!std::isfinite(popped_s)) throw std::invalid_argument("popped_s must be finite.");
  cw::ValidateWindowPayload(window);
  if (impl_->file == nullptr) {
    throw std::runtime_error("Append() must not be called after Close().");
  }
  PackWindow(impl_->StartEntry(), window, popped_s);
  impl_->WriteEntry();
  ++impl_->windows;
}

void RecordWriter::Close() {
  if (!impl_ || impl_->file == nullptr) return;  // closed, or moved from
  Packer packer(impl_->StartEntry());
  packer.pack_map(1);
  PackKey(packer, format::kWindowsKey);
  packer.pack(static_cast<std::uint64_t>(impl_->windows));
  impl_->WriteEntry();
  std::FILE* file = std::exchange(impl_->file, nullptr);
  if (std::fclose(file) != 0) ThrowFileError(impl_->path, "closed");
}

std::size_t RecordWriter::windows() const { return impl_->windows; }

const std::string& RecordWriter::path() const { return impl_->path; }

void RecordWriter::Impl::WriteEntry() {
  const std::size_t written = std::fwrite(entry.data(), 1, entry.size(), file);
  if (written != entry.size()) ThrowFileError(path, "written");
}

}  // namespace corvane::control::io
