// A lifted-MPC solver double that follows its reference exactly: it answers each request with
// the request's first "apply_samples" rows.
#pragma once

#include <cstddef>
#include <string>

#include "window/producers.hpp"

namespace corvane::control::window::testing {

// The request's first "apply_samples" rows over [0, apply_samples): a valid answer that declares
// no compute time.
inline WindowPayload FollowReference(const WindowSlice& request) {
  const auto rows = static_cast<Eigen::Index>(std::stoul(request.metadata.at("apply_samples")));
  WindowPayload answer;
  answer.positions = request.positions.topRows(rows);
  answer.stop_index = static_cast<std::size_t>(rows);
  return answer;
}

class FollowReferenceSolver final : public LiftedMpcSolveSession {
 public:
  void Prepare() override {}
  WindowPayload Solve(const WindowSlice& request) override { return FollowReference(request); }
  void Finalize() override {}
};

}  // namespace corvane::control::window::testing
