// The plain records that carry windows of samples across the library's boundary, and their
// validators.
//
// A window is a contiguous run of samples: one matrix row per sample, one column per joint (or
// coordinate). Its global sample range is half-open, [start_index, stop_index), and in a valid
// record stop_index - start_index equals the row count. Records own their data by value: a copy
// is deep, a move hands the buffers over. "Finite" always means neither NaN nor infinite.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>

#include <Eigen/Core>

#include "native/error.hpp"  // the task-space validators throw InvalidArgumentError
#include "native/export.hpp"

namespace corvane::control::window {

// Sample-major matrix: row i is sample i, column j is joint (or coordinate) j.
using SampleMatrix = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

// The solve request that the lifted-MPC producer hands to its solver.
struct WindowSlice {
  SampleMatrix positions;                       // [rows, joints], one row per sample
  std::optional<SampleMatrix> velocities;       // when present, the shape of positions
  std::optional<SampleMatrix> accelerations;    // when present, the shape of positions
  std::optional<Eigen::VectorXd> time_s;        // [s] when present, one time per row
  std::size_t start_index = 0;                  // global index of row 0
  std::size_t stop_index = 0;                   // one past the global index of the last row
  std::map<std::string, std::string> metadata;  // e.g. "apply_samples", "terminal_padding_samples"
};

// One produced window: what every producer yields and the consumer pops.
struct WindowPayload {
  SampleMatrix positions;                       // [rows, joints], one row per sample
  std::optional<SampleMatrix> velocities;       // when present, the shape of positions
  std::optional<SampleMatrix> accelerations;    // when present, the shape of positions
  std::optional<Eigen::VectorXd> time_s;        // [s] when present, one time per row
  std::size_t start_index = 0;                  // global index of row 0
  std::size_t stop_index = 0;                   // one past the global index of the last row
  double compute_time_s = 0.0;                  // [s] computation spent on this window, >= 0
  std::map<std::string, std::string> metadata;  // e.g. "sample_time_s", "is_tail"
};

// A window of commanded joint trajectory.
struct TrajectoryWindow {
  SampleMatrix command;               // [R, joints] commanded positions, at least one joint
  SampleMatrix states;                // empty, or [R, any] states, one row per command row
  SampleMatrix command_velocity;      // [R, joints]
  SampleMatrix command_acceleration;  // [R, joints]
  Eigen::VectorXd time_s;             // [s] one time per command row
  std::size_t start_index = 0;        // global index of command row 0
  std::size_t stop_index = 0;         // one past the global index of the last command row
  std::optional<Eigen::VectorXd> vibration_shaping_weight_profile;  // when present, [R] in [0, 1]
};

// A shaped joint-space window as a trajectory handle returns it; every array is present.
struct ShapedTrajectoryWindow {
  SampleMatrix positions;       // [R, joints] shaped positions, at least one joint
  SampleMatrix velocities;      // [R, joints]
  SampleMatrix accelerations;   // [R, joints]
  Eigen::VectorXd time_s;       // [s] one time per row
  std::size_t start_index = 0;  // global index of row 0
  std::size_t stop_index = 0;   // one past the global index of the last row
  bool is_tail = false;         // the window belongs to the tail of the trajectory
  double compute_time_s = 0.0;  // [s] computation spent shaping this window
};

// A shaped trajectory in task space with the matching joint-space arrays (N samples, J joints).
struct TaskSpaceShapedTrajectory {
  SampleMatrix positions;                    // [N, 3] task-space position
  std::optional<SampleMatrix> orientations;  // when present, [N, 4] orientation components
  SampleMatrix velocities;                   // [N, 3] task-space velocity
  SampleMatrix accelerations;                // [N, 3] task-space acceleration
  SampleMatrix joint_positions;              // [N, J]
  SampleMatrix joint_velocities;             // [N, J]
  SampleMatrix joint_accelerations;          // [N, J]
  Eigen::VectorXd time_s;                    // [s] N sample times, nondecreasing
};

// A window of a task-space shaped trajectory.
struct TaskSpaceShapedWindow {
  TaskSpaceShapedTrajectory trajectory;  // the samples of the window
  std::size_t start_index = 0;           // global index of the first sample
  std::size_t stop_index = 0;            // one past the global index of the last sample
  bool is_tail = false;                  // the window belongs to the tail; never read here
  double compute_time_s = 0.0;           // [s] computation spent producing this window
};

// Checks a solve request: positions with at least one column and finite, the range matching
// the row count, optional arrays matching positions and finite. Metadata is not inspected.
// Throws std::invalid_argument naming the first fault.
CORVANE_EXPORT void ValidateWindowSlice(const WindowSlice& slice);

// Checks a window as ValidateWindowSlice does, then its compute_time_s (finite, not negative).
// Throws std::invalid_argument naming the first fault.
CORVANE_EXPORT void ValidateWindowPayload(const WindowPayload& payload);

// Checks a shaped window: every array first, then the range, then compute_time_s.
// Throws std::invalid_argument naming the first fault.
CORVANE_EXPORT void ValidateShapedTrajectoryWindow(const ShapedTrajectoryWindow& window);

// Checks a trajectory window: command, its range, then the other arrays and the weight profile.
// Throws std::invalid_argument naming the first fault.
CORVANE_EXPORT void ValidateTrajectoryWindow(const TrajectoryWindow& window);

// Checks every block of a task-space trajectory for shape and finiteness, and that its times do
// not decrease. Throws corvane::native::InvalidArgumentError naming the first fault.
CORVANE_EXPORT void ValidateTaskSpaceShapedTrajectory(const TaskSpaceShapedTrajectory& trajectory);

// Checks the trajectory, then the range, then compute_time_s.
// Throws corvane::native::InvalidArgumentError naming the first fault.
CORVANE_EXPORT void ValidateTaskSpaceShapedWindow(const TaskSpaceShapedWindow& window);

}  // namespace corvane::control::window
