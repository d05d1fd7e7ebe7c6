#include "reference_history.hpp"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace corvane::control::engines {

namespace cw = control::window;

std::size_t ReferenceHistory::FirstRead(std::size_t start) const {
  return std::max(first_, start - std::min(start, static_cast<std::size_t>(rows_read_)));
}

void ReferenceHistory::CheckContinues(const cw::WindowSlice& request) const {
  if (!started_) return;
  if (request.start_index != stop_ && request.start_index != previous_start_) {
    throw std::invalid_argument(
        "The request must start where the previous request or its applied rows end.");
  }
  if (request.positions.cols() != rows_.cols()) {
    throw std::invalid_argument("The joint count must not change within a session.");
  }
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

}  // namespace corvane::control::engines
