// The records every shaper shares, the kinds of the family and their designs.
#include <iterator>
#include <string>

#include <corvane_shaper_engines/impulse_sequence.hpp>
#include <corvane_shaper_engines/shaper_designs.hpp>

#include "engines.hpp"
#include "record_class.hpp"

namespace corvane::python {

namespace {

void BindShaperRecords(py::module_& engines) {
  RecordClass<ce::VibrationMode>(
      engines, "VibrationMode",
      "A vibration mode of the machine: the one a shaper is designed for, or the one it meets.")
      .Field("natural_frequency_hz", &ce::VibrationMode::natural_frequency_hz,
             "[Hz] Undamped natural frequency, finite and positive.")
      .Field("damping_ratio", &ce::VibrationMode::damping_ratio,
             "[-] From 0 (undamped) up to, not including, 1.");
  RecordClass<ce::ImpulseSequence>(
      engines, "ImpulseSequence",
      "A shaper: the shaped command is the sum over i of amplitudes[i] * command(t - times_s[i]).")
      .Field("amplitudes", &ce::ImpulseSequence::amplitudes, "[-] One per impulse, summing to 1.")
      .Field("times_s", &ce::ImpulseSequence::times_s,
             "[s] Non-decreasing, the first 0; the last is the shaper's duration.");
  engines.def("ValidateImpulseSequence", &ce::ValidateImpulseSequence, py::arg("shaper"),
              "Raises ValueError naming the fault unless the shaper has at least one impulse, one "
              "time per amplitude, finite amplitudes and times from 0 upwards.");
  engines.def("ValidateVibrationMode", &ce::ValidateVibrationMode, py::arg("mode"),
              "Raises ValueError naming the field unless the frequency is finite and positive and "
              "the damping ratio lies in [0, 1).");
}

void BindShaperKinds(py::module_& engines) {
  py::enum_<ce::ShaperKind>(engines, "ShaperKind",
                            "The designs of the family, shortest first for an undamped mode of "
                            "period T: ZV 0.5 T, MZV 0.75 T, ZVD and EI 1 T, two-hump EI 1.5 T, "
                            "three-hump EI 2 T.")
      .value("kZv", ce::ShaperKind::kZv)
      .value("kMzv", ce::ShaperKind::kMzv)
      .value("kZvd", ce::ShaperKind::kZvd)
      .value("kEi", ce::ShaperKind::kEi)
      .value("kTwoHumpEi", ce::ShaperKind::kTwoHumpEi)
      .value("kThreeHumpEi", ce::ShaperKind::kThreeHumpEi);
  py::tuple kinds(std::size(ce::kShaperKinds));
  for (std::size_t i = 0; i < std::size(ce::kShaperKinds); ++i) {
    kinds[i] = py::cast(ce::kShaperKinds[i]);
  }
  engines.attr("kShaperKinds") = kinds;
  engines.attr("kDefaultVibrationTolerance") = ce::kDefaultVibrationTolerance;
  engines.def("ShaperName", &ce::ShaperName, py::arg("kind"),
              "\"ZV\", \"MZV\", \"ZVD\", \"EI\", \"2H-EI\" or \"3H-EI\".");
}

constexpr const char* kBadMode =
    " Raises ValueError naming the field for a frequency that is not finite and positive or a "
    "damping ratio outside [0, 1).";
constexpr const char* kBadTolerance =
    " Raises ValueError naming the field for a bad mode, naming vibration_tolerance outside (0, "
    "1), and saying so when no design exists for so large a damping ratio and tolerance.";

// A design as Python calls it; `summary` says what it is.
void BindDesign(py::module_& engines, const char* name,
                ce::ImpulseSequence (*design)(const ce::VibrationMode&), const char* summary) {
  engines.def(name, design, py::arg("mode"), (std::string(summary) + kBadMode).c_str());
}
void BindDesign(py::module_& engines, const char* name,
                ce::ImpulseSequence (*design)(const ce::VibrationMode&, double),
                const char* summary) {
  engines.def(name, WithoutGilCall(design), py::arg("mode"),
              py::arg("vibration_tolerance") = ce::kDefaultVibrationTolerance,
              (std::string(summary) + kBadTolerance).c_str());
}

void BindDesigns(py::module_& engines) {
  BindDesign(engines, "ZvShaper", &ce::ZvShaper,
             "Zero vibration: two impulses half a damped period apart.");
  BindDesign(engines, "MzvShaper", &ce::MzvShaper,
             "Modified zero vibration: three impulses 3/8 of a damped period apart; zero "
             "vibration at the design mode, shorter than ZVD and more tolerant than ZV.");
  BindDesign(engines, "ZvdShaper", &ce::ZvdShaper,
             "Zero vibration and derivative: three impulses half a damped period apart.");
  BindDesign(engines, "EiShaper", &ce::EiShaper,
             "Extra-insensitive: three impulses; vibration_tolerance [-] at the design frequency, "
             "where the vibration peaks, with a zero on either side.");
  BindDesign(engines, "TwoHumpEiShaper", &ce::TwoHumpEiShaper,
             "Two-hump extra-insensitive: four impulses; zero vibration at the design frequency "
             "and two humps of exactly vibration_tolerance on either side, bounded by zeros.");
  BindDesign(engines, "ThreeHumpEiShaper", &ce::ThreeHumpEiShaper,
             "Three-hump extra-insensitive: five impulses; three humps of exactly "
             "vibration_tolerance, the middle one at the design frequency.");
  engines.def("DesignShaper", WithoutGilCall(&ce::DesignShaper), py::arg("kind"), py::arg("mode"),
              py::arg("vibration_tolerance") = ce::kDefaultVibrationTolerance,
              "The design of the given kind; the zero-vibration kinds ignore vibration_tolerance "
              "but still check it. Raises as the design does.");
}

}  // namespace

void BindShaperDesigns(py::module_& engines) {
  BindShaperRecords(engines);
  BindShaperKinds(engines);
  BindDesigns(engines);
}

}  // namespace corvane::python
