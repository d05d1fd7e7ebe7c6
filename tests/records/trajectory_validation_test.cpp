// The shaped, trajectory and task-space validators, rule by rule. A row's mutation that also
// breaks a later rule fixes the checking order. "" marks a valid record.
#include <cstddef>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "native/error.hpp"
#include "records/record_fixtures.hpp"
#include "window/records.hpp"

namespace corvane::control::window {
namespace {

using native::InvalidArgumentError;
using testing::ExpectCases;
using testing::kInf;
using testing::kNaN;
using S = ShapedTrajectoryWindow;
using T = TrajectoryWindow;
using TS = TaskSpaceShapedTrajectory;
using W = TaskSpaceShapedWindow;

// clang-format off
TEST(TrajectoryValidation, JointSpaceWindowsInOrder) {
  const SampleMatrix none(0, 2);
  ExpectCases<std::invalid_argument>(testing::ValidShaped(), ValidateShapedTrajectoryWindow, {
      {"", {[](S& s) { s.is_tail = true; s.compute_time_s = -0.0; },
            [&](S& s) { s = S{none, none, none, {}, 5, 5}; }}},
      {"positions must be a finite sample-major matrix.",
       {[](S& s) { s.positions.resize(3, 0); },
        [](S& s) { s.positions(2, 1) = kNaN; s.velocities.resize(3, 3); }}},
      {"velocities must be finite and match the positions shape.",
       {[](S& s) { s.velocities(0, 0) = kInf; s.accelerations.resize(0, 2); }}},
      {"accelerations must be finite and match the positions shape.",
       {[](S& s) { s.accelerations.resize(2, 2); s.time_s[0] = kNaN; }}},
      {"time_s must be finite with one value per position.",
       {[](S& s) { s.time_s[0] = kNaN; s.stop_index = 20; }}},
      {"The shaped range must match the position row count.",
       {[](S& s) { s.stop_index = 9; s.compute_time_s = kNaN; }}},
      {"compute_time_s must be finite and non-negative.", {[](S& s) { s.compute_time_s = -1e-12; }}},
  });
  ExpectCases<std::invalid_argument>(testing::ValidTrajectory(), ValidateTrajectoryWindow, {
      {"", {[](T& t) { t.vibration_shaping_weight_profile.reset(); t.states.setZero(3, 1); },
            [](T& t) { t.states.resize(7, 0); *t.vibration_shaping_weight_profile << 0, 1, 1; }}},
      {"command must be a finite sample-major matrix.",
       {[](T& t) { t.command.resize(3, 0); },
        [](T& t) { t.command(0, 1) = kInf; t.stop_index = 12; }}},
      {"The trajectory range must match the command row count.",
       {[](T& t) { t.stop_index = 14; t.command_velocity.resize(3, 1); }}},
      {"command_velocity must be finite and match the command shape.",
       {[](T& t) { t.command_velocity.resize(3, 1); t.command_acceleration(0, 0) = kNaN; }}},
      {"command_acceleration must be finite and match the command shape.",
       {[](T& t) { t.command_acceleration(1, 1) = kInf; t.states.setZero(1, 1); }}},
      {"states must be empty or finite with one row per command.",
       {[](T& t) { t.states(1, 3) = kNaN; t.time_s.resize(1); }}},
      {"time_s must be finite with one value per command.",
       {[](T& t) { t.time_s.resize(4); t.vibration_shaping_weight_profile->resize(1); }}},
      {"vibration_shaping_weight_profile must contain one finite value in [0, 1] per command.",
       {[](T& t) { t.vibration_shaping_weight_profile->resize(2); },
        [](T& t) { (*t.vibration_shaping_weight_profile)[0] = 1.0000001; },
        [](T& t) { (*t.vibration_shaping_weight_profile)[1] = -0.1; }}},
  });
}

TEST(TrajectoryValidation, TaskSpaceInOrder) {
  const std::vector<testing::Case<TS>> trajectory_rules = {
      {"", {[](TS& t) { t.orientations.reset(); t.time_s << 0.0, 0.1, 0.1; },
            [](TS& t) { t = testing::ValidTaskSpaceWindow(1).trajectory; }}},
      {"task-space positions must be finite and shaped [N, 3].",
       {[](TS& t) { t.positions.resize(0, 3); }, [](TS& t) { t.positions.resize(3, 4); },
        [](TS& t) { t.positions(0, 2) = kNaN; t.velocities.resize(2, 3); }}},
      {"task-space velocities has an invalid shape or value.",
       {[](TS& t) { t.velocities(1, 1) = kInf; t.accelerations.resize(1, 1); }}},
      {"task-space accelerations has an invalid shape or value.",
       {[](TS& t) { t.accelerations.resize(3, 2); t.orientations->resize(3, 3); }}},
      {"task-space orientations has an invalid shape or value.",
       {[](TS& t) { (*t.orientations)(0, 3) = -kInf; t.joint_positions.resize(3, 0); }}},
      {"task-space joint positions must be finite and shaped [N, J].",
       {[](TS& t) { t.joint_positions.resize(3, 0); t.joint_velocities.resize(3, 0); },
        [](TS& t) { t.joint_positions.resize(2, 2); },
        [](TS& t) { t.joint_positions(1, 0) = kInf; t.joint_velocities.resize(1, 1); }}},
      {"task-space joint velocities has an invalid shape or value.",
       {[](TS& t) { t.joint_velocities(0, 1) = kNaN; t.joint_accelerations.resize(3, 1); }}},
      {"task-space joint accelerations has an invalid shape or value.",
       {[](TS& t) { t.joint_accelerations.resize(2, 2); t.time_s.resize(1); }}},
      {"task-space time must be finite and aligned with positions.",
       {[](TS& t) { t.time_s.resize(2); }, [](TS& t) { t.time_s << 0.2, kNaN, 0.1; }}},
      {"task-space time must be nondecreasing.", {[](TS& t) { t.time_s << 0.0, 0.2, 0.1; }}},
  };
  const W valid = testing::ValidTaskSpaceWindow();
  // The window validator checks its trajectory first and passes its error on unchanged.
  const auto validate_as_window = [](const TS& t) {
    ValidateTaskSpaceShapedWindow(W{t, 0, static_cast<std::size_t>(t.positions.rows())});
  };
  for (const auto& validate : {+ValidateTaskSpaceShapedTrajectory, +validate_as_window}) {
    ExpectCases<InvalidArgumentError>(valid.trajectory, validate, trajectory_rules);
  }
  ExpectCases<InvalidArgumentError>(valid, ValidateTaskSpaceShapedWindow, {
      {"", {[](W& w) { w.is_tail = true; w.compute_time_s = -0.0; }}},
      {"task-space time must be finite and aligned with positions.",
       {[](W& w) { w.trajectory.time_s.resize(1); w.stop_index = 9; }}},
      {"task-space window range must match its sample count.",
       {[](W& w) { w.stop_index = 9; w.compute_time_s = kNaN; }}},
      {"task-space compute_time_s must be finite and nonnegative.",
       {[](W& w) { w.compute_time_s = kInf; }}},
  });
}
// clang-format on

}  // namespace
}  // namespace corvane::control::window
