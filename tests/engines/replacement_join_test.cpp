// The engines across a replacement: the lifted-MPC command stays continuous at the join, and the
// shaping stage shapes the spliced reference as offline shaping does.
#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <utility>

#include <gtest/gtest.h>
#include <corvane_shaper_engines/lifted_mpc_solver.hpp>
#include <corvane_shaper_engines/scheduled_shaping_session.hpp>
#include <corvane_shaper_engines/shaper_designs.hpp>
#include <corvane_shaper_engines/shaping_solve_session.hpp>
#include <window/async_buffer.hpp>

#include "support/follow_reference_solver.hpp"

namespace corvane::control::engines {
namespace {

namespace cw = control::window;
constexpr double kSampleTimeS = 0.001;

// A smooth move from 0 to 1 over 300 samples, then at rest; from `join` on, blended as a planner
// would, without a kink in position, velocity or acceleration, towards a goal 1.5 lower.
cw::SampleMatrix Reference(std::size_t rows, std::size_t join) {
  cw::SampleMatrix reference(rows, 1);
  for (std::size_t i = 0; i < rows; ++i) {
    const double t = std::clamp((double(i) - double(join)) / 250.0, 0.0, 1.0);
    reference(Eigen::Index(i), 0) = 0.5 - 0.5 * std::cos(M_PI * std::min(double(i) / 299.0, 1.0)) -
                                    1.5 * t * t * t * (10.0 - 15.0 * t + 6.0 * t * t);
  }
  return reference;
}

// Streams 400 samples of the move in windows of 10, with 40 produced and 5 handed out, then
// replaces the reference from `join` on, or stops smoothly when `join` is kStop; returns `field`
// of every window, end to end.
constexpr std::size_t kStop = 0;
cw::SampleMatrix Stream(std::unique_ptr<cw::LiftedMpcSolveSession> solver, std::size_t join,
                        std::optional<cw::SampleMatrix> cw::WindowPayload::*field = nullptr) {
  auto reference = std::make_shared<cw::AppendableReferenceBuffer>(1);
  cw::AppendableWindowBuffer buffer(std::make_unique<cw::AppendableLiftedMpcWindowProducer>(
                                        std::move(solver), reference, 10, 40, kSampleTimeS, 0),
                                    reference);
  reference->AppendReference(Reference(400, 400));
  buffer.Prefill(40);
  cw::SampleMatrix rows(0, 1);
  const auto take = [&](const cw::WindowPayload& window) {
    const cw::SampleMatrix& taken = field ? *(window.*field) : window.positions;
    rows.conservativeResize(rows.rows() + taken.rows(), 1);
    rows.bottomRows(taken.rows()) = taken;
  };
  for (int i = 0; i < 5; ++i) take(*buffer.PopNowait());
  if (join == kStop) {
    buffer.StopSmoothly(350);
  } else {
    buffer.ReplaceReference(join, Reference(join + 350, join).bottomRows(350), true);
  }
  buffer.Prefill(200);
  while (auto window = buffer.PopNowait()) take(*window);
  return rows;
}

// At the next window, inside a queued window, inside the final hold, and at random.
std::vector<std::size_t> Joins() {
  std::mt19937 random(7);
  std::uniform_int_distribution<std::size_t> any(50, 400);
  return {50, 127, 350, any(random), any(random), any(random), any(random)};
}

TEST(ReplacementJoinTest, TheCommandStepsAtTheJoinNoMoreThanAnywhereElse) {
  std::vector<std::size_t> joins = Joins();
  joins.push_back(kStop);  // the stop joins where the next window starts
  for (const std::size_t join : joins) {
    for (const auto field : {decltype(&cw::WindowPayload::velocities)(nullptr),
                             &cw::WindowPayload::velocities, &cw::WindowPayload::accelerations}) {
      SCOPED_TRACE(join);
      const cw::SampleMatrix rows =
          Stream(std::make_unique<LiftedMpcSolver>(kSampleTimeS, 40), join, field);
      const auto first_new = Eigen::Index(join == kStop ? 50 : join);
      ASSERT_GE(rows.rows(), first_new + 350);
      Eigen::VectorXd steps =
          (rows.bottomRows(rows.rows() - 1) - rows.topRows(rows.rows() - 1)).cwiseAbs();
      const double at_join = std::exchange(steps(first_new - 1), 0.0);
      EXPECT_LE(at_join, steps.maxCoeff());
    }
  }
}

// The fixed stage, and the scheduled one whose ZV shaper follows the position from 14 to 11 Hz.
TEST(ReplacementJoinTest, ShapingAcrossAJoinEqualsOfflineShapingOfTheSplicedReference) {
  const ImpulseSequence shaper = ZvdShaper({12.0, 0.05});
  const ShaperSchedule schedule{[](const Eigen::RowVectorXd& pose) {
                                  return std::vector<VibrationMode>{{13.0 - 2.0 * pose(0), 0.05}};
                                },
                                ShaperKind::kZv, kDefaultVibrationTolerance, 0.046};
  const auto follow = [] { return std::make_unique<cw::testing::ResumableFollowSolver>(); };
  for (const std::size_t join : Joins()) {
    SCOPED_TRACE(join);
    const cw::SampleMatrix spliced = Reference(join + 350, join);
    const std::pair<cw::SampleMatrix, cw::SampleMatrix> shaped_and_offline[] = {
        {Stream(std::make_unique<ShapingSolveSession>(follow(), shaper, kSampleTimeS), join),
         ShapeSamples(spliced, kSampleTimeS, shaper)},
        {Stream(std::make_unique<ScheduledShapingSession>(follow(), schedule, kSampleTimeS), join),
         ShapeSamples(spliced, kSampleTimeS, schedule)}};
    for (const auto& [shaped, offline] : shaped_and_offline)
      EXPECT_LE((shaped - offline).cwiseAbs().maxCoeff(), 1e-12);
  }
}

}  // namespace
}  // namespace corvane::control::engines
