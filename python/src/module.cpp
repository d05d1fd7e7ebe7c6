// Entry point of the corvane_window Python module.
#include "module.hpp"

#include "engines/engines.hpp"
#include "io/io.hpp"

PYBIND11_MODULE(corvane_window, module) {
  module.doc() =
      "Python bindings of libcorvane_shaper_window: window records and their validators, the "
      "producers, the appendable reference buffer, the asynchronous window buffers and their "
      "timing log; the submodule engines holds the engines companion library.\n\n"
      "Names are the library's. Record arrays are numpy float64 arrays (sample matrices of shape "
      "(rows, joints), C-contiguous; a 1-D array of J numbers is one sample of J joints); reading "
      "an array field returns a read-only view that keeps its record alive, and assigning one "
      "converts the value to float64 and copies it. Metadata reads as a new dict "
      "(a copy: assign a whole dict to change it); absent optionals are None. Time-outs are "
      "seconds (int or float) or datetime.timedelta; None waits without limit.\n\n"
      "Errors keep the library's messages: std::invalid_argument arrives as ValueError, "
      "std::runtime_error as RuntimeError and corvane::native::InvalidArgumentError as "
      "InvalidArgumentError (a RuntimeError). An exception raised by Python code that the "
      "library called (a solver, a handle, a producer) reaches the caller as itself. Blocking "
      "calls release the GIL, and Ctrl-C interrupts them with KeyboardInterrupt.";
  module.attr("__version__") = CORVANE_VERSION;
  corvane::python::BindErrors(module);
  corvane::python::BindRecords(module);
  corvane::python::BindReferenceBuffer(module);
  corvane::python::BindProducers(module);
  corvane::python::BindBuffers(module);
  corvane::python::BindWorkerSettings(module);
  corvane::python::BindTimingLog(module);
  corvane::python::BindReplacement(module);
  corvane::python::BindEngines(module);
  corvane::python::BindIo(module);
}
