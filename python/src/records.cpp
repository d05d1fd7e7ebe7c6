// The records of window/records.hpp and window/reference_buffer.hpp, and the validators.
#include <window/records.hpp>
#include <window/reference_buffer.hpp>

#include "record_class.hpp"

namespace corvane::python {

namespace {

// The fields that WindowSlice, WindowPayload and ShapedTrajectoryWindow share, in their order.
template <class Record>
RecordClass<Record>& SampleFields(RecordClass<Record>&& record) {
  return record.Field("positions", &Record::positions)
      .Field("velocities", &Record::velocities)
      .Field("accelerations", &Record::accelerations)
      .Field("time_s", &Record::time_s)
      .Field("start_index", &Record::start_index)
      .Field("stop_index", &Record::stop_index);
}

void BindJointSpaceRecords(py::module_& module) {
  SampleFields(RecordClass<cw::WindowSlice>(
                   module, "WindowSlice",
                   "The solve request that the lifted-MPC producer hands its solver."))
      .Field("metadata", &cw::WindowSlice::metadata);
  SampleFields(RecordClass<cw::WindowPayload>(
                   module, "WindowPayload",
                   "One produced window: what every producer yields and Pop returns."))
      .Field("compute_time_s", &cw::WindowPayload::compute_time_s)
      .Field("metadata", &cw::WindowPayload::metadata);
  RecordClass<cw::TrajectoryWindow>(module, "TrajectoryWindow",
                                    "A window of commanded joint trajectory.")
      .Field("command", &cw::TrajectoryWindow::command)
      .Field("states", &cw::TrajectoryWindow::states)
      .Field("command_velocity", &cw::TrajectoryWindow::command_velocity)
      .Field("command_acceleration", &cw::TrajectoryWindow::command_acceleration)
      .Field("time_s", &cw::TrajectoryWindow::time_s)
      .Field("start_index", &cw::TrajectoryWindow::start_index)
      .Field("stop_index", &cw::TrajectoryWindow::stop_index)
      .Field("vibration_shaping_weight_profile",
             &cw::TrajectoryWindow::vibration_shaping_weight_profile);
  SampleFields(RecordClass<cw::ShapedTrajectoryWindow>(
                   module, "ShapedTrajectoryWindow",
                   "A shaped joint-space window as a TrajectoryWindowHandle returns it."))
      .Field("is_tail", &cw::ShapedTrajectoryWindow::is_tail)
      .Field("compute_time_s", &cw::ShapedTrajectoryWindow::compute_time_s);
}

void BindTaskSpaceRecords(py::module_& module) {
  RecordClass<cw::TaskSpaceShapedTrajectory>(
      module, "TaskSpaceShapedTrajectory",
      "A shaped trajectory in task space with the matching joint-space arrays.")
      .Field("positions", &cw::TaskSpaceShapedTrajectory::positions)
      .Field("orientations", &cw::TaskSpaceShapedTrajectory::orientations)
      .Field("velocities", &cw::TaskSpaceShapedTrajectory::velocities)
      .Field("accelerations", &cw::TaskSpaceShapedTrajectory::accelerations)
      .Field("joint_positions", &cw::TaskSpaceShapedTrajectory::joint_positions)
      .Field("joint_velocities", &cw::TaskSpaceShapedTrajectory::joint_velocities)
      .Field("joint_accelerations", &cw::TaskSpaceShapedTrajectory::joint_accelerations)
      .Field("time_s", &cw::TaskSpaceShapedTrajectory::time_s);
  RecordClass<cw::TaskSpaceShapedWindow>(module, "TaskSpaceShapedWindow",
                                         "A window of a task-space shaped trajectory.")
      .Field("trajectory", &cw::TaskSpaceShapedWindow::trajectory)
      .Field("start_index", &cw::TaskSpaceShapedWindow::start_index)
      .Field("stop_index", &cw::TaskSpaceShapedWindow::stop_index)
      .Field("is_tail", &cw::TaskSpaceShapedWindow::is_tail)
      .Field("compute_time_s", &cw::TaskSpaceShapedWindow::compute_time_s);
}

void BindReferenceRecords(py::module_& module) {
  RecordClass<cw::AppendedRange>(module, "AppendedRange",
                                 "The samples one append added: [start_index, stop_index).")
      .Field("start_index", &cw::AppendedRange::start_index)
      .Field("stop_index", &cw::AppendedRange::stop_index);
  RecordClass<cw::ReferenceWindow>(
      module, "ReferenceWindow",
      "A copied stretch of reference, padded at its end by repeating the last sample.")
      .Field("positions", &cw::ReferenceWindow::positions)
      .Field("terminal_padding_samples", &cw::ReferenceWindow::terminal_padding_samples);
}

// The validators raise ValueError, or InvalidArgumentError for the task-space records, naming
// the first fault.
void BindValidators(py::module_& module) {
  module.def("ValidateWindowSlice", &cw::ValidateWindowSlice, py::arg("slice"));
  module.def("ValidateWindowPayload", &cw::ValidateWindowPayload, py::arg("payload"));
  module.def("ValidateShapedTrajectoryWindow", &cw::ValidateShapedTrajectoryWindow,
             py::arg("window"));
  module.def("ValidateTrajectoryWindow", &cw::ValidateTrajectoryWindow, py::arg("window"));
  module.def("ValidateTaskSpaceShapedTrajectory", &cw::ValidateTaskSpaceShapedTrajectory,
             py::arg("trajectory"));
  module.def("ValidateTaskSpaceShapedWindow", &cw::ValidateTaskSpaceShapedWindow,
             py::arg("window"));
}

}  // namespace

void BindRecords(py::module_& module) {
  BindJointSpaceRecords(module);
  BindTaskSpaceRecords(module);
  BindReferenceRecords(module);
  BindValidators(module);
}

}  // namespace corvane::python
