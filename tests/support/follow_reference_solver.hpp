// A lifted-MPC solver double that follows its reference exactly: it answers each request with
// the request's first "apply_samples" rows.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "window/producers.hpp"
#include "window/replacement.hpp"

namespace corvane::control::window::testing {

// The request's first "apply_samples" rows (plus `extra_rows`) over [0, rows): without extra
// rows, a valid answer that declares no compute time.
inline WindowPayload FollowReference(const WindowSlice& request, Eigen::Index extra_rows = 0) {
  const auto rows =
      static_cast<Eigen::Index>(std::stoul(request.metadata.at("apply_samples"))) + extra_rows;
  WindowPayload answer;
  answer.positions = request.positions.topRows(rows);
  answer.stop_index = static_cast<std::size_t>(rows);
  return answer;
}

// Follows every request, except that solve number fail_at (counted from 0) answers with one row
// too many, which the producer refuses; it then asks for the same window again.
class FollowReferenceSolver final : public LiftedMpcSolveSession {
 public:
  explicit FollowReferenceSolver(std::optional<std::size_t> fail_at = std::nullopt)
      : fail_at_(fail_at) {}
  void Prepare() override {}
  WindowPayload Solve(const WindowSlice& request) override {
    return FollowReference(request, solves_++ == fail_at_ ? 1 : 0);
  }
  void Finalize() override {}

 private:
  std::optional<std::size_t> fail_at_;
  std::size_t solves_ = 0;
};

// Follows every request and, having no state, resumes anywhere. It records each resume point in
// `resumes` and calls `on_solve` (when set) as each solve begins, so a test can hold one in flight.
class ResumableFollowSolver final : public LiftedMpcSolveSession, public ResumableSolveSession {
 public:
  explicit ResumableFollowSolver(std::shared_ptr<std::vector<SolveResumePoint>> resumes =
                                     std::make_shared<std::vector<SolveResumePoint>>(),
                                 std::function<void()> on_solve = {})
      : resumes_(std::move(resumes)), on_solve_(std::move(on_solve)) {}
  void Prepare() override {}
  WindowPayload Solve(const WindowSlice& request) override {
    if (on_solve_) on_solve_();
    return FollowReference(request);
  }
  void Finalize() override {}
  bool CanResume() const override { return true; }
  std::size_t ResumeHistorySamples() const override { return 0; }
  void ResumeFrom(const SolveResumePoint& point) override { resumes_->push_back(point); }

 private:
  std::shared_ptr<std::vector<SolveResumePoint>> resumes_;
  std::function<void()> on_solve_;
};

}  // namespace corvane::control::window::testing
