// A plan that changes while the arm moves. The lockstep loop plans a move and, in its middle, at
// the earliest sample that the buffer lets it replace, changes the shoulder's goal
// (AppendableWindowBuffer::ReplaceReference): the new plan follows the old one for a lookahead,
// so that the solver previews the change as it previews every move, then turns without a kink to
// the new goal and continues with a second move. In the middle of that one the loop stops the arm
// (StopSmoothly). Both changes fall on fixed pops, so the windows played, and every figure
// but the discarded windows, are the same on every run.
#pragma once

#include <optional>
#include <vector>

#include <Eigen/Core>
#include <corvane_shaper_engines/impulse_sequence.hpp>
#include <window/replacement.hpp>

#include "plant/flexible_arm.hpp"
#include "plant/lockstep.hpp"

namespace corvane::plant {

// [rad] how far beyond the planned goal the new plan takes the shoulder.
inline constexpr double kRetargetShoulderRad = 0.3;

// One change of plan, as the buffer reported it.
struct PlanChange {
  control::window::ReferenceReplacement replacement;
  // [rad] the plan it replaced, from replacement.start_index on
  control::window::SampleMatrix replaced;
};

// The largest change of the command from one sample to the next, over the joints.
struct CommandSteps {
  double position_rad = 0.0;         // [rad]
  double velocity_rad_s = 0.0;       // [rad/s]
  double acceleration_rad_s2 = 0.0;  // [rad/s^2]
};

// The command's step into the first sample produced again after a change, against the largest
// step between any two other successive samples of the run.
struct JoinSteps {
  CommandSteps at_join;
  CommandSteps elsewhere;
};

// How the smooth stop brought the arm to rest.
struct StopFigures {
  Eigen::Index braking_samples = 0;    // from the stop's first sample until the plan rests
  double braking_distance_rad = 0.0;   // [rad] rest less the plan's last sample kept, largest
  double peak_deflection_rad = 0.0;    // [rad] largest payload deflection from the stop on
  double moving_deflection_rad = 0.0;  // [rad] largest payload deflection before the changes
};

// A lockstep run whose plan changed twice: first the goal, then a stop.
struct ReplannedStream {
  LockstepRun stream;               // its moves: the re-targeted move alone, as re-planned
  std::vector<PlanChange> changes;  // the new goal, then the stop
  std::vector<JoinSteps> joins;     // at each change's resume_index, in the same order
  CommandSteps before_changes;      // the largest steps before the first join
  StopFigures stop;
};

// Plays the plan above through the lifted-MPC solver, behind the online shaping stage when a
// shaper is given, and qualifies the stream at compute_fraction_limit. Throws what RunLockstep
// and the replacements throw.
ReplannedStream RunReplanned(FlexibleArm& arm,
                             const std::optional<control::engines::ImpulseSequence>& shaper,
                             double compute_fraction_limit);

}  // namespace corvane::plant
