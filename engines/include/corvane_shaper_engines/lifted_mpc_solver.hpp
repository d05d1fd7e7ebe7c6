// A condensed ("lifted") model-predictive controller for a multi-joint machine whose joints are
// modelled as double integrators: state position and velocity, input acceleration.
//
// Over a horizon of N samples the predicted positions are P = Phi x0 + Gamma U, where x0 is the
// current state and U the N accelerations still to choose. The controller minimises
//
//   |R - P|^2 + w_a |U|^2 + w_j |D U - e0 a_prev|^2
//
// with R the reference positions, D the first difference of U and a_prev the acceleration
// applied last. Without constraints the optimum is linear:
//
//   U = K (R - Phi x0) + k a_prev,   K = H^-1 Gamma^T,   k = w_j H^-1 e0,
//   H = Gamma^T Gamma + w_a I + w_j D^T D,
//
// so K and k are computed once per horizon length and every joint is solved by one matrix
// product. The first "apply_samples" rows are applied and the state carries over to the next
// request.
#pragma once

#include <map>
#include <optional>

#include <Eigen/Core>
#include <native/export.hpp>
#include <window/producers.hpp>
#include <window/replacement.hpp>

namespace corvane::control::engines {

// Weights of the controller's cost, next to a weight of 1 on each squared tracking error in rad.
struct LiftedMpcWeights {
  double acceleration_s4 = 1e-9;         // [s^4] on each squared acceleration
  double acceleration_change_s4 = 1e-8;  // [s^4] on each squared change of acceleration
};

// A lifted-MPC solve session for independent double-integrator joints: each request's positions
// are tracked by a quadratic cost on tracking error, acceleration and its change, whose gains are
// cached per horizon. Through SolveInto it reuses the storage of an earlier answer and its own
// working matrices, so that a steady stream of requests of one shape allocates nothing. It
// resumes from the command of any sample: its state is the position, velocity and acceleration
// of the last applied row.
class CORVANE_EXPORT LiftedMpcSolver final : public control::window::RecyclingLiftedMpcSolveSession,
                                             public control::window::ResumableSolveSession {
 public:
  // sample_time_s: [s] the period of the request rows, finite and positive.
  // horizon_samples: the rows that requests are expected to have (the producer's lookahead);
  // their gains are computed by Prepare(), away from the timed solves. Requests of any other
  // length get theirs when they first come.
  // Throws std::invalid_argument for a bad period, a horizon below 1 or a negative or infinite
  // weight.
  LiftedMpcSolver(double sample_time_s, Eigen::Index horizon_samples,
                  LiftedMpcWeights weights = {});

  // Starts a new session, in which the first request starts the machine at rest on its first
  // row, and makes sure the gains of the expected horizon are ready.
  void Prepare() override;
  // Solves one request and applies its first "apply_samples" rows, which it returns with
  // positions, velocities, accelerations and times (request row k at (start_index + k) periods)
  // over the range [0, apply_samples). Throws std::invalid_argument when "apply_samples" is
  // missing, not a count from 1 to the request's rows, when the positions are not finite
  // samples of at least one joint, or when the joint count changes.
  control::window::WindowPayload Solve(const control::window::WindowSlice& request) override;
  // Solve(request), written into `window`: positions, velocities, accelerations, times, range and
  // compute time; its metadata is left as it is. Throws as Solve does.
  void SolveInto(const control::window::WindowSlice& request,
                 control::window::WindowPayload& window) override;
  // Ends the session and forgets the carried state.
  void Finalize() override;

  // Always true.
  bool CanResume() const override;
  // 0: the solver needs no reference before the join.
  std::size_t ResumeHistorySamples() const override;
  // Carries on from the previous command's position, velocity and acceleration (those it lacks
  // read as 0), or, without one, starts afresh as after Prepare(). Throws std::invalid_argument
  // when the previous command's rows are not all of one joint count, or differ from the
  // session's.
  void ResumeFrom(const control::window::SolveResumePoint& point) override;

 private:
  // The joints' state after the last applied sample; one column per joint.
  struct JointState {
    Eigen::RowVectorXd position;      // [rad]
    Eigen::RowVectorXd velocity;      // [rad/s]
    Eigen::RowVectorXd acceleration;  // [rad/s^2] the acceleration applied last
  };

  // The matrices of the optimum for one horizon length N.
  struct HorizonGains {
    Eigen::MatrixXd free_response;           // [N, 2] Phi: positions from the state, no input
    Eigen::MatrixXd reference_gain;          // [N, N] K
    Eigen::VectorXd last_acceleration_gain;  // [N] k
  };

  const HorizonGains& GainsFor(Eigen::Index horizon);
  HorizonGains ComputeGains(Eigen::Index horizon) const;
  // Applies accelerations_ row by row into `window`, with the exact discretisation of the double
  // integrator.
  void Apply(control::window::WindowPayload& window);

  double sample_time_s_;
  Eigen::Index horizon_samples_;
  LiftedMpcWeights weights_;
  std::map<Eigen::Index, HorizonGains> gains_;
  std::optional<JointState> state_;
  Eigen::MatrixXd error_;  // [N, joints] working matrix: tracking error of the free response
  Eigen::MatrixXd accelerations_;  // [apply, joints] working matrix: the accelerations to apply
};

}  // namespace corvane::control::engines
