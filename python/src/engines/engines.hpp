// Shared declarations of the corvane_window.engines submodule: one Bind function per family of
// the engines' API, called in order by BindEngines.
#pragma once

#include <utility>

#include "module.hpp"
#include "producers.hpp"
#include "waits.hpp"

namespace corvane::control::engines {}

namespace corvane::python {

namespace ce = control::engines;

// Creates the submodule corvane_window.engines (importable by that name too) and binds the
// families below into it, in their order.
void BindEngines(py::module_& module);

// VibrationMode, ImpulseSequence, ShaperKind, the designs and their validators.
void BindShaperDesigns(py::module_& engines);
// ResidualVibration and WorstVibration.
void BindVibration(py::module_& engines);
// RingingEstimate, ShaperChoice, EstimateRinging and ChooseShaper.
void BindTuning(py::module_& engines);
// ShaperSamples, ShapeSamples, InputShaper and ShapingSolveSession.
void BindShaping(py::module_& engines);
// LiftedMpcWeights and LiftedMpcSolver.
void BindLiftedMpc(py::module_& engines);
// MaximumDampingRatio, SampledResidualVibration, and WorstVibration and ChooseShaper at a sample
// period (overloads of those bound before).
void BindSampling(py::module_& engines);
// Several modes and modes that move with the pose: ModeBand, MultiModeChoice, ModeEstimate,
// RingingModes, ShaperSchedule, the multi-mode shapers, EstimateRingingModes, ScheduledShaper,
// ShapeSamples with a schedule and ScheduledShapingSession.
void BindModes(py::module_& engines);

// An online shaping stage of the engines (Stage: ShapingSolveSession or ScheduledShapingSession,
// built from a solver, a Design and a period) as Python builds it: it adopts the solver object it
// wraps and notes it, so that the garbage collector sees that hold.
template <class Stage, class Design>
class AdoptingStage final : public cw::LiftedMpcSolveSession {
 public:
  AdoptingStage(const py::object& solver, Design design, double sample_time_s)
      : stage_(AdoptSolveSession(solver, "solver"), std::move(design), sample_time_s),
        solver_(solver) {}

  void Prepare() override { stage_.Prepare(); }
  cw::WindowPayload Solve(const cw::WindowSlice& request) override { return stage_.Solve(request); }
  void Finalize() override { stage_.Finalize(); }

  static py::handle Held(const AdoptingStage& stage) { return stage.solver_; }

 private:
  Stage stage_;
  py::handle solver_;  // kept alive by stage_
};

// `function` as Python calls it: with the GIL released while it computes, its arguments
// converted before and its result after.
template <class Result, class... Args>
auto WithoutGilCall(Result (*function)(Args...)) {
  return [function](Args... args) { return WithoutGil([&] { return function(args...); }); };
}

}  // namespace corvane::python
