// Tuning a shaper from a recorded ringing.
#include <corvane_shaper_engines/ringing_tuning.hpp>

#include "arrays.hpp"
#include "engines.hpp"
#include "record_class.hpp"

namespace corvane::python {

namespace {

void BindTuningRecords(py::module_& engines) {
  RecordClass<ce::RingingEstimate>(engines, "RingingEstimate", "The mode read from a free ringing.")
      .Field("mode", &ce::RingingEstimate::mode,
             "Natural frequency [Hz] and damping ratio [-] (a view into this record).")
      .Field("amplitude", &ce::RingingEstimate::amplitude,
             "[unit of the samples] Of the ringing at the first sample.")
      .Field("noise_rms", &ce::RingingEstimate::noise_rms,
             "[unit of the samples] Of what the fitted ringing leaves.")
      .Field("near_nyquist", &ce::RingingEstimate::near_nyquist,
             "Above a quarter of the sample rate: the mode may be the alias of one above the "
             "Nyquist frequency, and is coarse to shape at this rate.");
  RecordClass<ce::ShaperChoice>(engines, "ShaperChoice",
                                "A shaper chosen for a mode whose frequency is known only within "
                                "a band.")
      .Field("kind", &ce::ShaperChoice::kind, "Which design of the family was chosen.")
      .Field("shaper", &ce::ShaperChoice::shaper,
             "Its impulses, designed for the mode (a view into this record).")
      .Field("duration_s", &ce::ShaperChoice::duration_s,
             "[s] The delay the shaper adds: its last impulse's time.")
      .Field("worst_vibration", &ce::ShaperChoice::worst_vibration,
             "[-] Largest residual vibration over the frequency band.");
}

}  // namespace

void BindTuning(py::module_& engines) {
  BindTuningRecords(engines);
  engines.def(
      "EstimateRinging",
      [](const py::handle& samples, double sample_rate_hz) {
        const Eigen::VectorXd converted = VectorFrom(samples, "samples");
        return WithoutGil([&] { return ce::EstimateRinging(converted, sample_rate_hz); });
      },
      py::arg("samples"), py::arg("sample_rate_hz"),
      "Estimates the frequency and damping of a free ringing: samples (shape (n,) or (n, 1), "
      "converted to float64) of deflection or acceleration taken sample_rate_hz [Hz] apart, a "
      "constant offset allowed. A least-squares fit of a damped sine plus offset, started from "
      "the strongest spectral line. Raises TypeError when samples holds no numbers and "
      "ValueError, saying which, for any other shape, a bad rate, a recording too short, "
      "samples that are not finite or a recording with no ringing.");
  engines.def(
      "ChooseShaper",
      WithoutGilCall(static_cast<ce::ShaperChoice (*)(const ce::VibrationMode&, double, double)>(
          &ce::ChooseShaper)),
      py::arg("mode"), py::arg("frequency_uncertainty"),
      py::arg("vibration_limit") = ce::kDefaultVibrationTolerance,
      "The shortest shaper of the family whose residual vibration stays at or below "
      "vibration_limit for every natural frequency within frequency_uncertainty (0.2 "
      "for +-20 %) of the mode's; the EI family is designed with vibration_limit as its "
      "tolerance. Of equally long shapers, the one with the smaller worst case. Raises "
      "ValueError naming the argument at fault, or saying that no shaper of the family "
      "meets the band.");
}

}  // namespace corvane::python
