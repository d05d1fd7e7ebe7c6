// The example lifted-MPC solver.
#include <corvane_shaper_engines/lifted_mpc_solver.hpp>

#include "engines.hpp"
#include "producers.hpp"
#include "record_class.hpp"

namespace corvane::python {

void BindLiftedMpc(py::module_& engines) {
  RecordClass<ce::LiftedMpcWeights>(
      engines, "LiftedMpcWeights",
      "Weights of the lifted-MPC cost, next to a weight of 1 on each squared tracking error in "
      "rad.")
      .Field("acceleration_s4", &ce::LiftedMpcWeights::acceleration_s4,
             "[s^4] On each squared acceleration.")
      .Field("acceleration_change_s4", &ce::LiftedMpcWeights::acceleration_change_s4,
             "[s^4] On each squared change of acceleration.");
  using Solver = ce::LiftedMpcSolver;
  py::class_<Solver, cw::LiftedMpcSolveSession>(
      engines, "LiftedMpcSolver",
      "A lifted-MPC solve session for independent double-integrator joints, in C++: each "
      "request's positions are tracked by a quadratic cost on tracking error, acceleration and "
      "its change, whose gains are cached per horizon. Give it to an "
      "AppendableLiftedMpcWindowProducer or a ShapingSolveSession, which owns it from then on and "
      "runs it without the GIL.",
      py::is_final())
      .def(py::init<double, Eigen::Index, ce::LiftedMpcWeights>(), py::arg("sample_time_s"),
           py::arg("horizon_samples"), py::arg("weights") = ce::LiftedMpcWeights(),
           "sample_time_s: [s] the period of the request rows, finite and positive. "
           "horizon_samples: the rows that requests are expected to have (the producer's "
           "lookahead), whose gains Prepare() computes. Raises ValueError for a bad period, a "
           "horizon below 1 or a negative weight.")
      .def("Prepare", OwnedMethod(&Solver::Prepare),
           "Starts a new session, in which the first request starts the machine at rest on its "
           "first row.")
      .def("Solve", OwnedMethod(&Solver::Solve), py::arg("request"),
           "Solves one request and applies its first \"apply_samples\" rows, which it returns "
           "with positions, velocities, accelerations and times. Raises ValueError when "
           "\"apply_samples\" is missing or out of range, or the joint count changes.")
      .def(
          "SolveInto",
          [](py::handle self, const cw::WindowSlice& request, cw::WindowPayload& window) {
            CheckNotTaken(self);
            Solver& solver = self.cast<Solver&>();
            WithLentWindow(window, [&](cw::WindowPayload& lent) {
              WithoutGil([&] { solver.SolveInto(request, lent); });
              return true;
            });
          },
          py::arg("request"), py::arg("window"),
          "Solve(request) written into `window` (a WindowPayload), reusing its storage: "
          "positions, velocities, accelerations, times, range and compute time; its metadata is "
          "left as it is. Raises as Solve does.")
      .def("Finalize", OwnedMethod(&Solver::Finalize),
           "Ends the session and forgets the carried state.")
      .def("ResumeHistorySamples", OwnedMethod(&Solver::ResumeHistorySamples),
           "0: the solver needs no reference before a join.")
      .def("ResumeFrom", OwnedMethod(&Solver::ResumeFrom), py::arg("point"),
           "Carries on from the SolveResumePoint's previous command (position, velocity and "
           "acceleration; those it lacks read as 0), or starts afresh without one. Raises "
           "ValueError when the command's rows do not hold one finite value per joint.");
}

}  // namespace corvane::python
