// Example 2: change course while the machine moves. A lifted-MPC stream moves one joint towards
// 1 rad; part-way the planner re-targets it to -0.5 rad, and later stops it smoothly. The loop
// prints each join with the steps of position, velocity and acceleration there, against the
// largest steps anywhere else in the stream.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <vector>

#include <corvane_shaper_engines/lifted_mpc_solver.hpp>
#include <window/async_buffer.hpp>

namespace cw = corvane::control::window;

namespace {

constexpr double kSampleTimeS = 0.001;  // [s] 1 kHz

// `rows` samples that blend from `from` (the reference the planner had) towards `to` without a
// kink in position, velocity or acceleration, then hold `to`.
cw::SampleMatrix Blend(const std::vector<double>& from, double to, std::size_t rows) {
  cw::SampleMatrix blend(static_cast<Eigen::Index>(rows), 1);
  for (std::size_t i = 0; i < rows; ++i) {
    const double t = std::min(static_cast<double>(i) / 600.0, 1.0);
    const double base = i < from.size() ? from[i] : from.back();
    blend(static_cast<Eigen::Index>(i), 0) =
        base + (to - base) * t * t * t * (10 - 15 * t + 6 * t * t);
  }
  return blend;
}

// Replaces the reference from the earliest sample still replaceable; a pop may overtake the
// index between the query and the call, and then the planner simply asks again.
template <typename Replace>
cw::ReferenceReplacement FromEarliest(Replace replace) {
  while (true) {
    try {
      return replace();
    } catch (const std::invalid_argument&) {
    }
  }
}

// The largest absolute step of `values` from one sample to the next, skipping the step into
// sample `skip`.
double LargestStep(const std::vector<double>& values, std::size_t skip) {
  double largest = 0.0;
  for (std::size_t i = 1; i < values.size(); ++i) {
    if (i != skip) largest = std::max(largest, std::abs(values[i] - values[i - 1]));
  }
  return largest;
}

}  // namespace

int main() {
  auto reference = std::make_shared<cw::AppendableReferenceBuffer>(1);
  cw::AppendableWindowBuffer buffer(
      std::make_unique<cw::AppendableLiftedMpcWindowProducer>(
          std::make_unique<corvane::control::engines::LiftedMpcSolver>(kSampleTimeS, 100),
          reference, 10, 100, kSampleTimeS, 0),
      reference, 0, 8);
  buffer.AppendReference(Blend({0.0}, 1.0, 1500));  // a move to 1 rad, then at rest
  buffer.Start();

  std::vector<double> position, velocity, acceleration;
  std::vector<cw::ReferenceReplacement> joins;
  while (std::optional<cw::WindowPayload> window = buffer.Pop()) {
    for (Eigen::Index row = 0; row < window->positions.rows(); ++row) {
      position.push_back(window->positions(row, 0));
      velocity.push_back((*window->velocities)(row, 0));
      acceleration.push_back((*window->accelerations)(row, 0));
    }
    if (joins.empty() && position.size() >= 400) {  // a new goal: -0.5 rad
      joins.push_back(FromEarliest([&] {
        const std::size_t k = buffer.EarliestReplaceableIndex();
        const cw::SampleMatrix old = reference->WindowWithTerminalPadding(k, k + 1000).positions;
        return buffer.ReplaceReference(k, Blend({old.data(), old.data() + old.size()}, -0.5, 1200));
      }));
    } else if (joins.size() == 1 && position.size() >= 800) {  // a stop request
      joins.push_back(FromEarliest([&] { return buffer.StopSmoothly(800); }));
    }
  }

  std::printf("%zu samples played; %zu windows discarded by %zu replacements\n", position.size(),
              buffer.Replacements().discarded_windows, buffer.Replacements().replacements);
  for (const cw::ReferenceReplacement& join : joins) {
    const std::size_t k = join.start_index;
    std::printf("join at %zu (resumed at %zu):", k, join.resume_index);
    for (const auto* values : {&position, &velocity, &acceleration}) {
      std::printf("  step %.3g, largest elsewhere %.3g", std::abs((*values)[k] - (*values)[k - 1]),
                  LargestStep(*values, k));
    }
    std::printf("\n");
  }
  return 0;
}
