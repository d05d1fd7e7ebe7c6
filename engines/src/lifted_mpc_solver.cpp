#include <corvane_shaper_engines/lifted_mpc_solver.hpp>

#include <chrono>
#include <cmath>
#include <cstddef>
#include <stdexcept>

#include <Eigen/Cholesky>

#include "apply_samples.hpp"

namespace corvane::control::engines {

namespace cw = control::window;

LiftedMpcSolver::LiftedMpcSolver(double sample_time_s, Eigen::Index horizon_samples,
                                 LiftedMpcWeights weights)
    : sample_time_s_(sample_time_s), horizon_samples_(horizon_samples), weights_(weights) {
  if (!std::isfinite(sample_time_s) || sample_time_s <= 0.0) {
    throw std::invalid_argument("sample_time_s must be finite and positive.");
  }
  if (horizon_samples < 1) throw std::invalid_argument("horizon_samples must be positive.");
  if (!(weights.acceleration_s4 >= 0.0) || !(weights.acceleration_change_s4 >= 0.0)) {
    throw std::invalid_argument("LiftedMpcWeights must not be negative.");
  }
  if (!std::isfinite(weights.acceleration_s4) || !std::isfinite(weights.acceleration_change_s4)) {
    throw std::invalid_argument("LiftedMpcWeights must be finite.");
  }
}

void LiftedMpcSolver::Prepare() {
  state_.reset();
  GainsFor(horizon_samples_);
}

void LiftedMpcSolver::Finalize() { state_.reset(); }

bool LiftedMpcSolver::CanResume() const { return true; }

std::size_t LiftedMpcSolver::ResumeHistorySamples() const { return 0; }

// The rows of a window are exactly the states the solver went through, so resuming from one
// carries on bit for bit as if the solves after it had never happened.
void LiftedMpcSolver::ResumeFrom(const cw::SolveResumePoint& point) {
  if (!point.previous_command) {
    state_.reset();
    return;
  }
  const cw::CommandSample& command = *point.previous_command;
  const Eigen::Index joints = command.positions.size();
  const auto fits = [joints](const std::optional<Eigen::RowVectorXd>& row) {
    return !row || (row->size() == joints && row->allFinite());
  };
  if (joints == 0 || !command.positions.allFinite() || !fits(command.velocities) ||
      !fits(command.accelerations) || (state_ && state_->position.size() != joints)) {
    throw std::invalid_argument(
        "previous_command must hold one finite value per joint of the session in each row.");
  }
  const Eigen::RowVectorXd rest = Eigen::RowVectorXd::Zero(joints);
  state_ = JointState{command.positions, command.velocities.value_or(rest),
                      command.accelerations.value_or(rest)};
}

cw::WindowPayload LiftedMpcSolver::Solve(const cw::WindowSlice& request) {
  cw::WindowPayload payload;
  SolveInto(request, payload);
  return payload;
}

// Every product is written into storage of its final shape (noalias), so that no temporary is
// allocated once the working matrices and the window have the shapes of the stream.
void LiftedMpcSolver::SolveInto(const cw::WindowSlice& request, cw::WindowPayload& window) {
  const auto started = std::chrono::steady_clock::now();
  const Eigen::Index apply = ApplySamples(request);
  CheckRequestPositions(request);
  const Eigen::Index joints = request.positions.cols();
  if (!state_) {
    const Eigen::RowVectorXd rest = Eigen::RowVectorXd::Zero(joints);
    state_ = JointState{request.positions.row(0), rest, rest};
  }
  if (state_->position.size() != joints) {
    throw std::invalid_argument("The joint count must not change within a session.");
  }

  const HorizonGains& gains = GainsFor(request.positions.rows());
  // Tracking error of the free response (no further acceleration), all joints at once.
  error_ = request.positions;
  error_.noalias() -= gains.free_response.col(0) * state_->position;
  error_.noalias() -= gains.free_response.col(1) * state_->velocity;
  accelerations_.noalias() = gains.reference_gain.topRows(apply) * error_;
  accelerations_.noalias() += gains.last_acceleration_gain.head(apply) * state_->acceleration;

  Apply(window);
  const double first_time_s = static_cast<double>(request.start_index) * sample_time_s_;
  if (!window.time_s) window.time_s.emplace();
  window.time_s->setLinSpaced(apply, first_time_s,
                              first_time_s + static_cast<double>(apply - 1) * sample_time_s_);
  window.compute_time_s =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
}

const LiftedMpcSolver::HorizonGains& LiftedMpcSolver::GainsFor(Eigen::Index horizon) {
  auto found = gains_.find(horizon);
  if (found == gains_.end()) found = gains_.emplace(horizon, ComputeGains(horizon)).first;
  return found->second;
}

LiftedMpcSolver::HorizonGains LiftedMpcSolver::ComputeGains(Eigen::Index horizon) const {
  const double h = sample_time_s_;
  // Row k predicts sample k + 1 after the current state: p = p0 + (k + 1) h v0 + ...
  Eigen::MatrixXd free_response(horizon, 2);
  free_response.col(0).setOnes();
  free_response.col(1) = Eigen::VectorXd::LinSpaced(horizon, h, static_cast<double>(horizon) * h);

  // Acceleration i moves the position of row k >= i by h^2 (k - i + 1/2).
  Eigen::MatrixXd gamma = Eigen::MatrixXd::Zero(horizon, horizon);
  for (Eigen::Index k = 0; k < horizon; ++k) {
    for (Eigen::Index i = 0; i <= k; ++i) gamma(k, i) = h * h * (static_cast<double>(k - i) + 0.5);
  }
  // First difference of the accelerations; row 0 compares with the acceleration applied last.
  Eigen::MatrixXd difference = Eigen::MatrixXd::Identity(horizon, horizon);
  difference.diagonal(-1).setConstant(-1.0);

  const Eigen::MatrixXd hessian =
      gamma.transpose() * gamma +
      weights_.acceleration_s4 * Eigen::MatrixXd::Identity(horizon, horizon) +
      weights_.acceleration_change_s4 * difference.transpose() * difference;
  const Eigen::LLT<Eigen::MatrixXd> factor(hessian);
  const Eigen::VectorXd first = Eigen::VectorXd::Unit(horizon, 0);
  return HorizonGains{free_response, factor.solve(gamma.transpose()),
                      weights_.acceleration_change_s4 * factor.solve(first)};
}

void LiftedMpcSolver::Apply(cw::WindowPayload& window) {
  const Eigen::Index rows = accelerations_.rows();
  const Eigen::Index joints = accelerations_.cols();
  const double h = sample_time_s_;
  if (!window.velocities) window.velocities.emplace();
  if (!window.accelerations) window.accelerations.emplace();
  window.positions.resize(rows, joints);
  window.velocities->resize(rows, joints);
  *window.accelerations = accelerations_;
  JointState& state = *state_;
  for (Eigen::Index k = 0; k < rows; ++k) {
    state.acceleration = accelerations_.row(k);
    state.position += h * state.velocity + 0.5 * h * h * state.acceleration;
    state.velocity += h * state.acceleration;
    window.positions.row(k) = state.position;
    window.velocities->row(k) = state.velocity;
  }
  window.start_index = 0;
  window.stop_index = static_cast<std::size_t>(rows);
}

}  // namespace corvane::control::engines
