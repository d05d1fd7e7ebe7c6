// The demo's three ways of making windows for the same planned motion.
#pragma once

#include <cstddef>

#include <window/async_buffer.hpp>
#include <window/records.hpp>

#include "demo/control_loop.hpp"
#include "demo/options.hpp"
#include "demo/timing.hpp"

namespace corvane::demo {

struct DemoRun {
  control::window::SampleMatrix reference;  // what the command followed, a row per played sample
  control::window::SampleMatrix shaped_reference;  // with --shape: the reference shaped, else empty
  Playback playback;
  std::size_t hold_samples = 0;  // reference samples the producer held beyond the planner's
  control::window::QualificationReport qualification;
  double wall_time_s = 0.0;  // [s] from planning to the last window
  TimingRecord timing;       // with --timing: every window's timing, else empty
};

// Plans the point-to-point motion and plays it through the engine of options.mode.
DemoRun RunDemo(const DemoOptions& options);

// Compute seconds per second of window that the qualification allows.
inline constexpr double kComputeFractionLimit = 0.5;

}  // namespace corvane::demo
