// What the buffers' bindings need of the reference buffer's binding.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include <window/reference_buffer.hpp>

#include "arrays.hpp"
#include "errors.hpp"

namespace corvane::python {

// AppendableReferenceBuffer::WaitUntilSamples as Python calls it: in slices, so that Ctrl-C
// raises KeyboardInterrupt. Needs the GIL, which it releases while it waits.
bool WaitForSamples(cw::AppendableReferenceBuffer& reference, std::size_t count,
                    const Timeout& timeout);

// Buffer::AppendReference (of a reference or a window buffer) with `command` converted as a
// sample matrix; raises ValueError for an array of another shape.
template <class Buffer>
cw::AppendedRange AppendCommand(Buffer& buffer, const py::handle& command) {
  return buffer.AppendReference(SampleMatrixFrom(command, "command"));
}

// Every reference buffer made from Python that is still alive. Needs the GIL.
std::vector<std::shared_ptr<cw::AppendableReferenceBuffer>> LiveReferenceBuffers();

}  // namespace corvane::python
