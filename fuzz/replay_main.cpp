// Runs a fuzzer's inputs once each without libFuzzer, so that the seed corpus is a regression
// test in every build: the files named on the command line and every file in the folders named
// there. A broken property aborts, as it does under libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

// Replays the file at `path`, or every file in the folder there; returns how many inputs ran.
std::size_t Replay(const std::filesystem::path& path) {
  std::size_t inputs = 0;
  if (std::filesystem::is_directory(path)) {
    for (const auto& entry : std::filesystem::directory_iterator(path)) inputs += Replay(entry);
    return inputs;
  }
  std::ifstream stream(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t inputs = 0;
  for (int i = 1; i < argc; ++i) inputs += Replay(argv[i]);
  std::printf("%zu inputs replayed\n", inputs);
  return inputs > 0 ? 0 : 1;  // an empty corpus checks nothing
}
