// The binding of a plain record: keyword construction and one property per field.
#pragma once

#include <optional>
#include <type_traits>
#include <utility>

#include <Eigen/Core>

#include "module.hpp"

namespace corvane::python {

// Whether a field holds an Eigen matrix or vector, present or optional.
template <class Value>
inline constexpr bool kIsArrayField = std::is_base_of_v<Eigen::EigenBase<Value>, Value>;
template <class Value>
inline constexpr bool kIsArrayField<std::optional<Value>> = kIsArrayField<Value>;

// A new numpy array holding a copy of `value`, marked read-only: an in-place write raises instead
// of changing a copy that nobody sees.
template <class Matrix>
py::object ReadOnlyCopy(const Matrix& value) {
  py::object array = py::cast(value);
  array.attr("setflags")(py::arg("write") = false);
  return array;
}

template <class Matrix>
py::object ReadOnlyCopy(const std::optional<Matrix>& value) {
  return value ? ReadOnlyCopy(*value) : py::none();
}

// A record class whose constructor takes any of its fields as keyword arguments.
// Array fields read as new read-only copies and are assigned by conversion and copy; metadata
// reads as a new dict; a nested record reads as a view into its parent; absent optionals read
// as None.
template <class Record>
class RecordClass : public py::class_<Record> {
 public:
  RecordClass(py::handle scope, const char* name, const char* doc)
      : py::class_<Record>(scope, name, doc) {
    this->def(py::init(&FromKeywords),
              "Takes any of the fields as keyword arguments; the others keep their defaults.");
  }

  template <class Value>
  RecordClass& Field(const char* name, Value Record::*member) {
    if constexpr (kIsArrayField<Value>) {
      this->def_property(
          name, [member](const Record& record) { return ReadOnlyCopy(record.*member); },
          [member](Record& record, Value value) { record.*member = std::move(value); });
    } else {
      this->def_readwrite(name, member);
    }
    return *this;
  }

 private:
  static Record FromKeywords(const py::kwargs& fields) {
    py::object record = py::cast(Record{});
    for (const auto& [name, value] : fields) py::setattr(record, name, value);
    return std::move(record).cast<Record>();
  }
};

}  // namespace corvane::python
