// Every record validator, rule by rule. Each table row names the message expected ("" for a valid
// record) and mutations of a valid record that give it; a mutation that also breaks a later rule
// fixes the checking order. The thrown type must be exactly the validator's own.
#include <cstddef>
#include <exception>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>

#include "native/error.hpp"
#include "window/records.hpp"

namespace corvane::control::window {
namespace {

using native::InvalidArgumentError;
using P = WindowPayload;
using S = ShapedTrajectoryWindow;
using T = TrajectoryWindow;
using TS = TaskSpaceShapedTrajectory;
using W = TaskSpaceShapedWindow;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
// Starts 3 rows before 1, past the top of std::size_t: a range of 3 only by wrapping around.
constexpr std::size_t kWrapStart = std::numeric_limits<std::size_t>::max() - 1;

// 3 samples x 2 joints over [10, 13), every optional present; the other records reuse its arrays.
P ValidPayload() {
  const SampleMatrix zero = SampleMatrix::Zero(3, 2), half = SampleMatrix::Constant(3, 2, 0.5);
  P p{half, zero, zero, Eigen::VectorXd::LinSpaced(3, 0.0, 0.02), 10, 13, 0.001, {}};
  p.metadata["sample_time_s"] = "0.01";
  return p;
}
S ValidShaped() {
  const P p = ValidPayload();
  return {p.positions, *p.velocities, *p.accelerations, *p.time_s, 10, 13, false, 0.001};
}
T ValidTrajectory() {
  const P p = ValidPayload();
  return {
      p.positions, SampleMatrix::Zero(3, 4),         *p.velocities, *p.accelerations, *p.time_s, 10,
      13,          Eigen::VectorXd::Constant(3, 0.5)};
}
// `n` samples, 2 joints, orientations present, times 0.1 s apart, over [10, 10 + n).
W ValidTaskSpaceWindow(Eigen::Index n = 3) {
  const SampleMatrix xyz = SampleMatrix::Zero(n, 3), joints = SampleMatrix::Zero(n, 2);
  const Eigen::VectorXd time_s = Eigen::VectorXd::LinSpaced(n, 0.0, double(n - 1) / 10);
  return {{xyz, SampleMatrix::Zero(n, 4), xyz, xyz, joints, joints, joints, time_s},
          10,
          10 + std::size_t(n),
          false,
          0.001};
}

template <typename Record>
struct Case {
  std::string message;
  std::vector<std::function<void(Record&)>> mutations;
};

// Applies each mutation to a fresh copy of `valid`; what `validate` throws must be exactly of
// type `Expected` (not a base, not a subclass) and carry the row's message. The library's own
// errors carry neither detail nor context.
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
        const auto* own = dynamic_cast<const native::Error*>(&error);
        EXPECT_FALSE(own && (own->detail() || own->context()));
        message = error.what();
      }
      EXPECT_EQ(message, row.message);
    }
  }
}

// clang-format off
TEST(Validation, SliceAndPayloadInOrder) {
  const std::vector<Case<P>> slice_rules = {
      {"", {[](P&) {},
            [](P& p) { p = P{SampleMatrix(0, 6), {}, {}, {}, 4, 4, 0.0, {}}; },
            [](P& p) { (*p.time_s)[2] = -1.0; p.metadata = {{"apply_samples", "x"}}; }}},
      {"positions must have at least one column.",
       {[](P& p) { p.positions.resize(3, 0); p.stop_index = 9; }}},
      {"positions must be finite.", {[](P& p) { p.positions(1, 1) = -kInf; p.stop_index = 9; }}},
      {"stop_index must be greater than or equal to start_index.",
       {[](P& p) { p.stop_index = 9; }}},
      {"The global half-open range must match the position row count.",
       {[](P& p) { p.stop_index = 12; },
        [](P& p) { p.stop_index = 14; p.velocities->resize(1, 2); }}},
      {"velocities must match the positions shape.",
       {[](P& p) { p.velocities->setConstant(3, 3, kInf); }}},
      {"velocities must be finite.",
       {[](P& p) { (*p.velocities)(2, 1) = kNaN; p.accelerations->resize(1, 2); }}},
      {"accelerations must match the positions shape.",
       {[](P& p) { p.accelerations->setConstant(2, 2, kNaN); }}},
      {"accelerations must be finite.",
       {[](P& p) { (*p.accelerations)(0, 1) = kInf; p.time_s->resize(2); }}},
      {"time_s must match the positions row count.",
       {[](P& p) { p.time_s->setConstant(4, kNaN); }}},
      {"time_s must be finite.", {[](P& p) { (*p.time_s)[1] = kInf; }}},
  };
  const auto validate_slice = [](const P& p) {
    ValidateWindowSlice({p.positions, p.velocities, p.accelerations, p.time_s, p.start_index,
                         p.stop_index, p.metadata});
  };
  ExpectCases<std::invalid_argument>(ValidPayload(), validate_slice, slice_rules);
  ExpectCases<std::invalid_argument>(ValidPayload(), ValidateWindowPayload, slice_rules);
  ExpectCases<std::invalid_argument>(ValidPayload(), ValidateWindowPayload, {
      {"", {[](P& p) { p.compute_time_s = -0.0; }}},
      {"compute_time_s must be finite and non-negative.",
       {[](P& p) { p.compute_time_s = -1e-12; }, [](P& p) { p.compute_time_s = kNaN; },
        [](P& p) { p.compute_time_s = kInf; }}},
      {"time_s must be finite.", {[](P& p) { p.compute_time_s = kNaN; (*p.time_s)[0] = kNaN; }}},
  });
}

TEST(Validation, JointSpaceWindowsInOrder) {
  const SampleMatrix none(0, 2);
  ExpectCases<std::invalid_argument>(ValidShaped(), ValidateShapedTrajectoryWindow, {
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
       {[](S& s) { s.time_s[0] = kNaN; s.stop_index = 20; },
        [](S& s) { s.time_s.resize(2); }}},
      {"The shaped range must match the position row count.",
       {[](S& s) { s.stop_index = 9; s.compute_time_s = kNaN; },
        [](S& s) { s.start_index = kWrapStart; s.stop_index = 1; }}},
      {"compute_time_s must be finite and non-negative.", {[](S& s) { s.compute_time_s = -1e-12; }}},
  });
  ExpectCases<std::invalid_argument>(ValidTrajectory(), ValidateTrajectoryWindow, {
      {"", {[](T& t) { t.vibration_shaping_weight_profile.reset(); t.states.setZero(3, 1); },
            [](T& t) { t.states.resize(7, 0); *t.vibration_shaping_weight_profile << 0, 1, 1; }}},
      {"command must be a finite sample-major matrix.",
       {[](T& t) { t.command.resize(3, 0); },
        [](T& t) { t.command(0, 1) = kInf; t.stop_index = 12; }}},
      {"The trajectory range must match the command row count.",
       {[](T& t) { t.stop_index = 14; t.command_velocity.resize(3, 1); },
        [](T& t) { t.start_index = kWrapStart; t.stop_index = 1; }}},
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

TEST(Validation, TaskSpaceInOrder) {
  const std::vector<Case<TS>> trajectory_rules = {
      {"", {[](TS& t) { t.orientations.reset(); t.time_s << 0.0, 0.1, 0.1; },
            [](TS& t) { t = ValidTaskSpaceWindow(1).trajectory; }}},
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
  const W valid = ValidTaskSpaceWindow();
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
       {[](W& w) { w.stop_index = 9; w.compute_time_s = kNaN; },
        [](W& w) { w.start_index = kWrapStart; w.stop_index = 1; }}},
      {"task-space compute_time_s must be finite and nonnegative.",
       {[](W& w) { w.compute_time_s = kInf; }}},
  });
}
// clang-format on

// The library's own error is a std::runtime_error and not a std::invalid_argument; it keeps the
// detail it was given.
TEST(Validation, TheLibrarysOwnErrorType) {
  static_assert(std::is_base_of_v<std::runtime_error, InvalidArgumentError> &&
                !std::is_base_of_v<std::invalid_argument, native::Error>);
  const InvalidArgumentError built("bad.", std::string("positions"));
  EXPECT_TRUE(built.code() == native::ErrorCode::InvalidArgument && !built.context());
  EXPECT_EQ(built.detail(), std::optional<std::string>("positions"));
  EXPECT_STREQ(built.what(), "bad.");
}

}  // namespace
}  // namespace corvane::control::window
