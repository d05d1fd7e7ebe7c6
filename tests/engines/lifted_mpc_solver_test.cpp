#include <corvane_shaper_engines/lifted_mpc_solver.hpp>

#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <tuple>

#include <gtest/gtest.h>
#include <window/producers.hpp>
#include <window/records.hpp>
#include <window/reference_buffer.hpp>

namespace {

namespace cw = corvane::control::window;
using corvane::control::engines::LiftedMpcSolver;

constexpr double kSampleTimeS = 0.001;
constexpr Eigen::Index kApply = 10;
constexpr Eigen::Index kLookahead = 100;
constexpr Eigen::Index kStepRow = 200;  // the step comes at 0.2 s

// The request the streaming producer sends at `cursor`: kLookahead rows of the reference, padded
// with its last row, asking for kApply rows.
cw::WindowSlice RequestAt(const cw::SampleMatrix& reference, Eigen::Index cursor) {
  using Rows = Eigen::ArrayX<Eigen::Index>;
  const Rows rows = Rows::LinSpaced(kLookahead, cursor, cursor + kLookahead - 1);
  const auto first = static_cast<std::size_t>(cursor);
  cw::WindowSlice request{{}, {}, {}, {}, first, first + kLookahead, {}};
  request.positions = reference(rows.min(reference.rows() - 1), Eigen::all);
  request.metadata["apply_samples"] = "10";
  return request;
}

// Prepares `solver` and runs it along `reference`, checking that every answer is a valid payload
// of kApply rows at the request's times. Returns the positions, then the velocities, side by side.
cw::SampleMatrix Track(LiftedMpcSolver& solver, const cw::SampleMatrix& reference) {
  solver.Prepare();
  const Eigen::Index joints = reference.cols();
  cw::SampleMatrix motion(reference.rows(), 2 * joints);
  for (Eigen::Index cursor = 0; cursor < reference.rows(); cursor += kApply) {
    const cw::WindowPayload answer = solver.Solve(RequestAt(reference, cursor));
    EXPECT_NO_THROW(cw::ValidateWindowPayload(answer));
    EXPECT_EQ(answer.stop_index - answer.start_index, static_cast<std::size_t>(kApply));
    EXPECT_TRUE(answer.velocities && answer.accelerations && answer.time_s);
    EXPECT_DOUBLE_EQ((*answer.time_s)(0), static_cast<double>(cursor) * kSampleTimeS);
    motion.block(cursor, 0, kApply, joints) = answer.positions;
    motion.block(cursor, joints, kApply, joints) = *answer.velocities;
  }
  return motion;
}

// A step of two joints is tracked to within 1e-3 rad from 60 ms after it on and comes to rest.
// Prepare() then restarts at rest, so a held reference of three joints keeps the arm still. The
// solver is prepared for another horizon and computes the requests' gains on first use.
TEST(LiftedMpcSolverTest, TracksAStepThenRestartsAtRestOnAHeldReference) {
  LiftedMpcSolver solver(kSampleTimeS, 20);
  cw::SampleMatrix step = cw::SampleMatrix::Zero(1000, 2);
  step.bottomRows(1000 - kStepRow).rowwise() = Eigen::RowVector2d(0.5, -1.0);
  const cw::SampleMatrix stepped = Track(solver, step);
  const cw::SampleMatrix error = stepped.leftCols(2) - step;
  EXPECT_GT(error.row(kStepRow + 10).cwiseAbs().maxCoeff(), 1e-3);  // still on its way
  EXPECT_LT(error.bottomRows(1000 - kStepRow - 60).cwiseAbs().maxCoeff(), 1e-3);
  EXPECT_LT(stepped.bottomRightCorner(100, 2).cwiseAbs().maxCoeff(), 1e-9);

  cw::SampleMatrix held(300, 3);
  held.rowwise() = Eigen::RowVector3d(0.3, -0.2, 1.1);
  const cw::SampleMatrix still = Track(solver, held);
  EXPECT_LT((still.leftCols(3) - held).cwiseAbs().maxCoeff(), 1e-12);
  EXPECT_LT(still.rightCols(3).cwiseAbs().maxCoeff(), 1e-12);
}

TEST(LiftedMpcSolverTest, RejectsBadRequestsAndArguments) {
  const cw::SampleMatrix reference = cw::SampleMatrix::Zero(200, 2);
  LiftedMpcSolver solver(kSampleTimeS, kLookahead);
  solver.Prepare();
  for (const char* bad : {"", "0", "101", "-1", "5x", " 5"}) {
    cw::WindowSlice request = RequestAt(reference, 0);
    request.metadata["apply_samples"] = bad;
    EXPECT_THROW(solver.Solve(request), std::invalid_argument) << '"' << bad << '"';
  }
  solver.Solve(RequestAt(reference, 0));
  EXPECT_THROW(solver.Solve(RequestAt(cw::SampleMatrix::Zero(200, 3), 10)), std::invalid_argument);
  EXPECT_THROW(LiftedMpcSolver(0.0, kLookahead), std::invalid_argument);
  EXPECT_THROW(LiftedMpcSolver(kSampleTimeS, 0), std::invalid_argument);
  EXPECT_THROW(LiftedMpcSolver(kSampleTimeS, kLookahead, {-1.0, 0.0}), std::invalid_argument);
}

}  // namespace

// Through the streaming producer, a window written into recycled storage equals a fresh one, down
// to its metadata, whatever the storage held: another window's shape and stale entries, or the
// previous window, up to the short last one.
TEST(LiftedMpcSolverTest, WindowsWrittenIntoRecycledStorageEqualFreshOnes) {
  auto reference = std::make_shared<cw::AppendableReferenceBuffer>(2);
  reference->AppendReference(cw::SampleMatrix::Random(33, 2));
  reference->Finish();
  const auto make_producer = [&] {
    auto producer = std::make_unique<cw::AppendableLiftedMpcWindowProducer>(
        std::make_unique<LiftedMpcSolver>(kSampleTimeS, 12), reference, 5, 12, kSampleTimeS, 7);
    producer->PrepareSession();
    return producer;
  };
  const auto fresh = make_producer();
  const auto recycling = make_producer();
  cw::WindowPayload storage;
  storage.positions = cw::SampleMatrix::Ones(3, 7);
  storage.time_s = Eigen::VectorXd::Zero(1);
  storage.metadata = {{"sample_time_s", "9"}, {"stale", "x"}};
  std::size_t windows = 0;
  while (const std::optional<cw::WindowPayload> expected = fresh->ProduceNext()) {
    ASSERT_TRUE(recycling->ProduceNextInto(storage));
    EXPECT_EQ(storage.positions, expected->positions);
    EXPECT_EQ(*storage.velocities, *expected->velocities);
    EXPECT_EQ(*storage.accelerations, *expected->accelerations);
    EXPECT_EQ(*storage.time_s, *expected->time_s);
    EXPECT_EQ(std::tie(storage.start_index, storage.stop_index, storage.metadata),
              std::tie(expected->start_index, expected->stop_index, expected->metadata));
    ++windows;
  }
  EXPECT_FALSE(recycling->ProduceNextInto(storage));
  EXPECT_EQ(windows, 7u);  // the last of 3 rows
}
