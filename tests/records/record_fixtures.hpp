// Shared by the record tests: one valid record of each kind, and a table runner that checks the
// exact message and the exact dynamic type of what a validator throws.
#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <limits>
#include <string>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>

#include "window/records.hpp"

namespace corvane::control::window::testing {

inline constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
inline constexpr double kInf = std::numeric_limits<double>::infinity();

// 3 samples x 2 joints over [10, 13), every optional present; the other records reuse its arrays.
inline WindowPayload ValidPayload() {
  const SampleMatrix zero = SampleMatrix::Zero(3, 2), half = SampleMatrix::Constant(3, 2, 0.5);
  WindowPayload p{half, zero, zero, Eigen::VectorXd::LinSpaced(3, 0.0, 0.02), 10, 13, 0.001, {}};
  p.metadata["sample_time_s"] = "0.01";
  return p;
}
inline WindowSlice SliceOf(const WindowPayload& p) {
  return {p.positions,   p.velocities, p.accelerations, p.time_s,
          p.start_index, p.stop_index, p.metadata};
}
inline ShapedTrajectoryWindow ValidShaped() {
  const WindowPayload p = ValidPayload();
  return {p.positions, *p.velocities, *p.accelerations, *p.time_s, 10, 13, false, 0.001};
}
inline TrajectoryWindow ValidTrajectory() {
  const WindowPayload p = ValidPayload();
  const Eigen::VectorXd weights = Eigen::VectorXd::Constant(3, 0.5);
  return {p.positions, SampleMatrix::Zero(3, 4), *p.velocities, *p.accelerations, *p.time_s, 10, 13,
          weights};
}
// `n` samples, 2 joints, orientations present, times 0.1 s apart, over [10, 10 + n).
inline TaskSpaceShapedWindow ValidTaskSpaceWindow(Eigen::Index n = 3) {
  const SampleMatrix xyz = SampleMatrix::Zero(n, 3), joints = SampleMatrix::Zero(n, 2);
  const Eigen::VectorXd time_s =
      Eigen::VectorXd::LinSpaced(n, 0.0, static_cast<double>(n - 1) / 10);
  const SampleMatrix quaternions = SampleMatrix::Zero(n, 4);
  const TaskSpaceShapedTrajectory trajectory{xyz,    quaternions, xyz,    xyz,
                                             joints, joints,      joints, time_s};
  return {trajectory, 10, 10 + static_cast<std::size_t>(n), false, 0.001};
}

// A table row: the message expected ("" = valid) and the mutations of a valid record giving it.
template <typename Record>
struct Case {
  std::string message;
  std::vector<std::function<void(Record&)>> mutations;
};

// Applies each mutation to a fresh copy of `valid`; what `validate` throws must be exactly of
// type `Expected` (not a base, not a subclass) and carry the row's message.
template <typename Expected, typename Record, typename Validate>
void ExpectCases(const Record& valid, Validate validate, const std::vector<Case<Record>>& cases) {
  for (const Case<Record>& row : cases) {
    for (std::size_t i = 0; i < row.mutations.size(); ++i) {
      SCOPED_TRACE("mutation " + std::to_string(i) + " of \"" + row.message + "\"");
      Record record = valid;
      row.mutations[i](record);
      std::string message;
      try {
        validate(record);
      } catch (const std::exception& error) {
        EXPECT_TRUE(typeid(error) == typeid(Expected)) << "threw " << typeid(error).name();
        message = error.what();
      }
      EXPECT_EQ(message, row.message);
    }
  }
}

}  // namespace corvane::control::window::testing
