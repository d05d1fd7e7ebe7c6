// Garbage-collector support for bound classes whose C++ objects hold Python objects.
//
// The collector finds reference cycles by asking each object which objects it holds. A C++
// object that keeps a Python object alive (a buffer its producer, a producer its solver) must
// answer for that hold, or a cycle through it is never collected. The instance access below
// goes through pybind11's own instance layout (pybind11/detail), as its holders need.
#pragma once

#include "module.hpp"

namespace corvane::python {

// The C++ object and holder of an instance of a bound class or of a Python subclass of one.
inline py::detail::value_and_holder ValueAndHolder(PyObject* self) {
  return *py::detail::values_and_holders(reinterpret_cast<py::detail::instance*>(self)).begin();
}

// The C++ object of an instance; null before __init__ has run and after a clear.
template <class Value>
Value* ValueOf(PyObject* self) {
  const py::detail::value_and_holder holder = ValueAndHolder(self);
  return holder.holder_constructed() ? holder.value_ptr<Value>() : nullptr;
}

// A clear that breaks a reference cycle through an instance by destroying its C++ object as
// deallocation would; the instance is left without one.
inline int DestroyValue(PyObject* self) {
  py::detail::value_and_holder holder = ValueAndHolder(self);
  if (!holder.holder_constructed()) return 0;
  if (holder.instance_registered()) {
    py::detail::deregister_instance(holder.inst, holder.value_ptr(), holder.type);
    holder.set_instance_registered(false);
  }
  holder.type->dealloc(holder);
  holder.inst->owned = false;
  return 0;
}

// The type setup of a class whose instances hold the Python object Held(value); `clear` (or
// null) breaks a cycle through an instance.
template <class Value, py::handle (*Held)(const Value&)>
py::custom_type_setup Collectable(inquiry clear) {
  return py::custom_type_setup([clear](PyHeapTypeObject* heap_type) {
    heap_type->ht_type.tp_flags |= Py_TPFLAGS_HAVE_GC;
    heap_type->ht_type.tp_traverse = [](PyObject* self, visitproc visit, void* arg) {
      Py_VISIT(Py_TYPE(self));
      if (const Value* value = ValueOf<Value>(self)) Py_VISIT(Held(*value).ptr());
      return 0;
    };
    heap_type->ht_type.tp_clear = clear;
  });
}

}  // namespace corvane::python
