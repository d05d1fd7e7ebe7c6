// Joint space: ValidateShapedTrajectoryWindow and ValidateTrajectoryWindow. Both throw
// std::invalid_argument on the first failing rule, in the fixed order below.
#include <stdexcept>

#include "records/record_rules.hpp"
#include "window/records.hpp"

namespace corvane::control::window {

// Every array first, then the range, then compute_time_s; is_tail is not inspected.
void ValidateShapedTrajectoryWindow(const ShapedTrajectoryWindow& window) {
  const SampleMatrix& positions = window.positions;
  if (positions.cols() < 1 || !detail::IsFinite(positions)) {
    throw std::invalid_argument("positions must be a finite sample-major matrix.");
  }
  if (!detail::IsFiniteWithShapeOf(window.velocities, positions)) {
    throw std::invalid_argument("velocities must be finite and match the positions shape.");
  }
  if (!detail::IsFiniteWithShapeOf(window.accelerations, positions)) {
    throw std::invalid_argument("accelerations must be finite and match the positions shape.");
  }
  if (!detail::IsFiniteWithShape(window.time_s, positions.rows(), 1)) {
    throw std::invalid_argument("time_s must be finite with one value per position.");
  }
  if (!detail::RangeMatchesRows(window.start_index, window.stop_index, positions.rows())) {
    throw std::invalid_argument("The shaped range must match the position row count.");
  }
  if (!detail::IsNonNegativeTime(window.compute_time_s)) {
    throw std::invalid_argument("compute_time_s must be finite and non-negative.");
  }
}

// The command, its range, then the other arrays and the optional weight profile.
void ValidateTrajectoryWindow(const TrajectoryWindow& window) {
  const SampleMatrix& command = window.command;
  const Eigen::Index rows = command.rows();
  if (command.cols() < 1 || !detail::IsFinite(command)) {
    throw std::invalid_argument("command must be a finite sample-major matrix.");
  }
  if (!detail::RangeMatchesRows(window.start_index, window.stop_index, rows)) {
    throw std::invalid_argument("The trajectory range must match the command row count.");
  }
  if (!detail::IsFiniteWithShapeOf(window.command_velocity, command)) {
    throw std::invalid_argument("command_velocity must be finite and match the command shape.");
  }
  if (!detail::IsFiniteWithShapeOf(window.command_acceleration, command)) {
    throw std::invalid_argument("command_acceleration must be finite and match the command shape.");
  }
  // A states matrix without elements passes whatever its other dimension; columns are free.
  const SampleMatrix& states = window.states;
  if (states.size() > 0 && !detail::IsFiniteWithShape(states, rows, states.cols())) {
    throw std::invalid_argument("states must be empty or finite with one row per command.");
  }
  if (!detail::IsFiniteWithShape(window.time_s, rows, 1)) {
    throw std::invalid_argument("time_s must be finite with one value per command.");
  }
  const auto& weights = window.vibration_shaping_weight_profile;
  const auto in_unit_interval = [](const Eigen::VectorXd& values) {
    return (values.array() >= 0.0).all() && (values.array() <= 1.0).all();  // both inclusive
  };
  if (weights && !(detail::IsFiniteWithShape(*weights, rows, 1) && in_unit_interval(*weights))) {
    throw std::invalid_argument(
        "vibration_shaping_weight_profile must contain one finite value in [0, 1] per command.");
  }
}

}  // namespace corvane::control::window
