// InvalidArgumentError, the translation of carried Python exceptions, and time-outs.
#include "errors.hpp"

#include <datetime.h>

#include <algorithm>
#include <cmath>
#include <string>

#include <native/error.hpp>

namespace corvane::python {

struct PythonException::Raised {
  py::object type;
  py::object value;
  py::object trace;
};

std::string TypeName(py::handle object) {
  return std::string(py::str(py::type::handle_of(object).attr("__name__")));
}

PythonException::PythonException(py::error_already_set& error)
    : std::runtime_error(TypeName(error.value()) + ": " + std::string(py::str(error.value()))),
      raised_(new Raised{error.type(), error.value(), error.trace()},
              // Whichever thread lets go last drops the Python objects with the GIL held.
              [](const Raised* raised) {
                py::gil_scoped_acquire gil;
                delete raised;
              }) {}

void PythonException::Restore() const {
  PyErr_Restore(raised_->type.inc_ref().ptr(), raised_->value.inc_ref().ptr(),
                raised_->trace.inc_ref().ptr());
}

void BindErrors(py::module_& module) {
  // Translators registered later are tried first, all of them before pybind11's own ones for
  // std::invalid_argument (ValueError) and std::runtime_error (RuntimeError).
  py::register_exception<native::InvalidArgumentError>(module, "InvalidArgumentError",
                                                       PyExc_RuntimeError)
      .attr("__doc__") =
      "The library's invalid-argument error (a RuntimeError, not a ValueError): raised by the "
      "task-space validators and by ShaperWindowProducer for a missing handle.";
  py::register_exception_translator([](std::exception_ptr raised) {
    try {
      if (raised) std::rethrow_exception(raised);
    } catch (const PythonException& exception) {
      exception.Restore();
    }
  });
}

}  // namespace corvane::python

namespace pybind11::detail {

namespace {

constexpr double kLongestTimeoutS = 1e9;

// The seconds of a time-out, or nothing when `source` is not one.
std::optional<double> TimeoutSeconds(handle source) {
  if (!PyDateTimeAPI) PyDateTime_IMPORT;
  if (PyDelta_Check(source.ptr())) return source.attr("total_seconds")().cast<double>();
  if (!PyFloat_Check(source.ptr()) && !PyIndex_Check(source.ptr())) return std::nullopt;
  const double seconds = PyFloat_AsDouble(source.ptr());
  if (seconds == -1.0 && PyErr_Occurred()) throw error_already_set();
  return seconds;
}

}  // namespace

bool type_caster<corvane::python::Timeout>::load(handle source, bool) {
  if (source.is_none()) {
    value.limit.reset();
    return true;
  }
  const std::optional<double> seconds = TimeoutSeconds(source);
  if (!seconds) return false;
  if (std::isnan(*seconds)) throw value_error("timeout must not be NaN.");
  const double bounded = std::clamp(*seconds, -kLongestTimeoutS, kLongestTimeoutS);
  value.limit =
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(bounded));
  return true;
}

}  // namespace pybind11::detail
