#include "plant/flexible_arm.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <Eigen/Eigenvalues>

namespace corvane::plant {

namespace {

constexpr int kPayloadJoint = 3;             // the compliant joint, after the three servo joints
constexpr double kRingingRelease = 0.02;     // [rad] deflection a free ringing starts from
constexpr double kLinearisationStep = 1e-6;  // finite-difference step of mjd_transitionFD

// Compiles the model text through MuJoCo's virtual file system (about 2 MB, so on the heap).
mjModel* CompileModel(const char* name, const char* text) {
  const auto vfs = std::make_unique<mjVFS>();
  mj_defaultVFS(vfs.get());
  const auto size = static_cast<int>(std::strlen(text));
  if (mj_makeEmptyFileVFS(vfs.get(), name, size) != 0) {
    throw std::runtime_error("MuJoCo could not hold the model text in memory.");
  }
  std::memcpy(vfs->filedata[mj_findFileVFS(vfs.get(), name)], text, static_cast<size_t>(size));
  char error[1000] = "";
  mjModel* model = mj_loadXML(name, vfs.get(), error, sizeof error);
  mj_deleteVFS(vfs.get());
  if (model == nullptr) throw std::runtime_error(std::string(name) + ": " + error);
  if (model->nu != kArmJoints || model->nq != kArmJoints + 1 || model->nv != model->nq) {
    throw std::runtime_error(std::string(name) + " must have three servos and four hinge joints.");
  }
  return model;
}

}  // namespace

FlexibleArm::FlexibleArm(double sample_time_s)
    : FlexibleArm(sample_time_s, "flexible_arm.xml", kFlexibleArmModel) {}

FlexibleArm::FlexibleArm(double sample_time_s, const char* name, const char* model_xml)
    : model_(CompileModel(name, model_xml)),
      data_(mj_makeData(model_.get())),
      sample_time_s_(sample_time_s),
      steps_per_sample_(static_cast<int>(std::lround(sample_time_s / model_->opt.timestep))),
      feedforward_s_(kArmJoints) {
  if (!(sample_time_s > 0.0) || steps_per_sample_ < 1 ||
      std::abs(steps_per_sample_ * model_->opt.timestep - sample_time_s) > 1e-12) {
    throw std::invalid_argument("sample_time_s must be a whole number of physics steps.");
  }
  for (int servo = 0; servo < kArmJoints; ++servo) {
    const int dof = model_->jnt_dofadr[model_->actuator_trnid[2 * servo]];
    feedforward_s_(servo) = model_->dof_damping[dof] / model_->actuator_gainprm[servo * mjNGAIN];
  }
}

void FlexibleArm::Rest(const Eigen::RowVectorXd& pose, double deflection_rad) {
  mj_resetData(model_.get(), data_.get());
  for (int joint = 0; joint < kArmJoints; ++joint) {
    data_->qpos[joint] = pose(joint);
    data_->ctrl[joint] = pose(joint);
  }
  data_->qpos[kPayloadJoint] = deflection_rad;
  mj_forward(model_.get(), data_.get());
}

void FlexibleArm::Play(const Eigen::RowVectorXd& position, const Eigen::RowVectorXd& velocity) {
  // A servo's force is stiffness * (target - angle) - damping * speed; shifting the target by
  // damping / stiffness * velocity makes it track the commanded velocity too.
  for (int joint = 0; joint < kArmJoints; ++joint) {
    data_->ctrl[joint] = position(joint) + feedforward_s_(joint) * velocity(joint);
  }
  for (int step = 0; step < steps_per_sample_; ++step) mj_step(model_.get(), data_.get());
}

Eigen::RowVectorXd FlexibleArm::JointPositions() const {
  return Eigen::Map<const Eigen::RowVectorXd>(data_->qpos, kArmJoints);
}

double FlexibleArm::Deflection() const { return data_->qpos[kPayloadJoint]; }

Eigen::VectorXd FlexibleArm::FreeRinging(const Eigen::RowVectorXd& pose, double duration_s) {
  Rest(pose, kRingingRelease);
  const Eigen::RowVectorXd still = Eigen::RowVectorXd::Zero(kArmJoints);
  Eigen::VectorXd deflection(std::lround(duration_s / sample_time_s_));
  for (Eigen::Index k = 0; k < deflection.size(); ++k) {
    deflection(k) = Deflection();
    Play(pose, still);
  }
  return deflection;
}

Eigen::MatrixXd FlexibleArm::FreeRinging(const Eigen::RowVectorXd& pose,
                                         const Eigen::RowVectorXd& release_rad, double duration_s) {
  Rest(pose, release_rad(kPayloadJoint));
  for (int joint = 0; joint < kArmJoints; ++joint) data_->qpos[joint] += release_rad(joint);
  mj_forward(model_.get(), data_.get());
  const Eigen::RowVectorXd still = Eigen::RowVectorXd::Zero(kArmJoints);
  Eigen::MatrixXd motion(std::lround(duration_s / sample_time_s_), kArmJoints + 1);
  for (Eigen::Index k = 0; k < motion.rows(); ++k) {
    motion.row(k) << JointPositions() - pose, Deflection();
    Play(pose, still);
  }
  return motion;
}

control::engines::VibrationMode FlexibleArm::LinearisedMode(const Eigen::RowVectorXd& pose) {
  const std::vector<control::engines::VibrationMode> modes = LinearisedModes(pose);
  if (modes.empty()) throw std::runtime_error("The linearised arm has no oscillatory mode.");
  return *std::min_element(modes.begin(), modes.end(), [](const auto& a, const auto& b) {
    return a.damping_ratio < b.damping_ratio;
  });
}

std::vector<control::engines::VibrationMode> FlexibleArm::LinearisedModes(
    const Eigen::RowVectorXd& pose) {
  Rest(pose);
  const int states = 2 * model_->nv + model_->na;
  std::vector<mjtNum> transition(static_cast<size_t>(states * states));
  mjd_transitionFD(model_.get(), data_.get(), kLinearisationStep, 1, transition.data(), nullptr,
                   nullptr, nullptr);
  const Eigen::MatrixXd step =
      Eigen::Map<Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>(
          transition.data(), states, states);
  const Eigen::VectorXcd eigenvalues = Eigen::EigenSolver<Eigen::MatrixXd>(step).eigenvalues();
  std::vector<control::engines::VibrationMode> modes;
  for (const std::complex<double> eigenvalue : eigenvalues) {
    // One step multiplies a mode by exp(s dt); s = -zeta w + i w sqrt(1 - zeta^2).
    const std::complex<double> s = std::log(eigenvalue) / model_->opt.timestep;
    if (s.imag() <= 0.0) continue;
    modes.push_back({std::abs(s) / (2.0 * M_PI), -s.real() / std::abs(s)});
  }
  std::sort(modes.begin(), modes.end(), [](const auto& a, const auto& b) {
    return a.natural_frequency_hz < b.natural_frequency_hz;
  });
  return modes;
}

}  // namespace corvane::plant
