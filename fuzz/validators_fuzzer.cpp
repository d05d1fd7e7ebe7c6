// Arbitrary records through every validator: each either accepts its record or throws exactly its
// own exception type with one of its own messages, and it never accepts a record that holds a
// non-finite value or whose range does not span its row count.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <tuple>
#include <type_traits>
#include <typeinfo>

#include "fuzz_input.hpp"

namespace corvane::fuzzing {
namespace {

using namespace control::window;
using Messages = std::initializer_list<const char*>;

template <typename Derived>
bool Finite(const Eigen::DenseBase<Derived>& values) {
  return values.allFinite();
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

// A WindowSlice, or a WindowPayload with its compute time, through its validator.
template <typename Record, void (*kValidate)(const Record&)>
void CheckSample(FuzzInput& in) {
  Record r;
  const Eigen::Index rows = in.Dimension(), cols = in.Dimension();
  r.positions = in.Values<SampleMatrix>(rows, cols);
  r.velocities = in.Maybe([&] { return in.MatrixLike(rows, cols); });
  r.accelerations = in.Maybe([&] { return in.MatrixLike(rows, cols); });
  r.time_s = in.Maybe([&] { return in.VectorLike(rows); });
  std::tie(r.start_index, r.stop_index) = in.Range(rows);
  bool sound = AllFinite(r.positions, r.velocities, r.accelerations, r.time_s) &&
               Spans(r.start_index, r.stop_index, rows);
  if constexpr (std::is_same_v<Record, WindowPayload>) {
    r.compute_time_s = in.Value();
    sound = sound && std::isfinite(r.compute_time_s);
  }
  Check<std::invalid_argument>(r, kValidate, kSliceMessages, sound);
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

// A trajectory, or a window that holds one, through its validator. Samples and joints of 0 to 4;
// the times are mostly sorted, so that their order passes.
template <bool kWindow>
void CheckTaskSpace(FuzzInput& in) {
  const Eigen::Index n = in.Dimension(), joints = in.Dimension();
  TaskSpaceShapedWindow w{{in.MatrixLike(n, 3), in.Maybe([&] { return in.MatrixLike(n, 4); }),
                           in.MatrixLike(n, 3), in.MatrixLike(n, 3), in.MatrixLike(n, joints),
                           in.MatrixLike(n, joints), in.MatrixLike(n, joints), in.VectorLike(n)}};
  TaskSpaceShapedTrajectory& t = w.trajectory;
  if (!in.OneIn(4)) std::sort(t.time_s.data(), t.time_s.data() + t.time_s.size());
  const bool sound =
      t.positions.rows() >= 1 &&
      AllFinite(t.positions, t.orientations, t.velocities, t.accelerations, t.joint_positions,
                t.joint_velocities, t.joint_accelerations, t.time_s);
  if (!kWindow) {
    return Check<native::InvalidArgumentError>(t, ValidateTaskSpaceShapedTrajectory,
                                               kTaskSpaceMessages, sound);
  }
  std::tie(w.start_index, w.stop_index) = in.Range(t.positions.rows());
  w.compute_time_s = in.Value();
  Check<native::InvalidArgumentError>(w, ValidateTaskSpaceShapedWindow, kTaskSpaceMessages,
                                      sound && std::isfinite(w.compute_time_s) &&
                                          Spans(w.start_index, w.stop_index, t.positions.rows()));
}

}  // namespace

// One record after another, each of a kind chosen by the input, until the bytes run out.
void RunInput(FuzzInput& in) {
  constexpr void (*kChecks[])(FuzzInput&) = {CheckSample<WindowSlice, ValidateWindowSlice>,
                                             CheckSample<WindowPayload, ValidateWindowPayload>,
                                             CheckShaped,
                                             CheckTrajectory,
                                             CheckTaskSpace<false>,
                                             CheckTaskSpace<true>};
  while (!in.Empty()) kChecks[in.Below(std::size(kChecks))](in);
}

}  // namespace corvane::fuzzing
