// A Google Benchmark console reporter that also remembers each run, so that a benchmark program
// can print its figures as ratios against a baseline measured in the same process.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace corvane::bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) runs_[WithoutRepeats(run.benchmark_name())] = run;
    ConsoleReporter::ReportRuns(runs);
  }

  // Real time per iteration, in nanoseconds, of the named run (the median over repetitions,
  // where the benchmark was repeated).
  double NanosecondsPerIteration(const std::string& name) const {
    const Run& run = Find(name);
    return run.GetAdjustedRealTime() * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
  }
  // A user counter of the named run (its median, where repeated), as the console shows it.
  double Counter(const std::string& name, const std::string& counter) const {
    return Find(name).counters.at(counter).value;
  }
  bool Has(const std::string& name) const {
    return runs_.count(name) > 0 || runs_.count(name + "_median") > 0;
  }

 private:
  // The name without its "/repeats:N" part, so that a figure is found whether repeated or not.
  static std::string WithoutRepeats(std::string name) {
    const auto at = name.find("/repeats:");
    if (at == std::string::npos) return name;
    const auto digits_end = name.find_first_not_of("0123456789", at + 9);
    return name.erase(at, (digits_end == std::string::npos ? name.size() : digits_end) - at);
  }
  const Run& Find(const std::string& name) const {
    const auto median = runs_.find(name + "_median");
    return median != runs_.end() ? median->second : runs_.at(name);
  }

  std::map<std::string, Run> runs_;
};

// Runs the registered benchmarks into `reporter` with their repetitions interleaved at random, so
// that a slow spell of the machine falls on a figure and on its baseline alike instead of on
// whichever happened to run then. The command line may still turn interleaving off.
inline void RunInterleaved(int argc, char** argv, RatioReporter& reporter) {
  std::vector<char*> args(argv, argv + argc);
  static char interleave[] = "--benchmark_enable_random_interleaving=true";
  args.insert(args.begin() + 1, interleave);  // flags given later override this one
  int count = static_cast<int>(args.size());
  args.push_back(nullptr);  // argv[argc], as main received it
  benchmark::Initialize(&count, args.data());
  benchmark::RunSpecifiedBenchmarks(&reporter);
}

// The whole main() of a benchmark program: runs its benchmarks interleaved, then prints their
// summary.
inline int RunAndSummarize(int argc, char** argv, void (*summarize)(const RatioReporter&)) {
  RatioReporter reporter;
  RunInterleaved(argc, argv, reporter);
  summarize(reporter);
  benchmark::Shutdown();
  return 0;
}

// Prints "label: value (target)" with the verdict, for the summary after the runs.
inline void PrintRatio(const char* label, double ratio, const char* target, bool met) {
  std::printf("%-58s %8.3f  (target %s: %s)\n", label, ratio, target, met ? "met" : "MISSED");
}

}  // namespace corvane::bench
