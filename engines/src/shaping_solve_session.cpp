#include "corvane_shaper_engines/shaping_solve_session.hpp"

#include <memory>
#include <stdexcept>
#include <utility>

#include "apply_samples.hpp"
#include "reference_history.hpp"
#include "shaping_taps.hpp"

namespace corvane::control::engines {

namespace cw = control::window;

ShapingSolveSession::ShapingSolveSession(std::unique_ptr<cw::LiftedMpcSolveSession> solver,
                                         ImpulseSequence shaper, double sample_time_s)
    : solver_(std::move(solver)), shaper_(std::move(shaper)), sample_time_s_(sample_time_s) {
  if (!solver_) throw std::invalid_argument("solver must not be null.");
  taps_ = std::make_shared<const ShapingTaps>(shaper_, sample_time_s_);
  history_ = std::make_unique<ReferenceHistory>(taps_->history_rows());
}

ShapingSolveSession::ShapingSolveSession(ShapingSolveSession&&) noexcept = default;
ShapingSolveSession& ShapingSolveSession::operator=(ShapingSolveSession&&) noexcept = default;
ShapingSolveSession::~ShapingSolveSession() = default;

void ShapingSolveSession::Prepare() {
  history_->Reset();
  solver_->Prepare();
}

void ShapingSolveSession::Finalize() { solver_->Finalize(); }

cw::WindowPayload ShapingSolveSession::Solve(const cw::WindowSlice& request) {
  const Eigen::Index apply = ApplySamples(request);
  CheckRequestPositions(request);
  history_->CheckContinues(request);
  Eigen::Index before = 0;
  const cw::SampleMatrix source = history_->Source(request, before);
  cw::WindowSlice shaped;
  shaped.positions = taps_->Shape(source, before, request.positions.rows());
  shaped.start_index = request.start_index;
  shaped.stop_index = request.stop_index;
  shaped.metadata = request.metadata;
  cw::WindowPayload payload = solver_->Solve(shaped);
  history_->Remember(request, apply);
  return payload;
}

}  // namespace corvane::control::engines
