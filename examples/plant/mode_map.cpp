#include "plant/mode_map.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace corvane::plant {

namespace cs = control::engines;

namespace {

constexpr double kLightDamping = 0.2;
constexpr double kRingingS = 1.5;           // [s] free ringing recorded
constexpr double kReleaseRad = 0.01;        // [rad] shoulder and payload turn released
constexpr int kPayloadColumn = kArmJoints;  // FreeRinging()'s column of the deflection

}  // namespace

Eigen::RowVectorXd WorkspacePose(double shoulder_rad, double elbow_rad) {
  Eigen::RowVectorXd pose(kArmJoints);
  pose << shoulder_rad, elbow_rad, kWorkspaceWristRad;
  return pose;
}

std::vector<cs::VibrationMode> LightModes(FlexibleArm& arm, const Eigen::RowVectorXd& pose) {
  std::vector<cs::VibrationMode> modes = arm.LinearisedModes(pose);
  modes.erase(std::remove_if(modes.begin(), modes.end(),
                             [](const auto& mode) { return mode.damping_ratio >= kLightDamping; }),
              modes.end());
  if (modes.size() != 2) {
    throw std::runtime_error("The linearised arm must have two lightly damped modes.");
  }
  return modes;
}

ModeMap::ModeMap(FlexibleArm& arm, int points) {
  if (points < 2) throw std::invalid_argument("points must be at least 2.");
  for (int point = 0; point < points; ++point) {
    const double elbow = kLowestElbowRad + (kHighestElbowRad - kLowestElbowRad) * point /
                                               static_cast<double>(points - 1);
    points_.push_back({elbow, LightModes(arm, WorkspacePose(0.0, elbow))});
  }
}

std::vector<cs::VibrationMode> ModeMap::At(const Eigen::RowVectorXd& pose) const {
  const double elbow = std::clamp(pose(1), points_.front().elbow_rad, points_.back().elbow_rad);
  const auto above =
      std::upper_bound(points_.begin() + 1, points_.end() - 1, elbow,
                       [](double value, const MapPoint& point) { return value < point.elbow_rad; });
  const MapPoint& high = *above;
  const MapPoint& low = *(above - 1);
  const double share = (elbow - low.elbow_rad) / (high.elbow_rad - low.elbow_rad);
  std::vector<cs::VibrationMode> modes;
  for (std::size_t m = 0; m < low.modes.size(); ++m) {
    const auto between = [share](double a, double b) { return a + share * (b - a); };
    modes.push_back({between(low.modes[m].natural_frequency_hz, high.modes[m].natural_frequency_hz),
                     between(low.modes[m].damping_ratio, high.modes[m].damping_ratio)});
  }
  return modes;
}

RingingCheck CheckByRinging(FlexibleArm& arm, double elbow_rad) {
  const Eigen::RowVectorXd pose = WorkspacePose(0.0, elbow_rad);
  Eigen::RowVectorXd release = Eigen::RowVectorXd::Zero(kArmJoints + 1);
  release(0) = kReleaseRad;
  release(kPayloadColumn) = kReleaseRad;
  const Eigen::MatrixXd motion = arm.FreeRinging(pose, release, kRingingS);
  RingingCheck check;
  check.elbow_rad = elbow_rad;
  check.measured = cs::EstimateRingingModes(motion.col(kPayloadColumn), 1.0 / arm.sample_time_s());
  check.linearised = LightModes(arm, pose);
  return check;
}

}  // namespace corvane::plant
