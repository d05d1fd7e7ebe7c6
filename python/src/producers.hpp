// Handing Python objects to the library as the producers it owns.
#pragma once

#include <memory>

#include <window/producers.hpp>

#include "module.hpp"

namespace corvane::python {

// The producer for a buffer: None becomes a null pointer, which the buffer refuses with its own
// message; anything else must be a WindowProducerSession (a Python subclass or one of the
// library's producers), whose Python object the result keeps alive for as long as the library
// holds it. Raises TypeError for any other object.
std::unique_ptr<cw::WindowProducerSession> AdoptProducer(const py::object& producer);

}  // namespace corvane::python
