// Arbitrary records through every validator: each either accepts its record or throws exactly its
// own exception type with one of its own messages, and it never accepts a record that holds a
// non-finite value or whose range does not span its row count.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <tuple>
#include <typeinfo>

#include "fuzz_input.hpp"

namespace corvane::fuzzing {
namespace {

using namespace control::window;
using Messages = std::initializer_list<const char*>;

template <typename Derived>
bool Finite(const Eigen::DenseBase<Derived>& values) {
  const Derived& array = values.derived();
  return std::all_of(array.data(), array.data() + array.size(),
                     [](double value) { return std::isfinite(value); });
}
template <typename Array>
bool Finite(const std::optional<Array>& values) {
  return !values || Finite(*values);
}
template <typename... Arrays>
bool AllFinite(const Arrays&... arrays) {
  return (Finite(arrays) && ...);
}
bool Spans(std::size_t start, std::size_t stop, Eigen::Index rows) {
  return stop >= start && stop - start == static_cast<std::size_t>(rows);
}

// What `validate` throws must be exactly an `Error` carrying one of `messages`; a record it
// accepts must be `sound`.
template <typename Error, typename Record, typename Validate>
void Check(const Record& record, Validate validate, Messages messages, bool sound) {
  try {
    validate(record);
  } catch (const std::exception& error) {
    if (typeid(error) != typeid(Error)) Fail("a validator threw a foreign exception type");
    const auto is_thrown = [&](const char* message) { return !std::strcmp(message, error.what()); };
    if (std::none_of(messages.begin(), messages.end(), is_thrown)) Fail(error.what());
    return;
  }
  if (!sound) Fail("a validator accepted a non-finite value or a mismatched range");
}

constexpr Messages kSliceMessages = {
    "positions must have at least one column.",
    "positions must be finite.",
    "stop_index must be greater than or equal to start_index.",
    "The global half-open range must match the position row count.",
    "velocities must match the positions shape.",
    "velocities must be finite.",
    "accelerations must match the positions shape.",
    "accelerations must be finite.",
    "time_s must match the positions row count.",
    "time_s must be finite.",
    "compute_time_s must be finite and non-negative."};  // a payload's only

// The six fields that WindowSlice and WindowPayload share.
template <typename Record>
Record SampleRecord(FuzzInput& in) {
  Record record;
  const Eigen::Index rows = in.Dimension(), cols = in.Dimension();
  record.positions = in.Values<SampleMatrix>(rows, cols);
  record.velocities = in.Maybe([&] { return in.MatrixLike(rows, cols); });
  record.accelerations = in.Maybe([&] { return in.MatrixLike(rows, cols); });
  record.time_s = in.Maybe([&] { return in.VectorLike(rows); });
  std::tie(record.start_index, record.stop_index) = in.Range(rows);
  return record;
}
template <typename Record>
bool SoundSample(const Record& r) {
  return AllFinite(r.positions, r.velocities, r.accelerations, r.time_s) &&
         Spans(r.start_index, r.stop_index, r.positions.rows());
}

void CheckSlice(FuzzInput& in) {
  const auto slice = SampleRecord<WindowSlice>(in);
  Check<std::invalid_argument>(slice, ValidateWindowSlice, kSliceMessages, SoundSample(slice));
}

void CheckPayload(FuzzInput& in) {
  auto payload = SampleRecord<WindowPayload>(in);
  payload.compute_time_s = in.Value();
  Check<std::invalid_argument>(payload, ValidateWindowPayload, kSliceMessages,
                               SoundSample(payload) && std::isfinite(payload.compute_time_s));
}

void CheckShaped(FuzzInput& in) {
  const Eigen::Index rows = in.Dimension(), cols = in.Dimension();
  ShapedTrajectoryWindow w{in.Values<SampleMatrix>(rows, cols), in.MatrixLike(rows, cols),
                           in.MatrixLike(rows, cols), in.VectorLike(rows)};
  std::tie(w.start_index, w.stop_index) = in.Range(rows);
  w.compute_time_s = in.Value();
  Check<std::invalid_argument>(w, ValidateShapedTrajectoryWindow,
                               {"positions must be a finite sample-major matrix.",
                                "velocities must be finite and match the positions shape.",
                                "accelerations must be finite and match the positions shape.",
                                "time_s must be finite with one value per position.",
                                "The shaped range must match the position row count.",
                                "compute_time_s must be finite and non-negative."},
                               AllFinite(w.positions, w.velocities, w.accelerations, w.time_s) &&
                                   Spans(w.start_index, w.stop_index, rows) &&
                                   std::isfinite(w.compute_time_s));
}

void CheckTrajectory(FuzzInput& in) {
  const Eigen::Index rows = in.Dimension(), cols = in.Dimension();
  TrajectoryWindow w;
  w.command = in.Values<SampleMatrix>(rows, cols);
  w.states = in.Values<SampleMatrix>(in.DimensionLike(rows), in.Dimension());
  w.command_velocity = in.MatrixLike(rows, cols);
  w.command_acceleration = in.MatrixLike(rows, cols);
  w.time_s = in.VectorLike(rows);
  std::tie(w.start_index, w.stop_index) = in.Range(rows);
  w.vibration_shaping_weight_profile = in.Maybe([&] { return in.VectorLike(rows); });
  Check<std::invalid_argument>(
      w, ValidateTrajectoryWindow,
      {"command must be a finite sample-major matrix.",
       "The trajectory range must match the command row count.",
       "command_velocity must be finite and match the command shape.",
       "command_acceleration must be finite and match the command shape.",
       "states must be empty or finite with one row per command.",
       "time_s must be finite with one value per command.",
       "vibration_shaping_weight_profile must contain one finite value in [0, 1] per command."},
      AllFinite(w.command, w.states, w.command_velocity, w.command_acceleration, w.time_s,
                w.vibration_shaping_weight_profile) &&
          Spans(w.start_index, w.stop_index, rows));
}

constexpr Messages kTaskSpaceMessages = {
    "task-space positions must be finite and shaped [N, 3].",
    "task-space velocities has an invalid shape or value.",
    "task-space accelerations has an invalid shape or value.",
    "task-space orientations has an invalid shape or value.",
    "task-space joint positions must be finite and shaped [N, J].",
    "task-space joint velocities has an invalid shape or value.",
    "task-space joint accelerations has an invalid shape or value.",
    "task-space time must be finite and aligned with positions.",
    "task-space time must be nondecreasing.",
    "task-space window range must match its sample count.",  // a window's only
    "task-space compute_time_s must be finite and nonnegative."};

// Samples and joints of 0 to 4; the times are mostly sorted, so that their order passes.
TaskSpaceShapedTrajectory TaskSpaceRecord(FuzzInput& in) {
  const Eigen::Index n = in.Dimension(), joints = in.Dimension();
  TaskSpaceShapedTrajectory t{
      in.MatrixLike(n, 3),      in.Maybe([&] { return in.MatrixLike(n, 4); }),
      in.MatrixLike(n, 3),      in.MatrixLike(n, 3),
      in.MatrixLike(n, joints), in.MatrixLike(n, joints),
      in.MatrixLike(n, joints), in.VectorLike(n)};
  if (!in.OneIn(4)) std::sort(t.time_s.data(), t.time_s.data() + t.time_s.size());
  return t;
}
bool SoundTaskSpace(const TaskSpaceShapedTrajectory& t) {
  return t.positions.rows() >= 1 &&
         AllFinite(t.positions, t.orientations, t.velocities, t.accelerations, t.joint_positions,
                   t.joint_velocities, t.joint_accelerations, t.time_s);
}

void CheckTaskSpace(FuzzInput& in) {
  const TaskSpaceShapedTrajectory t = TaskSpaceRecord(in);
  Check<native::InvalidArgumentError>(t, ValidateTaskSpaceShapedTrajectory, kTaskSpaceMessages,
                                      SoundTaskSpace(t));
}

void CheckTaskSpaceWindow(FuzzInput& in) {
  TaskSpaceShapedWindow w{TaskSpaceRecord(in)};
  std::tie(w.start_index, w.stop_index) = in.Range(w.trajectory.positions.rows());
  w.compute_time_s = in.Value();
  Check<native::InvalidArgumentError>(
      w, ValidateTaskSpaceShapedWindow, kTaskSpaceMessages,
      SoundTaskSpace(w.trajectory) && std::isfinite(w.compute_time_s) &&
          Spans(w.start_index, w.stop_index, w.trajectory.positions.rows()));
}

}  // namespace

// One record after another, each of a kind chosen by the input, until the bytes run out.
void RunInput(FuzzInput& in) {
  constexpr void (*kChecks[])(FuzzInput&) = {CheckSlice,      CheckPayload,   CheckShaped,
                                             CheckTrajectory, CheckTaskSpace, CheckTaskSpaceWindow};
  while (!in.Empty()) kChecks[in.Below(std::size(kChecks))](in);
}

}  // namespace corvane::fuzzing
