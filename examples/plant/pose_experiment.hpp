// The pose experiment: point-to-point moves of the arm on a compliant shoulder at poses spread
// over its workspace, streamed unshaped and with four ways of shaping, each move judged per mode
// against the closed form for the mode at its pose.
#pragma once

#include <cstddef>
#include <vector>

#include <Eigen/Core>
#include <corvane_shaper_engines/multi_mode_shaper.hpp>
#include <corvane_shaper_engines/ringing_tuning.hpp>
#include <corvane_shaper_engines/scheduled_shaping_session.hpp>

#include "plant/flexible_arm.hpp"
#include "plant/mode_map.hpp"

namespace corvane::plant {

// How a run is shaped.
enum class PoseShaping {
  kUnshaped,
  kPayloadOnly,  // ChooseShaper() for the payload mode's band alone: one mode, as tools tune today
  kFixed,        // ZV for each mode at the tuning pose, convolved
  kRobust,       // ChooseMultiModeShaper() over each mode's band across the workspace
  kScheduled,    // ZV for each mode at the pose, following the motion by the mode map
};

inline constexpr PoseShaping kPoseShapings[] = {PoseShaping::kUnshaped, PoseShaping::kPayloadOnly,
                                                PoseShaping::kFixed, PoseShaping::kRobust,
                                                PoseShaping::kScheduled};

// "unshaped", "payload only", "fixed", "robust" or "scheduled".
const char* PoseShapingName(PoseShaping shaping);

// A move between two poses, with a trapezoidal velocity.
struct PoseMove {
  Eigen::RowVectorXd from;  // [rad]
  Eigen::RowVectorXd to;    // [rad]
  double duration_s = 0.0;  // [s]
  // [-] the largest change of the shoulder mode's frequency over one of its periods, as a share
  // of it: 0 when the elbow stays put.
  double mode_change_per_period = 0.0;
};

// One move under one shaping; per mode, the shoulder's then the payload's.
struct PoseMoveResult {
  std::vector<double> residual_rad;  // [rad] fitted at the span's start (shoulder angle, payload)
  std::vector<double> ratio;         // [-] shaped over unshaped vibration, in the same span
  std::vector<double> theory;  // [-] SameTimeVibrationRatio() of the shaper at the end pose, on
                               // the linearised mode there
  double duration_s = 0.0;     // [s] the shaper's duration at the move's end pose
  double simulated_s = 0.0;    // [s] of motion simulated
  double wall_time_s = 0.0;    // [s] the lockstep run took
};

class PoseExperiment {
 public:
  // Builds the arm from compliant_arm.xml, maps its modes over the workspace, checks the map by
  // free ringings at three poses, and designs the shapers. Throws what the arm and the engines
  // throw.
  PoseExperiment();

  const ModeMap& map() const { return map_; }
  const std::vector<RingingCheck>& ringings() const { return ringings_; }
  const std::vector<PoseMove>& moves() const { return moves_; }
  // [rad] the elbow angle at which the fixed designs are tuned.
  static constexpr double kTuningElbowRad = 1.2;
  const control::engines::ShaperChoice& payload_only() const { return payload_only_; }
  const control::engines::MultiModeChoice& robust() const { return robust_; }
  const control::engines::ShaperSchedule& schedule() const { return schedule_; }
  // Each mode's band over the workspace, the shoulder's then the payload's.
  const std::vector<control::engines::ModeBand>& bands() const { return bands_; }

  // Streams move `move` (an index into moves()) under every shaping, in kPoseShapings' order, each
  // from rest on its first pose. Throws std::out_of_range for a bad index, and what the stream
  // throws.
  std::vector<PoseMoveResult> Run(std::size_t move);

 private:
  PoseMoveResult RunShaped(const PoseMove& move, PoseShaping shaping);

  FlexibleArm arm_;
  ModeMap map_;
  std::vector<RingingCheck> ringings_;
  std::vector<PoseMove> moves_;
  std::vector<control::engines::ModeBand> bands_;
  control::engines::ShaperChoice payload_only_;
  control::engines::ImpulseSequence fixed_;
  control::engines::MultiModeChoice robust_;
  control::engines::ShaperSchedule schedule_;
  double settle_s_ = 0.0;  // [s] from a move's end to its residual span
};

}  // namespace corvane::plant
