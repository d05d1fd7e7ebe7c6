// Deadlines of sliced waits, and the handling of pending signals between slices.
#include "waits.hpp"

#include <algorithm>

namespace corvane::python {

Deadline::Deadline(const Timeout& timeout) {
  if (timeout.limit) end_ = std::chrono::steady_clock::now() + *timeout.limit;
}

std::chrono::nanoseconds Deadline::NextSlice() const {
  if (!end_) return kWaitSlice;
  return std::min<std::chrono::nanoseconds>(kWaitSlice, *end_ - std::chrono::steady_clock::now());
}

bool Deadline::Passed() const { return end_ && std::chrono::steady_clock::now() >= *end_; }

void HandlePendingSignals() {
  if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

}  // namespace corvane::python
