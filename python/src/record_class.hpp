// The binding of a plain record: keyword construction, one property per field, and a readable
// repr.
#pragma once

#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <Eigen/Core>

#include "arrays.hpp"
#include "module.hpp"

namespace corvane::python {

// Whether a field holds an Eigen matrix or vector or a list of numbers, present or optional.
template <class Value>
inline constexpr bool kIsArrayField = std::is_base_of_v<Eigen::EigenBase<Value>, Value>;
template <>
inline constexpr bool kIsArrayField<std::vector<double>> = true;
template <class Value>
inline constexpr bool kIsArrayField<std::optional<Value>> = kIsArrayField<Value>;

// The conversion of an assigned value to an array field; None clears an optional one.
template <class Value>
Value ArrayFrom(py::handle value, const char* field) {
  if constexpr (std::is_same_v<Value, cw::SampleMatrix>) {
    return SampleMatrixFrom(value, field);
  } else if constexpr (std::is_same_v<Value, Eigen::VectorXd>) {
    return VectorFrom(value, field);
  } else if constexpr (std::is_same_v<Value, std::vector<double>>) {
    return NumbersFrom(value, field);
  } else {
    if (value.is_none()) return std::nullopt;
    return ArrayFrom<typename Value::value_type>(value, field);
  }
}

template <class Value>
py::object ReadOnlyView(const std::optional<Value>& value, py::handle owner) {
  return value ? ReadOnlyView(*value, owner) : py::none();
}

// The class-independent steps of every record class.
struct RecordSteps {
  // The record's constructor: every keyword must name a field (TypeError naming it otherwise).
  static void SetFields(py::handle record, const py::kwargs& fields);
  // Adds `name`, a keyword-only parameter defaulting to `default_value`, to the class's
  // __signature__, which help() and editors show.
  static void AddParameter(py::handle record_class, const char* name, py::handle default_value);
  // "Name(field=value, ...)", arrays as their shape and range.
  static std::string Repr(py::handle record);
};

// A record class whose constructor takes any of its fields as keyword arguments.
// Array fields read as read-only views that keep the record alive, and are assigned by
// conversion to float64 and copy; metadata reads as a new dict; a nested record reads as a view
// into its parent; absent optionals read as None.
template <class Record>
class RecordClass : public py::class_<Record> {
 public:
  RecordClass(py::handle scope, const char* name, const char* doc)
      : py::class_<Record>(scope, name, doc) {
    this->def(py::init([](const py::kwargs& fields) {
                py::object record = py::cast(Record{});
                RecordSteps::SetFields(record, fields);
                return std::move(record).cast<Record>();
              }),
              "Takes any of the fields as keyword arguments; the others keep their defaults.");
    this->def("__repr__", &RecordSteps::Repr, "Name(field=value, ...), arrays as shape and range.");
  }

  // Binds the field `name`; `doc` gives its unit and meaning.
  template <class Value>
  RecordClass& Field(const char* name, Value Record::*member, const char* doc) {
    if constexpr (kIsArrayField<Value>) {
      this->def_property(
          name,
          [member](const py::handle& self) {
            return ReadOnlyView(self.cast<const Record&>().*member, self);
          },
          [member, name](Record& record, const py::handle& value) {
            Value converted = ArrayFrom<Value>(value, name);
            Retire(record.*member);
            record.*member = std::move(converted);
          },
          doc);
    } else {
      this->def_property(
          name, [member](const Record& record) -> const Value& { return record.*member; },
          [member](Record& record, const Value& value) {
            Retire(record.*member);
            record.*member = value;
          },
          py::return_value_policy::reference_internal, doc);
    }
    RecordSteps::AddParameter(*this, name, py::cast(Record{}).attr(name));
    return *this;
  }
};

}  // namespace corvane::python
