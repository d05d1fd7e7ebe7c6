#include "reference_history.hpp"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "apply_samples.hpp"

namespace corvane::control::engines {

namespace cw = control::window;

void ReferenceHistory::Reset() {
  started_ = false;
  rows_ = cw::SampleMatrix();
}

std::size_t ReferenceHistory::FirstRead(std::size_t start) const {
  return std::max(first_, start - std::min(start, static_cast<std::size_t>(rows_read_)));
}

void ReferenceHistory::CheckJoints(Eigen::Index joints) const {
  if (joints != rows_.cols()) {
    throw std::invalid_argument("The joint count must not change within a session.");
  }
}

void ReferenceHistory::CheckContinues(const cw::WindowSlice& request) const {
  if (!started_) return;
  if (request.start_index != stop_ && request.start_index != previous_start_) {
    throw std::invalid_argument(
        "The request must start where the previous request or its applied rows end.");
  }
  CheckJoints(request.positions.cols());
}

cw::SampleMatrix ReferenceHistory::Source(const cw::WindowSlice& request,
                                          Eigen::Index& before) const {
  const std::size_t start = request.start_index;
  const std::size_t first = started_ ? FirstRead(start) : start;
  before = static_cast<Eigen::Index>(start - first);
  cw::SampleMatrix source(before + request.positions.rows(), request.positions.cols());
  if (before > 0) {
    source.topRows(before) = rows_.middleRows(static_cast<Eigen::Index>(first - first_), before);
  }
  source.bottomRows(request.positions.rows()) = request.positions;
  return source;
}

void ReferenceHistory::Remember(const cw::WindowSlice& request, Eigen::Index apply) {
  const std::size_t start = request.start_index;
  if (!started_) first_ = start;
  // Keep what a repeat of this request or the next one reads.
  const std::size_t keep_from = FirstRead(start);
  const auto kept = static_cast<Eigen::Index>(start - keep_from);
  cw::SampleMatrix rows(kept + apply, request.positions.cols());
  if (kept > 0) {
    rows.topRows(kept) = rows_.middleRows(static_cast<Eigen::Index>(keep_from - first_), kept);
  }
  rows.bottomRows(apply) = request.positions.topRows(apply);
  rows_ = std::move(rows);
  first_ = keep_from;
  stop_ = start + static_cast<std::size_t>(apply);
  previous_start_ = start;
  started_ = true;
}

void ReferenceHistory::CheckResumes(const cw::SampleMatrix& before) const {
  if (started_ && before.rows() > 0) CheckJoints(before.cols());
}

void ReferenceHistory::ResumeFrom(std::size_t start, const cw::SampleMatrix& before) {
  const Eigen::Index kept = std::min(before.rows(), rows_read_);
  rows_ = before.bottomRows(kept);
  stop_ = start;
  first_ = start - static_cast<std::size_t>(kept);
  previous_start_ = start;
  started_ = kept > 0;
}

cw::ResumableSolveSession* Resumable(cw::LiftedMpcSolveSession& solver) {
  auto* resumable = dynamic_cast<cw::ResumableSolveSession*>(&solver);
  return resumable != nullptr && resumable->CanResume() ? resumable : nullptr;
}

std::size_t ResumeRows(const ReferenceHistory& history, cw::LiftedMpcSolveSession& solver) {
  const cw::ResumableSolveSession* inner = Resumable(solver);
  return static_cast<std::size_t>(history.rows_read()) +
         (inner != nullptr ? inner->ResumeHistorySamples() : 0);
}

cw::WindowPayload SolveShaped(const cw::WindowSlice& request, ReferenceHistory& history,
                              cw::LiftedMpcSolveSession& solver, const ShapeRows& shape) {
  const Eigen::Index apply = ApplySamples(request);
  CheckRequestPositions(request);
  history.CheckContinues(request);
  Eigen::Index before = 0;
  const cw::SampleMatrix source = history.Source(request, before);
  cw::WindowSlice shaped;
  shaped.positions = shape(source, before, request.positions.rows());
  shaped.start_index = request.start_index;
  shaped.stop_index = request.stop_index;
  shaped.metadata = request.metadata;
  cw::WindowPayload payload = solver.Solve(shaped);
  history.Remember(request, apply);
  return payload;
}

void ResumeShaped(const cw::SolveResumePoint& point, ReferenceHistory& history,
                  cw::LiftedMpcSolveSession& solver, const ShapeRows& shape) {
  cw::ResumableSolveSession* inner = Resumable(solver);
  if (inner == nullptr) throw std::runtime_error("The wrapped solver cannot resume.");
  const cw::SampleMatrix& before = point.reference_before;
  history.CheckResumes(before);
  const auto inner_rows = std::min<Eigen::Index>(
      before.rows(), static_cast<Eigen::Index>(inner->ResumeHistorySamples()));
  cw::SolveResumePoint shaped{point.start_index, point.previous_command, cw::SampleMatrix()};
  if (inner_rows > 0) {
    shaped.reference_before = shape(before, before.rows() - inner_rows, inner_rows);
  }
  inner->ResumeFrom(shaped);
  history.ResumeFrom(point.start_index, before);
}

}  // namespace corvane::control::engines
