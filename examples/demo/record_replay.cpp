#include "demo/record_replay.hpp"

#include <cstdio>

#include <corvane_shaper_io/window_record.hpp>

#include "plant/experiment.hpp"
#include "plant/playback.hpp"

namespace corvane::demo {

namespace cio = control::io;

void WriteRunRecord(const std::string& path, const plant::LockstepRun& run) {
  cio::RecordWriter writer(path);
  for (const cio::RecordedWindow& popped : run.popped)
    writer.Append(popped.window, popped.popped_s);
  writer.Close();
  std::printf("\nRecorded %zu windows to %s\n", run.popped.size(), path.c_str());
}

void RunReplayDemo(const DemoOptions& options) {
  const std::vector<cio::RecordedWindow> record = cio::ReadRecord(options.replay_path);
  if (record.empty()) {
    std::printf("corvane-window-demo: %s holds no windows to replay\n",
                options.replay_path.c_str());
    return;
  }
  plant::FlexibleArm arm(plant::kSampleTimeS);
  const plant::LockstepRun run =
      plant::PlayRecord(arm, record, record.front().window.positions.row(0));
  std::printf(
      "corvane-window-demo: replayed %zu windows (%ld samples) from %s into the simulated arm;\n"
      "payload deflection at most %.4f mrad\n",
      run.popped.size(), static_cast<long>(run.command.rows()), options.replay_path.c_str(),
      1e3 * run.deflection.cwiseAbs().maxCoeff());
  if (!options.record_path.empty()) WriteRunRecord(options.record_path, run);
}

}  // namespace corvane::demo
