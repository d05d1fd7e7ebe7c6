// EstimateRinging over one minute of a 20 Hz ringing sampled at 1 kHz (60,000 samples), at a
// prime length (60,013) and at a tenth of the length, all in the same run. The prime length must
// cost about what the smooth one does (the padded FFT is never of prime length), and ten times
// the samples about ten times the time (O(n log n)); the absolute figure has a target of 0.5 s.
#include <cmath>
#include <cstdio>
#include <random>

#include <benchmark/benchmark.h>

#include <corvane_shaper_engines/ringing_tuning.hpp>
#include "ratio_reporter.hpp"

namespace {

constexpr double kRateHz = 1000.0;

// A 20 Hz ringing at a damping ratio of 0.01 with 1 % noise.
Eigen::VectorXd Ringing(Eigen::Index samples) {
  std::mt19937 random(1);
  std::normal_distribution<double> noise(0.0, 0.01);
  const double w = 2.0 * 3.14159265358979323846 * 20.0;
  return Eigen::VectorXd::NullaryExpr(samples, [&](Eigen::Index k) {
    const double t = static_cast<double>(k) / kRateHz;
    return std::exp(-0.01 * w * t) * std::cos(w * t + 0.3) + noise(random);
  });
}

void BM_Estimate(benchmark::State& state) {
  const Eigen::VectorXd samples = Ringing(state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(corvane::control::engines::EstimateRinging(samples, kRateHz));
  }
}

BENCHMARK(BM_Estimate)
    ->Arg(6000)
    ->Arg(60000)
    ->Arg(60013)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);

void Summarize(const corvane::bench::RatioReporter& reporter) {
  const char* names[] = {"BM_Estimate/6000", "BM_Estimate/60000", "BM_Estimate/60013"};
  for (const char* name : names) {
    if (!reporter.Has(name)) return;
  }
  const double tenth = reporter.NanosecondsPerIteration(names[0]);
  const double minute = reporter.NanosecondsPerIteration(names[1]);
  const double prime = reporter.NanosecondsPerIteration(names[2]);
  std::printf("\nOne minute at 1 kHz: %.3f s (target under 0.5 s: %s), prime length: %.3f s\n",
              minute / 1e9, minute < 0.5e9 ? "met" : "MISSED", prime / 1e9);
  corvane::bench::PrintRatio("prime length (60,013) / 60,000 samples", prime / minute, "< 1.5",
                             prime / minute < 1.5);
  corvane::bench::PrintRatio("60,000 / 6,000 samples", minute / tenth, "< 20", minute / tenth < 20);
}

}  // namespace

int main(int argc, char** argv) { return corvane::bench::RunAndSummarize(argc, argv, Summarize); }
