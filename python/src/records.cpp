// The records of window/records.hpp and window/reference_buffer.hpp, and the validators.
#include <window/records.hpp>
#include <window/reference_buffer.hpp>

#include <pybind11/numpy.h>

#include "errors.hpp"
#include "record_class.hpp"

namespace corvane::python {

void RecordSteps::SetFields(py::handle record, const py::kwargs& fields) {
  const py::object parameters = record.get_type().attr("__signature__").attr("parameters");
  for (const auto& [name, value] : fields) {
    if (!parameters.contains(name)) {
      throw py::type_error(TypeName(record) + "() got an unexpected keyword argument '" +
                           std::string(py::str(name)) + "'");
    }
    py::setattr(record, name, value);
  }
}

void RecordSteps::AddParameter(py::handle record_class, const char* name,
                               py::handle default_value) {
  const py::module_ inspect = py::module_::import("inspect");
  py::list parameters;
  if (py::hasattr(record_class, "__signature__")) {
    parameters = py::list(record_class.attr("__signature__").attr("parameters").attr("values")());
  }
  parameters.append(inspect.attr("Parameter")(name, inspect.attr("Parameter").attr("KEYWORD_ONLY"),
                                              py::arg("default") = default_value));
  py::setattr(record_class, "__signature__", inspect.attr("Signature")(parameters));
}

namespace {

// An array as its shape and, when it has elements, their range; anything else as its repr.
std::string Describe(py::handle value) {
  if (!py::isinstance<py::array>(value)) return py::repr(value);
  std::string text = "array" + std::string(py::str(value.attr("shape")));
  if (value.attr("size").cast<std::size_t>() == 0) return text;
  return text + std::string(py::str(" in [{:g}, {:g}]")
                                .format(value.attr("min")().cast<double>(),
                                        value.attr("max")().cast<double>()));
}

}  // namespace

std::string RecordSteps::Repr(py::handle record) {
  std::string text = TypeName(record) + "(";
  const char* separator = "";
  for (const py::handle name : record.get_type().attr("__signature__").attr("parameters")) {
    text += separator + std::string(py::str(name)) + "=" + Describe(record.attr(name));
    separator = ", ";
  }
  return text + ")";
}

namespace {

// The fields that WindowSlice, WindowPayload and ShapedTrajectoryWindow share, in their order.
template <class Record>
RecordClass<Record>& SampleFields(RecordClass<Record>&& record, const char* positions,
                                  const char* derivatives, const char* time_s) {
  return record.Field("positions", &Record::positions, positions)
      .Field("velocities", &Record::velocities, derivatives)
      .Field("accelerations", &Record::accelerations, derivatives)
      .Field("time_s", &Record::time_s, time_s)
      .Field("start_index", &Record::start_index, "Global index of row 0.")
      .Field("stop_index", &Record::stop_index, "One past the global index of the last row.");
}

constexpr const char* kRows = "[rows, joints], one row per sample.";
constexpr const char* kOptionalRows = "None, or the shape of positions.";
constexpr const char* kOptionalTimes = "[s] None, or one time per row.";

void BindJointSpaceRecords(py::module_& module) {
  SampleFields(RecordClass<cw::WindowSlice>(
                   module, "WindowSlice",
                   "The solve request that the lifted-MPC producer hands its solver."),
               kRows, kOptionalRows, kOptionalTimes)
      .Field("metadata", &cw::WindowSlice::metadata,
             "Strings by key, e.g. \"apply_samples\", \"terminal_padding_samples\" (a copy).");
  SampleFields(RecordClass<cw::WindowPayload>(
                   module, "WindowPayload",
                   "One produced window: what every producer yields and Pop returns."),
               kRows, kOptionalRows, kOptionalTimes)
      .Field("compute_time_s", &cw::WindowPayload::compute_time_s,
             "[s] Computation spent on this window, >= 0.")
      .Field("metadata", &cw::WindowPayload::metadata,
             "Strings by key, e.g. \"sample_time_s\", \"is_tail\" (a copy).");
  RecordClass<cw::TrajectoryWindow>(module, "TrajectoryWindow",
                                    "A window of commanded joint trajectory.")
      .Field("command", &cw::TrajectoryWindow::command,
             "[R, joints] commanded positions, at least one joint.")
      .Field("states", &cw::TrajectoryWindow::states,
             "Empty, or [R, any] states, one row per command row.")
      .Field("command_velocity", &cw::TrajectoryWindow::command_velocity, "[R, joints].")
      .Field("command_acceleration", &cw::TrajectoryWindow::command_acceleration, "[R, joints].")
      .Field("time_s", &cw::TrajectoryWindow::time_s, "[s] One time per command row.")
      .Field("start_index", &cw::TrajectoryWindow::start_index, "Global index of command row 0.")
      .Field("stop_index", &cw::TrajectoryWindow::stop_index,
             "One past the global index of the last command row.")
      .Field("vibration_shaping_weight_profile",
             &cw::TrajectoryWindow::vibration_shaping_weight_profile,
             "None, or [R] weights in [0, 1].");
  SampleFields(RecordClass<cw::ShapedTrajectoryWindow>(
                   module, "ShapedTrajectoryWindow",
                   "A shaped joint-space window as a TrajectoryWindowHandle returns it; every "
                   "array is present."),
               "[R, joints] shaped positions, at least one joint.", "[R, joints].",
               "[s] One time per row.")
      .Field("is_tail", &cw::ShapedTrajectoryWindow::is_tail,
             "The window belongs to the tail of the trajectory.")
      .Field("compute_time_s", &cw::ShapedTrajectoryWindow::compute_time_s,
             "[s] Computation spent shaping this window.");
}

void BindTaskSpaceRecords(py::module_& module) {
  using Trajectory = cw::TaskSpaceShapedTrajectory;
  RecordClass<Trajectory>(module, "TaskSpaceShapedTrajectory",
                          "A shaped trajectory in task space with the matching joint-space "
                          "arrays (N samples, J joints).")
      .Field("positions", &Trajectory::positions, "[N, 3] task-space position.")
      .Field("orientations", &Trajectory::orientations, "None, or [N, 4] orientation components.")
      .Field("velocities", &Trajectory::velocities, "[N, 3] task-space velocity.")
      .Field("accelerations", &Trajectory::accelerations, "[N, 3] task-space acceleration.")
      .Field("joint_positions", &Trajectory::joint_positions, "[N, J].")
      .Field("joint_velocities", &Trajectory::joint_velocities, "[N, J].")
      .Field("joint_accelerations", &Trajectory::joint_accelerations, "[N, J].")
      .Field("time_s", &Trajectory::time_s, "[s] N sample times, nondecreasing.");
  RecordClass<cw::TaskSpaceShapedWindow>(module, "TaskSpaceShapedWindow",
                                         "A window of a task-space shaped trajectory.")
      .Field("trajectory", &cw::TaskSpaceShapedWindow::trajectory,
             "The samples of the window (a view into this record).")
      .Field("start_index", &cw::TaskSpaceShapedWindow::start_index,
             "Global index of the first sample.")
      .Field("stop_index", &cw::TaskSpaceShapedWindow::stop_index,
             "One past the global index of the last sample.")
      .Field("is_tail", &cw::TaskSpaceShapedWindow::is_tail, "The window belongs to the tail.")
      .Field("compute_time_s", &cw::TaskSpaceShapedWindow::compute_time_s,
             "[s] Computation spent producing this window.");
}

void BindReferenceRecords(py::module_& module) {
  RecordClass<cw::AppendedRange>(module, "AppendedRange",
                                 "The samples one append added: [start_index, stop_index).")
      .Field("start_index", &cw::AppendedRange::start_index, "Index of the first sample appended.")
      .Field("stop_index", &cw::AppendedRange::stop_index,
             "One past the last; the new number of available samples.");
  RecordClass<cw::ReferenceWindow>(
      module, "ReferenceWindow",
      "A copied stretch of reference, padded at its end by repeating the last sample.")
      .Field("positions", &cw::ReferenceWindow::positions, "[stop - start, joints].")
      .Field("terminal_padding_samples", &cw::ReferenceWindow::terminal_padding_samples,
             "Trailing rows that repeat the last sample.");
}

// The validators raise ValueError, or InvalidArgumentError for the task-space records, naming
// the first fault.
void BindValidators(py::module_& module) {
  module.def("ValidateWindowSlice", &cw::ValidateWindowSlice, py::arg("slice"),
             "Checks a solve request: positions with at least one column and finite, the range "
             "matching the row count, optional arrays matching positions and finite. Metadata is "
             "not inspected. Raises ValueError naming the first fault.");
  module.def("ValidateWindowPayload", &cw::ValidateWindowPayload, py::arg("payload"),
             "Checks a window as ValidateWindowSlice does, then its compute_time_s (finite, not "
             "negative). Raises ValueError naming the first fault.");
  module.def("ValidateShapedTrajectoryWindow", &cw::ValidateShapedTrajectoryWindow,
             py::arg("window"),
             "Checks a shaped window: every array first, then the range, then compute_time_s. "
             "Raises ValueError naming the first fault.");
  module.def("ValidateTrajectoryWindow", &cw::ValidateTrajectoryWindow, py::arg("window"),
             "Checks a trajectory window: command, its range, then the other arrays and the "
             "weight profile. Raises ValueError naming the first fault.");
  module.def("ValidateTaskSpaceShapedTrajectory", &cw::ValidateTaskSpaceShapedTrajectory,
             py::arg("trajectory"),
             "Checks every block of a task-space trajectory for shape and finiteness, and that "
             "its times do not decrease. Raises InvalidArgumentError naming the first fault.");
  module.def("ValidateTaskSpaceShapedWindow", &cw::ValidateTaskSpaceShapedWindow, py::arg("window"),
             "Checks the trajectory, then the range, then compute_time_s. Raises "
             "InvalidArgumentError naming the first fault.");
}

}  // namespace

void BindRecords(py::module_& module) {
  BindJointSpaceRecords(module);
  BindTaskSpaceRecords(module);
  BindReferenceRecords(module);
  BindValidators(module);
}

}  // namespace corvane::python
