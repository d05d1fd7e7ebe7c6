// The records of the replacement of the unplayed reference, and the replacement calls of the two
// streaming buffers.
#include <utility>

#include <window/async_buffer.hpp>
#include <window/replacement.hpp>

#include "arrays.hpp"
#include "module.hpp"
#include "record_class.hpp"

namespace corvane::python {

namespace {

void BindResumeRecords(py::module_& module) {
  using Command = cw::CommandSample;
  using Row = std::optional<Eigen::RowVectorXd>;
  py::class_<Command>(module, "CommandSample",
                      "The command at one sample, as the window that held that sample carried it: "
                      "positions, and velocities and accelerations when the window had them, each "
                      "one value per joint.")
      .def(py::init([](Eigen::RowVectorXd positions, Row velocities, Row accelerations) {
             return Command{std::move(positions), std::move(velocities), std::move(accelerations)};
           }),
           py::arg("positions") = Eigen::RowVectorXd(), py::arg("velocities") = py::none(),
           py::arg("accelerations") = py::none())
      .def_readwrite("positions", &Command::positions, "[joints] Commanded position.")
      .def_readwrite("velocities", &Command::velocities, "[joints] Or None.")
      .def_readwrite("accelerations", &Command::accelerations, "[joints] Or None.")
      .def("__repr__", [](const Command& command) {
        return py::str("CommandSample(positions={}, velocities={}, accelerations={})")
            .format(command.positions, command.velocities, command.accelerations);
      });
  using Point = cw::SolveResumePoint;
  RecordClass<Point>(module, "SolveResumePoint",
                     "Where a solve session resumes after a replacement; reference indices.")
      .Field("start_index", &Point::start_index,
             "Reference index at which the next request starts.")
      .Field("reference_before", &Point::reference_before,
             "The ResumeHistorySamples() reference rows before start_index (fewer at the start).")
      .def_readwrite("previous_command", &Point::previous_command,
                     "The CommandSample at start_index - 1; None at the first sample of the "
                     "stream.");
}

void BindReplacementRecords(py::module_& module) {
  using Replacement = cw::ReferenceReplacement;
  RecordClass<Replacement>(module, "ReferenceReplacement",
                           "What one replacement did, in global indices.")
      .Field("start_index", &Replacement::start_index,
             "First replaced sample: the index the call used.")
      .Field("stop_index", &Replacement::stop_index, "One past the last new sample.")
      .Field("resume_index", &Replacement::resume_index,
             "First sample of the first window produced again.")
      .Field("discarded_windows", &Replacement::discarded_windows,
             "Queued windows this call discarded.")
      .Field("replacements", &Replacement::replacements,
             "This replacement's number, 1 for the first: the metadata \"replacements\" of the "
             "windows produced after it.");
  using Totals = cw::ReplacementTotals;
  RecordClass<Totals>(module, "ReplacementTotals",
                      "Running totals over a buffer's replacements; discarded windows also count "
                      "in Totals() as produced windows.")
      .Field("replacements", &Totals::replacements, "Replacements made.")
      .Field("discarded_windows", &Totals::discarded_windows, "Produced windows never handed out.")
      .Field("discarded_compute_time_s", &Totals::discarded_compute_time_s,
             "[s] Compute time charged to them: spent.")
      .Field("discarded_duration_s", &Totals::discarded_duration_s,
             "[s] Their duration: never played.");
}

// The replacement itself runs without the GIL: the worker may need it to resume a Python solver.
template <class Buffer>
auto Replace(Buffer& buffer, std::size_t start_index, const py::handle& samples, bool finish) {
  const cw::SampleMatrix rows = SampleMatrixFrom(samples, "samples");
  py::gil_scoped_release released;
  return buffer.ReplaceReference(start_index, rows, finish);
}

// Adds a method to a class that another file bound, as py::class_::def would.
template <class Function, class... Extra>
void AddMethod(const py::object& cls, const char* name, Function&& function,
               const Extra&... extra) {
  cls.attr(name) = py::cpp_function(std::forward<Function>(function), py::name(name),
                                    py::is_method(cls), extra...);
}

void BindReferenceReplacement(const py::object& buffer) {
  AddMethod(buffer, "ReplaceReference", &Replace<cw::AppendableReferenceBuffer>,
            py::arg("start_index"), py::arg("samples"), py::arg("finish") = false,
            "Replaces every sample from start_index on with the rows of `samples` (possibly "
            "none), finishes the stream when `finish` is true, and wakes waiters; returns the "
            "AppendedRange written. Raises ValueError when start_index is beyond the stored "
            "samples or dropped by the retention (naming the first retained sample), and for a "
            "block that AppendReference would refuse; RuntimeError after Finish().");
  AddMethod(buffer, "first_retained_sample", &cw::AppendableReferenceBuffer::first_retained_sample,
            "Index of the oldest sample still stored: 0 without a retention.");
}

void BindWindowReplacement(const py::object& buffer) {
  using Buffer = cw::AppendableWindowBuffer;
  AddMethod(buffer, "ReplaceReference", &Replace<Buffer>, py::arg("start_index"),
            py::arg("samples"), py::arg("finish") = false,
            "Replaces every reference sample from global index start_index on with the rows of "
            "`samples` (possibly none), finishing the reference too when `finish` is true. Queued "
            "windows holding start_index or later are discarded; a window holding samples on both "
            "sides is produced again from its start, and production resumes from the command "
            "before it, without a jump. Returns a ReferenceReplacement. Raises ValueError when "
            "start_index is before EarliestReplaceableIndex() (naming it), beyond the stored "
            "samples or dropped by the retention, and for samples that AppendReference would "
            "refuse; RuntimeError when the producer cannot resume, after Finish(), or once the "
            "worker has ended. A failed call leaves the stream unchanged.");
  AddMethod(buffer, "EarliestReplaceableIndex", &Buffer::EarliestReplaceableIndex,
            "The earliest global index ReplaceReference accepts now: the end of the last window "
            "handed out. Raises RuntimeError when the producer cannot resume.");
  AddMethod(buffer, "StopSmoothly", &Buffer::StopSmoothly, py::arg("hold_samples"),
            py::call_guard<py::gil_scoped_release>(),
            "Ends the motion as soon as possible without a kink: from EarliestReplaceableIndex() "
            "the reference goes on from its position, velocity and acceleration, brakes to rest "
            "no harder and with its acceleration changing no faster than the stored reference "
            "ever does, holds the rest position for hold_samples samples and finishes (a "
            "reference that never accelerates is held at once). Returns a ReferenceReplacement. "
            "Raises ValueError when hold_samples is 0, otherwise as ReplaceReference.");
  AddMethod(buffer, "Replacements", &Buffer::Replacements,
            "The ReplacementTotals so far; a snapshot. Qualify() judges each discarded window "
            "against the limit with the duration it was produced for, and counts its compute time "
            "as spent but its duration as never played.");
}

}  // namespace

// After the buffers: the calls join their classes.
void BindReplacement(py::module_& module) {
  BindResumeRecords(module);
  BindReplacementRecords(module);
  BindReferenceReplacement(module.attr("AppendableReferenceBuffer"));
  BindWindowReplacement(module.attr("AppendableWindowBuffer"));
}

}  // namespace corvane::python
