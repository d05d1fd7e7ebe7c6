#include "corvane_shaper_engines/shaping_solve_session.hpp"

#include <memory>
#include <stdexcept>
#include <utility>

#include "reference_history.hpp"
#include "shaping_taps.hpp"

namespace corvane::control::engines {

namespace cw = control::window;

ShapingSolveSession::ShapingSolveSession(std::unique_ptr<cw::LiftedMpcSolveSession> solver,
                                         ImpulseSequence shaper, double sample_time_s)
    : solver_(std::move(solver)) {
  if (!solver_) throw std::invalid_argument("solver must not be null.");
  taps_ = std::make_shared<const ShapingTaps>(shaper, sample_time_s);
  history_ = std::make_shared<ReferenceHistory>(taps_->history_rows());
}

void ShapingSolveSession::Prepare() {
  history_->Reset();
  solver_->Prepare();
}

void ShapingSolveSession::Finalize() { solver_->Finalize(); }

cw::WindowPayload ShapingSolveSession::Solve(const cw::WindowSlice& request) {
  return SolveShaped(request, *history_, *solver_, ShapeBy(*taps_));
}

bool ShapingSolveSession::CanResume() const { return Resumable(*solver_) != nullptr; }

std::size_t ShapingSolveSession::ResumeHistorySamples() const {
  return ResumeRows(*history_, *solver_);
}

void ShapingSolveSession::ResumeFrom(const cw::SolveResumePoint& point) {
  ResumeShaped(point, *history_, *solver_, ShapeBy(*taps_));
}

}  // namespace corvane::control::engines
