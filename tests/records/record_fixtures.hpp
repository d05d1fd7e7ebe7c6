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

// 3 samples x 2 joints, range [10, 13), every optional present.
inline WindowPayload ValidPayload() {
  WindowPayload payload;
  payload.positions = SampleMatrix::Constant(3, 2, 0.5);
  payload.velocities = SampleMatrix::Zero(3, 2);
  payload.accelerations = SampleMatrix::Zero(3, 2);
  payload.time_s = Eigen::VectorXd::LinSpaced(3, 0.0, 0.02);
  payload.start_index = 10;
  payload.stop_index = 13;
  payload.compute_time_s = 0.001;
  payload.metadata = {{"sample_time_s", "0.010000"}};
  return payload;
}

// The first six fields of a payload, with its metadata.
inline WindowSlice SliceOf(const WindowPayload& p) {
  return {p.positions,   p.velocities, p.accelerations, p.time_s,
          p.start_index, p.stop_index, p.metadata};
}

// The arrays of ValidPayload(), all present.
inline ShapedTrajectoryWindow ValidShaped() {
  const WindowPayload p = ValidPayload();
  return {p.positions, *p.velocities, *p.accelerations, *p.time_s, 10, 13, false, 0.001};
}

// The arrays of ValidPayload(), states [3, 4] and a weight profile of 0.5.
inline TrajectoryWindow ValidTrajectory() {
  const WindowPayload p = ValidPayload();
  const SampleMatrix states = SampleMatrix::Zero(3, 4);
  const Eigen::VectorXd weights = Eigen::VectorXd::Constant(3, 0.5);
  return {p.positions, states, *p.velocities, *p.accelerations, *p.time_s, 10, 13, weights};
}

// `samples` samples (3 by default), 2 joints, orientations present, times 0.1 s apart.
inline TaskSpaceShapedWindow ValidTaskSpaceWindow(Eigen::Index samples = 3) {
  const auto block = [samples](Eigen::Index columns) -> SampleMatrix {
    return SampleMatrix::Zero(samples, columns);
  };
  const auto stop = static_cast<double>(samples - 1) / 10.0;
  TaskSpaceShapedTrajectory trajectory{
      block(3), block(4), block(3), block(3),
      block(2), block(2), block(2), Eigen::VectorXd::LinSpaced(samples, 0.0, stop)};
  return {trajectory, 10, 10 + static_cast<std::size_t>(samples), false, 0.001};
}

// Runs `call`: "" when it returns, otherwise the message of what it threw, after checking that
// the dynamic type of the exception is exactly `Expected` (not a base, not a subclass).
template <typename Expected, typename Call>
std::string ThrownMessage(Call&& call) {
  try {
    call();
  } catch (const std::exception& error) {
    EXPECT_TRUE(typeid(error) == typeid(Expected))
        << "threw " << typeid(error).name() << " instead of " << typeid(Expected).name();
    return error.what();
  }
  return "";
}

// One table entry: the exact message expected ("" = valid) and the mutations of a valid record
// that must each produce it.
template <typename Record>
struct Case {
  std::string message;
  std::vector<std::function<void(Record&)>> mutations;
};

// Applies each mutation to a fresh copy of `valid` and checks what `validate` reports.
template <typename Expected, typename Record, typename Validate>
void ExpectCases(const Record& valid, Validate validate, const std::vector<Case<Record>>& cases) {
  for (const Case<Record>& entry : cases) {
    for (std::size_t i = 0; i < entry.mutations.size(); ++i) {
      SCOPED_TRACE("mutation " + std::to_string(i) + " of \"" + entry.message + "\"");
      Record record = valid;
      entry.mutations[i](record);
      EXPECT_EQ(ThrownMessage<Expected>([&] { validate(record); }), entry.message);
    }
  }
}

}  // namespace corvane::control::window::testing
