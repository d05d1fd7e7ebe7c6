#include "plant/pose_experiment.hpp"

#include <algorithm>
#include <cmath>
#include <memory>
#include <stdexcept>

#include <corvane_shaper_engines/lifted_mpc_solver.hpp>
#include <corvane_shaper_engines/shaping_solve_session.hpp>

#include "plant/experiment.hpp"
#include "plant/lockstep.hpp"
#include "plant/residual_vibration.hpp"

namespace corvane::plant {

namespace cs = control::engines;
namespace cw = control::window;

namespace {

constexpr int kMapPoints = 13;
constexpr double kRingingElbows[] = {kLowestElbowRad, 1.2, kHighestElbowRad};
constexpr double kShoulderTurnRad = 0.25;      // each move turns the shoulder from -this to +this
constexpr double kMoveS = 0.3;                 // [s] a move at one elbow angle
constexpr double kSweepS[] = {0.3, 0.6, 1.2};  // [s] moves across the whole elbow range
constexpr double kLeadInS = 0.15;              // [s] rest before a move, beyond the lookahead
constexpr double kPoseResidualS = 0.4;         // [s] span in which the vibration is fitted
constexpr double kMarginS = 0.05;              // [s] between the longest shaper's end and the span
constexpr cs::ShaperKind kPoseKind = cs::ShaperKind::kZv;
constexpr std::size_t kShoulderMode = 0;
constexpr std::size_t kPayloadMode = 1;

Eigen::Index Samples(double seconds) { return std::lround(seconds / kSampleTimeS); }

// The band a mode spans over the map: the centre of its extremes, and their half difference.
cs::ModeBand BandOf(const ModeMap& map, std::size_t mode) {
  double low = INFINITY, high = 0.0, damping = INFINITY;
  for (const MapPoint& point : map.points()) {
    low = std::min(low, point.modes[mode].natural_frequency_hz);
    high = std::max(high, point.modes[mode].natural_frequency_hz);
    damping = std::min(damping, point.modes[mode].damping_ratio);
  }
  return {{0.5 * (low + high), damping}, (high - low) / (high + low)};
}

// The shoulder mode's change over one of its periods at a move's peak speed, 1.5 times its mean
// for a trapezoid, as a share of its mean frequency.
double ModeChangePerPeriod(const ModeMap& map, const PoseMove& move) {
  const double from = map.At(move.from)[kShoulderMode].natural_frequency_hz;
  const double to = map.At(move.to)[kShoulderMode].natural_frequency_hz;
  const double mean = 0.5 * (from + to);
  return 1.5 * std::abs(to - from) / move.duration_s / (mean * mean);
}

std::vector<PoseMove> PlanMoves(const ModeMap& map) {
  std::vector<PoseMove> moves;
  for (int point = 0; point < 5; ++point) {
    const double elbow = kLowestElbowRad + (kHighestElbowRad - kLowestElbowRad) * point / 4.0;
    moves.push_back({WorkspacePose(-kShoulderTurnRad, elbow),
                     WorkspacePose(kShoulderTurnRad, elbow), kMoveS, 0.0});
  }
  for (const double duration : kSweepS) {
    moves.push_back({WorkspacePose(-kShoulderTurnRad, kLowestElbowRad),
                     WorkspacePose(kShoulderTurnRad, kHighestElbowRad), duration, 0.0});
  }
  for (PoseMove& move : moves) move.mode_change_per_period = ModeChangePerPeriod(map, move);
  return moves;
}

PlannedBlock BlockOf(const PoseMove& move, double rest_s) {
  const Eigen::Index lead_in = Samples(kLeadInS);
  const Eigen::Index samples = Samples(move.duration_s);
  PlannedBlock block;
  block.positions.resize(lead_in + samples + Samples(rest_s), kArmJoints);
  for (Eigen::Index k = 0; k < block.positions.rows(); ++k) {
    const double s =
        std::clamp(static_cast<double>(k - lead_in + 1) / static_cast<double>(samples), 0.0, 1.0);
    block.positions.row(k) = move.from + Trapezoid(s) * (move.to - move.from);
  }
  block.move = {lead_in, samples};
  return block;
}

}  // namespace

const char* PoseShapingName(PoseShaping shaping) {
  switch (shaping) {
    case PoseShaping::kUnshaped:
      return "unshaped";
    case PoseShaping::kPayloadOnly:
      return "payload only";
    case PoseShaping::kFixed:
      return "fixed";
    case PoseShaping::kRobust:
      return "robust";
    case PoseShaping::kScheduled:
      return "scheduled";
  }
  return "?";
}

PoseExperiment::PoseExperiment()
    : arm_(kSampleTimeS, "compliant_arm.xml", kCompliantArmModel), map_(arm_, kMapPoints) {
  for (const double elbow : kRingingElbows) ringings_.push_back(CheckByRinging(arm_, elbow));
  moves_ = PlanMoves(map_);
  bands_ = {BandOf(map_, kShoulderMode), BandOf(map_, kPayloadMode)};
  const std::vector<cs::VibrationMode> tuned = map_.At(WorkspacePose(0.0, kTuningElbowRad));
  payload_only_ =
      cs::ChooseShaper(bands_[kPayloadMode].mode, bands_[kPayloadMode].frequency_uncertainty);
  fixed_ = cs::MultiModeShaper({kPoseKind, kPoseKind}, tuned);
  robust_ = cs::ChooseMultiModeShaper(bands_);
  const ModeMap& map = map_;
  schedule_.modes = [&map](const Eigen::RowVectorXd& pose) { return map.At(pose); };
  schedule_.kind = kPoseKind;
  // The slowest modes at the band's low ends, with room for the interpolation.
  cs::VibrationMode slowest_shoulder = bands_[kShoulderMode].mode;
  cs::VibrationMode slowest_payload = bands_[kPayloadMode].mode;
  slowest_shoulder.natural_frequency_hz *= 1.0 - bands_[kShoulderMode].frequency_uncertainty;
  slowest_payload.natural_frequency_hz *= 1.0 - bands_[kPayloadMode].frequency_uncertainty;
  schedule_.longest_shaper_s =
      1.1 * cs::MultiModeShaper({kPoseKind, kPoseKind}, {slowest_shoulder, slowest_payload})
                .times_s.back();
  settle_s_ = std::max({robust_.duration_s, payload_only_.duration_s, fixed_.times_s.back(),
                        schedule_.longest_shaper_s}) +
              kMarginS;
}

std::vector<PoseMoveResult> PoseExperiment::Run(std::size_t move) {
  const PoseMove& planned = moves_.at(move);
  std::vector<PoseMoveResult> results;
  for (const PoseShaping shaping : kPoseShapings) {
    results.push_back(RunShaped(planned, shaping));
    for (std::size_t mode = 0; mode < bands_.size(); ++mode) {
      results.back().ratio.push_back(results.back().residual_rad[mode] /
                                     results.front().residual_rad[mode]);
    }
  }
  return results;
}

PoseMoveResult PoseExperiment::RunShaped(const PoseMove& move, PoseShaping shaping) {
  const StreamShape shape;
  auto solver = std::make_unique<cs::LiftedMpcSolver>(kSampleTimeS, shape.lookahead_samples);
  std::unique_ptr<cw::LiftedMpcSolveSession> session;
  cs::ImpulseSequence shaper{{1.0}, {0.0}};
  switch (shaping) {
    case PoseShaping::kUnshaped:
      break;
    case PoseShaping::kPayloadOnly:
      shaper = payload_only_.shaper;
      break;
    case PoseShaping::kFixed:
      shaper = fixed_;
      break;
    case PoseShaping::kRobust:
      shaper = robust_.shaper;
      break;
    case PoseShaping::kScheduled:
      shaper = cs::ScheduledShaper(schedule_, move.to);
      session =
          std::make_unique<cs::ScheduledShapingSession>(std::move(solver), schedule_, kSampleTimeS);
      break;
  }
  if (!session) {
    session = std::make_unique<cs::ShapingSolveSession>(std::move(solver), shaper, kSampleTimeS);
  }
  const LockstepRun run = RunLockstep(arm_, {BlockOf(move, settle_s_ + kPoseResidualS + kMarginS)},
                                      std::move(session), shape, kComputeFractionLimit);
  const std::vector<cs::VibrationMode> modes = LightModes(arm_, move.to);
  const SampleSpan moved = run.moves.front();
  const SampleSpan span{moved.first + moved.count + Samples(settle_s_), Samples(kPoseResidualS)};
  PoseMoveResult result;
  result.residual_rad = {
      FittedAmplitudes(run.joints.col(0), kSampleTimeS, span, modes)[kShoulderMode],
      FittedAmplitudes(run.deflection, kSampleTimeS, span, modes)[kPayloadMode]};
  for (const cs::VibrationMode& mode : modes) {
    result.theory.push_back(SameTimeVibrationRatio(shaper, mode));
  }
  result.duration_s = shaper.times_s.back();
  result.simulated_s = static_cast<double>(run.command.rows()) * kSampleTimeS;
  result.wall_time_s = run.wall_time_s;
  return result;
}

}  // namespace corvane::plant
