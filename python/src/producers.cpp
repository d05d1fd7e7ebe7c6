// The producer interfaces as Python base classes, the adapters through which the library owns
// Python objects, and the three producers.
//
// The library owns producers, handles and solvers through std::unique_ptr and calls them from a
// buffer's worker thread. A Python object cannot be handed over like that, so the library gets an
// adapter that keeps the Python object alive and forwards every call to the C++ object inside it.
// A Python subclass's C++ object is a trampoline that calls its Python methods with the GIL held;
// the library's own producers run without it.
#include "producers.hpp"

#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <window/reference_buffer.hpp>

#include "errors.hpp"

namespace corvane::python {

namespace {

// A thread that Python did not start, such as a buffer's worker, gets a Python thread state on
// its first call into Python and keeps it until the thread ends; otherwise pybind11 would make
// and drop one on every call, which costs more than the call itself.
class KeptThreadState {
 public:
  // Needs no GIL; Python's own threads are left alone.
  KeptThreadState() : kept_(PyGILState_GetThisThreadState() == nullptr) {
    if (!kept_) return;
    py::gil_scoped_acquire gil;
    gil.inc_ref();
  }
  KeptThreadState(const KeptThreadState&) = delete;
  KeptThreadState& operator=(const KeptThreadState&) = delete;
  // Drops the state as the thread ends, unless Python has begun to shut down.
  ~KeptThreadState() {
    if (!kept_ || !Py_IsInitialized()) return;
    py::gil_scoped_acquire gil;
    gil.dec_ref();  // the state goes as `gil` lets go of it
  }

 private:
  bool kept_;
};

void KeepThreadState() { static thread_local const KeptThreadState state; }

// Base of the trampolines: calls the Python subclass's method `name` with copies of `args`,
// holding the GIL for the call and the conversion of its result. A Python exception leaves as
// PythonException; a missing method raises NotImplementedError and a result that does not
// convert raises TypeError.
template <class Interface>
class PythonOverrides : public Interface {
 protected:
  template <class Result, class... Args>
  Result Call(const char* name, const Args&... args) const {
    KeepThreadState();
    py::gil_scoped_acquire gil;
    try {
      const py::function method = py::get_override(static_cast<const Interface*>(this), name);
      if (!method) {
        PyErr_Format(PyExc_NotImplementedError, "%s() must be implemented by the subclass.", name);
        throw py::error_already_set();
      }
      return Convert<Result>(method(py::cast(args)...), name);
    } catch (py::error_already_set& error) {
      throw PythonException(error);
    }
  }

 private:
  template <class Result>
  static Result Convert(py::object result, const char* name) {
    if constexpr (!std::is_void_v<Result>) {
      try {
        return std::move(result).cast<Result>();
      } catch (const std::runtime_error&) {  // pybind11's cast_error or reference_cast_error
        throw py::type_error(std::string(name) + "() returned " + TypeName(result) +
                             ", which does not convert to its result type.");
      }
    }
  }
};

class PythonProducer final : public PythonOverrides<cw::WindowProducerSession> {
 public:
  void PrepareSession() override { Call<void>("PrepareSession"); }
  std::optional<cw::WindowPayload> ProduceNext() override {
    return Call<std::optional<cw::WindowPayload>>("ProduceNext");
  }
  bool IsExhausted() const override { return Call<bool>("IsExhausted"); }
  std::optional<cw::WindowPayload> Finalize() override {
    return Call<std::optional<cw::WindowPayload>>("Finalize");
  }
};

class PythonHandle final : public PythonOverrides<cw::TrajectoryWindowHandle> {
 public:
  void Prepare() override { Call<void>("Prepare"); }
  void Advance(std::optional<std::size_t> steps) override { Call<void>("Advance", steps); }
  std::optional<cw::ShapedTrajectoryWindow> NextWindow() override {
    return Call<std::optional<cw::ShapedTrajectoryWindow>>("NextWindow");
  }
  bool HasMoreWindows() const override { return Call<bool>("HasMoreWindows"); }
  void Cancel() override { Call<void>("Cancel"); }
  void Finalize() override { Call<void>("Finalize"); }
};

class PythonSolveSession final : public PythonOverrides<cw::LiftedMpcSolveSession> {
 public:
  void Prepare() override { Call<void>("Prepare"); }
  cw::WindowPayload Solve(const cw::WindowSlice& request) override {
    return Call<cw::WindowPayload>("Solve", request);
  }
  void Finalize() override { Call<void>("Finalize"); }
};

// Keeps a Python object, and with it the C++ object inside, alive; lets go of it with the GIL
// held, from whichever thread deletes the owner.
template <class Interface>
class Owned {
 public:
  explicit Owned(py::object object)
      : target_(object.cast<Interface*>()), object_(std::move(object)) {}
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  ~Owned() {
    py::gil_scoped_acquire gil;
    object_ = py::object();
  }

  Interface* operator->() const { return target_; }

 private:
  Interface* target_;
  py::object object_;
};

class OwnedProducer final : public cw::WindowProducerSession {
 public:
  explicit OwnedProducer(py::object producer) : producer_(std::move(producer)) {}
  void PrepareSession() override { producer_->PrepareSession(); }
  std::optional<cw::WindowPayload> ProduceNext() override { return producer_->ProduceNext(); }
  bool IsExhausted() const override { return producer_->IsExhausted(); }
  std::optional<cw::WindowPayload> Finalize() override { return producer_->Finalize(); }

 private:
  Owned<cw::WindowProducerSession> producer_;
};

class OwnedHandle final : public cw::TrajectoryWindowHandle {
 public:
  explicit OwnedHandle(py::object handle) : handle_(std::move(handle)) {}
  void Prepare() override { handle_->Prepare(); }
  void Advance(std::optional<std::size_t> steps) override { handle_->Advance(steps); }
  std::optional<cw::ShapedTrajectoryWindow> NextWindow() override { return handle_->NextWindow(); }
  bool HasMoreWindows() const override { return handle_->HasMoreWindows(); }
  void Cancel() override { handle_->Cancel(); }
  void Finalize() override { handle_->Finalize(); }

 private:
  Owned<cw::TrajectoryWindowHandle> handle_;
};

class OwnedSolveSession final : public cw::LiftedMpcSolveSession {
 public:
  explicit OwnedSolveSession(py::object session) : session_(std::move(session)) {}
  void Prepare() override { session_->Prepare(); }
  cw::WindowPayload Solve(const cw::WindowSlice& request) override {
    return session_->Solve(request);
  }
  void Finalize() override { session_->Finalize(); }

 private:
  Owned<cw::LiftedMpcSolveSession> session_;
};

// The adapter for `object`, or null for None. Raises TypeError unless `object` is an Interface.
template <class Adapter, class Interface>
std::unique_ptr<Interface> Adopt(const py::object& object, const char* parameter) {
  if (object.is_none()) return nullptr;
  if (!py::isinstance<Interface>(object)) {
    throw py::type_error(std::string(parameter) + " must be a " +
                         std::string(py::str(py::type::of<Interface>().attr("__name__"))) +
                         ", not " + TypeName(object) + ".");
  }
  return std::make_unique<Adapter>(object);
}

// The docstring of an interface that Python subclasses implement.
std::string InterfaceDoc(const char* summary) {
  return std::string(summary) +
         " Subclass it in Python and implement every method; a buffer's worker thread calls them "
         "with the GIL held. An exception they raise reaches the consumer's Pop as itself.";
}

void BindProducerSession(py::module_& module) {
  using Session = cw::WindowProducerSession;
  using Release = py::call_guard<py::gil_scoped_release>;
  py::class_<Session, PythonProducer>(
      module, "WindowProducerSession",
      InterfaceDoc("The source of windows for an AsyncWindowBuffer: PrepareSession(), "
                   "ProduceNext() -> WindowPayload | None, IsExhausted() -> bool, Finalize() -> "
                   "WindowPayload | None.")
          .c_str())
      .def(py::init<>())
      .def("PrepareSession", &Session::PrepareSession, Release())
      .def("ProduceNext", &Session::ProduceNext, Release())
      .def("IsExhausted", &Session::IsExhausted)
      .def("Finalize", &Session::Finalize, Release());
  py::class_<cw::FiniteWindowProducer, Session>(
      module, "FiniteWindowProducer", "Replays two lists of windows: the mainline, then the tail.")
      .def(py::init<std::vector<cw::WindowPayload>, std::vector<cw::WindowPayload>>(),
           py::arg("mainline"), py::arg("tail"));
}

void BindShaperProducer(py::module_& module) {
  py::class_<cw::TrajectoryWindowHandle, PythonHandle>(
      module, "TrajectoryWindowHandle",
      InterfaceDoc("A trajectory-shaping engine: Prepare(), Advance(steps: int | None), "
                   "NextWindow() -> ShapedTrajectoryWindow | None, HasMoreWindows() -> bool, "
                   "Cancel(), Finalize().")
          .c_str())
      .def(py::init<>());
  py::class_<cw::ShaperWindowProducer, cw::WindowProducerSession>(
      module, "ShaperWindowProducer",
      "Pulls shaped windows from a TrajectoryWindowHandle, which it keeps alive.")
      .def(py::init([](const py::object& handle) {
             return cw::ShaperWindowProducer(
                 Adopt<OwnedHandle, cw::TrajectoryWindowHandle>(handle, "handle"));
           }),
           py::arg("handle"));
}

void BindLiftedMpcProducer(py::module_& module) {
  py::class_<cw::LiftedMpcSolveSession, PythonSolveSession>(
      module, "LiftedMpcSolveSession",
      InterfaceDoc("A lifted-MPC solver: Prepare(), Solve(request: WindowSlice) -> "
                   "WindowPayload, Finalize(). The request is the solver's own copy.")
          .c_str())
      .def(py::init<>());
  py::class_<cw::AppendableLiftedMpcWindowProducer, cw::WindowProducerSession>(
      module, "AppendableLiftedMpcWindowProducer",
      "Runs a LiftedMpcSolveSession, which it keeps alive, over an AppendableReferenceBuffer.")
      .def(
          py::init([](const py::object& solve_session,
                      std::shared_ptr<cw::AppendableReferenceBuffer> reference_buffer,
                      std::size_t apply_samples, std::size_t lookahead_samples,
                      double sample_time_s, std::size_t global_start_index) {
            return cw::AppendableLiftedMpcWindowProducer(
                Adopt<OwnedSolveSession, cw::LiftedMpcSolveSession>(solve_session, "solve_session"),
                std::move(reference_buffer), apply_samples, lookahead_samples, sample_time_s,
                global_start_index);
          }),
          py::arg("solve_session"), py::arg("reference_buffer"), py::arg("apply_samples"),
          py::arg("lookahead_samples"), py::arg("sample_time_s"), py::arg("global_start_index"));
}

}  // namespace

std::unique_ptr<cw::WindowProducerSession> AdoptProducer(const py::object& producer) {
  return Adopt<OwnedProducer, cw::WindowProducerSession>(producer, "producer");
}

void BindProducers(py::module_& module) {
  BindProducerSession(module);
  BindShaperProducer(module);
  BindLiftedMpcProducer(module);
}

}  // namespace corvane::python
