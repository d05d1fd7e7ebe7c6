// Exceptions and time-outs at the module's boundary.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "module.hpp"

namespace corvane::python {

// The name of the object's class, without its module; needs the GIL.
std::string TypeName(py::handle object);

// A Python exception raised by Python code that the library called (a solver on the worker
// thread, say), carried through the library as a C++ exception. Copying and destroying need no
// GIL, so the library may keep it, rethrow it and drop it on any thread. Each time it reaches
// Python again, the module's translator raises the original exception object.
class PythonException : public std::runtime_error {
 public:
  // Takes the exception held by `error`; needs the GIL. what() is "TypeName: message".
  explicit PythonException(py::error_already_set& error);

  // Sets the carried exception as the current Python error; needs the GIL.
  void Restore() const;

 private:
  struct Raised;
  std::shared_ptr<const Raised> raised_;  // released with the GIL held
};

// A time-out as given in Python: seconds (int or float) or datetime.timedelta, or None for no
// limit. NaN is refused with ValueError; other values are clamped to +-1e9 s (about 31 years),
// so that infinity waits as good as forever and no deadline overflows the steady clock.
struct Timeout {
  std::optional<std::chrono::nanoseconds> limit;
};

}  // namespace corvane::python

namespace pybind11::detail {

template <>
struct type_caster<corvane::python::Timeout> {
  PYBIND11_TYPE_CASTER(corvane::python::Timeout, const_name("float | datetime.timedelta | None"));
  // Accepts None, a timedelta, an int or a float (numpy scalars included).
  bool load(handle source, bool convert);
};

}  // namespace pybind11::detail
