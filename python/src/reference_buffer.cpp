// AppendableReferenceBuffer, shared between Python, the lifted-MPC producer and the buffer.
#include <memory>
#include <optional>

#include <window/reference_buffer.hpp>

#include "errors.hpp"

namespace corvane::python {

void BindReferenceBuffer(py::module_& module) {
  using Buffer = cw::AppendableReferenceBuffer;
  py::class_<Buffer, std::shared_ptr<Buffer>>(
      module, "AppendableReferenceBuffer",
      "The thread-safe, growing store of reference samples (one row per sample) for streaming.")
      .def(py::init<std::optional<std::size_t>>(), py::arg("joint_count") = py::none())
      .def("AppendReference", &Buffer::AppendReference, py::arg("command"))
      .def("Finish", &Buffer::Finish)
      .def("ExtendHoldTo", &Buffer::ExtendHoldTo, py::arg("target_samples"))
      .def("WindowWithTerminalPadding", &Buffer::WindowWithTerminalPadding, py::arg("start"),
           py::arg("stop"))
      .def(
          "WaitUntilSamples",
          [](Buffer& buffer, std::size_t count, const Timeout& timeout) {
            return buffer.WaitUntilSamples(count, timeout.limit);
          },
          py::arg("count"), py::arg("timeout") = py::none(),
          py::call_guard<py::gil_scoped_release>(),
          "Waits (with the GIL released) until `count` samples are stored or the stream is "
          "finished; returns whether they are stored.")
      .def("available_samples", &Buffer::available_samples)
      .def("is_finished", &Buffer::is_finished)
      .def("PositionsCopy", &Buffer::PositionsCopy);
}

}  // namespace corvane::python
