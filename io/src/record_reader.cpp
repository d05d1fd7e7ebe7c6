// ReadRecord and ParseRecord: decode a record file entry by entry, checking each against the
// layout of record_format.hpp; every fault becomes a RecordFileError naming the file and the byte.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>
#include <utility>

#include <msgpack.hpp>

#include "corvane_shaper_io/window_record.hpp"
#include "record_format.hpp"

namespace corvane::control::io {

namespace cw = control::window;

RecordFileError::RecordFileError(const std::string& message, std::string path,
                                 std::size_t offset_bytes)
    : std::runtime_error(message), path_(std::move(path)), offset_bytes_(offset_bytes) {}

RecordFileError::~RecordFileError() = default;

namespace {

// Nesting deeper than a record's own (entry, matrix or metadata, value) is corrupt.
constexpr std::size_t kMaxDepth = 4;

// Finds where a MessagePack value that failed to decode goes wrong.
struct FaultFinder : msgpack::null_visitor {
  std::size_t offset = 0;  // the first byte that cannot be decoded
  bool truncated = false;  // the data ends inside the value

  void parse_error(std::size_t /*parsed_offset*/, std::size_t error_offset) {
    offset = error_offset;
  }
  void insufficient_bytes(std::size_t /*parsed_offset*/, std::size_t /*error_offset*/) {
    truncated = true;
  }
};

// Copies the stored doubles into storage of their count (which an empty array may lack).
void CopyDoubles(const msgpack::object_bin& data, double* values) {
  if (data.size > 0) std::memcpy(values, data.ptr, data.size);
}

// Walks the entries of one record, keeping the offset of the entry being decoded.
class EntryReader {
 public:
  EntryReader(const std::string& bytes, const std::string& name) : bytes_(bytes), name_(name) {}

  std::vector<RecordedWindow> ReadAll() {
    CheckHeader(Next());
    std::vector<RecordedWindow> record;
    for (;;) {
      const msgpack::object_handle entry = Next();
      const msgpack::object_map& map = Map(entry.get(), "entry");
      if (map.size == 1 && Key(map.ptr[0]) == format::kWindowsKey) {
        CheckClosing(map, record.size());
        return record;
      }
      record.push_back(Window(map));
    }
  }

 private:
  [[noreturn]] void Fail(const std::string& what, std::size_t offset) const {
    throw RecordFileError(
        "The record file '" + name_ + "' has " + what + " at byte " + std::to_string(offset) + ".",
        name_, offset);
  }

  // Decodes the entry at the offset and moves past it. Its arrays, maps and strings may not
  // declare more elements than bytes remain, which bounds what decoding allocates.
  msgpack::object_handle Next() {
    entry_ = offset_;
    if (offset_ == bytes_.size()) {
      Fail(offset_ == 0 ? "no window record header" : "no closing entry", offset_);
    }
    const std::size_t left = bytes_.size() - offset_;
    const msgpack::unpack_limit limit(left, left, left, left, left, kMaxDepth);
    try {
      return msgpack::unpack(bytes_.data(), bytes_.size(), offset_, nullptr, nullptr, limit);
    } catch (const msgpack::unpack_error&) {
      FailUndecodable();
    }
  }

  [[noreturn]] void FailUndecodable() const {
    FaultFinder finder;
    std::size_t offset = entry_;
    if (msgpack::parse(bytes_.data(), bytes_.size(), offset, finder)) {
      Fail("an entry nested too deeply or too long", entry_);
    }
    if (finder.truncated) {
      Fail("an entry from byte " + std::to_string(entry_) + " cut short", bytes_.size());
    }
    Fail("bytes that are not MessagePack", finder.offset);
  }

  void CheckHeader(const msgpack::object_handle& header) const {
    const msgpack::object_map& map = Map(header.get(), "header");
    if (map.size != 2 || Key(map.ptr[0]) != format::kFormatKey ||
        Key(map.ptr[1]) != format::kVersionKey || Text(map.ptr[0].val) != format::kFormatName) {
      Fail("no window record header", entry_);
    }
    const std::uint64_t version = Count(map.ptr[1].val, "version");
    if (version != format::kVersion) {
      Fail("format version " + std::to_string(version) + " (this library reads version " +
               std::to_string(format::kVersion) + ")",
           entry_);
    }
  }

  void CheckClosing(const msgpack::object_map& map, std::size_t windows) const {
    if (Count(map.ptr[0].val, "closing entry") != windows) {
      Fail("a closing entry whose count differs from the " + std::to_string(windows) +
               " windows stored",
           entry_);
    }
    if (offset_ != bytes_.size()) Fail("data after its closing entry", offset_);
  }

  RecordedWindow Window(const msgpack::object_map& map) const {
    if (map.size != format::kWindowKeys)
      Fail("a window entry with missing or extra fields", entry_);
    RecordedWindow recorded;
    cw::WindowPayload& window = recorded.window;
    window.positions = Matrix(Field(map, format::kPositionsKey), format::kPositionsKey);
    window.velocities = OptionalMatrix(Field(map, format::kVelocitiesKey), format::kVelocitiesKey);
    window.accelerations =
        OptionalMatrix(Field(map, format::kAccelerationsKey), format::kAccelerationsKey);
    const msgpack::object& time = Field(map, format::kTimeKey);
    if (!time.is_nil()) window.time_s = Vector(time, format::kTimeKey);
    window.start_index = Count(Field(map, format::kStartIndexKey), format::kStartIndexKey);
    window.stop_index = Count(Field(map, format::kStopIndexKey), format::kStopIndexKey);
    window.compute_time_s = Double(Field(map, format::kComputeTimeKey), format::kComputeTimeKey);
    window.metadata = Metadata(Field(map, format::kMetadataKey));
    recorded.popped_s = Double(Field(map, format::kPoppedKey), format::kPoppedKey);
    try {
      cw::ValidateWindowPayload(window);
    } catch (const std::invalid_argument& error) {
      std::string reason = error.what();
      if (!reason.empty() && reason.back() == '.') reason.pop_back();
      Fail("a window that fails validation (" + reason + ")", entry_);
    }
    return recorded;
  }

  const msgpack::object& Field(const msgpack::object_map& map, const char* key) const {
    for (std::uint32_t i = 0; i < map.size; ++i) {
      if (Key(map.ptr[i]) == key) return map.ptr[i].val;
    }
    Fail(std::string("a window entry without '") + key + "'", entry_);
  }

  std::optional<cw::SampleMatrix> OptionalMatrix(const msgpack::object& object,
                                                 const char* field) const {
    if (object.is_nil()) return std::nullopt;
    return Matrix(object, field);
  }

  cw::SampleMatrix Matrix(const msgpack::object& object, const char* field) const {
    if (object.type != msgpack::type::ARRAY || object.via.array.size != 3) Malformed(field);
    const msgpack::object* parts = object.via.array.ptr;
    const std::uint64_t rows = Count(parts[0], field);
    const std::uint64_t cols = Count(parts[1], field);
    const msgpack::object_bin& data = Bin(parts[2], field);
    const std::uint64_t values = data.size / sizeof(double);
    // rows * cols must be the stored count, without overflow; an empty side keeps the other small.
    const bool fits = rows == 0 || cols == 0
                          ? values == 0 && rows <= UINT32_MAX && cols <= UINT32_MAX
                          : cols <= values / rows && rows * cols == values;
    if (!fits) Malformed(field);
    cw::SampleMatrix matrix(static_cast<Eigen::Index>(rows), static_cast<Eigen::Index>(cols));
    CopyDoubles(data, matrix.data());
    return matrix;
  }

  Eigen::VectorXd Vector(const msgpack::object& object, const char* field) const {
    const msgpack::object_bin& data = Bin(object, field);
    Eigen::VectorXd vector(static_cast<Eigen::Index>(data.size / sizeof(double)));
    CopyDoubles(data, vector.data());
    return vector;
  }

  const msgpack::object_bin& Bin(const msgpack::object& object, const char* field) const {
    if (object.type != msgpack::type::BIN || object.via.bin.size % sizeof(double) != 0) {
      Malformed(field);
    }
    return object.via.bin;
  }

  std::map<std::string, std::string> Metadata(const msgpack::object& object) const {
    const msgpack::object_map& map = Map(object, format::kMetadataKey);
    std::map<std::string, std::string> metadata;
    for (std::uint32_t i = 0; i < map.size; ++i) {
      if (map.ptr[i].val.type != msgpack::type::STR ||
          !metadata.emplace(Key(map.ptr[i]), Text(map.ptr[i].val)).second) {
        Malformed(format::kMetadataKey);
      }
    }
    return metadata;
  }

  const msgpack::object_map& Map(const msgpack::object& object, const char* field) const {
    if (object.type != msgpack::type::MAP) Malformed(field);
    return object.via.map;
  }

  std::string Key(const msgpack::object_kv& pair) const {
    if (pair.key.type != msgpack::type::STR) Fail("a map key that is not a string", entry_);
    return Text(pair.key);
  }

  std::uint64_t Count(const msgpack::object& object, const char* field) const {
    if (object.type != msgpack::type::POSITIVE_INTEGER) Malformed(field);
    return object.via.u64;
  }

  double Double(const msgpack::object& object, const char* field) const {
    if (object.type != msgpack::type::FLOAT64) Malformed(field);
    return object.via.f64;
  }

  static std::string Text(const msgpack::object& object) {
    if (object.type != msgpack::type::STR) return std::string();
    return std::string(object.via.str.ptr, object.via.str.size);
  }

  [[noreturn]] void Malformed(const char* field) const {
    Fail(std::string("a malformed '") + field + "'", entry_);
  }

  const std::string& bytes_;
  const std::string& name_;
  std::size_t offset_ = 0;  // where the next entry starts
  std::size_t entry_ = 0;   // where the entry being decoded starts
};

}  // namespace

std::vector<RecordedWindow> ParseRecord(const std::string& bytes, const std::string& name) {
  return EntryReader(bytes, name).ReadAll();
}

std::vector<RecordedWindow> ReadRecord(const std::string& path) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                       &std::fclose);
  if (!file) {
    throw std::system_error(errno, std::generic_category(),
                            "The record file '" + path + "' could not be opened");
  }
  std::string bytes;
  char chunk[1 << 16];
  std::size_t read = 0;
  while ((read = std::fread(chunk, 1, sizeof(chunk), file.get())) > 0) bytes.append(chunk, read);
  if (std::ferror(file.get())) {
    throw std::system_error(errno, std::generic_category(),
                            "The record file '" + path + "' could not be read");
  }
  return ParseRecord(bytes, path);
}

cw::FiniteWindowProducer ReplayProducer(const std::vector<RecordedWindow>& record) {
  std::vector<cw::WindowPayload> mainline;
  mainline.reserve(record.size());
  for (const RecordedWindow& recorded : record) mainline.push_back(recorded.window);
  return cw::FiniteWindowProducer(std::move(mainline), {});
}

}  // namespace corvane::control::io
