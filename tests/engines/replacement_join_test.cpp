// The engines across a replacement: the lifted-MPC command stays continuous at the join, and the
// shaping stage shapes the spliced reference as offline shaping does.
#include <algorithm>
#include <cmath>
#include <memory>
#include <random>

#include <gtest/gtest.h>
#include <corvane_shaper_engines/lifted_mpc_solver.hpp>
#include <corvane_shaper_engines/shaper_designs.hpp>
#include <corvane_shaper_engines/shaping_solve_session.hpp>
#include <window/async_buffer.hpp>

#include "support/follow_reference_solver.hpp"

namespace corvane::control::engines {
namespace {

namespace cw = control::window;
constexpr double kSampleTimeS = 0.001;
constexpr std::size_t kApply = 10;

// A smooth move of `rows` samples from `from` to `to`, then `hold` samples at rest on `to`.
cw::SampleMatrix Move(double from, double to, Eigen::Index rows, Eigen::Index hold) {
  const Eigen::ArrayXd phase = Eigen::ArrayXd::LinSpaced(rows, 0.0, M_PI);
  cw::SampleMatrix move(rows + hold, 1);
  move.topRows(rows) = from + (to - from) * 0.5 * (1.0 - phase.cos());
  move.bottomRows(hold).setConstant(to);
  return move;
}

// The windows' rows end to end; velocities and accelerations stay empty when absent.
struct Command {
  cw::SampleMatrix positions{0, 1}, velocities{0, 1}, accelerations{0, 1};
  void Take(const cw::WindowPayload& window) {
    for (auto [to, from] : {std::pair{&positions, std::optional{window.positions}},
                            {&velocities, window.velocities},
                            {&accelerations, window.accelerations}}) {
      if (!from) continue;
      to->conservativeResize(to->rows() + from->rows(), 1);
      to->bottomRows(from->rows()) = *from;
    }
  }
};

// The new reference from `join` on, as a planner joins it: the old move (at rest on 1 after its
// end), blended without a kink in position, velocity or acceleration towards a goal 1.5 lower.
cw::SampleMatrix Retarget(std::size_t join) {
  const cw::SampleMatrix old = Move(0.0, 1.0, 300, 100);
  cw::SampleMatrix retarget(350, 1);
  for (Eigen::Index r = 0; r < 350; ++r) {
    const Eigen::Index i = Eigen::Index(join) + r;
    const double t = std::min(double(r) / 250.0, 1.0);
    retarget(r, 0) =
        (i < 400 ? old(i, 0) : 1.0) - 1.5 * t * t * t * (10.0 - 15.0 * t + 6.0 * t * t);
  }
  return retarget;
}

// Streams a move of 300 samples held to 400, with 40 windows produced and 5 handed out, then
// replaces it from `join` on, and returns every window end to end.
Command Stream(std::unique_ptr<cw::LiftedMpcSolveSession> solver, std::size_t join) {
  auto reference = std::make_shared<cw::AppendableReferenceBuffer>(1);
  cw::AppendableWindowBuffer buffer(std::make_unique<cw::AppendableLiftedMpcWindowProducer>(
                                        std::move(solver), reference, kApply, 40, kSampleTimeS, 0),
                                    reference);
  reference->AppendReference(Move(0.0, 1.0, 300, 100));
  buffer.Prefill(40);
  Command command;
  for (int i = 0; i < 5; ++i) command.Take(*buffer.PopNowait());
  buffer.ReplaceReference(join, Retarget(join), true);
  buffer.Prefill(200);
  while (auto window = buffer.PopNowait()) command.Take(*window);
  return command;
}

// Joins at the next window, inside a queued window, inside the final hold and at random.
std::vector<std::size_t> Joins() {
  std::vector<std::size_t> joins{50, 127, 350};
  std::mt19937 random(7);
  for (int i = 0; i < 4; ++i)
    joins.push_back(std::uniform_int_distribution<std::size_t>(50, 400)(random));
  return joins;
}

TEST(ReplacementJoinTest, TheCommandStepsAtTheJoinNoMoreThanAnywhereElse) {
  for (const std::size_t join : Joins()) {
    SCOPED_TRACE(join);
    const Command all = Stream(std::make_unique<LiftedMpcSolver>(kSampleTimeS, 40), join);
    ASSERT_EQ(all.positions.rows(), Eigen::Index(join + 350));
    for (const cw::SampleMatrix* rows : {&all.positions, &all.velocities, &all.accelerations}) {
      Eigen::VectorXd steps =
          (rows->bottomRows(rows->rows() - 1) - rows->topRows(rows->rows() - 1)).cwiseAbs();
      const double at_join = steps(Eigen::Index(join - 1));
      steps(Eigen::Index(join - 1)) = 0.0;
      EXPECT_LE(at_join, steps.maxCoeff());
    }
  }
}

TEST(ReplacementJoinTest, ShapingAcrossAJoinEqualsOfflineShapingOfTheSplicedReference) {
  const ImpulseSequence shaper = ZvdShaper({12.0, 0.05});
  for (const std::size_t join : Joins()) {
    SCOPED_TRACE(join);
    auto resumes = std::make_shared<std::vector<cw::SolveResumePoint>>();
    const Command all = Stream(
        std::make_unique<ShapingSolveSession>(
            std::make_unique<cw::testing::ResumableFollowSolver>(resumes), shaper, kSampleTimeS),
        join);
    cw::SampleMatrix spliced(Eigen::Index(join + 350), 1);
    spliced << Move(0.0, 1.0, 300, 100).topRows(Eigen::Index(join)), Retarget(join);
    EXPECT_LE((all.positions - ShapeSamples(spliced, kSampleTimeS, shaper)).cwiseAbs().maxCoeff(),
              1e-12);
  }
}

}  // namespace
}  // namespace corvane::control::engines
