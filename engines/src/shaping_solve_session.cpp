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
