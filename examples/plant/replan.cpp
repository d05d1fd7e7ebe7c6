#include "plant/replan.hpp"

#include <algorithm>
#include <memory>

#include "plant/experiment.hpp"

namespace corvane::plant {

namespace cw = control::window;
namespace cs = control::engines;

namespace {

Eigen::Index MiddleOf(SampleSpan span) { return span.first + span.count / 2; }

// The planning half of the loop: appends the first move, changes its goal in its middle and stops
// the second move in its middle, each from the earliest sample the buffer allows.
class ReplanPlanner {
 public:
  ReplanPlanner(cw::AppendableWindowBuffer& buffer, StreamShape shape,
                std::vector<PlanChange>& changes, LockstepRun& run)
      : buffer_(buffer),
        lookahead_(shape.lookahead_samples),
        changes_(changes),
        run_(run),
        first_(MoveBetween(MovePose(0), MovePose(1))),
        shift_(Eigen::RowVectorXd::Unit(kArmJoints, 0) * kRetargetShoulderRad),
        second_(MoveBetween(MovePose(1) + shift_, MovePose(2))),
        retarget_pop_(MiddleOf(first_.move) / shape.apply_samples),
        stop_pop_((first_.positions.rows() + MiddleOf(second_.move)) / shape.apply_samples) {}

  void BeforePop(Eigen::Index popped) {
    if (!appended_) {
      buffer_.AppendReference(first_.positions);
      appended_ = true;
    }
    if (popped == retarget_pop_ && changes_.empty()) Retarget();
    if (popped == stop_pop_ && changes_.size() == 1) Stop();
  }

 private:
  // From the join on, the first move goes on as planned and, a lookahead later, adds a move of
  // the shoulder by shift_ as fast as the planned move; the second move follows from the new goal.
  void Retarget() {
    const std::size_t start = buffer_.EarliestReplaceableIndex();
    const cw::SampleMatrix before = buffer_.ReferencePositions();
    const auto join = static_cast<Eigen::Index>(start);
    const Eigen::Index rest = first_.positions.rows() - join;
    const PlannedBlock shift = MoveBetween(Eigen::RowVectorXd::Zero(kArmJoints), shift_);
    cw::SampleMatrix plan(rest + second_.positions.rows(), kArmJoints);
    plan << first_.positions.bottomRows(rest) +
                shift.positions.middleRows(shift.move.first - lookahead_, rest),
        second_.positions;
    Record(buffer_.ReplaceReference(start, plan), before);
    const Eigen::Index stop =
        std::max(first_.move.first + first_.move.count, join + lookahead_ + shift.move.count);
    run_.moves = {{first_.move.first, stop - first_.move.first}};
  }

  // The plan brakes to rest and holds there for as long as a planned move rests after it.
  void Stop() {
    const cw::SampleMatrix before = buffer_.ReferencePositions();
    const SampleSpan move = second_.move;
    const auto rest = static_cast<std::size_t>(second_.positions.rows() - move.first - move.count);
    Record(buffer_.StopSmoothly(rest), before);
  }

  void Record(const cw::ReferenceReplacement& replacement, const cw::SampleMatrix& before) {
    const auto start = static_cast<Eigen::Index>(replacement.start_index);
    changes_.push_back({replacement, before.bottomRows(before.rows() - start)});
  }

  cw::AppendableWindowBuffer& buffer_;
  const Eigen::Index lookahead_;  // samples the solver looks ahead
  std::vector<PlanChange>& changes_;
  LockstepRun& run_;
  const PlannedBlock first_;
  const Eigen::RowVectorXd shift_;  // [rad] the new goal less the planned one
  const PlannedBlock second_;
  const Eigen::Index retarget_pop_;  // pops before the goal changes
  const Eigen::Index stop_pop_;      // pops before the stop
  bool appended_ = false;
};

// The largest change over the joints from sample k to sample k + 1, a row per k.
Eigen::VectorXd Steps(const cw::SampleMatrix& series) {
  const Eigen::Index rows = series.rows() - 1;
  return (series.bottomRows(rows) - series.topRows(rows)).cwiseAbs().rowwise().maxCoeff();
}

// One of the popped windows' optional series end to end, a row a sample; zeros where a window
// lacks it.
cw::SampleMatrix PoppedSeries(const LockstepRun& run,
                              std::optional<cw::SampleMatrix> cw::WindowPayload::*series) {
  cw::SampleMatrix rows = cw::SampleMatrix::Zero(run.command.rows(), kArmJoints);
  Eigen::Index first = 0;
  for (const control::io::RecordedWindow& popped : run.popped) {
    const cw::WindowPayload& window = popped.window;
    if (window.*series) rows.middleRows(first, window.positions.rows()) = *(window.*series);
    first += window.positions.rows();
  }
  return rows;
}

// The run's command, velocity and acceleration steps, a row per step.
std::vector<Eigen::VectorXd> CommandStepRows(const LockstepRun& run) {
  return {Steps(run.command), Steps(PoppedSeries(run, &cw::WindowPayload::velocities)),
          Steps(PoppedSeries(run, &cw::WindowPayload::accelerations))};
}

// The largest of each series' steps into the samples [first, stop) but those of `joins`.
CommandSteps LargestSteps(const std::vector<Eigen::VectorXd>& steps, Eigen::Index first,
                          Eigen::Index stop, const std::vector<Eigen::Index>& joins) {
  double largest[3] = {0.0, 0.0, 0.0};
  for (std::size_t series = 0; series < steps.size(); ++series) {
    for (Eigen::Index k = std::max<Eigen::Index>(first, 1); k < stop; ++k) {
      if (std::find(joins.begin(), joins.end(), k) != joins.end()) continue;
      largest[series] = std::max(largest[series], steps[series](k - 1));
    }
  }
  return {largest[0], largest[1], largest[2]};
}

// The stop's braking in the stored plan, and the payload's deflection after it and before the
// first change.
StopFigures MeasureStop(const LockstepRun& run, Eigen::Index first_change, Eigen::Index stop) {
  const cw::SampleMatrix& plan = run.reference;
  Eigen::Index rest = plan.rows() - 1;
  while (rest > stop && plan.row(rest - 1) == plan.row(rest)) --rest;
  const Eigen::Index played = run.deflection.size();
  return {rest - stop + 1, (plan.row(rest) - plan.row(stop - 1)).cwiseAbs().maxCoeff(),
          run.deflection.tail(played - stop).cwiseAbs().maxCoeff(),
          run.deflection.head(first_change).cwiseAbs().maxCoeff()};
}

}  // namespace

ReplannedStream RunReplanned(FlexibleArm& arm, const std::optional<cs::ImpulseSequence>& shaper,
                             double compute_fraction_limit) {
  ReplannedStream replanned;
  const StreamShape shape;
  const PlannerFactory make_planner = [&](cw::AppendableWindowBuffer& buffer,
                                          cw::AppendableReferenceBuffer& /*stored*/,
                                          LockstepRun& run) {
    auto planner = std::make_shared<ReplanPlanner>(buffer, shape, replanned.changes, run);
    return BeforePop([planner](Eigen::Index popped) { planner->BeforePop(popped); });
  };
  replanned.stream =
      RunLockstep(arm, MovePose(0), make_planner, shaper, shape, compute_fraction_limit);
  std::vector<Eigen::Index> joins;
  for (const PlanChange& change : replanned.changes) {
    joins.push_back(static_cast<Eigen::Index>(change.replacement.resume_index));
  }
  const std::vector<Eigen::VectorXd> steps = CommandStepRows(replanned.stream);
  const Eigen::Index samples = replanned.stream.command.rows();
  for (const Eigen::Index join : joins) {
    replanned.joins.push_back(
        {LargestSteps(steps, join, join + 1, {}), LargestSteps(steps, 0, samples, joins)});
  }
  replanned.before_changes = LargestSteps(steps, 0, joins.front(), {});
  replanned.stop =
      MeasureStop(replanned.stream, joins.front(),
                  static_cast<Eigen::Index>(replanned.changes.back().replacement.start_index));
  return replanned;
}

}  // namespace corvane::plant
