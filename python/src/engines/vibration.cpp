// The residual vibration that judges a shaper.
#include <corvane_shaper_engines/impulse_sequence.hpp>
#include <corvane_shaper_engines/ringing_tuning.hpp>

#include "engines.hpp"

namespace corvane::python {

void BindVibration(py::module_& engines) {
  engines.def("ResidualVibration", &ce::ResidualVibration, py::arg("shaper"), py::arg("mode"),
              "The residual vibration [-] that the shaper leaves on the mode, as a fraction of "
              "what a single unit impulse leaves (0: none, 1: as much as the unshaped command); "
              "the closed form of Singer and Seering (1990). Raises ValueError naming the fault "
              "for a malformed shaper or a bad mode.");
  engines.def(
      "WorstVibration",
      WithoutGilCall(
          static_cast<double (*)(const ce::ImpulseSequence&, const ce::VibrationMode&, double)>(
              &ce::WorstVibration)),
      py::arg("shaper"), py::arg("mode"), py::arg("frequency_uncertainty"),
      "The worst residual vibration [-] that the shaper leaves over the natural "
      "frequencies within frequency_uncertainty (a fraction: 0.2 for +-20 %) of the "
      "mode's, at its damping ratio, on a fine grid of the band. Raises ValueError naming "
      "the argument at fault.");
}

}  // namespace corvane::python
