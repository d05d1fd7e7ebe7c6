// WorkerPolicy, WorkerSettings, and the Start overload of the buffers that takes them.
#include <string>
#include <utility>
#include <vector>

#include <window/async_buffer.hpp>
#include <window/worker_settings.hpp>

#include "module.hpp"

namespace corvane::python {

void BindWorkerSettings(py::module_& module) {
  py::enum_<cw::WorkerPolicy>(module, "WorkerPolicy", "The scheduling policy of a worker thread.")
      .value("kNormal", cw::WorkerPolicy::kNormal)
      .value("kFifo", cw::WorkerPolicy::kFifo)
      .value("kRoundRobin", cw::WorkerPolicy::kRoundRobin)
      .value("kInherit", cw::WorkerPolicy::kInherit);

  py::enum_<cw::WorkerIdle>(module, "WorkerIdle",
                            "What a worker does when its producer has no window ready: kAutomatic "
                            "waits under a real-time policy and yields otherwise; kYield yields "
                            "the processor and asks again; kWait sleeps until the producer's "
                            "ready signal or a stop, or without a signal for a back-off from "
                            "50 us doubling up to 1 ms.")
      .value("kAutomatic", cw::WorkerIdle::kAutomatic)
      .value("kYield", cw::WorkerIdle::kYield)
      .value("kWait", cw::WorkerIdle::kWait);

  using Settings = cw::WorkerSettings;
  py::class_<Settings>(module, "WorkerSettings",
                       "Scheduling of a buffer's worker thread: policy (kInherit: the starting "
                       "thread's), priority (1 to 99 for the real-time policies, else 0), the CPUs "
                       "it may run on (empty: any) and its name (at most 15 characters; empty: "
                       "inherited), and what it does when its producer has nothing ready (idle, a "
                       "WorkerIdle). Each setting left at its default keeps the starting thread's.")
      .def(py::init([](cw::WorkerPolicy policy, int priority, std::vector<int> cpus,
                       std::string name, cw::WorkerIdle idle) {
             return Settings{policy, priority, std::move(cpus), std::move(name), idle};
           }),
           py::arg("policy") = cw::WorkerPolicy::kInherit, py::arg("priority") = 0,
           py::arg("cpus") = std::vector<int>(), py::arg("name") = std::string(),
           py::arg("idle") = cw::WorkerIdle::kAutomatic)
      .def_readwrite("policy", &Settings::policy)
      .def_readwrite("priority", &Settings::priority)
      .def_readwrite("cpus", &Settings::cpus)
      .def_readwrite("name", &Settings::name)
      .def_readwrite("idle", &Settings::idle)
      .def("__repr__", [](const Settings& settings) {
        return py::str("WorkerSettings(policy={}, priority={}, cpus={}, name={}, idle={})")
            .format(settings.policy, settings.priority, settings.cpus,
                    py::repr(py::str(settings.name)), settings.idle);
      });

  // Adds the overload to the Start that the buffers' own binding defines; a refused setting
  // raises RuntimeError (from std::system_error) with the setting named in its message.
  auto buffer =
      py::reinterpret_borrow<py::class_<cw::AsyncWindowBuffer>>(module.attr("AsyncWindowBuffer"));
  buffer.def("Start", py::overload_cast<const Settings&>(&cw::AsyncWindowBuffer::Start),
             py::arg("settings"), py::call_guard<py::gil_scoped_release>());
}

}  // namespace corvane::python
