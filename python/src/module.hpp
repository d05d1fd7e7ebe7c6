// Shared declarations of the corvane_window Python module: one Bind function per family of the
// library's API, called in order by the module's entry point.
#pragma once

// Every source sees the same type casters: numpy arrays for Eigen matrices, and the standard
// containers (optional, vector, map).
#include <pybind11/eigen.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

namespace corvane::control::window {}

namespace corvane::python {

namespace py = pybind11;
namespace cw = control::window;

// InvalidArgumentError and the translation of exceptions raised by Python code that the library
// called.
void BindErrors(py::module_& module);
// The six records, the validators, AppendedRange and ReferenceWindow.
void BindRecords(py::module_& module);
// AppendableReferenceBuffer.
void BindReferenceBuffer(py::module_& module);
// The producer interfaces (subclassable in Python) and the three producers.
void BindProducers(py::module_& module);
// QualificationReport, AsyncWindowBuffer and AppendableWindowBuffer.
void BindBuffers(py::module_& module);
// WorkerPolicy, WorkerSettings and the buffers' Start(settings); after BindBuffers.
void BindWorkerSettings(py::module_& module);
// TimingLog, TimingRead, TimingCounters and the buffers' AttachTimingLog; after BindBuffers.
void BindTimingLog(py::module_& module);
// The records of the replacement of the unplayed reference and the streaming buffers' replacement
// calls; after BindBuffers.
void BindReplacement(py::module_& module);

}  // namespace corvane::python
