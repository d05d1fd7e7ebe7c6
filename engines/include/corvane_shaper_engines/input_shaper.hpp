// Input shaping of a precomputed joint trajectory, handed out as fixed-length windows.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>

#include <Eigen/Core>
#include <native/export.hpp>
#include <window/producers.hpp>
#include <window/records.hpp>

#include "corvane_shaper_engines/impulse_sequence.hpp"

namespace corvane::control::engines {

// The shaper as a filter on sampled references, internal to the library.
class ShapingTaps;

// Shapes a trajectory with an impulse sequence and hands it out window by window. Before its
// first sample the trajectory is taken to rest on that sample, after its last on the last one;
// positions between samples are interpolated linearly. Windows are shaped when asked for, so
// each carries its own compute time.
class CORVANE_EXPORT InputShaper final : public control::window::TrajectoryWindowHandle {
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
  // Shapes the window of `rows` samples that starts at sample `first`.
  control::window::ShapedTrajectoryWindow ShapeWindow(Eigen::Index first, Eigen::Index rows) const;

  control::window::SampleMatrix trajectory_;
  double sample_time_s_;
  ImpulseSequence shaper_;
  std::shared_ptr<const ShapingTaps> taps_;  // the shaper as a filter, built once
  Eigen::Index window_samples_;
  Eigen::Index shaped_samples_;
  Eigen::Index cursor_ = 0;  // first sample of the next window
  bool ended_ = false;
};

}  // namespace corvane::control::engines
