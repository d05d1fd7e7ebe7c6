// Example 1: build windows of a 3-joint ramp, validate them, and replay them through a
// FiniteWindowProducer behind an AsyncWindowBuffer, printing one line per window.
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include <window/async_buffer.hpp>

namespace cw = corvane::control::window;

namespace {

constexpr double kSampleTimeS = 0.01;  // [s] 100 Hz
constexpr Eigen::Index kRowsPerWindow = 5;
constexpr Eigen::Index kJoints = 3;

// Window `index` of a ramp: joint j moves at (j + 1) * 0.1 rad/s.
cw::WindowPayload RampWindow(std::size_t index) {
  cw::WindowPayload window;
  window.positions.resize(kRowsPerWindow, kJoints);
  window.time_s = Eigen::VectorXd(kRowsPerWindow);
  const auto first = static_cast<Eigen::Index>(index) * kRowsPerWindow;
  for (Eigen::Index row = 0; row < kRowsPerWindow; ++row) {
    const double t = static_cast<double>(first + row) * kSampleTimeS;
    (*window.time_s)(row) = t;
    for (Eigen::Index joint = 0; joint < kJoints; ++joint) {
      window.positions(row, joint) = static_cast<double>(joint + 1) * 0.1 * t;
    }
  }
  window.start_index = static_cast<std::size_t>(first);
  window.stop_index = static_cast<std::size_t>(first + kRowsPerWindow);
  window.metadata["sample_time_s"] = std::to_string(kSampleTimeS);
  return window;
}

}  // namespace

int main() {
  std::vector<cw::WindowPayload> mainline;
  for (std::size_t i = 0; i < 4; ++i) mainline.push_back(RampWindow(i));
  std::vector<cw::WindowPayload> tail{RampWindow(4)};
  tail.front().metadata["is_tail"] = "true";

  try {
    for (const auto& window : mainline) cw::ValidateWindowPayload(window);

    cw::AsyncWindowBuffer buffer(
        std::make_unique<cw::FiniteWindowProducer>(std::move(mainline), std::move(tail)),
        /*prefill_windows=*/2, /*max_buffered_windows=*/3);
    buffer.Start();
    while (auto window = buffer.Pop()) {
      const auto last = window->positions.rows() - 1;
      std::printf("window [%3zu, %3zu)  t = %.2f..%.2f s  joint 3: %.4f -> %.4f rad%s\n",
                  window->start_index, window->stop_index, (*window->time_s)(0),
                  (*window->time_s)(last), window->positions(0, 2), window->positions(last, 2),
                  window->metadata.count("is_tail") ? "  (tail)" : "");
    }
    const cw::QualificationReport report = buffer.Qualify(0.5);
    std::printf("%zu windows produced, %s at a compute fraction of %.2f\n", report.total_windows,
                report.qualified ? "qualified" : "not qualified", report.compute_fraction_limit);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "error: %s\n", error.what());
    return 1;
  }
  return 0;
}
