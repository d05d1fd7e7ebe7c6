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
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration) runs_[run.benchmark_name()] = run;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // Real time per iteration, in nanoseconds, of the named run.
  double NanosecondsPerIteration(const std::string& name) const {
    const Run& run = runs_.at(name);
    return run.real_accumulated_time * 1e9 / static_cast<double>(run.iterations);
  }
  // A user counter of the named run, as the console shows it.
  double Counter(const std::string& name, const std::string& counter) const {
    return runs_.at(name).counters.at(counter).value;
  }
  bool Has(const std::string& name) const { return runs_.count(name) > 0; }

 private:
  std::map<std::string, Run> runs_;
};

// Prints "label: value (target)" with the verdict, for the summary after the runs.
inline void PrintRatio(const char* label, double ratio, const char* target, bool met) {
  std::printf("%-58s %8.3f  (target %s: %s)\n", label, ratio, target, met ? "met" : "MISSED");
}

}  // namespace corvane::bench
