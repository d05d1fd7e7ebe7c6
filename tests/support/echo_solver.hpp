// A lifted-MPC solver double that answers each request with the reference rows it is to apply.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "window/producers.hpp"

namespace corvane::control::window::testing {

// The first "apply_samples" (plus `extra`) rows of the request's positions, as a window over
// [0, rows).
inline WindowPayload EchoApplied(const WindowSlice& request, Eigen::Index extra = 0) {
  const auto rows =
      static_cast<Eigen::Index>(std::stoul(request.metadata.at("apply_samples"))) + extra;
  WindowPayload window;
  window.positions = request.positions.topRows(rows);
  window.stop_index = static_cast<std::size_t>(rows);
  return window;
}

// Echoes every request, except that solve number fail_at (counted from 0) answers with one row
// too many, which the producer refuses; it then asks for the same window again.
class EchoSolver final : public LiftedMpcSolveSession {
 public:
  explicit EchoSolver(std::optional<std::size_t> fail_at = std::nullopt) : fail_at_(fail_at) {}
  void Prepare() override {}
  WindowPayload Solve(const WindowSlice& request) override {
    return EchoApplied(request, solves_++ == fail_at_ ? 1 : 0);
  }
  void Finalize() override {}

 private:
  std::optional<std::size_t> fail_at_;
  std::size_t solves_ = 0;
};

}  // namespace corvane::control::window::testing
