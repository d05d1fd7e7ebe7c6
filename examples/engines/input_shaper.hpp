// Input shaping of a precomputed joint trajectory, handed out as fixed-length windows.
//
// An input shaper is a short sequence of impulses. Convolving a command with it, that is
// summing time-shifted, scaled copies of the command, cancels the residual vibration of a
// lightly damped mode of the machine; the shaped motion lasts longer by the time of the last
// impulse.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include <Eigen/Core>
#include <window/producers.hpp>
#include <window/records.hpp>

namespace corvane::examples {

// The vibration mode that a shaper is designed for.
struct VibrationMode {
  double natural_frequency_hz = 0.0;  // [Hz] undamped natural frequency, finite and positive
  double damping_ratio = 0.0;         // from 0 (undamped) up to, not including, 1
};

// Shaped command: sum over i of amplitudes[i] * command(t - times_s[i]).
struct ImpulseSequence {
  std::vector<double> amplitudes;  // positive, summing to 1
  std::vector<double> times_s;     // [s] non-decreasing, the first 0
};

// Zero-vibration shaper: two impulses; no residual vibration at the design mode.
ImpulseSequence ZvShaper(const VibrationMode& mode);
// Zero-vibration-and-derivative shaper: three impulses; also flat against frequency errors.
ImpulseSequence ZvdShaper(const VibrationMode& mode);
// Extra-insensitive shaper: three impulses that allow the fraction tolerable_vibration (0 to 1)
// of residual vibration at the design mode, in exchange for a wider band of suppression.
ImpulseSequence EiShaper(const VibrationMode& mode, double tolerable_vibration);

// Shapes a trajectory with an impulse sequence and hands it out window by window. Before its
// first sample the trajectory is taken to rest on that sample, after its last on the last one;
// positions between samples are interpolated linearly. Windows are shaped when asked for, so
// each carries its own compute time.
class InputShaper final : public control::window::TrajectoryWindowHandle {
 public:
  // trajectory: [samples, joints] positions at sample_time_s [s] apart; window_samples: rows per
  // window (the last one may be shorter). Throws std::invalid_argument for an empty trajectory,
  // a period that is not finite and positive, an empty or malformed shaper, or no window rows.
  InputShaper(control::window::SampleMatrix trajectory, double sample_time_s,
              ImpulseSequence shaper, Eigen::Index window_samples);

  // Rewinds to the first window.
  void Prepare() override;
  // Does nothing: every window is shaped on request, so there is never one to wait for.
  void Advance(std::optional<std::size_t> steps) override;
  // The next window, or nothing once every window has been handed out or the session ended.
  std::optional<control::window::ShapedTrajectoryWindow> NextWindow() override;
  bool HasMoreWindows() const override;
  // Abandons the trajectory: no further window comes.
  void Cancel() override;
  // Ends the session: no further window comes.
  void Finalize() override;

  // Samples of the shaped motion: the trajectory's plus the shaper's duration, rounded up.
  Eigen::Index shaped_samples() const { return shaped_samples_; }

 private:
  // Shaped positions of the samples first, first + 1, ..., any of which may lie outside the
  // shaped motion.
  control::window::SampleMatrix ShapedPositions(Eigen::Index first, Eigen::Index rows) const;
  // The trajectory at a fractional sample index.
  Eigen::RowVectorXd TrajectoryAt(double sample) const;
  // Shapes the window of `rows` samples that starts at sample `first`.
  control::window::ShapedTrajectoryWindow ShapeWindow(Eigen::Index first, Eigen::Index rows) const;

  control::window::SampleMatrix trajectory_;
  double sample_time_s_;
  ImpulseSequence shaper_;
  Eigen::Index window_samples_;
  Eigen::Index shaped_samples_;
  Eigen::Index cursor_ = 0;  // first sample of the next window
  bool ended_ = false;
};

}  // namespace corvane::examples
