#include "plant/playback.hpp"

#include <chrono>
#include <memory>
#include <stdexcept>
#include <vector>

namespace corvane::plant {

namespace cw = control::window;

namespace {

constexpr auto kStallTimeout = std::chrono::seconds(5);

// The played samples, gathered row by row.
class PlayedSamples {
 public:
  void Record(const Eigen::RowVectorXd& command, const FlexibleArm& arm) {
    commands_.push_back(command);
    joints_.push_back(arm.JointPositions());
    deflection_.push_back(arm.Deflection());
  }
  void MoveInto(LockstepRun& run) const {
    const auto rows = static_cast<Eigen::Index>(commands_.size());
    run.command.resize(rows, kArmJoints);
    run.joints.resize(rows, kArmJoints);
    run.deflection = Eigen::Map<const Eigen::VectorXd>(deflection_.data(), rows);
    for (Eigen::Index k = 0; k < rows; ++k) {
      run.command.row(k) = commands_[static_cast<std::size_t>(k)];
      run.joints.row(k) = joints_[static_cast<std::size_t>(k)];
    }
  }

 private:
  std::vector<Eigen::RowVectorXd> commands_;
  std::vector<Eigen::RowVectorXd> joints_;
  std::vector<double> deflection_;
};

void PlayWindow(const cw::WindowPayload& window, FlexibleArm& arm, PlayedSamples& played) {
  for (Eigen::Index k = 0; k < window.positions.rows(); ++k) {
    const Eigen::RowVectorXd velocity = window.velocities
                                            ? Eigen::RowVectorXd(window.velocities->row(k))
                                            : Eigen::RowVectorXd::Zero(kArmJoints);
    arm.Play(window.positions.row(k), velocity);
    played.Record(window.positions.row(k), arm);
  }
}

}  // namespace

void PlayWindows(cw::AsyncWindowBuffer& buffer, FlexibleArm& arm, LockstepRun& run,
                 const std::function<void(Eigen::Index)>& before_pop) {
  const auto started = std::chrono::steady_clock::now();
  PlayedSamples played;
  for (Eigen::Index popped = 0;; ++popped) {
    if (before_pop) before_pop(popped);
    std::optional<cw::WindowPayload> window = buffer.Pop(kStallTimeout);
    if (!window) {
      if (buffer.IsComplete()) break;
      throw std::runtime_error("No window arrived within 5 s.");
    }
    const std::chrono::duration<double> popped_s = std::chrono::steady_clock::now() - started;
    PlayWindow(*window, arm, played);
    run.popped.push_back({std::move(*window), popped_s.count()});
  }
  played.MoveInto(run);
}

LockstepRun PlayRecord(FlexibleArm& arm, const std::vector<control::io::RecordedWindow>& record,
                       const Eigen::RowVectorXd& rest_pose) {
  cw::AsyncWindowBuffer buffer(
      std::make_unique<cw::FiniteWindowProducer>(control::io::ReplayProducer(record)));
  LockstepRun run;
  arm.Rest(rest_pose);
  buffer.Start();
  PlayWindows(buffer, arm, run, nullptr);
  return run;
}

}  // namespace corvane::plant
