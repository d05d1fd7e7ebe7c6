// A simulated flexible arm: three joints on position servos moving in the horizontal plane, with
// a payload on a compliant joint at the tip that rings after a move. MuJoCo integrates it on
// simulated time; nothing here reads a clock.
#pragma once

#include <memory>
#include <vector>

#include <mujoco/mujoco.h>
#include <Eigen/Core>
#include <corvane_shaper_engines/impulse_sequence.hpp>

namespace corvane::plant {

// The arm's servo-driven joints: shoulder, elbow, wrist.
inline constexpr Eigen::Index kArmJoints = 3;

// The models built into the program: flexible_arm.xml, and compliant_arm.xml, the same arm on a
// compliant shoulder whose mode moves with the elbow angle.
extern const char kFlexibleArmModel[];
extern const char kCompliantArmModel[];

class FlexibleArm {
 public:
  // Loads the model built into the program (flexible_arm.xml); the control loop plays one sample
  // every sample_time_s [s], a whole number of physics steps. Throws std::runtime_error with
  // MuJoCo's message when the model does not load, and std::invalid_argument when sample_time_s
  // is not a positive whole multiple of the physics step.
  explicit FlexibleArm(double sample_time_s);
  // The same with the model text `model_xml` (kCompliantArmModel, say), named `name` in messages;
  // it must have the three servos and the payload joint of flexible_arm.xml.
  FlexibleArm(double sample_time_s, const char* name, const char* model_xml);

  // Puts the arm at rest on `pose` [rad] with the servos holding it there, the payload turned by
  // deflection_rad [rad] on its compliant joint, and the simulated clock at 0.
  void Rest(const Eigen::RowVectorXd& pose, double deflection_rad = 0.0);
  // Plays one sample: servo targets `position` [rad] and `velocity` [rad/s], held over one
  // sample period of physics steps.
  void Play(const Eigen::RowVectorXd& position, const Eigen::RowVectorXd& velocity);

  // [rad] shoulder, elbow and wrist angles.
  Eigen::RowVectorXd JointPositions() const;
  // [rad] the payload's turn on its compliant joint.
  double Deflection() const;
  // [s] simulated time since the last Rest().
  double time_s() const { return data_->time; }
  // [s] the period of Play().
  double sample_time_s() const { return sample_time_s_; }

  // The payload's free ringing at rest on `pose`: released from a small deflection with the
  // servos holding, its deflection [rad] sampled once a sample period for duration_s [s].
  Eigen::VectorXd FreeRinging(const Eigen::RowVectorXd& pose, double duration_s);
  // The least damped oscillatory mode of the arm linearised about rest on `pose`: the
  // eigenvalues of one physics step's transition matrix (mjd_transitionFD), mapped to continuous
  // time. Throws std::runtime_error when the linearised arm has no oscillatory mode.
  control::engines::VibrationMode LinearisedMode(const Eigen::RowVectorXd& pose);
  // Every oscillatory mode of the arm linearised about rest on `pose`, found as LinearisedMode()
  // finds the least damped one, by rising frequency.
  std::vector<control::engines::VibrationMode> LinearisedModes(const Eigen::RowVectorXd& pose);
  // The arm's free motion at rest on `pose`, released from the offsets release_rad [rad] of
  // shoulder, elbow, wrist and payload joint with the servos holding the pose: a row a sample
  // period for duration_s [s], each joint's angle less its angle at rest (the payload's: its
  // deflection).
  Eigen::MatrixXd FreeRinging(const Eigen::RowVectorXd& pose, const Eigen::RowVectorXd& release_rad,
                              double duration_s);

 private:
  struct ModelDeleter {
    void operator()(mjModel* model) const { mj_deleteModel(model); }
  };
  struct DataDeleter {
    void operator()(mjData* data) const { mj_deleteData(data); }
  };

  std::unique_ptr<mjModel, ModelDeleter> model_;
  std::unique_ptr<mjData, DataDeleter> data_;
  double sample_time_s_;
  int steps_per_sample_;
  Eigen::RowVectorXd feedforward_s_;  // [s] servo damping over stiffness, per joint
};

}  // namespace corvane::plant
