// Lockstep co-simulation: a control loop that streams a planned reference through the lifted-MPC
// path (AppendableLiftedMpcWindowProducer behind an AppendableWindowBuffer) and plays every
// sample of every popped window into the simulated arm, on simulated time.
//
// The loop is also the planner. Before each pop it appends the planned blocks that the worker
// could otherwise reach, so no solve ever sees a reference that later changes. A block marked
// late is held back instead: the producer holds the last sample until the worker has filled the
// queue with held windows, late_windows pops later the loop appends the block. Held samples and
// results are therefore the same on every run, however the threads are scheduled.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <Eigen/Core>
#include <corvane_shaper_engines/impulse_sequence.hpp>
#include <corvane_shaper_io/window_record.hpp>
#include <window/async_buffer.hpp>
#include <window/producers.hpp>
#include <window/records.hpp>
#include <window/reference_buffer.hpp>
#include <window/timing_log.hpp>

#include "plant/flexible_arm.hpp"
#include "plant/residual_vibration.hpp"

namespace corvane::plant {

// A block of reference that the planner appends in one piece: a move, with rest around it.
struct PlannedBlock {
  control::window::SampleMatrix positions;  // [rad] a row a sample period, kArmJoints columns
  SampleSpan move;                          // the rows in which the reference moves
  Eigen::Index late_windows = 0;  // windows for which the producer holds before this block comes
};

// How the lifted-MPC producer cuts the stream.
struct StreamShape {
  Eigen::Index apply_samples = 10;       // rows a window
  Eigen::Index lookahead_samples = 100;  // reference rows a solve sees
  // Capacity of the window queue. A deep queue lets the worker run ahead in bursts, so the loop
  // waits for it far less often: on a busy machine that decides the loop's speed.
  Eigen::Index queue_windows = 32;
};

// What a lockstep run played and what the arm did; a row or entry a sample.
struct LockstepRun {
  control::window::SampleMatrix reference;  // [rad] the stored reference, held samples included
  control::window::SampleMatrix command;    // [rad] servo targets played
  control::window::SampleMatrix joints;     // [rad] joint angles at the end of each sample
  Eigen::VectorXd deflection;               // [rad] payload deflection at the end of each sample
  std::vector<SampleSpan> holds;            // samples of the reference the producer held
  std::vector<SampleSpan> moves;            // where each block's move lies in the reference
  control::window::QualificationReport qualification;
  control::window::ReplacementTotals replacements;    // what the planner's replacements discarded
  std::vector<control::window::WindowTiming> timing;  // every window's timing, in the order popped
  double wall_time_s = 0.0;  // [s] steady-clock time of the run, for its speed only
  // Every popped window, with when the loop popped it [s since it began popping].
  std::vector<control::io::RecordedWindow> popped;
};

// Starts the arm at rest on the first planned row and plays the plan through the lifted-MPC
// solver, with the online shaping stage in front of it when a shaper is given. Qualifies the
// stream at compute_fraction_limit. Throws std::runtime_error when no window comes for 5 s, and
// passes on the buffer's failures.
LockstepRun RunLockstep(FlexibleArm& arm, const std::vector<PlannedBlock>& plan,
                        const std::optional<control::engines::ImpulseSequence>& shaper,
                        StreamShape shape, double compute_fraction_limit);

// The planning half of a lockstep loop: called with 0 before the buffer starts, then before each
// pop with the windows popped so far.
using BeforePop = std::function<void(Eigen::Index popped)>;
// Makes the planning half of a run from the run's buffer, the reference stored behind it and the
// run it may record into.
using PlannerFactory =
    std::function<BeforePop(control::window::AppendableWindowBuffer&,
                            control::window::AppendableReferenceBuffer&, LockstepRun&)>;

// The same loop with a planner of the caller's, the arm starting at rest on rest_pose [rad].
// Throws as RunLockstep does, and passes on what the planner throws.
LockstepRun RunLockstep(FlexibleArm& arm, const Eigen::RowVectorXd& rest_pose,
                        const PlannerFactory& make_planner,
                        const std::optional<control::engines::ImpulseSequence>& shaper,
                        StreamShape shape, double compute_fraction_limit);

// The two loops above with the solver session given: a lifted-MPC solver behind any shaping
// stage, say a scheduled one. Throw std::invalid_argument for a null solver, and as above.
LockstepRun RunLockstep(FlexibleArm& arm, const std::vector<PlannedBlock>& plan,
                        std::unique_ptr<control::window::LiftedMpcSolveSession> solver,
                        StreamShape shape, double compute_fraction_limit);
LockstepRun RunLockstep(FlexibleArm& arm, const Eigen::RowVectorXd& rest_pose,
                        const PlannerFactory& make_planner,
                        std::unique_ptr<control::window::LiftedMpcSolveSession> solver,
                        StreamShape shape, double compute_fraction_limit);

}  // namespace corvane::plant
