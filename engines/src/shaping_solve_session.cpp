#include "corvane_shaper_engines/shaping_solve_session.hpp"

#include <algorithm>
#include <cmath>
#include <memory>
#include <stdexcept>
#include <utility>

#include "apply_samples.hpp"
#include "shaping_taps.hpp"

namespace corvane::control::engines {

namespace cw = control::window;

ShapingSolveSession::ShapingSolveSession(std::unique_ptr<cw::LiftedMpcSolveSession> solver,
                                         ImpulseSequence shaper, double sample_time_s)
    : solver_(std::move(solver)), shaper_(std::move(shaper)), sample_time_s_(sample_time_s) {
  if (!solver_) throw std::invalid_argument("solver must not be null.");
  taps_ = std::make_shared<const ShapingTaps>(shaper_, sample_time_s_);
  history_rows_ = taps_->history_rows();
}

void ShapingSolveSession::Prepare() {
  started_ = false;
  history_ = cw::SampleMatrix();
  solver_->Prepare();
}

void ShapingSolveSession::Finalize() { solver_->Finalize(); }

namespace {

// The wrapped solver as a resumable one, when it can resume.
cw::ResumableSolveSession* Resumable(cw::LiftedMpcSolveSession& solver) {
  auto* resumable = dynamic_cast<cw::ResumableSolveSession*>(&solver);
  return resumable != nullptr && resumable->CanResume() ? resumable : nullptr;
}

}  // namespace

bool ShapingSolveSession::CanResume() const { return Resumable(*solver_) != nullptr; }

std::size_t ShapingSolveSession::ResumeHistorySamples() const {
  const cw::ResumableSolveSession* inner = Resumable(*solver_);
  return history_rows() + (inner != nullptr ? inner->ResumeHistorySamples() : 0);
}

// The wrapped solver sees shaped requests, so the rows it asks for before the join are shaped
// too, each reading the reference before it. The history starts afresh when no row precedes the
// join, as after Prepare().
void ShapingSolveSession::ResumeFrom(const cw::SolveResumePoint& point) {
  cw::ResumableSolveSession* inner = Resumable(*solver_);
  if (inner == nullptr) throw std::runtime_error("The wrapped solver cannot resume.");
  const cw::SampleMatrix& before = point.reference_before;
  if (started_ && before.rows() > 0 && before.cols() != history_.cols()) {
    throw std::invalid_argument("The joint count must not change within a session.");
  }
  const auto inner_rows = std::min<Eigen::Index>(
      before.rows(), static_cast<Eigen::Index>(inner->ResumeHistorySamples()));
  cw::SolveResumePoint shaped{point.start_index, point.previous_command, cw::SampleMatrix()};
  if (inner_rows > 0) {
    shaped.reference_before =
        ShapingTaps(shaper_, sample_time_s_).Shape(before, before.rows() - inner_rows, inner_rows);
  }
  inner->ResumeFrom(shaped);

  const Eigen::Index kept = std::min(before.rows(), history_rows_);
  history_ = before.bottomRows(kept);
  history_stop_ = point.start_index;
  history_start_ = point.start_index - static_cast<std::size_t>(kept);
  previous_start_ = point.start_index;
  started_ = kept > 0;
}

cw::WindowPayload ShapingSolveSession::Solve(const cw::WindowSlice& request) {
  const Eigen::Index apply = ApplySamples(request);
  CheckRequestPositions(request);
  CheckContinues(request);
  cw::WindowSlice shaped;
  shaped.positions = ShapedPositions(request);
  shaped.start_index = request.start_index;
  shaped.stop_index = request.stop_index;
  shaped.metadata = request.metadata;
  cw::WindowPayload payload = solver_->Solve(shaped);
  Remember(request, apply);
  return payload;
}

void ShapingSolveSession::CheckContinues(const cw::WindowSlice& request) const {
  if (!started_) return;
  if (request.start_index != history_stop_ && request.start_index != previous_start_) {
    throw std::invalid_argument(
        "The request must start where the previous request or its applied rows end.");
  }
  if (request.positions.cols() != history_.cols()) {
    throw std::invalid_argument("The joint count must not change within a session.");
  }
}

cw::SampleMatrix ShapingSolveSession::ShapedPositions(const cw::WindowSlice& request) const {
  // The history rows the taps read before the request, then the request itself. Before the
  // first request's start the reference rests on its first row, which is where the taps clamp.
  const std::size_t start = request.start_index;
  const std::size_t first_kept =
      started_ ? std::max(history_start_, start - std::min<std::size_t>(start, history_rows()))
               : start;
  const auto before = static_cast<Eigen::Index>(start - first_kept);
  cw::SampleMatrix source(before + request.positions.rows(), request.positions.cols());
  if (before > 0) {
    source.topRows(before) =
        history_.middleRows(static_cast<Eigen::Index>(first_kept - history_start_), before);
  }
  source.bottomRows(request.positions.rows()) = request.positions;
  return taps_->Shape(source, before, request.positions.rows());
}

void ShapingSolveSession::Remember(const cw::WindowSlice& request, Eigen::Index apply) {
  const std::size_t start = request.start_index;
  if (!started_) history_start_ = start;
  // Keep what a repeat of this request or the next one reads: from history_rows() before start.
  const std::size_t keep_from =
      std::max(history_start_, start - std::min<std::size_t>(start, history_rows()));
  const auto kept = static_cast<Eigen::Index>(start - keep_from);
  cw::SampleMatrix history(kept + apply, request.positions.cols());
  if (kept > 0) {
    history.topRows(kept) =
        history_.middleRows(static_cast<Eigen::Index>(keep_from - history_start_), kept);
  }
  history.bottomRows(apply) = request.positions.topRows(apply);
  history_ = std::move(history);
  history_start_ = keep_from;
  history_stop_ = start + static_cast<std::size_t>(apply);
  previous_start_ = start;
  started_ = true;
}

}  // namespace corvane::control::engines
