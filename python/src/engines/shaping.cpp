// Shaping a sampled reference: offline, window by window from a trajectory, and online in front
// of a lifted-MPC solver.
#include <memory>
#include <utility>

#include <corvane_shaper_engines/impulse_sequence.hpp>
#include <corvane_shaper_engines/input_shaper.hpp>
#include <corvane_shaper_engines/shaping_solve_session.hpp>

#include "arrays.hpp"
#include "collectable.hpp"
#include "engines.hpp"
#include "producers.hpp"
#include "shaping_stage.hpp"

namespace corvane::python {

namespace {

using ShapingSession = ShapingStage<ce::ShapingSolveSession, ce::ImpulseSequence>;

void BindOfflineShaping(py::module_& engines) {
  engines.def("ShaperSamples", &ce::ShaperSamples, py::arg("shaper"), py::arg("sample_time_s"),
              "The whole samples by which the shaper lengthens a motion sampled sample_time_s "
              "[s] apart: its duration in periods, rounded up. Raises ValueError for a malformed "
              "shaper or a period that is not finite and positive.");
  engines.def(
      "ShapeSamples",
      [](const py::handle& reference, double sample_time_s, const ce::ImpulseSequence& shaper) {
        const cw::SampleMatrix converted = SampleMatrixFrom(reference, "reference");
        return WithoutGil([&] { return ce::ShapeSamples(converted, sample_time_s, shaper); });
      },
      py::arg("reference"), py::arg("sample_time_s"), py::arg("shaper"),
      "Offline shaping of a (rows, joints) reference sampled sample_time_s [s] apart: row k of "
      "the new array is the sum over i of amplitudes[i] times the reference at k - times_s[i] / "
      "sample_time_s samples, interpolated linearly, the reference resting on its first sample "
      "before it starts. Raises ValueError for an empty or non-finite reference, a bad period or "
      "a malformed shaper.");
}

void BindInputShaper(py::module_& engines) {
  using Shaper = ce::InputShaper;
  py::class_<Shaper, cw::TrajectoryWindowHandle>(
      engines, "InputShaper",
      "A TrajectoryWindowHandle that shapes a precomputed trajectory and hands it out window by "
      "window, each shaped when asked for. Give it to a ShaperWindowProducer, which owns it from "
      "then on.",
      py::is_final())
      .def(py::init([](const py::handle& trajectory, double sample_time_s,
                       ce::ImpulseSequence shaper, Eigen::Index window_samples) {
             return std::make_unique<Shaper>(SampleMatrixFrom(trajectory, "trajectory"),
                                             sample_time_s, std::move(shaper), window_samples);
           }),
           py::arg("trajectory"), py::arg("sample_time_s"), py::arg("shaper"),
           py::arg("window_samples"),
           "trajectory: (samples, joints) positions sample_time_s [s] apart; window_samples: "
           "rows per window (the last one may be shorter). Raises ValueError for an empty "
           "trajectory, a bad period, a malformed shaper or no window rows.")
      .def("Prepare", OwnedMethod(&Shaper::Prepare), "Rewinds to the first window.")
      .def("Advance", OwnedMethod(&Shaper::Advance), py::arg("steps"), "Does nothing.")
      .def("NextWindow", OwnedMethod(&Shaper::NextWindow),
           "The next ShapedTrajectoryWindow, or None once every window has been handed out.")
      .def("HasMoreWindows", OwnedMethod(&Shaper::HasMoreWindows), "Whether a window remains.")
      .def("Cancel", OwnedMethod(&Shaper::Cancel), "Abandons the trajectory.")
      .def("Finalize", OwnedMethod(&Shaper::Finalize), "Ends the session.")
      .def("shaped_samples", OwnedMethod(&Shaper::shaped_samples),
           "Samples of the shaped motion: the trajectory's plus the shaper's, rounded up.");
}

void BindShapingSession(py::module_& engines) {
  py::class_<ShapingSession, cw::LiftedMpcSolveSession> session(
      engines, "ShapingSolveSession",
      "A LiftedMpcSolveSession that shapes each request's positions with an input shaper before "
      "handing the request to the solver it wraps: a Python LiftedMpcSolveSession, a "
      "LiftedMpcSolver or another ShapingSolveSession. The shaping is causal and keeps the "
      "reference history it needs across requests, so the applied rows of the shaped stream "
      "equal ShapeSamples() of the stored reference. Give it to an "
      "AppendableLiftedMpcWindowProducer, which owns it from then on.",
      Collectable<ShapingSession, &ShapingSession::Held>(nullptr), py::is_final());
  session
      .def(py::init<const py::object&, ce::ImpulseSequence, double>(), py::arg("solver"),
           py::arg("shaper"), py::arg("sample_time_s"),
           "Takes the solver, which nobody else may use from then on. shaper: a valid "
           "ImpulseSequence; sample_time_s: [s] the period of the request rows. Raises TypeError "
           "for a solver that is not a LiftedMpcSolveSession, RuntimeError for one already "
           "owned, and ValueError naming the argument for None, a malformed shaper or a bad "
           "period.")
      .def("Solve", OwnedMethod(&ShapingSession::Solve), py::arg("request"),
           "Shapes the request's positions and solves the shaped request with the wrapped "
           "solver, whose answer comes back unchanged, and whose exceptions pass through. Raises "
           "ValueError when \"apply_samples\" is out of range, the request does not continue "
           "the history or the joint count changes.");
  BindStageCalls(session);
}

}  // namespace

void BindShaping(py::module_& engines) {
  BindOfflineShaping(engines);
  BindInputShaper(engines);
  BindShapingSession(engines);
}

}  // namespace corvane::python
