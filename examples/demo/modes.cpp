#include "demo/modes.hpp"

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <corvane_shaper_engines/input_shaper.hpp>
#include <corvane_shaper_engines/lifted_mpc_solver.hpp>
#include <corvane_shaper_engines/shaper_designs.hpp>
#include <corvane_shaper_engines/shaping_solve_session.hpp>
#include <window/producers.hpp>
#include <window/reference_buffer.hpp>

#include "demo/reference_planner.hpp"

namespace corvane::demo {

namespace cw = control::window;
namespace engines = control::engines;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t kPrefillWindows = 2;
constexpr std::size_t kQueueWindows = 4;
// The arm's first vibration mode, which the shaper cancels.
constexpr engines::VibrationMode kArmMode{6.0, 0.05};

// Plays a started buffer from `start` on, with a monitor reading its timing log when it has one,
// and judges how its production kept up.
DemoRun Play(cw::AsyncWindowBuffer& buffer, const DemoOptions& options, Clock::time_point start,
             const std::shared_ptr<cw::TimingLog>& timing) {
  TimingMonitor monitor(timing);
  DemoRun run;
  run.playback = PlayWindows(buffer, options.sample_time_s(), start, options.fast, timing.get());
  run.timing = monitor.Finish();
  run.qualification = buffer.Qualify(kComputeFractionLimit);
  return run;
}

// The reference, held at its last sample until it is `rows` long.
cw::SampleMatrix HeldTo(const cw::SampleMatrix& reference, Eigen::Index rows) {
  cw::SampleMatrix held(rows, reference.cols());
  held.topRows(reference.rows()) = reference;
  held.bottomRows(rows - reference.rows()).rowwise() = reference.row(reference.rows() - 1);
  return held;
}

// The lifted-MPC solver follows the reference while a planner thread is still streaming it. With
// --shape an EI shaper stage in front of the solver shapes the reference as it streams; the
// planner then holds the last pose for the shaper's duration, so the shaped motion settles.
DemoRun RunMpc(const DemoOptions& options, cw::SampleMatrix reference) {
  const double h = options.sample_time_s();
  const engines::ImpulseSequence shaper = engines::EiShaper(kArmMode);
  std::unique_ptr<cw::LiftedMpcSolveSession> solver =
      std::make_unique<engines::LiftedMpcSolver>(h, options.lookahead_samples);
  if (options.shape) {
    solver = std::make_unique<engines::ShapingSolveSession>(std::move(solver), shaper, h);
    reference = HeldTo(reference, reference.rows() + engines::ShaperSamples(shaper, h));
  }
  auto stored =
      std::make_shared<cw::AppendableReferenceBuffer>(static_cast<std::size_t>(options.joints));
  auto producer = std::make_unique<cw::AppendableLiftedMpcWindowProducer>(
      std::move(solver), stored, static_cast<std::size_t>(options.apply_samples),
      static_cast<std::size_t>(options.lookahead_samples), h, 0);
  cw::AppendableWindowBuffer buffer(std::move(producer), stored, kPrefillWindows, kQueueWindows);
  const auto timing = AttachTimingLog(buffer, !options.timing_path.empty());
  const Clock::time_point start = Clock::now();
  ReferenceStreamer planner(buffer, *stored, reference,
                            options.fast ? std::nullopt : std::optional(PlaybackClock{start, h}));
  // Started any earlier, the worker would charge its wait for the first reference sample to the
  // compute time of the first window.
  stored->WaitUntilSamples(1);
  buffer.Start();
  DemoRun run = Play(buffer, options, start, timing);
  planner.Join();
  run.reference = buffer.ReferencePositions();
  run.hold_samples =
      buffer.AvailableReferenceSamples() - static_cast<std::size_t>(reference.rows());
  if (options.shape) run.shaped_reference = engines::ShapeSamples(run.reference, h, shaper);
  return run;
}

// The input shaper smooths the whole reference, which lengthens it by the shaper's duration.
DemoRun RunShaper(const DemoOptions& options, const cw::SampleMatrix& reference) {
  auto shaper = std::make_unique<engines::InputShaper>(
      reference, options.sample_time_s(), engines::ZvdShaper(kArmMode), options.apply_samples);
  cw::AsyncWindowBuffer buffer(std::make_unique<cw::ShaperWindowProducer>(std::move(shaper)),
                               kPrefillWindows, kQueueWindows);
  const auto timing = AttachTimingLog(buffer, !options.timing_path.empty());
  buffer.Start();
  DemoRun run = Play(buffer, options, Clock::now(), timing);
  run.reference = HeldTo(reference, run.playback.command.rows());
  return run;
}

// The reference cut into windows of apply_samples rows, each with its times and sample period.
std::vector<cw::WindowPayload> CutIntoWindows(const cw::SampleMatrix& reference,
                                              Eigen::Index rows_per_window, double sample_time_s) {
  std::vector<cw::WindowPayload> windows;
  for (Eigen::Index first = 0; first < reference.rows(); first += rows_per_window) {
    const Eigen::Index rows = std::min(rows_per_window, reference.rows() - first);
    cw::WindowPayload window;
    window.positions = reference.middleRows(first, rows);
    window.time_s = Eigen::VectorXd::LinSpaced(rows, static_cast<double>(first),
                                               static_cast<double>(first + rows - 1)) *
                    sample_time_s;
    window.start_index = static_cast<std::size_t>(first);
    window.stop_index = static_cast<std::size_t>(first + rows);
    window.metadata["sample_time_s"] = std::to_string(sample_time_s);
    windows.push_back(std::move(window));
  }
  return windows;
}

// Precomputed windows of the reference itself, replayed as they are.
DemoRun RunReplay(const DemoOptions& options, const cw::SampleMatrix& reference) {
  auto windows = CutIntoWindows(reference, options.apply_samples, options.sample_time_s());
  cw::AsyncWindowBuffer buffer(std::make_unique<cw::FiniteWindowProducer>(
                                   std::move(windows), std::vector<cw::WindowPayload>{}),
                               kPrefillWindows, kQueueWindows);
  const auto timing = AttachTimingLog(buffer, !options.timing_path.empty());
  buffer.Start();
  DemoRun run = Play(buffer, options, Clock::now(), timing);
  run.reference = reference;
  return run;
}

DemoRun RunMode(const DemoOptions& options, const cw::SampleMatrix& reference) {
  switch (options.mode) {
    case Mode::kMpc:
      return RunMpc(options, reference);
    case Mode::kShaper:
      return RunShaper(options, reference);
    case Mode::kReplay:
      return RunReplay(options, reference);
    case Mode::kPlant:  // RunPlantDemo() runs it
    case Mode::kPoses:  // RunPosesDemo() runs it
      break;
  }
  return {};
}

}  // namespace

DemoRun RunDemo(const DemoOptions& options) {
  const Clock::time_point started = Clock::now();
  const cw::SampleMatrix reference =
      PointToPointReference(options.joints, options.sample_time_s(), options.duration_s);
  DemoRun run = RunMode(options, reference);
  run.wall_time_s = std::chrono::duration<double>(Clock::now() - started).count();
  return run;
}

}  // namespace corvane::demo
