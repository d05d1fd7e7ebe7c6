// One solve of the example lifted-MPC solver (6 joints, lookahead 50, apply 10), against the
// product at its heart measured in the same run: the applied rows of the horizon gain (10 x 50)
// times the residual of every joint (50 x 6). The ratio shows what a whole solve costs (free
// response, state update, payload) beside that product.
#include <cstdio>
#include <string>

#include <benchmark/benchmark.h>

#include <corvane_shaper_engines/lifted_mpc_solver.hpp>
#include "ratio_reporter.hpp"

namespace cw = corvane::control::window;

namespace {

constexpr Eigen::Index kJoints = 6;
constexpr Eigen::Index kLookahead = 50;
constexpr Eigen::Index kApply = 10;

cw::WindowSlice Request() {
  cw::WindowSlice request;
  request.positions = cw::SampleMatrix::Random(kLookahead, kJoints);
  request.stop_index = static_cast<std::size_t>(kLookahead);
  request.metadata = {{"apply_samples", std::to_string(kApply)}, {"terminal_padding_samples", "0"}};
  return request;
}

void BM_Solve(benchmark::State& state) {
  corvane::control::engines::LiftedMpcSolver solver(0.001, kLookahead);
  solver.Prepare();
  const cw::WindowSlice request = Request();
  for (auto _ : state) benchmark::DoNotOptimize(solver.Solve(request));
}

void BM_Solve_Baseline(benchmark::State& state) {
  const Eigen::MatrixXd gain = Eigen::MatrixXd::Random(kApply, kLookahead);
  const Eigen::MatrixXd residual = Eigen::MatrixXd::Random(kLookahead, kJoints);
  Eigen::MatrixXd inputs(kApply, kJoints);
  for (auto _ : state) {
    inputs.noalias() = gain * residual;
    benchmark::DoNotOptimize(inputs.data());
  }
}

BENCHMARK(BM_Solve)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_Solve_Baseline)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
  corvane::bench::RatioReporter reporter;
  corvane::bench::RunInterleaved(argc, argv, reporter);
  if (reporter.Has("BM_Solve") && reporter.Has("BM_Solve_Baseline")) {
    const double solve_ns = reporter.NanosecondsPerIteration("BM_Solve");
    std::printf("\nOne solve: %.2f us\n", solve_ns / 1e3);
    corvane::bench::PrintRatio("solve / gain-times-residual product",
                               solve_ns / reporter.NanosecondsPerIteration("BM_Solve_Baseline"),
                               "informational", true);
  }
  benchmark::Shutdown();
  return 0;
}
