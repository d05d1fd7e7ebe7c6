// Shared declarations of the corvane_window.io submodule: one Bind function per family of the
// companion library corvane::shaper_io, called in order by BindIo.
#pragma once

#include "module.hpp"

namespace corvane::python {

// Creates the submodule corvane_window.io (importable by that name too) and binds the families
// below into it; after BindProducers, whose FiniteWindowProducer it returns.
void BindIo(py::module_& module);

// RecordedWindow, RecordFileError, RecordWriter, ReadRecord, ParseRecord and ReplayProducer.
void BindWindowRecord(py::module_& io);

}  // namespace corvane::python
