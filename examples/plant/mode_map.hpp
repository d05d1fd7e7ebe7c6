// The compliant arm's modes against its pose: a map from the linearised arm, checked against free
// ringings read by the two-mode estimate.
#pragma once

#include <vector>

#include <Eigen/Core>
#include <corvane_shaper_engines/impulse_sequence.hpp>
#include <corvane_shaper_engines/ringing_modes.hpp>

#include "plant/flexible_arm.hpp"

namespace corvane::plant {

// The workspace of the pose experiment: the elbow from kLowestElbowRad to kHighestElbowRad, the
// wrist held at kWorkspaceWristRad. The shoulder's own angle changes no mode.
inline constexpr double kLowestElbowRad = 0.3;
inline constexpr double kHighestElbowRad = 2.1;
inline constexpr double kWorkspaceWristRad = -0.3;

// [rad] the pose with the shoulder at shoulder_rad, the elbow at elbow_rad and the workspace's
// wrist.
Eigen::RowVectorXd WorkspacePose(double shoulder_rad, double elbow_rad);

// The two lightly damped modes (damping ratio below 0.2) of the arm linearised at rest on `pose`:
// the compliant shoulder's, then the payload's. Throws std::runtime_error when there are not two.
std::vector<control::engines::VibrationMode> LightModes(FlexibleArm& arm,
                                                        const Eigen::RowVectorXd& pose);

// The arm's modes at one elbow angle.
struct MapPoint {
  double elbow_rad = 0.0;                              // [rad]
  std::vector<control::engines::VibrationMode> modes;  // LightModes() there
};

class ModeMap {
 public:
  // Linearises `arm` at `points` elbow angles (at least 2) evenly over the workspace.
  // Throws std::invalid_argument for fewer points, and what LightModes() throws.
  ModeMap(FlexibleArm& arm, int points);

  // The modes at `pose`: frequency and damping interpolated linearly in its elbow angle, held
  // beyond the map's ends.
  std::vector<control::engines::VibrationMode> At(const Eigen::RowVectorXd& pose) const;
  const std::vector<MapPoint>& points() const { return points_; }

 private:
  std::vector<MapPoint> points_;
};

// A free ringing at one pose against the linearised modes there.
struct RingingCheck {
  double elbow_rad = 0.0;                                   // [rad]
  control::engines::RingingModes measured;                  // read from the payload deflection
  std::vector<control::engines::VibrationMode> linearised;  // LightModes() there
};

// Releases the arm at rest at elbow_rad (shoulder at 0) from a small turn of the shoulder and of
// the payload, records the payload deflection for 1.5 s and reads both modes from it with
// EstimateRingingModes(). Throws what the estimate throws.
RingingCheck CheckByRinging(FlexibleArm& arm, double elbow_rad);

}  // namespace corvane::plant
