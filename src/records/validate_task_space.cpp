// Task space: ValidateTaskSpaceShapedTrajectory and ValidateTaskSpaceShapedWindow. Both throw
// corvane::native::InvalidArgumentError, with an empty detail, on the first failing rule in the
// fixed order below.
#include <optional>
#include <string>
#include <utility>

#include "native/error.hpp"
#include "records/record_rules.hpp"
#include "window/records.hpp"

namespace corvane::control::window {
namespace {

[[noreturn]] void Fail(std::string message) {
  throw native::InvalidArgumentError(std::move(message), std::nullopt);
}

// A task-space block of fixed shape (rows and columns at least 1); `name` leads the message.
void CheckTaskSpaceBlock(const SampleMatrix& matrix, Eigen::Index rows, Eigen::Index columns,
                         const char* name) {
  if (!detail::IsFiniteWithShape(matrix, rows, columns)) {
    Fail(std::string(name) + " has an invalid shape or value.");
  }
}

}  // namespace

void ValidateTaskSpaceShapedTrajectory(const TaskSpaceShapedTrajectory& trajectory) {
  const Eigen::Index samples = trajectory.positions.rows();
  if (samples < 1 || !detail::IsFiniteWithShape(trajectory.positions, samples, 3)) {
    Fail("task-space positions must be finite and shaped [N, 3].");
  }
  CheckTaskSpaceBlock(trajectory.velocities, samples, 3, "task-space velocities");
  CheckTaskSpaceBlock(trajectory.accelerations, samples, 3, "task-space accelerations");
  if (trajectory.orientations) {
    CheckTaskSpaceBlock(*trajectory.orientations, samples, 4, "task-space orientations");
  }
  const Eigen::Index joints = trajectory.joint_positions.cols();
  if (joints < 1 || !detail::IsFiniteWithShape(trajectory.joint_positions, samples, joints)) {
    Fail("task-space joint positions must be finite and shaped [N, J].");
  }
  CheckTaskSpaceBlock(trajectory.joint_velocities, samples, joints, "task-space joint velocities");
  CheckTaskSpaceBlock(trajectory.joint_accelerations, samples, joints,
                      "task-space joint accelerations");
  const Eigen::VectorXd& time_s = trajectory.time_s;
  if (!detail::IsFiniteWithShape(time_s, samples, 1)) {
    Fail("task-space time must be finite and aligned with positions.");
  }
  for (Eigen::Index i = 1; i < samples; ++i) {
    if (time_s[i] < time_s[i - 1]) {
      Fail("task-space time must be nondecreasing.");
    }
  }
}

// The trajectory, then the range, then compute_time_s; is_tail is not inspected.
void ValidateTaskSpaceShapedWindow(const TaskSpaceShapedWindow& window) {
  ValidateTaskSpaceShapedTrajectory(window.trajectory);
  if (!detail::RangeMatchesRows(window.start_index, window.stop_index,
                                window.trajectory.positions.rows())) {
    Fail("task-space window range must match its sample count.");
  }
  if (!detail::IsNonNegativeTime(window.compute_time_s)) {
    Fail("task-space compute_time_s must be finite and nonnegative.");
  }
}

}  // namespace corvane::control::window
