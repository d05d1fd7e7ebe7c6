#include <corvane_shaper_engines/input_shaper.hpp>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <utility>

#include "shaping_taps.hpp"

namespace corvane::control::engines {

namespace cw = control::window;

InputShaper::InputShaper(cw::SampleMatrix trajectory, double sample_time_s, ImpulseSequence shaper,
                         Eigen::Index window_samples)
    : trajectory_(std::move(trajectory)),
      sample_time_s_(sample_time_s),
      shaper_(std::move(shaper)),
      window_samples_(window_samples) {
  if (trajectory_.rows() < 1 || trajectory_.cols() < 1 || !trajectory_.allFinite()) {
    throw std::invalid_argument("The trajectory must hold finite samples of at least one joint.");
  }
  if (window_samples < 1) throw std::invalid_argument("window_samples must be positive.");
  taps_ = std::make_shared<const ShapingTaps>(shaper_, sample_time_s_);
  shaped_samples_ = trajectory_.rows() + taps_->history_rows();
}

void InputShaper::Prepare() {
  cursor_ = 0;
  ended_ = false;
}

void InputShaper::Advance(std::optional<std::size_t> /*steps*/) {}

std::optional<cw::ShapedTrajectoryWindow> InputShaper::NextWindow() {
  if (!HasMoreWindows()) return std::nullopt;
  const auto started = std::chrono::steady_clock::now();
  const Eigen::Index rows = std::min(window_samples_, shaped_samples_ - cursor_);
  cw::ShapedTrajectoryWindow window = ShapeWindow(cursor_, rows);
  cursor_ += rows;
  window.compute_time_s =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  return window;
}

bool InputShaper::HasMoreWindows() const { return !ended_ && cursor_ < shaped_samples_; }

void InputShaper::Cancel() { ended_ = true; }

void InputShaper::Finalize() { ended_ = true; }

cw::ShapedTrajectoryWindow InputShaper::ShapeWindow(Eigen::Index first, Eigen::Index rows) const {
  // One sample either side, for the central differences of velocity and acceleration.
  const cw::SampleMatrix around = taps_->Shape(trajectory_, first - 1, rows + 2);
  const auto before = around.topRows(rows);
  const auto at = around.middleRows(1, rows);
  const auto after = around.bottomRows(rows);
  const double h = sample_time_s_;

  cw::ShapedTrajectoryWindow window;
  window.positions = at;
  window.velocities = (after - before) / (2.0 * h);
  window.accelerations = (after - 2.0 * at + before) / (h * h);
  window.time_s = Eigen::VectorXd::LinSpaced(rows, static_cast<double>(first),
                                             static_cast<double>(first + rows - 1)) *
                  h;
  window.start_index = static_cast<std::size_t>(first);
  window.stop_index = static_cast<std::size_t>(first + rows);
  window.is_tail = first >= trajectory_.rows();
  return window;
}

}  // namespace corvane::control::engines
