// The shaping stages as Python builds them: what the fixed and the scheduled stage share.
#pragma once

#include <cstddef>
#include <utility>

#include <window/producers.hpp>
#include <window/replacement.hpp>

#include "engines.hpp"
#include "producers.hpp"

namespace corvane::python {

// A shaping stage (`Session`, built from a solver, a `Shaper` and a period) as Python builds it:
// it also notes the solver object it wraps, so that the garbage collector sees that hold.
template <class Session, class Shaper>
class ShapingStage final : public cw::LiftedMpcSolveSession, public cw::ResumableSolveSession {
 public:
  ShapingStage(const py::object& solver, Shaper shaper, double sample_time_s)
      : session_(AdoptSolveSession(solver, "solver"), std::move(shaper), sample_time_s),
        solver_(solver) {}

  void Prepare() override { session_.Prepare(); }
  cw::WindowPayload Solve(const cw::WindowSlice& request) override {
    return session_.Solve(request);
  }
  void Finalize() override { session_.Finalize(); }
  bool CanResume() const override { return session_.CanResume(); }
  std::size_t ResumeHistorySamples() const override { return session_.ResumeHistorySamples(); }
  void ResumeFrom(const cw::SolveResumePoint& point) override { session_.ResumeFrom(point); }

  static py::handle Held(const ShapingStage& stage) { return stage.solver_; }

 private:
  Session session_;
  py::handle solver_;  // kept alive by session_
};

// Binds the calls that the stages answer alike: Prepare, Finalize, ResumeHistorySamples and
// ResumeFrom.
template <class Stage>
void BindStageCalls(py::class_<Stage, cw::LiftedMpcSolveSession>& stage) {
  stage
      .def("Prepare", OwnedMethod(&Stage::Prepare),
           "Forgets the history and prepares the wrapped solver.")
      .def("Finalize", OwnedMethod(&Stage::Finalize), "Finalizes the wrapped solver.")
      .def("ResumeHistorySamples", OwnedMethod(&Stage::ResumeHistorySamples),
           "The reference rows before a join that resuming needs: the shaper's history and the "
           "wrapped solver's.")
      .def("ResumeFrom", OwnedMethod(&Stage::ResumeFrom), py::arg("point"),
           "Takes the SolveResumePoint's reference rows as the shaper's history and resumes the "
           "wrapped solver. Raises RuntimeError when the wrapped solver cannot resume.");
}

}  // namespace corvane::python
