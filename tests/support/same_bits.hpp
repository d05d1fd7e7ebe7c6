// Exact comparison of sample arrays: the same shape and the same bits in every value, so that
// -0.0 differs from 0.0 and a rounded value from the original.
#pragma once

#include <cstring>

#include <Eigen/Core>

namespace corvane::testing {

template <typename Left, typename Right>
bool SameBits(const Eigen::PlainObjectBase<Left>& left,
              const Eigen::PlainObjectBase<Right>& right) {
  return left.rows() == right.rows() && left.cols() == right.cols() &&
         (left.size() == 0 ||  // an empty array may have no storage to compare
          std::memcmp(left.data(), right.data(),
                      sizeof(double) * static_cast<std::size_t>(left.size())) == 0);
}

}  // namespace corvane::testing
