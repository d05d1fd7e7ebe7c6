// RecordedWindow, RecordFileError, RecordWriter, ReadRecord, ParseRecord and ReplayProducer.
#include <string>
#include <vector>

#include <corvane_shaper_io/window_record.hpp>

#include "io/io.hpp"
#include "record_class.hpp"

namespace corvane::python {

namespace cio = control::io;

namespace {

std::string WriterRepr(const cio::RecordWriter& writer) {
  return "RecordWriter(path=" + std::string(py::repr(py::str(writer.path()))) +
         ", windows=" + std::to_string(writer.windows()) + ")";
}

void BindRecordWriter(py::module_& io) {
  py::class_<cio::RecordWriter>(
      io, "RecordWriter",
      "Writes a record file as a run goes: Append() writes one popped window, Close() the closing "
      "entry; a file never closed is refused as truncated. Append() allocates, so call it off the "
      "real-time path. A context manager: leaving the with block closes the file.")
      .def(py::init<const std::string&>(), py::arg("path"),
           "Creates the file (replacing one that exists) and writes its header; raises "
           "RuntimeError naming the file when it cannot.")
      .def("Append", &cio::RecordWriter::Append, py::arg("window"), py::arg("popped_s"),
           "Appends a popped WindowPayload; popped_s [s] is when the loop popped it. Raises "
           "ValueError for an invalid window or a popped_s that is not finite, RuntimeError "
           "after Close() or when writing fails.")
      .def("Close", &cio::RecordWriter::Close,
           "Writes the closing entry and closes the file; a second call does nothing.")
      .def("windows", &cio::RecordWriter::windows, "Windows appended so far.")
      .def("path", &cio::RecordWriter::path, "The file written.")
      .def(
          "__enter__", [](cio::RecordWriter& writer) -> cio::RecordWriter& { return writer; },
          py::return_value_policy::reference_internal)
      .def(
          "__exit__",
          [](cio::RecordWriter& writer, const py::args&) {
            writer.Close();
            return false;
          },
          "Closes the file; an exception in the block passes on.")
      .def("__repr__", &WriterRepr);
}

}  // namespace

void BindWindowRecord(py::module_& io) {
  RecordClass<cio::RecordedWindow>(io, "RecordedWindow", "One popped window of a recorded run.")
      .Field("window", &cio::RecordedWindow::window, "The WindowPayload as the loop popped it.")
      .Field("popped_s", &cio::RecordedWindow::popped_s,
             "[s] When the loop popped it, on the recording caller's clock.");
  py::register_exception<cio::RecordFileError>(io, "RecordFileError", PyExc_ValueError)
      .attr("__doc__") =
      "A record file that is truncated, corrupt or of another version (a ValueError); the "
      "message names the file and the byte offset at fault.";
  BindRecordWriter(io);
  io.def("ReadRecord", &cio::ReadRecord, py::arg("path"), py::call_guard<py::gil_scoped_release>(),
         "Every RecordedWindow of the record file, in order. Raises RecordFileError for a "
         "truncated, corrupt or other-version file, RuntimeError when it cannot be read.");
  io.def(
      "ParseRecord",
      [](const py::bytes& data, const std::string& name) {
        return cio::ParseRecord(std::string(data), name);
      },
      py::arg("data"), py::arg("name"),
      "The RecordedWindow list of a record held in bytes; name stands for the file in errors.");
  io.def("ReplayProducer", &cio::ReplayProducer, py::arg("record"),
         "A FiniteWindowProducer that replays the recorded windows, in order, through "
         "ProduceNext: the same samples, ranges, compute times and metadata as were popped.");
}

}  // namespace corvane::python
