// Several modes and modes that move with the pose: shapers by convolution, their choice over
// several bands, the two-mode ringing estimate and shaping that follows the pose.
#include <memory>
#include <utility>

#include <pybind11/functional.h>

#include <corvane_shaper_engines/multi_mode_shaper.hpp>
#include <corvane_shaper_engines/ringing_modes.hpp>
#include <corvane_shaper_engines/scheduled_shaping_session.hpp>

#include "arrays.hpp"
#include "collectable.hpp"
#include "engines.hpp"
#include "producers.hpp"
#include "record_class.hpp"
#include "shaping_stage.hpp"

namespace corvane::python {

namespace {

// The scheduled shaping stage as Python builds it. Its schedule, a Python callable, is called with
// the GIL taken.
using ScheduledSession = ShapingStage<ce::ScheduledShapingSession, ce::ShaperSchedule>;

void BindModeRecords(py::module_& engines) {
  RecordClass<ce::ModeBand>(engines, "ModeBand",
                            "A mode whose natural frequency is known only within a band.")
      .Field("mode", &ce::ModeBand::mode, "The band's centre (a view into this record).")
      .Field("frequency_uncertainty", &ce::ModeBand::frequency_uncertainty,
             "[-] Half width over the centre: 0.2 for +-20 %.");
  RecordClass<ce::MultiModeChoice>(engines, "MultiModeChoice",
                                   "A shaper chosen for several modes, each known within a band.")
      .Field("kinds", &ce::MultiModeChoice::kinds,
             "The design per band; None: no design of its own.")
      .Field("shaper", &ce::MultiModeChoice::shaper,
             "The convolution of the designs (a view into this record).")
      .Field("duration_s", &ce::MultiModeChoice::duration_s, "[s] The delay the shaper adds.")
      .Field("worst_vibration", &ce::MultiModeChoice::worst_vibration,
             "[-] Largest residual vibration over each band.");
  RecordClass<ce::ModeEstimate>(engines, "ModeEstimate",
                                "One mode read from a free ringing, with the spread of its "
                                "estimate.")
      .Field("mode", &ce::ModeEstimate::mode,
             "Natural frequency [Hz] and damping ratio [-] (a view into this record).")
      .Field("amplitude", &ce::ModeEstimate::amplitude,
             "[unit of the samples] At the first sample.")
      .Field("frequency_uncertainty_hz", &ce::ModeEstimate::frequency_uncertainty_hz,
             "[Hz] One standard deviation of the frequency.")
      .Field("damping_uncertainty", &ce::ModeEstimate::damping_uncertainty,
             "[-] One standard deviation of the damping ratio.");
  RecordClass<ce::RingingModes>(engines, "RingingModes", "The modes read from a free ringing.")
      .Field("modes", &ce::RingingModes::modes, "One or two ModeEstimate, by rising frequency.")
      .Field("noise_rms", &ce::RingingModes::noise_rms,
             "[unit of the samples] Of what the fitted ringing leaves.");
  RecordClass<ce::ShaperSchedule>(engines, "ShaperSchedule",
                                  "How the shaper follows the pose: the design of kind for each "
                                  "mode that modes(pose) gives, one stage per mode.")
      .Field("modes", &ce::ShaperSchedule::modes,
             "A callable taking a pose (joint positions [rad], a float64 array) and returning a "
             "list of VibrationMode, as many at every pose; called with the GIL taken.")
      .Field("kind", &ce::ShaperSchedule::kind, "The design for every mode.")
      .Field("vibration_tolerance", &ce::ShaperSchedule::vibration_tolerance,
             "[-] Of the EI family, in (0, 1).")
      .Field("longest_shaper_s", &ce::ShaperSchedule::longest_shaper_s,
             "[s] Bound on any scheduled shaper's duration: the history kept.");
}

void BindMultiMode(py::module_& engines) {
  engines.def("ConvolveShapers", &ce::ConvolveShapers, py::arg("first"), py::arg("second"),
              "The convolution of two shapers: an impulse for every pair, at the sum of their "
              "times with the product of their amplitudes. Raises ValueError for a malformed "
              "shaper.");
  engines.def("MultiModeShaper", &ce::MultiModeShaper, py::arg("kinds"), py::arg("modes"),
              py::arg("vibration_tolerance") = ce::kDefaultVibrationTolerance,
              "The convolution of the design of kinds[i] (None: no design) for modes[i]. Raises "
              "ValueError when the lists differ in length or are empty, or as DesignShaper "
              "does.");
  engines.def("ChooseMultiModeShaper", WithoutGilCall(&ce::ChooseMultiModeShaper), py::arg("bands"),
              py::arg("vibration_limit") = ce::kDefaultVibrationTolerance,
              "The shortest combination of designs, one or none per band (up to three), whose "
              "convolution keeps the residual vibration at or below vibration_limit over every "
              "band. Raises ValueError naming the argument at fault, or saying that no "
              "combination meets every band.");
  engines.def(
      "EstimateRingingModes",
      [](const py::handle& samples, double sample_rate_hz) {
        const Eigen::VectorXd converted = VectorFrom(samples, "samples");
        return WithoutGil([&] { return ce::EstimateRingingModes(converted, sample_rate_hz); });
      },
      py::arg("samples"), py::arg("sample_rate_hz"),
      "Estimates one or two damped modes in a free ringing (samples of shape (n,) or (n, 1) "
      "taken sample_rate_hz [Hz] apart, a constant offset allowed), each with its uncertainty. "
      "Raises ValueError, saying which, for a bad rate, a recording too short, samples that are "
      "not finite, a recording with no ringing, or a second mode that cannot be told apart from "
      "the first.");
}

void BindScheduling(py::module_& engines) {
  engines.def("ScheduledShaper", &ce::ScheduledShaper, py::arg("schedule"), py::arg("pose"),
              "The shaper that the schedule gives a reference resting on pose. Raises ValueError "
              "for a bad schedule or what it gives.");
  engines.def(
      "ShapeSamples",
      [](const py::handle& reference, double sample_time_s, const ce::ShaperSchedule& schedule) {
        return ce::ShapeSamples(SampleMatrixFrom(reference, "reference"), sample_time_s, schedule);
      },
      py::arg("reference"), py::arg("sample_time_s"), py::arg("schedule"),
      "Offline shaping of a (rows, joints) reference whose shaper follows the pose by schedule, "
      "its impulses re-timed row by row. Raises ValueError for a bad reference, period or "
      "schedule, for what the schedule gives, and for a shaper longer than longest_shaper_s.");
  py::class_<ScheduledSession, cw::LiftedMpcSolveSession> session(
      engines, "ScheduledShapingSession",
      "A LiftedMpcSolveSession like ShapingSolveSession whose shaper follows the pose by a "
      "ShaperSchedule; the applied rows of the shaped stream equal ShapeSamples() of the stored "
      "reference with the schedule, and after a replacement, those of the spliced reference. Give "
      "it to an AppendableLiftedMpcWindowProducer, which owns it from then on.",
      Collectable<ScheduledSession, &ScheduledSession::Held>(nullptr), py::is_final());
  session
      .def(py::init<const py::object&, ce::ShaperSchedule, double>(), py::arg("solver"),
           py::arg("schedule"), py::arg("sample_time_s"),
           "Takes the solver, which nobody else may use from then on. Raises TypeError for a "
           "solver that is not a LiftedMpcSolveSession, RuntimeError for one already owned, and "
           "ValueError naming the argument for None, a bad schedule or a bad period.")
      .def("Solve", OwnedMethod(&ScheduledSession::Solve), py::arg("request"),
           "Shapes the request's positions by the schedule and solves them with the wrapped "
           "solver. Raises as ShapingSolveSession.Solve does, and ValueError for what the "
           "schedule gives.");
  BindStageCalls(session);
}

}  // namespace

void BindModes(py::module_& engines) {
  BindModeRecords(engines);
  BindMultiMode(engines);
  BindScheduling(engines);
}

}  // namespace corvane::python
