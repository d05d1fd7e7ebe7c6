// The submodule corvane_window.io: what reads and writes files (the companion library
// corvane::shaper_io).
#include "module.hpp"

namespace corvane::python {

void BindIo(py::module_& module) {
  py::module_ io = module.def_submodule(
      "io",
      "Files of the companion library corvane::shaper_io: records of the windows a run popped, "
      "saved as they come and replayed as a producer.");
  BindWindowRecord(io);
}

}  // namespace corvane::python
