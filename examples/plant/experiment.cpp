#include "plant/experiment.hpp"

#include <algorithm>
#include <cmath>

namespace corvane::plant {

namespace cs = control::engines;

namespace {

// Poses [rad] of shoulder, elbow and wrist. Elbow and wrist alternate between two mirror images,
// so the payload mode is the same at every pose; the shoulder turns freely, which does not
// change the mode either.
constexpr double kElbow = 0.2;
constexpr double kWrist = -0.15;
constexpr double kShoulders[] = {-0.3, 0.25, -0.1, 0.3, -0.2};

// A block rests before its move for longer than the solver looks ahead, so that the solver
// previews every move, also one that the planner appends late.
constexpr double kLeadInS = 0.15;         // [s] rest before each move
constexpr double kMoveS = 0.3;            // [s] each move
constexpr double kRestS = 1.0;            // [s] rest after each move, for the vibration to die out
constexpr Eigen::Index kLateWindows = 8;  // how late the planner is with every second move
constexpr double kRingingS = 1.0;         // [s] free ringing recorded for the mode

Eigen::Index Samples(double seconds) { return std::lround(seconds / kSampleTimeS); }

PlannedBlock MoveBlock(Eigen::Index index) {
  PlannedBlock block = MoveBetween(MovePose(index), MovePose(index + 1));
  block.late_windows = index % 2 == 1 ? kLateWindows : 0;
  return block;
}

std::vector<MoveReport> JudgeMoves(const LockstepRun& run, const cs::VibrationMode& mode) {
  std::vector<MoveReport> reports;
  for (std::size_t move = 0; move < run.moves.size(); ++move) {
    const SampleSpan span = run.moves[move];
    const Eigen::Index stop =
        move + 1 < run.moves.size() ? run.moves[move + 1].first : run.command.rows();
    const Eigen::MatrixXd error =
        (run.joints - run.command).middleRows(span.first, stop - span.first);
    MoveReport report;
    report.tracking_rms_rad = std::sqrt(error.squaredNorm() / static_cast<double>(error.size()));
    report.tracking_max_rad = error.cwiseAbs().maxCoeff();
    report.residual_span = {span.first + span.count + Samples(kSettleS), Samples(kResidualS)};
    report.residual_rad = FittedAmplitude(run.deflection, kSampleTimeS, report.residual_span, mode);
    reports.push_back(report);
  }
  return reports;
}

}  // namespace

double Trapezoid(double s) {
  if (s < 1.0 / 3.0) return 2.25 * s * s;
  if (s < 2.0 / 3.0) return 0.25 + 1.5 * (s - 1.0 / 3.0);
  return 1.0 - 2.25 * (1.0 - s) * (1.0 - s);
}

Eigen::RowVectorXd MovePose(Eigen::Index index) {
  const double mirror = index % 2 == 0 ? 1.0 : -1.0;
  Eigen::RowVectorXd pose(kArmJoints);
  pose << kShoulders[static_cast<std::size_t>(index) % std::size(kShoulders)], mirror * kElbow,
      mirror * kWrist;
  return pose;
}

PlannedBlock MoveBetween(const Eigen::RowVectorXd& from, const Eigen::RowVectorXd& to) {
  const Eigen::Index lead_in = Samples(kLeadInS);
  const Eigen::Index move = Samples(kMoveS);
  PlannedBlock block;
  block.positions.resize(lead_in + move + Samples(kRestS), kArmJoints);
  for (Eigen::Index k = 0; k < block.positions.rows(); ++k) {
    const double s =
        std::clamp(static_cast<double>(k - lead_in + 1) / static_cast<double>(move), 0.0, 1.0);
    block.positions.row(k) = from + Trapezoid(s) * (to - from);
  }
  block.move = {lead_in, move};
  return block;
}

PlantExperiment::PlantExperiment(Eigen::Index moves) : arm_(kSampleTimeS) {
  for (Eigen::Index index = 0; index < moves; ++index) plan_.push_back(MoveBlock(index));
  mode_.measured =
      cs::EstimateRinging(arm_.FreeRinging(MovePose(0), kRingingS), 1.0 / kSampleTimeS);
  mode_.linearised = arm_.LinearisedMode(MovePose(0));
  unshaped_ = Run(std::nullopt);
}

ShaperTrial PlantExperiment::Trial(cs::ShaperKind kind, double frequency_error) {
  const cs::VibrationMode& measured = mode_.measured.mode;
  cs::VibrationMode design = measured;
  design.natural_frequency_hz *= 1.0 + frequency_error;
  ShaperTrial trial{kind, frequency_error, cs::DesignShaper(kind, design), {}, {}, 0.0, 0.0};
  trial.run = Run(trial.shaper);
  for (std::size_t move = 0; move < trial.run.moves.size(); ++move) {
    trial.ratios.push_back(trial.run.moves[move].residual_rad / unshaped_.moves[move].residual_rad);
  }
  trial.predicted_ratio = SameTimeVibrationRatio(trial.shaper, measured);
  trial.decay = Decay(measured, trial.shaper.times_s.back());
  return trial;
}

ReplanRun PlantExperiment::Replan(const std::optional<cs::ImpulseSequence>& shaper) {
  ReplanRun run{RunReplanned(arm_, shaper, kComputeFractionLimit), {}};
  run.retargeted = JudgeMoves(run.replanned.stream, mode_.measured.mode).front();
  return run;
}

PlantRun PlantExperiment::Run(const std::optional<cs::ImpulseSequence>& shaper) {
  PlantRun run;
  run.stream = RunLockstep(arm_, plan_, shaper, StreamShape{}, kComputeFractionLimit);
  run.moves = JudgeMoves(run.stream, mode_.measured.mode);
  return run;
}

}  // namespace corvane::plant
