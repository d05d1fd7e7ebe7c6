// A separate project's use of the installed libraries: replay two windows through a buffer,
// catch an error thrown across the library boundary, design a shaper with the engines and read
// back a record of the windows.
#include <cstdio>
#include <memory>
#include <vector>

#include <corvane_shaper_engines/shaper_designs.hpp>
#include <corvane_shaper_io/window_record.hpp>
#include <window/async_buffer.hpp>
#include <window/version.hpp>

namespace cw = corvane::control::window;

int main() {
  std::vector<cw::WindowPayload> mainline(2);
  for (std::size_t i = 0; i < mainline.size(); ++i) {
    mainline[i].positions = cw::SampleMatrix::Constant(3, 2, static_cast<double>(i));
    mainline[i].start_index = 3 * i;
    mainline[i].stop_index = 3 * i + 3;
  }
  cw::AsyncWindowBuffer buffer(
      std::make_unique<cw::FiniteWindowProducer>(mainline, std::vector<cw::WindowPayload>{}));
  buffer.Start();
  std::size_t popped = 0;
  {
    corvane::control::io::RecordWriter writer("consumer.record");
    while (const auto window = buffer.Pop()) writer.Append(*window, static_cast<double>(popped++));
  }
  const std::size_t recorded = corvane::control::io::ReadRecord("consumer.record").size();
  try {
    cw::ValidateTaskSpaceShapedTrajectory(cw::TaskSpaceShapedTrajectory{});
    return 1;
  } catch (const corvane::native::Error& error) {
    std::printf("consumer of %s: %zu windows popped; caught \"%s\"\n",
                CORVANE_SHAPER_WINDOW_VERSION_STRING, popped, error.what());
  }
  namespace engines = corvane::control::engines;
  const double vibration = engines::ResidualVibration(engines::ZvdShaper({5.0, 0.1}), {5.0, 0.1});
  std::printf("consumer: ZVD leaves %.1e of the vibration\n", vibration);
  return popped == 2 && recorded == 2 && vibration < 1e-12 ? 0 : 1;
}
