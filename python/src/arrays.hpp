// Sample matrices and per-sample vectors as numpy float64 arrays, both ways.
#pragma once

#include <optional>
#include <vector>

#include <Eigen/Core>
#include <corvane_shaper_engines/impulse_sequence.hpp>
#include <window/records.hpp>

#include "module.hpp"

namespace corvane::python {

// `value` (anything numpy turns into float64 numbers) as a sample matrix: a 2-D array is
// (rows, joints), a 1-D array of length J is one sample of J joints. Raises ValueError naming
// `field` and the shape for any other shape, TypeError when `value` holds no numbers.
cw::SampleMatrix SampleMatrixFrom(py::handle value, const char* field);

// `value` as a vector of one number per sample: shape (n,) or (n, 1). Raises as
// SampleMatrixFrom does.
Eigen::VectorXd VectorFrom(py::handle value, const char* field);
// The same as a list of numbers.
std::vector<double> NumbersFrom(py::handle value, const char* field);

// A read-only numpy array that shows `value` without a copy and keeps `owner`, which holds
// `value`, alive for as long as it exists. Needs the GIL.
py::object ReadOnlyView(const cw::SampleMatrix& value, py::handle owner);
py::object ReadOnlyView(const Eigen::VectorXd& value, py::handle owner);
py::object ReadOnlyView(const std::vector<double>& value, py::handle owner);

// Called before an assignment replaces `value`: when a view still shows its storage, the
// storage moves out of `value` and lives on until the last such view is gone, so a view never
// shows freed memory. Needs the GIL.
void Retire(cw::SampleMatrix& value);
void Retire(Eigen::VectorXd& value);
void Retire(std::vector<double>& value);
void Retire(cw::TaskSpaceShapedTrajectory& value);
void Retire(control::engines::ImpulseSequence& value);
template <class Value>
void Retire(std::optional<Value>& value) {
  if (value) Retire(*value);
}
// Any other field holds no array.
template <class Value>
void Retire(Value&) {}

}  // namespace corvane::python
