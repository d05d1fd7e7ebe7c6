// The submodule corvane_window.io: what reads and writes files (the companion library
// corvane::shaper_io).
#include "io/io.hpp"

namespace corvane::python {

void BindIo(py::module_& module) {
  py::module_ io = module.def_submodule(
      "io",
      "Files of the companion library corvane::shaper_io: records of the windows a run popped, "
      "saved as they come and replayed as a producer.");
  // `import corvane_window.io` finds it too.
  py::module_::import("sys").attr("modules")[io.attr("__name__")] = io;
  BindWindowRecord(io);
}

}  // namespace corvane::python
