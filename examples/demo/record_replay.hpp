// The plant mode's records: --record saves the popped windows of a run, --replay plays a saved
// record into the simulated arm.
#pragma once

#include <string>

#include "demo/options.hpp"
#include "plant/lockstep.hpp"

namespace corvane::demo {

// Writes the windows that the run popped, with when it popped them, to a record file at path.
// Throws std::system_error naming the file when it cannot be written.
void WriteRunRecord(const std::string& path, const plant::LockstepRun& run);

// Plays the record at options.replay_path into the arm, at rest on the record's first sample,
// prints what it played, and with options.record_path records the replayed run. Throws what
// reading the record and playing it throw.
void RunReplayDemo(const DemoOptions& options);

}  // namespace corvane::demo
