// The plant experiment: the arm's payload mode, measured from a simulated free ringing and
// checked against the linearised model, then point-to-point moves streamed into the arm, first
// unshaped and then shaped, judged move by move.
#pragma once

#include <vector>

#include <Eigen/Core>
#include <corvane_shaper_engines/impulse_sequence.hpp>
#include <corvane_shaper_engines/ringing_tuning.hpp>
#include <corvane_shaper_engines/shaper_designs.hpp>

#include "plant/flexible_arm.hpp"
#include "plant/lockstep.hpp"
#include "plant/replan.hpp"

namespace corvane::plant {

// The payload mode at the arm's first pose, found two independent ways.
struct ArmMode {
  control::engines::RingingEstimate measured;  // fitted to a simulated free ringing
  control::engines::VibrationMode linearised;  // eigenvalues of the linearised arm
};

// How one move went. Tracking error is joint angle minus servo target, over all joints, from the
// move's start to the next move's (or the end of the run).
struct MoveReport {
  double tracking_rms_rad = 0.0;  // [rad] root mean square of the tracking error
  double tracking_max_rad = 0.0;  // [rad] largest tracking error
  double residual_rad = 0.0;      // [rad] payload vibration fitted at the start of residual_span
  SampleSpan residual_span;       // where the vibration is fitted: the same for every shaper
};

// A lockstep run and its moves.
struct PlantRun {
  LockstepRun stream;
  std::vector<MoveReport> moves;
};

// A shaped run of the moves, against the unshaped one.
struct ShaperTrial {
  control::engines::ShaperKind kind = control::engines::ShaperKind::kZv;
  double frequency_error = 0.0;  // [-] design frequency over the measured one, minus 1
  control::engines::ImpulseSequence shaper;
  PlantRun run;
  std::vector<double> ratios;    // [-] per move: shaped over unshaped vibration, same span
  double predicted_ratio = 0.0;  // [-] the closed form of the ratios (SameTimeVibrationRatio)
  // [-] Decay() of the measured mode over the shaper's duration: a ratio times this is the
  // shaper's residual vibration V, both vibrations taken the same time after their own move.
  double decay = 0.0;
};

// A lockstep run whose plan changed while the arm moved (replan.hpp), its re-targeted move judged
// as the planned moves are.
struct ReplanRun {
  ReplannedStream replanned;
  MoveReport retargeted;
};

// Sample period of the control loop, 1 kHz.
inline constexpr double kSampleTimeS = 1e-3;
// Where each move's residual vibration is fitted: from kSettleS after the move's end, longer than
// any shaper used here, for kResidualS.
inline constexpr double kSettleS = 0.15;   // [s]
inline constexpr double kResidualS = 0.3;  // [s]
// Compute seconds per second of window that the qualification allows.
inline constexpr double kComputeFractionLimit = 0.5;

// Share of a move done at time share s of it, for a trapezoidal velocity: constant acceleration
// over the first third, constant speed, constant deceleration over the last third.
double Trapezoid(double s);
// The pose [rad] from which move `index` starts. Elbow and wrist alternate between two mirror
// images, so the payload mode is the same at every pose; the shoulder turns freely.
Eigen::RowVectorXd MovePose(Eigen::Index index);
// A block that rests on `from` [rad] for longer than the solver looks ahead, moves to `to` [rad]
// with a trapezoidal velocity, and rests there long enough for the vibration to die out.
PlannedBlock MoveBetween(const Eigen::RowVectorXd& from, const Eigen::RowVectorXd& to);

class PlantExperiment {
 public:
  // Builds the arm, measures its payload mode, plans `moves` point-to-point moves between poses
  // that mirror one another (so they share that mode) and streams them unshaped. The planner is
  // late with every second move, so the producer holds the reference before it.
  // Throws what the arm, the tuning and the stream throw.
  explicit PlantExperiment(Eigen::Index moves);

  const ArmMode& mode() const { return mode_; }
  const PlantRun& unshaped() const { return unshaped_; }

  // Streams the same moves through the online shaping stage, with the shaper of `kind`
  // designed for the measured mode with its frequency off by frequency_error (0.2: 20 % high).
  ShaperTrial Trial(control::engines::ShaperKind kind, double frequency_error);
  // Streams a move whose goal changes in its middle and another stopped in its middle
  // (replan.hpp), through the online shaping stage when a shaper is given.
  ReplanRun Replan(const std::optional<control::engines::ImpulseSequence>& shaper);

 private:
  PlantRun Run(const std::optional<control::engines::ImpulseSequence>& shaper);

  FlexibleArm arm_;
  std::vector<PlannedBlock> plan_;
  ArmMode mode_;
  PlantRun unshaped_;
};

}  // namespace corvane::plant
