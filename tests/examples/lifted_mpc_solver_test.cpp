#include "engines/lifted_mpc_solver.hpp"

#include <algorithm>
#include <stdexcept>

#include <gtest/gtest.h>
#include <window/records.hpp>

namespace {

namespace cw = corvane::control::window;
using corvane::examples::LiftedMpcSolver;

constexpr double kSampleTimeS = 0.001;
constexpr Eigen::Index kApply = 10;
constexpr Eigen::Index kLookahead = 100;
constexpr Eigen::Index kStepRow = 200;    // the step comes at 0.2 s and is tracked to within
constexpr Eigen::Index kSettleRows = 60;  // 1e-3 rad from 60 ms after it on

// The request the streaming producer sends at `cursor`: kLookahead rows of the reference,
// padded with its last row, asking for kApply rows.
cw::WindowSlice RequestAt(const cw::SampleMatrix& reference, Eigen::Index cursor) {
  cw::WindowSlice request{cw::SampleMatrix(kLookahead, reference.cols()),
                          {},
                          {},
                          {},
                          static_cast<std::size_t>(cursor),
                          static_cast<std::size_t>(cursor + kLookahead),
                          {{"apply_samples", "10"}}};
  for (Eigen::Index k = 0; k < kLookahead; ++k) {
    request.positions.row(k) = reference.row(std::min(cursor + k, reference.rows() - 1));
  }
  return request;
}

// Runs a prepared solver along a reference of whole windows; every answer must be well formed.
cw::SampleMatrix Track(const cw::SampleMatrix& reference, cw::SampleMatrix& velocities,
                       Eigen::Index prepared_horizon = kLookahead) {
  LiftedMpcSolver solver(kSampleTimeS, prepared_horizon);
  solver.Prepare();
  cw::SampleMatrix positions(reference.rows(), reference.cols());
  velocities.resize(reference.rows(), reference.cols());
  for (Eigen::Index cursor = 0; cursor < reference.rows(); cursor += kApply) {
    const cw::WindowPayload answer = solver.Solve(RequestAt(reference, cursor));
    EXPECT_NO_THROW(cw::ValidateWindowPayload(answer));
    EXPECT_EQ(answer.stop_index - answer.start_index, static_cast<std::size_t>(kApply));
    EXPECT_TRUE(answer.velocities && answer.accelerations && answer.time_s);
    EXPECT_DOUBLE_EQ((*answer.time_s)(0), static_cast<double>(cursor) * kSampleTimeS);
    positions.middleRows(cursor, kApply) = answer.positions;
    velocities.middleRows(cursor, kApply) = *answer.velocities;
  }
  return positions;
}

cw::SampleMatrix StepReference() {
  cw::SampleMatrix reference = cw::SampleMatrix::Zero(1000, 2);
  reference.bottomRows(1000 - kStepRow).rowwise() = Eigen::RowVector2d(0.5, -1.0);
  return reference;
}

TEST(LiftedMpcSolverTest, TracksAStepWithinTheSettlingTimeAndComesToRest) {
  const cw::SampleMatrix reference = StepReference();
  cw::SampleMatrix velocities;
  const cw::SampleMatrix error = Track(reference, velocities) - reference;
  EXPECT_GT(error.row(kStepRow + 10).cwiseAbs().maxCoeff(), 1e-3);  // still on its way
  EXPECT_LT(error.bottomRows(1000 - kStepRow - kSettleRows).cwiseAbs().maxCoeff(), 1e-3);
  EXPECT_LT(velocities.bottomRows(100).cwiseAbs().maxCoeff(), 1e-9);
}

TEST(LiftedMpcSolverTest, HeldReferenceKeepsTheArmAtRest) {
  cw::SampleMatrix reference(300, 3);
  reference.rowwise() = Eigen::RowVector3d(0.3, -0.2, 1.1);
  cw::SampleMatrix velocities;
  // Prepared for another horizon, the solver computes the requests' gains on first use.
  EXPECT_LT((Track(reference, velocities, 20) - reference).cwiseAbs().maxCoeff(), 1e-12);
  EXPECT_LT(velocities.cwiseAbs().maxCoeff(), 1e-12);
}

TEST(LiftedMpcSolverTest, PrepareRestartsAtRestOnTheFirstReferenceRow) {
  const cw::SampleMatrix reference = StepReference();
  LiftedMpcSolver solver(kSampleTimeS, kLookahead);
  solver.Prepare();
  solver.Solve(RequestAt(reference, 0));
  solver.Prepare();
  const cw::WindowPayload restarted = solver.Solve(RequestAt(reference, kStepRow));
  EXPECT_EQ(restarted.positions, reference.middleRows(kStepRow, kApply));
  EXPECT_EQ(restarted.velocities->cwiseAbs().maxCoeff(), 0.0);
}

TEST(LiftedMpcSolverTest, RejectsBadRequestsAndArguments) {
  const cw::SampleMatrix reference = StepReference();
  LiftedMpcSolver solver(kSampleTimeS, kLookahead);
  solver.Prepare();
  for (const char* bad : {"", "0", "101", "-1", "5x", " 5"}) {
    cw::WindowSlice request = RequestAt(reference, 0);
    request.metadata["apply_samples"] = bad;
    EXPECT_THROW(solver.Solve(request), std::invalid_argument) << '"' << bad << '"';
  }
  solver.Solve(RequestAt(reference, 0));
  cw::WindowSlice wider = RequestAt(reference, 10);
  wider.positions.conservativeResize(Eigen::NoChange, 3);
  EXPECT_THROW(solver.Solve(wider), std::invalid_argument);

  EXPECT_THROW(LiftedMpcSolver(0.0, kLookahead), std::invalid_argument);
  EXPECT_THROW(LiftedMpcSolver(kSampleTimeS, 0), std::invalid_argument);
  EXPECT_THROW(LiftedMpcSolver(kSampleTimeS, kLookahead, {-1.0, 0.0}), std::invalid_argument);
}

}  // namespace
