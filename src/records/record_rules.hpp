// The rules shared by every record validator: finiteness, shape, the range check and
// non-negative time. Internal to the library; not installed, not exported.
//
// Every rule only reads its arguments: none allocates, none throws. The validators build their
// message strings only on the failing path.
#pragma once

#include <cmath>
#include <cstddef>

#include <Eigen/Core>

namespace corvane::control::window::detail {

// Finite: every element is neither NaN nor infinite. An empty matrix or vector is finite.
// x - x is +0 for every finite x and NaN for NaN and both infinities, and NaN survives any sum of
// such terms, so one vectorised sum over the storage decides it without a branch per element.
template <typename Derived>
bool IsFinite(const Eigen::DenseBase<Derived>& values) {
  return (values.derived().array() - values.derived().array()).sum() == 0.0;
}

// Exactly `rows` x `cols` and finite. A vector of size n has the shape (n, 1).
template <typename Derived>
bool IsFiniteWithShape(const Eigen::DenseBase<Derived>& values, Eigen::Index rows,
                       Eigen::Index cols) {
  return values.rows() == rows && values.cols() == cols && IsFinite(values);
}

// The same shape as `reference` and finite.
template <typename Derived, typename ReferenceDerived>
bool IsFiniteWithShapeOf(const Eigen::DenseBase<Derived>& values,
                         const Eigen::DenseBase<ReferenceDerived>& reference) {
  return IsFiniteWithShape(values, reference.rows(), reference.cols());
}

// The range check: stop_index >= start_index and stop_index - start_index == rows, on size_t.
inline bool RangeMatchesRows(std::size_t start_index, std::size_t stop_index,
                             Eigen::Index rows) noexcept {
  return stop_index >= start_index && stop_index - start_index == static_cast<std::size_t>(rows);
}

// Non-negative time: finite and not less than 0.0 (so -0.0 passes).
inline bool IsNonNegativeTime(double seconds) noexcept {
  return std::isfinite(seconds) && seconds >= 0.0;
}

}  // namespace corvane::control::window::detail
