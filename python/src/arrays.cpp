// Conversions of array-likes to sample matrices and vectors, and read-only views of them.
#include "arrays.hpp"

#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <pybind11/numpy.h>

#include "errors.hpp"

namespace corvane::python {

namespace {

using FloatArray = py::array_t<double, py::array::c_style | py::array::forcecast>;

FloatArray FloatArrayFrom(py::handle value, const char* field) {
  FloatArray array = FloatArray::ensure(value);
  if (!array) {
    throw py::type_error(std::string(field) + " must be an array of numbers, not " +
                         TypeName(value) + ".");
  }
  return array;
}

[[noreturn]] void ThrowShape(const char* field, const char* expected, const FloatArray& array) {
  throw py::value_error(std::string(field) + " must have shape " + expected + ", not " +
                        std::string(py::str(array.attr("shape"))) + ".");
}

// The storage that views show: how many views show it, and, once the record has let go of it,
// the storage itself. Keyed by the storage's first element; changed only with the GIL held.
struct Shown {
  std::size_t views = 0;
  std::shared_ptr<void> retired;
};

std::unordered_map<const double*, Shown>& ShownStorage() {
  static std::unordered_map<const double*, Shown> shown;
  return shown;
}

// The base object of a view: keeps the record alive and counts the view.
struct ViewBase {
  py::object owner;
  const double* data;
};

py::capsule CountedBase(const double* data, py::handle owner) {
  ++ShownStorage()[data].views;
  return py::capsule(new ViewBase{py::reinterpret_borrow<py::object>(owner), data},
                     [](void* pointer) {
                       std::unique_ptr<ViewBase> base(static_cast<ViewBase*>(pointer));
                       auto shown = ShownStorage().find(base->data);
                       if (--shown->second.views == 0) ShownStorage().erase(shown);
                     });
}

py::object View(const double* data, std::vector<py::ssize_t> shape, py::handle owner) {
  // Empty storage has no address to share and nothing to protect.
  py::array view = data == nullptr ? py::array(py::dtype::of<double>(), shape)
                                   : py::array(py::dtype::of<double>(), shape, {}, data,
                                               CountedBase(data, owner));
  view.attr("setflags")(py::arg("write") = false);
  return std::move(view);
}

template <class Storage>
void RetireStorage(Storage& value) {
  const auto shown = ShownStorage().find(value.data());
  if (value.data() == nullptr || shown == ShownStorage().end()) return;
  shown->second.retired = std::make_shared<Storage>(std::move(value));  // same address
}

}  // namespace

cw::SampleMatrix SampleMatrixFrom(py::handle value, const char* field) {
  const FloatArray array = FloatArrayFrom(value, field);
  if (array.ndim() == 1) {  // one sample; no sample at all when it is empty
    return Eigen::Map<const cw::SampleMatrix>(array.data(), array.size() == 0 ? 0 : 1,
                                              array.shape(0));
  }
  if (array.ndim() != 2) ThrowShape(field, "(rows, joints) or (joints,)", array);
  return Eigen::Map<const cw::SampleMatrix>(array.data(), array.shape(0), array.shape(1));
}

Eigen::VectorXd VectorFrom(py::handle value, const char* field) {
  const FloatArray array = FloatArrayFrom(value, field);
  if (array.ndim() != 1 && (array.ndim() != 2 || array.shape(1) != 1)) {
    ThrowShape(field, "(n,) or (n, 1)", array);
  }
  return Eigen::Map<const Eigen::VectorXd>(array.data(), array.shape(0));
}

std::vector<double> NumbersFrom(py::handle value, const char* field) {
  const Eigen::VectorXd numbers = VectorFrom(value, field);
  return {numbers.begin(), numbers.end()};
}

py::object ReadOnlyView(const cw::SampleMatrix& value, py::handle owner) {
  return View(value.data(), {value.rows(), value.cols()}, owner);
}

py::object ReadOnlyView(const Eigen::VectorXd& value, py::handle owner) {
  return View(value.data(), {value.size()}, owner);
}

py::object ReadOnlyView(const std::vector<double>& value, py::handle owner) {
  return View(value.data(), {static_cast<py::ssize_t>(value.size())}, owner);
}

void Retire(cw::SampleMatrix& value) { RetireStorage(value); }

void Retire(Eigen::VectorXd& value) { RetireStorage(value); }

void Retire(std::vector<double>& value) { RetireStorage(value); }

void Retire(cw::TaskSpaceShapedTrajectory& value) {
  for (cw::SampleMatrix* matrix :
       {&value.positions, &value.velocities, &value.accelerations, &value.joint_positions,
        &value.joint_velocities, &value.joint_accelerations}) {
    Retire(*matrix);
  }
  Retire(value.orientations);
  Retire(value.time_s);
}

void Retire(control::engines::ImpulseSequence& value) {
  Retire(value.amplitudes);
  Retire(value.times_s);
}

}  // namespace corvane::python
