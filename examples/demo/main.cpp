// corvane-window-demo: a 6-joint arm's point-to-point moves, played window by window through
// the library's buffers by a real-time control loop. See --help for the modes and options.
#include <cstdio>
#include <exception>

#include "demo/modes.hpp"
#include "demo/options.hpp"
#include "demo/plant_mode.hpp"
#include "demo/poses_mode.hpp"
#include "demo/record_replay.hpp"
#include "demo/report.hpp"
#include "demo/timing.hpp"

namespace demo = corvane::demo;

int main(int argc, char** argv) {
  demo::DemoOptions options;
  try {
    options = demo::ParseOptions(argc, argv);
  } catch (const demo::UsageError& error) {
    std::fprintf(stderr, "corvane-window-demo: %s\n", error.what());
    return 2;
  }
  if (options.help) {
    std::fputs(demo::kUsage, stdout);
    return 0;
  }
  try {
    if (options.mode == demo::Mode::kPlant) {
      if (options.replay_path.empty()) {
        demo::RunPlantDemo(options);
      } else {
        demo::RunReplayDemo(options);
      }
      return 0;
    }
    if (options.mode == demo::Mode::kPoses) {
      demo::RunPosesDemo(options);
      return 0;
    }
    demo::PrintHeader(options);
    const demo::DemoRun run = demo::RunDemo(options);
    demo::PrintReport(options, run);
    if (!options.csv_path.empty()) demo::WriteCsv(options.csv_path, run, options.sample_time_s());
    if (!options.plot_path.empty()) {
      demo::WritePlot(options.plot_path, run, options.sample_time_s());
    }
    if (!options.timing_path.empty()) {
      demo::WriteTimingCsv(options.timing_path, run.timing);
      if (!options.plot_path.empty()) {
        demo::WriteTimingPlot(demo::TimingPlotPath(options.plot_path), run.timing,
                              run.playback.pop_latencies_s, run.playback.late_windows);
      }
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "corvane-window-demo: %s\n", error.what());
    return 1;
  }
  return 0;
}
