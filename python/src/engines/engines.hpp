// Shared declarations of the corvane_window.engines submodule: one Bind function per family of
// the engines' API, called in order by BindEngines.
#pragma once

#include "module.hpp"
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

// `function` as Python calls it: with the GIL released while it computes, its arguments
// converted before and its result after.
template <class Result, class... Args>
auto WithoutGilCall(Result (*function)(Args...)) {
  return [function](Args... args) { return WithoutGil([&] { return function(args...); }); };
}

}  // namespace corvane::python
