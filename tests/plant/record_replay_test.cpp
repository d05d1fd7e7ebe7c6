// A run of the simulated arm, recorded to a file and played into the arm again, moves it exactly
// as the run did.
#include <gtest/gtest.h>

#include "corvane_shaper_io/window_record.hpp"
#include "plant/experiment.hpp"
#include "plant/playback.hpp"
#include "support/same_bits.hpp"

namespace {

namespace cp = corvane::plant;
namespace cio = corvane::control::io;
using corvane::testing::SameBits;

TEST(RecordReplay, RecordedRunReplaysIntoThePlantWithIdenticalSamples) {
  const cp::PlantExperiment experiment(1);
  const cp::LockstepRun& recorded = experiment.unshaped().stream;
  const std::string path = ::testing::TempDir() + "plant_run.record";
  cio::RecordWriter writer(path);
  for (const cio::RecordedWindow& popped : recorded.popped) {
    writer.Append(popped.window, popped.popped_s);
  }
  writer.Close();

  cp::FlexibleArm arm(cp::kSampleTimeS);
  const cp::LockstepRun replayed =
      cp::PlayRecord(arm, cio::ReadRecord(path), recorded.reference.row(0));
  ASSERT_GT(recorded.command.rows(), 1000);
  EXPECT_TRUE(SameBits(replayed.command, recorded.command));
  EXPECT_TRUE(SameBits(replayed.joints, recorded.joints));
  EXPECT_TRUE(SameBits(replayed.deflection, recorded.deflection));
}

}  // namespace
