// The producer interfaces as Python base classes, the adapters through which the library owns
// Python objects, and the three producers.
//
// The library owns producers, handles and solvers through std::unique_ptr and calls them from a
// buffer's worker thread. A Python object cannot be handed over like that, so the library gets an
// adapter that keeps the Python object alive and forwards every call to the C++ object inside it.
// A Python subclass's C++ object is a trampoline that calls its Python methods with the GIL held;
// the library's own producers run without it.
#include "producers.hpp"

#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#include <pybind11/functional.h>
#include <window/reference_buffer.hpp>

#include "collectable.hpp"
#include "errors.hpp"
#include "waits.hpp"

namespace corvane::python {

namespace {

// Whether this thread is one that Python did not start and that has called Python code.
thread_local bool on_worker_thread = false;

// A thread that Python did not start, such as a buffer's worker, gets a Python thread state on
// its first call into Python and keeps it until the thread ends; otherwise pybind11 would make
// and drop one on every call, which costs more than the call itself.
class KeptThreadState {
 public:
  // Needs no GIL; Python's own threads are left alone.
  KeptThreadState() : kept_(PyGILState_GetThisThreadState() == nullptr) {
    if (!kept_) return;
    on_worker_thread = true;
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
  // Only for a subclass that defines SetReadySignal: hands it a callable, or None.
  void SetReadySignal(const std::function<void()>& signal) { Call<void>("SetReadySignal", signal); }
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

// A subclass that implements ResumeFrom(point), and ResumeHistorySamples() when it needs
// reference before the join, can resume after a replacement.
class PythonSolveSession final : public PythonOverrides<cw::LiftedMpcSolveSession>,
                                 public cw::ResumableSolveSession {
 public:
  void Prepare() override { Call<void>("Prepare"); }
  cw::WindowPayload Solve(const cw::WindowSlice& request) override {
    return Call<cw::WindowPayload>("Solve", request);
  }
  void Finalize() override { Call<void>("Finalize"); }
  bool CanResume() const override { return Implements("ResumeFrom"); }
  std::size_t ResumeHistorySamples() const override {
    return Implements("ResumeHistorySamples") ? Call<std::size_t>("ResumeHistorySamples") : 0;
  }
  void ResumeFrom(const cw::SolveResumePoint& point) override { Call<void>("ResumeFrom", point); }

 private:
  bool Implements(const char* name) const {
    py::gil_scoped_acquire gil;
    return static_cast<bool>(
        py::get_override(static_cast<const cw::LiftedMpcSolveSession*>(this), name));
  }
};

// The Python objects that an adapter holds for the library now; changed only with the GIL held.
std::unordered_set<PyObject*>& TakenObjects() {
  static std::unordered_set<PyObject*> taken;
  return taken;
}

}  // namespace

void CheckNotTaken(py::handle object) {
  if (TakenObjects().count(object.ptr()) != 0) {
    throw std::runtime_error("This " + TypeName(object) +
                             " belongs to a buffer or producer; only its owner may use it.");
  }
}

namespace {

// Keeps a Python object, and with it the C++ object inside, alive, and marks it as taken for
// as long; lets go of it with the GIL held, from whichever thread deletes the owner.
template <class Interface>
class Owned {
 public:
  explicit Owned(py::object object)  // needs the GIL
      : target_(object.cast<Interface*>()), object_(std::move(object)) {
    TakenObjects().insert(object_.ptr());
  }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  ~Owned() {
    py::gil_scoped_acquire gil;
    TakenObjects().erase(object_.ptr());
    object_ = py::object();
  }

  Interface* operator->() const { return target_; }

 private:
  Interface* target_;
  py::object object_;
};

// The owned object seen through a second interface that it may implement, or null.
template <class Second, class Interface>
Second* AlsoA(const Owned<Interface>& owned) {
  return dynamic_cast<Second*>(owned.operator->());
}

// Resumable when the producer it owns is.
class OwnedProducer : public cw::WindowProducerSession, public cw::ResumableWindowProducer {
 public:
  explicit OwnedProducer(py::object producer) : producer_(std::move(producer)) {}
  void PrepareSession() override { producer_->PrepareSession(); }
  std::optional<cw::WindowPayload> ProduceNext() override { return producer_->ProduceNext(); }
  bool IsExhausted() const override { return producer_->IsExhausted(); }
  std::optional<cw::WindowPayload> Finalize() override { return producer_->Finalize(); }
  bool CanResume() const override {
    const auto* resumable = AlsoA<cw::ResumableWindowProducer>(producer_);
    return resumable != nullptr && resumable->CanResume();
  }
  std::size_t FirstGlobalIndex() const override {
    return AlsoA<cw::ResumableWindowProducer>(producer_)->FirstGlobalIndex();
  }
  void Resume(std::size_t start_index,
              const std::optional<cw::CommandSample>& previous_command) override {
    AlsoA<cw::ResumableWindowProducer>(producer_)->Resume(start_index, previous_command);
  }

 protected:
  Owned<cw::WindowProducerSession> producer_;
};

// A Python subclass that defines SetReadySignal(signal): a worker that sleeps when nothing is
// ready hands it a callable to call, from any thread, once a window may be ready, and None as it
// ends.
class OwnedSignallingProducer final : public OwnedProducer, public cw::ReadySignallingProducer {
 public:
  using OwnedProducer::OwnedProducer;
  void SetReadySignal(std::function<void()> signal) override {
    dynamic_cast<PythonProducer&>(*producer_.operator->()).SetReadySignal(signal);
  }
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

// Resumable when the session it owns is.
class OwnedSolveSession final : public cw::LiftedMpcSolveSession, public cw::ResumableSolveSession {
 public:
  explicit OwnedSolveSession(py::object session) : session_(std::move(session)) {}
  void Prepare() override { session_->Prepare(); }
  cw::WindowPayload Solve(const cw::WindowSlice& request) override {
    return session_->Solve(request);
  }
  void Finalize() override { session_->Finalize(); }
  bool CanResume() const override {
    const auto* resumable = AlsoA<cw::ResumableSolveSession>(session_);
    return resumable != nullptr && resumable->CanResume();
  }
  std::size_t ResumeHistorySamples() const override {
    return AlsoA<cw::ResumableSolveSession>(session_)->ResumeHistorySamples();
  }
  void ResumeFrom(const cw::SolveResumePoint& point) override {
    AlsoA<cw::ResumableSolveSession>(session_)->ResumeFrom(point);
  }

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
  CheckNotTaken(object);
  return std::make_unique<Adapter>(object);
}

// The shaper producer as Python builds it: it also notes the handle object it drives, so that
// the garbage collector sees that hold.
class ShaperProducer final : public cw::ShaperWindowProducer {
 public:
  explicit ShaperProducer(const py::object& handle)
      : ShaperWindowProducer(Adopt<OwnedHandle, cw::TrajectoryWindowHandle>(handle, "handle")),
        handle_(handle) {}

  static py::handle Held(const ShaperProducer& producer) { return producer.handle_; }

 private:
  py::handle handle_;  // kept alive by the base
};

// The lifted-MPC producer as Python builds it: it also notes the solver object it drives, for
// the garbage collector, and the reference that it waits on for its first sample, so that a
// wait there can be made interruptible.
class LiftedMpcProducer final : public cw::AppendableLiftedMpcWindowProducer {
 public:
  LiftedMpcProducer(const py::object& solve_session,
                    std::shared_ptr<cw::AppendableReferenceBuffer> reference_buffer,
                    std::size_t apply_samples, std::size_t lookahead_samples, double sample_time_s,
                    std::size_t global_start_index)
      : AppendableLiftedMpcWindowProducer(AdoptSolveSession(solve_session, "solve_session"),
                                          reference_buffer, apply_samples, lookahead_samples,
                                          sample_time_s, global_start_index),
        solve_session_(solve_session),
        reference_buffer_(std::move(reference_buffer)) {}

  static py::handle Held(const LiftedMpcProducer& producer) { return producer.solve_session_; }
  const std::shared_ptr<cw::AppendableReferenceBuffer>& reference_buffer() const {
    return reference_buffer_;
  }

 private:
  py::handle solve_session_;  // kept alive by the base
  std::shared_ptr<cw::AppendableReferenceBuffer> reference_buffer_;
};

constexpr const char* kSubclassInit =
    "A subclass's __init__ must call this one (super().__init__()).";

// The docstring of an interface that Python subclasses implement.
std::string InterfaceDoc(const char* summary) {
  return std::string(summary) +
         " Subclass it in Python and implement every method; a buffer's worker thread calls them "
         "with the GIL held. An exception they raise reaches the consumer's Pop as itself.";
}

void BindProducerSession(py::module_& module) {
  using Session = cw::WindowProducerSession;
  py::class_<Session, PythonProducer>(
      module, "WindowProducerSession",
      InterfaceDoc("The source of windows for an AsyncWindowBuffer: PrepareSession(), "
                   "ProduceNext() -> WindowPayload | None, IsExhausted() -> bool, Finalize() -> "
                   "WindowPayload | None. PrepareSession() runs once; while IsExhausted() is "
                   "false, ProduceNext() (None means nothing is ready yet, not the end); once "
                   "exhausted, Finalize() until it returns None. Once a buffer has taken a "
                   "session, only the buffer calls it. A subclass may also define "
                   "SetReadySignal(signal): a worker that sleeps when nothing is ready "
                   "(WorkerIdle) then hands it a callable to call, from any thread, once a window "
                   "may be ready, and None as it ends; the callable must not be called after.")
          .c_str())
      .def(py::init<>(), kSubclassInit)
      .def("PrepareSession", OwnedMethod(&Session::PrepareSession),
           "Starts the session; called once, before any other operation.")
      .def("ProduceNext", OwnedMethod(&Session::ProduceNext),
           "The next mainline window, or None when none is ready at this moment.")
      .def("IsExhausted", OwnedMethod(&Session::IsExhausted),
           "True once no further mainline window will come.")
      .def("Finalize", OwnedMethod(&Session::Finalize),
           "After exhaustion: the next final (tail) window, or None, which ends the session.");
  py::class_<cw::FiniteWindowProducer, Session>(
      module, "FiniteWindowProducer",
      "Replays two fixed lists of precomputed windows: the mainline through ProduceNext, the tail "
      "through Finalize. Every window handed out is a copy of the stored one.")
      .def(py::init<std::vector<cw::WindowPayload>, std::vector<cw::WindowPayload>>(),
           py::arg("mainline"), py::arg("tail"),
           "Validates every mainline window, then every tail window, in order; raises ValueError "
           "(the validator's message) at the first invalid window.");
}

void BindShaperProducer(py::module_& module) {
  py::class_<cw::TrajectoryWindowHandle, PythonHandle>(
      module, "TrajectoryWindowHandle",
      InterfaceDoc("A trajectory-shaping engine: Prepare(), Advance(steps: int | None), "
                   "NextWindow() -> ShapedTrajectoryWindow | None, HasMoreWindows() -> bool, "
                   "Cancel(), Finalize().")
          .c_str())
      .def(py::init<>(), kSubclassInit);
  py::class_<ShaperProducer, cw::WindowProducerSession>(
      module, "ShaperWindowProducer",
      "Pulls shaped windows from a TrajectoryWindowHandle, which it keeps alive, and turns each "
      "into a WindowPayload whose metadata holds exactly \"is_tail\" (\"true\" or \"false\").",
      Collectable<ShaperProducer, &ShaperProducer::Held>(nullptr))
      .def(py::init<const py::object&>(), py::arg("handle"),
           "Takes the handle, which nobody else may use from then on. Raises "
           "InvalidArgumentError for None.");
}

void BindLiftedMpcProducer(py::module_& module) {
  py::class_<cw::LiftedMpcSolveSession, PythonSolveSession>(
      module, "LiftedMpcSolveSession",
      InterfaceDoc("A lifted-MPC solver: Prepare(), Solve(request: WindowSlice) -> "
                   "WindowPayload, Finalize(). The request is the solver's own copy. A solver "
                   "that also implements ResumeFrom(point: SolveResumePoint), and "
                   "ResumeHistorySamples() -> int when it needs reference before the join, can "
                   "resume after AppendableWindowBuffer.ReplaceReference.")
          .c_str())
      .def(py::init<>(), kSubclassInit);
  py::class_<LiftedMpcProducer, cw::WindowProducerSession>(
      module, "AppendableLiftedMpcWindowProducer",
      "Runs a LiftedMpcSolveSession, which it keeps alive, over an AppendableReferenceBuffer that "
      "the caller keeps appending to, one apply window per ProduceNext call. When the caller has "
      "not yet appended enough reference, the last sample is held instead of waiting; only the "
      "very first sample is waited for.",
      Collectable<LiftedMpcProducer, &LiftedMpcProducer::Held>(nullptr))
      .def(py::init<const py::object&, std::shared_ptr<cw::AppendableReferenceBuffer>, std::size_t,
                    std::size_t, double, std::size_t>(),
           py::arg("solve_session"), py::arg("reference_buffer"), py::arg("apply_samples"),
           py::arg("lookahead_samples"), py::arg("sample_time_s"), py::arg("global_start_index"),
           "apply_samples: rows applied per window, 1 to lookahead_samples. lookahead_samples: "
           "rows of reference handed to the solver per request. sample_time_s: [s] sample "
           "period, finite and positive. global_start_index: global index of reference sample 0. "
           "Takes the solver, which nobody else may use from then on. Raises ValueError for "
           "None, then a bad apply/lookahead pair, then a bad sample period, then a reference "
           "retention below apply_samples. Marks the reference samples from its cursor on as not "
           "read yet (AppendableReferenceBuffer.KeepFrom).")
      .def(
          "ProduceNextInto",
          [](py::handle self, cw::WindowPayload& window) {
            CheckNotTaken(self);
            auto& producer = self.cast<LiftedMpcProducer&>();
            return WithLentWindow(window, [&](cw::WindowPayload& lent) {
              return WithoutGil([&] { return producer.ProduceNextInto(lent); });
            });
          },
          py::arg("window"),
          "ProduceNext() written into `window` (a WindowPayload), reusing its storage: True when "
          "a window was written, False when none is ready.");
}

}  // namespace

AdoptedProducer AdoptProducer(const py::object& producer) {
  const bool signals = py::isinstance<cw::WindowProducerSession>(producer) &&
                       py::hasattr(producer, "SetReadySignal");
  AdoptedProducer adopted{
      signals ? Adopt<OwnedSignallingProducer, cw::WindowProducerSession>(producer, "producer")
              : Adopt<OwnedProducer, cw::WindowProducerSession>(producer, "producer"),
      producer, nullptr};
  if (const auto* lifted = py::isinstance<LiftedMpcProducer>(producer)
                               ? &producer.cast<const LiftedMpcProducer&>()
                               : nullptr) {
    adopted.first_sample_source = lifted->reference_buffer();
  }
  return adopted;
}

std::unique_ptr<cw::LiftedMpcSolveSession> AdoptSolveSession(const py::object& session,
                                                             const char* parameter) {
  return Adopt<OwnedSolveSession, cw::LiftedMpcSolveSession>(session, parameter);
}

bool IsWorkerThread() { return on_worker_thread; }

void BindProducers(py::module_& module) {
  BindProducerSession(module);
  BindShaperProducer(module);
  BindLiftedMpcProducer(module);
}

}  // namespace corvane::python
