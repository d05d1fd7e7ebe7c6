// Handing Python objects to the library as the producers it owns.
#pragma once

#include <memory>
#include <utility>

#include <window/producers.hpp>
#include <window/reference_buffer.hpp>

#include "module.hpp"
#include "waits.hpp"

namespace corvane::python {

// A producer handed to a buffer, with what the module needs to know about it.
struct AdoptedProducer {
  std::unique_ptr<cw::WindowProducerSession> producer;  // null for None
  py::handle object;  // the producer's Python object, kept alive by `producer`
  // The reference that a lifted-MPC producer waits on for its first sample; otherwise null.
  std::shared_ptr<cw::AppendableReferenceBuffer> first_sample_source;
};

// The producer for a buffer: None becomes a null pointer, which the buffer refuses with its own
// message; anything else must be a WindowProducerSession (a Python subclass or one of the
// library's producers), whose Python object the result keeps alive for as long as the library
// holds it. From then on the object belongs to the library: adopting it again, or calling its
// methods from Python, raises RuntimeError. Raises TypeError for any other object. Needs the GIL.
AdoptedProducer AdoptProducer(const py::object& producer);

// Runs `call` on a window that has borrowed the storage of `window`, and gives the storage back
// afterwards, also when `call` throws: a call made without the GIL then works on a window that no
// other Python thread can see change meanwhile. Needs the GIL.
template <class Call>
bool WithLentWindow(cw::WindowPayload& window, Call call) {
  struct GiveBack {
    cw::WindowPayload& owner;
    cw::WindowPayload lent;
    ~GiveBack() { std::swap(owner, lent); }
  } loan{window, {}};
  std::swap(loan.owner, loan.lent);
  return call(loan.lent);
}

// The solver for a session that owns one (a lifted-MPC producer, a shaping stage): None becomes
// a null pointer, which the owner refuses with its own message; anything else must be a
// LiftedMpcSolveSession (a Python subclass or one of the library's solvers), which the result
// keeps alive and owns from then on, as AdoptProducer does. Raises TypeError naming `parameter`
// for any other object, RuntimeError for one already owned. Needs the GIL.
std::unique_ptr<cw::LiftedMpcSolveSession> AdoptSolveSession(const py::object& session,
                                                             const char* parameter);

// Raises RuntimeError when the library holds `object`: only its owner may call it. Needs the GIL.
void CheckNotTaken(py::handle object);

// A method of a session, handle or solver as Python calls it: refused once the library holds
// the object, else run with the GIL released.
template <class Owner, class Result, class... Args>
auto OwnedMethod(Result (Owner::*method)(Args...)) {
  return [method](py::handle self, Args... args) {
    CheckNotTaken(self);
    Owner& owner = self.cast<Owner&>();
    return WithoutGil([&]() -> Result { return (owner.*method)(args...); });
  };
}
template <class Owner, class Result, class... Args>
auto OwnedMethod(Result (Owner::*method)(Args...) const) {
  return [method](py::handle self, Args... args) {
    CheckNotTaken(self);
    const Owner& owner = self.cast<const Owner&>();
    return WithoutGil([&]() -> Result { return (owner.*method)(args...); });
  };
}

// Whether the calling thread is one that Python did not start (a buffer's worker) and that has
// called Python code through the module.
bool IsWorkerThread();

}  // namespace corvane::python
