// QualificationReport and the two buffers.
//
// Every call that waits (Pop, Join, Close, Prefill) releases the GIL, and so does the destruction
// of a buffer, which stops and joins its worker: a worker inside a Python solver needs the GIL to
// finish its call. Once Python has begun to shut down, a worker can no longer take the GIL, so an
// exit handler closes every buffer still alive before that.
#include <memory>
#include <optional>
#include <unordered_set>
#include <utility>
#include <vector>

#include <window/async_buffer.hpp>

#include "errors.hpp"
#include "producers.hpp"
#include "record_class.hpp"

namespace corvane::python {

namespace {

using Release = py::call_guard<py::gil_scoped_release>;

// The buffers that Python holds now; changed only with the GIL held.
std::unordered_set<cw::AsyncWindowBuffer*>& LiveBuffers() {
  static std::unordered_set<cw::AsyncWindowBuffer*> live;
  return live;
}

// Deletes a buffer with the GIL released; Python calls it from the buffer's deallocation, with
// the GIL held.
struct DeleteWithoutGil {
  template <class Buffer>
  void operator()(Buffer* buffer) const {
    LiveBuffers().erase(buffer);
    py::gil_scoped_release release;
    delete buffer;
  }
};

template <class Buffer>
using BufferHolder = std::unique_ptr<Buffer, DeleteWithoutGil>;

template <class Buffer, class... Args>
BufferHolder<Buffer> MakeBuffer(Args&&... args) {
  BufferHolder<Buffer> buffer(new Buffer(std::forward<Args>(args)...));
  LiveBuffers().insert(buffer.get());
  return buffer;
}

// The exit handler: closes every live buffer, holding its Python object meanwhile. The buffers
// are listed first because the set may change once the GIL is released.
void CloseLiveBuffers() {
  std::vector<py::object> held;
  for (cw::AsyncWindowBuffer* buffer : LiveBuffers()) {
    held.push_back(py::cast(buffer, py::return_value_policy::reference));
  }
  const std::vector<cw::AsyncWindowBuffer*> buffers(LiveBuffers().begin(), LiveBuffers().end());
  py::gil_scoped_release release;
  for (cw::AsyncWindowBuffer* buffer : buffers) buffer->Close();
}

void BindQualificationReport(py::module_& module) {
  using Report = cw::QualificationReport;
  RecordClass<Report>(module, "QualificationReport",
                      "Whether window production keeps up with real time, judged on the "
                      "recorded history.")
      .Field("qualified", &Report::qualified)
      .Field("compute_fraction_limit", &Report::compute_fraction_limit)
      .Field("prefill_windows", &Report::prefill_windows)
      .Field("max_compute_time_s", &Report::max_compute_time_s)
      .Field("p99_compute_time_s", &Report::p99_compute_time_s)
      .Field("min_margin_s", &Report::min_margin_s)
      .Field("underrun_windows", &Report::underrun_windows)
      .Field("total_windows", &Report::total_windows)
      .Field("total_compute_time_s", &Report::total_compute_time_s);
}

void BindAsyncWindowBuffer(py::module_& module) {
  using Buffer = cw::AsyncWindowBuffer;
  py::class_<Buffer, BufferHolder<Buffer>>(
      module, "AsyncWindowBuffer",
      "Runs one producer on a worker thread and hands its windows to consumers. The buffer keeps "
      "the producer object alive and is its only user from then on. Pop, Join, Close and Prefill "
      "release the GIL while they wait; so does deleting the buffer, which closes it.")
      .def(py::init([](const py::object& producer, std::size_t prefill_windows,
                       std::optional<std::size_t> max_buffered_windows) {
             return MakeBuffer<Buffer>(AdoptProducer(producer), prefill_windows,
                                       max_buffered_windows);
           }),
           py::arg("producer"), py::arg("prefill_windows") = 0,
           py::arg("max_buffered_windows") = py::none())
      .def("Start", py::overload_cast<>(&Buffer::Start))
      .def("Stop", &Buffer::Stop)
      .def("Close", &Buffer::Close, Release())
      .def(
          "Join", [](Buffer& buffer, const Timeout& timeout) { return buffer.Join(timeout.limit); },
          py::arg("timeout") = py::none(), Release())
      .def(
          "Pop", [](Buffer& buffer, const Timeout& timeout) { return buffer.Pop(timeout.limit); },
          py::arg("timeout") = py::none(), Release())
      .def("PopNowait", &Buffer::PopNowait)
      .def("HasBufferedData", &Buffer::HasBufferedData)
      .def("IsComplete", &Buffer::IsComplete)
      .def("LastError", &Buffer::LastError)
      .def("Prefill", &Buffer::Prefill, py::arg("max_windows"), Release())
      .def("Qualify", &Buffer::Qualify, py::arg("compute_fraction_limit"));
}

void BindAppendableWindowBuffer(py::module_& module) {
  using Buffer = cw::AppendableWindowBuffer;
  py::class_<Buffer, cw::AsyncWindowBuffer, BufferHolder<Buffer>>(
      module, "AppendableWindowBuffer",
      "An AsyncWindowBuffer that also appends to and finishes the reference its producer reads.")
      .def(py::init([](const py::object& producer,
                       std::shared_ptr<cw::AppendableReferenceBuffer> reference_buffer,
                       std::size_t prefill_windows,
                       std::optional<std::size_t> max_buffered_windows) {
             return MakeBuffer<Buffer>(AdoptProducer(producer), std::move(reference_buffer),
                                       prefill_windows, max_buffered_windows);
           }),
           py::arg("producer"), py::arg("reference_buffer"), py::arg("prefill_windows") = 0,
           py::arg("max_buffered_windows") = py::none())
      .def("AppendReference", &Buffer::AppendReference, py::arg("command"))
      .def("Finish", &Buffer::Finish)
      .def("ReferencePositions", &Buffer::ReferencePositions)
      .def("AvailableReferenceSamples", &Buffer::AvailableReferenceSamples);
}

}  // namespace

void BindBuffers(py::module_& module) {
  BindQualificationReport(module);
  BindAsyncWindowBuffer(module);
  BindAppendableWindowBuffer(module);
  py::module_::import("atexit").attr("register")(py::cpp_function(&CloseLiveBuffers));
}

}  // namespace corvane::python
