// Arbitrary bytes read as a record file: the reader returns valid windows or refuses the bytes
// with a RecordFileError that names the file and an offset inside them. Any other exception, a
// crash or an allocation beyond the input's size is a finding.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "corvane_shaper_io/window_record.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace cio = corvane::control::io;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  try {
    for (const cio::RecordedWindow& recorded : cio::ParseRecord(bytes, "fuzz.record")) {
      corvane::control::window::ValidateWindowPayload(recorded.window);
    }
  } catch (const cio::RecordFileError& error) {
    const std::string named = "'fuzz.record' has ";
    const std::string at = " at byte " + std::to_string(error.offset_bytes()) + ".";
    const std::string message = error.what();
    if (error.offset_bytes() > size || message.find(named) == std::string::npos ||
        message.size() < at.size() ||
        message.compare(message.size() - at.size(), at.size(), at) != 0) {
      std::abort();
    }
  }
  return 0;
}
