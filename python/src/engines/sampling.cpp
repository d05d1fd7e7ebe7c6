// Shapers as they are applied at a sample rate, and where the extra-insensitive designs end.
#include <corvane_shaper_engines/impulse_sequence.hpp>
#include <corvane_shaper_engines/ringing_tuning.hpp>
#include <corvane_shaper_engines/shaper_designs.hpp>

#include "engines.hpp"

namespace corvane::python {

void BindSampling(py::module_& engines) {
  engines.def("MaximumDampingRatio", WithoutGilCall(&ce::MaximumDampingRatio), py::arg("kind"),
              py::arg("vibration_tolerance") = ce::kDefaultVibrationTolerance,
              "The largest damping ratio [-] up to which a design of the kind exists at "
              "vibration_tolerance, found by following the design from the undamped one: 1 for "
              "the zero-vibration kinds and for a design that lasts up to 0.999, None when not "
              "even the undamped design is found. "
              "Raises ValueError naming vibration_tolerance outside (0, 1).");
  engines.def("SampledResidualVibration", &ce::SampledResidualVibration, py::arg("shaper"),
              py::arg("mode"), py::arg("sample_time_s"),
              "The residual vibration [-] that the shaper leaves on the mode as applied to a "
              "reference sampled sample_time_s [s] apart, its delays between samples "
              "interpolated linearly: the closed form of its whole-sample taps. Raises "
              "ValueError naming the argument at fault.");
  engines.def(
      "WorstVibration",
      WithoutGilCall(static_cast<double (*)(const ce::ImpulseSequence&, const ce::VibrationMode&,
                                            double, double)>(&ce::WorstVibration)),
      py::arg("shaper"), py::arg("mode"), py::arg("frequency_uncertainty"), py::kw_only(),
      py::arg("sample_time_s"),
      "With sample_time_s [s]: the worst SampledResidualVibration over the band.");
  engines.def(
      "ChooseShaper",
      WithoutGilCall(
          static_cast<ce::ShaperChoice (*)(const ce::VibrationMode&, double, double, double)>(
              &ce::ChooseShaper)),
      py::arg("mode"), py::arg("frequency_uncertainty"),
      py::arg("vibration_limit") = ce::kDefaultVibrationTolerance, py::kw_only(),
      py::arg("sample_time_s"),
      "With sample_time_s [s]: each candidate judged as applied at that period, the EI "
      "family redesigned with a tolerance lowered by what the sampling adds. Raises "
      "ValueError naming sample_time_s when the band reaches the Nyquist frequency, or "
      "saying that the mode is too close to it when no shaper meets the band once "
      "applied.");
}

}  // namespace corvane::python
