// Entry of the corvane_window.engines submodule.
#include "engines.hpp"

namespace corvane::python {

void BindEngines(py::module_& module) {
  py::module_ engines = module.def_submodule(
      "engines",
      "The engines behind the library's two external interfaces: the published input shapers "
      "and their residual vibration, tuning a shaper from a recorded ringing, the online shaping "
      "stage in front of a lifted-MPC solver, and an example lifted-MPC solver.\n\n"
      "It follows the module's conventions: records take their fields as keywords and read "
      "arrays as read-only float64 views; errors keep the library's messages (a design that does "
      "not exist raises ValueError too); the calls that compute for a while release the GIL. "
      "Solvers and handles go to their owner as they do for the producers: a Python "
      "LiftedMpcSolveSession, a LiftedMpcSolver or a ShapingSolveSession given to a "
      "ShapingSolveSession or an AppendableLiftedMpcWindowProducer belongs to it from then on.");
  // `import corvane_window.engines` finds it too.
  py::module_::import("sys").attr("modules")[engines.attr("__name__")] = engines;
  BindShaperDesigns(engines);
  BindVibration(engines);
  BindTuning(engines);
  BindShaping(engines);
  BindLiftedMpc(engines);
  BindSampling(engines);
  BindModes(engines);
}

}  // namespace corvane::python
