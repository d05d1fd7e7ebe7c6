#include "plant/lockstep.hpp"

#include <chrono>
#include <memory>
#include <stdexcept>
#include <utility>

#include <corvane_shaper_engines/lifted_mpc_solver.hpp>
#include <corvane_shaper_engines/shaping_solve_session.hpp>
#include <window/producers.hpp>
#include <window/reference_buffer.hpp>

#include "plant/playback.hpp"

namespace corvane::plant {

namespace cw = control::window;
namespace cs = control::engines;

namespace {

constexpr auto kStallTimeout = std::chrono::seconds(5);
constexpr std::size_t kPrefillWindows = 2;
// Holds every window of a run: minutes of 10 ms windows.
constexpr std::size_t kTimingLogWindows = 16384;

// The planning half of the control loop: appends the planned blocks so that every solve sees a
// reference that no later append changes (see lockstep.hpp).
class BlockPlanner {
 public:
  BlockPlanner(cw::AppendableWindowBuffer& buffer, cw::AppendableReferenceBuffer& stored,
               const std::vector<PlannedBlock>& plan, StreamShape shape, LockstepRun& run)
      : buffer_(buffer), stored_(stored), plan_(plan), shape_(shape), run_(run) {}

  // Appends what the worker may reach after the next pop, with `popped` windows popped so far:
  // each window it produces covers apply_samples rows and looks lookahead_samples ahead, and it
  // produces at most queue_windows beyond those popped.
  void BeforePop(Eigen::Index popped) {
    const Eigen::Index reach = (popped + shape_.queue_windows) * shape_.apply_samples;
    while (next_ < plan_.size()) {
      const PlannedBlock& block = plan_[next_];
      if (block.late_windows > 0 && rows_ > 0) {
        if (rows_ >= reach) return;  // the worker has not run out yet
        if (!late_due_) late_due_ = popped + block.late_windows;
        if (popped < *late_due_) return;
        RecordHoldUpTo(reach);
        late_due_.reset();
      } else if (rows_ >= reach + shape_.lookahead_samples) {
        return;
      }
      Append(block);
    }
  }

 private:
  // Waits until the producer, short of reference, has held it up to `reach` rows: the queue is
  // then full of held windows and the worker waits for room.
  void RecordHoldUpTo(Eigen::Index reach) {
    if (!stored_.WaitUntilSamples(static_cast<std::size_t>(reach), kStallTimeout)) {
      throw std::runtime_error("The producer did not hold the reference within 5 s.");
    }
    const auto held = static_cast<Eigen::Index>(stored_.available_samples());
    run_.holds.push_back({rows_, held - rows_});
    rows_ = held;
  }

  void Append(const PlannedBlock& block) {
    const cw::AppendedRange range = buffer_.AppendReference(block.positions);
    run_.moves.push_back(
        {static_cast<Eigen::Index>(range.start_index) + block.move.first, block.move.count});
    rows_ = static_cast<Eigen::Index>(range.stop_index);
    if (++next_ == plan_.size()) buffer_.Finish();
  }

  cw::AppendableWindowBuffer& buffer_;
  cw::AppendableReferenceBuffer& stored_;
  const std::vector<PlannedBlock>& plan_;
  StreamShape shape_;
  LockstepRun& run_;
  std::size_t next_ = 0;                  // the next block to append
  Eigen::Index rows_ = 0;                 // reference rows stored, held ones included
  std::optional<Eigen::Index> late_due_;  // pops after which the held-back block comes
};

// The lifted-MPC solver, behind the online shaping stage when there is a shaper.
std::unique_ptr<cw::LiftedMpcSolveSession> Solver(const std::optional<cs::ImpulseSequence>& shaper,
                                                  double sample_time_s,
                                                  Eigen::Index lookahead_samples) {
  auto solver = std::make_unique<cs::LiftedMpcSolver>(sample_time_s, lookahead_samples);
  if (!shaper) return solver;
  return std::make_unique<cs::ShapingSolveSession>(std::move(solver), *shaper, sample_time_s);
}

}  // namespace

LockstepRun RunLockstep(FlexibleArm& arm, const std::vector<PlannedBlock>& plan,
                        const std::optional<cs::ImpulseSequence>& shaper, StreamShape shape,
                        double compute_fraction_limit) {
  return RunLockstep(arm, plan, Solver(shaper, arm.sample_time_s(), shape.lookahead_samples), shape,
                     compute_fraction_limit);
}

LockstepRun RunLockstep(FlexibleArm& arm, const std::vector<PlannedBlock>& plan,
                        std::unique_ptr<cw::LiftedMpcSolveSession> solver, StreamShape shape,
                        double compute_fraction_limit) {
  const PlannerFactory blocks = [&](cw::AppendableWindowBuffer& buffer,
                                    cw::AppendableReferenceBuffer& stored, LockstepRun& run) {
    auto planner = std::make_shared<BlockPlanner>(buffer, stored, plan, shape, run);
    return BeforePop([planner](Eigen::Index popped) { planner->BeforePop(popped); });
  };
  return RunLockstep(arm, plan.front().positions.row(0), blocks, std::move(solver), shape,
                     compute_fraction_limit);
}

LockstepRun RunLockstep(FlexibleArm& arm, const Eigen::RowVectorXd& rest_pose,
                        const PlannerFactory& make_planner,
                        const std::optional<cs::ImpulseSequence>& shaper, StreamShape shape,
                        double compute_fraction_limit) {
  return RunLockstep(arm, rest_pose, make_planner,
                     Solver(shaper, arm.sample_time_s(), shape.lookahead_samples), shape,
                     compute_fraction_limit);
}

LockstepRun RunLockstep(FlexibleArm& arm, const Eigen::RowVectorXd& rest_pose,
                        const PlannerFactory& make_planner,
                        std::unique_ptr<cw::LiftedMpcSolveSession> solver, StreamShape shape,
                        double compute_fraction_limit) {
  if (!solver) throw std::invalid_argument("solver must not be null.");
  const auto started = std::chrono::steady_clock::now();
  const double h = arm.sample_time_s();
  auto stored = std::make_shared<cw::AppendableReferenceBuffer>(kArmJoints);
  cw::AppendableWindowBuffer buffer(
      std::make_unique<cw::AppendableLiftedMpcWindowProducer>(
          std::move(solver), stored, static_cast<std::size_t>(shape.apply_samples),
          static_cast<std::size_t>(shape.lookahead_samples), h, 0),
      stored, kPrefillWindows, static_cast<std::size_t>(shape.queue_windows));
  auto timing = std::make_shared<cw::TimingLog>(kTimingLogWindows);
  buffer.AttachTimingLog(timing);
  LockstepRun run;
  const BeforePop before_pop = make_planner(buffer, *stored, run);
  arm.Rest(rest_pose);
  before_pop(0);
  buffer.Start();
  PlayWindows(buffer, arm, run, before_pop);
  run.reference = buffer.ReferencePositions();
  run.qualification = buffer.Qualify(compute_fraction_limit);
  run.replacements = buffer.Replacements();
  run.timing = timing->Read(0).entries;
  run.wall_time_s =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  return run;
}

}  // namespace corvane::plant
