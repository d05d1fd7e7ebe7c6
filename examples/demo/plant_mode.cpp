#include "demo/plant_mode.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <corvane_shaper_engines/ringing_tuning.hpp>

#include "demo/gnuplot.hpp"
#include "demo/record_replay.hpp"
#include "demo/replan_report.hpp"
#include "demo/timing.hpp"
#include "plant/experiment.hpp"

namespace corvane::demo {

namespace cp = plant;
namespace cs = control::engines;

namespace {

constexpr Eigen::Index kMoves = 4;
constexpr double kFrequencyUncertainty = 0.2;  // the band the shaper is tuned for, +-20 %
constexpr double kFrequencyErrors[] = {-0.2, 0.0, 0.2};
constexpr cs::ShaperKind kCompared[] = {cs::ShaperKind::kZv, cs::ShaperKind::kZvd,
                                        cs::ShaperKind::kEi};

// Simulated and wall-clock seconds of the lockstep runs so far.
struct Speed {
  double simulated_s = 0.0;
  double wall_s = 0.0;

  void Add(const cp::PlantRun& run) {
    simulated_s += static_cast<double>(run.stream.command.rows()) * cp::kSampleTimeS;
    wall_s += run.stream.wall_time_s;
  }
};

double Mean(const std::vector<double>& values) {
  double sum = 0.0;
  for (const double value : values) sum += value;
  return sum / static_cast<double>(values.size());
}

double WorstGap(const cp::ShaperTrial& trial) {
  double worst = 0.0;
  for (const double ratio : trial.ratios) {
    worst = std::max(worst, std::abs(ratio - trial.predicted_ratio));
  }
  return worst;
}

void PrintMode(const cp::ArmMode& mode) {
  const cs::VibrationMode& measured = mode.measured.mode;
  std::printf("\nPayload mode at the first pose\n");
  std::printf("  measured from a free ringing   %8.3f Hz   damping ratio %.4f\n",
              measured.natural_frequency_hz, measured.damping_ratio);
  std::printf("  linearised (mjd_transitionFD)  %8.3f Hz   damping ratio %.4f\n",
              mode.linearised.natural_frequency_hz, mode.linearised.damping_ratio);
  std::printf("  frequency difference           %8.3f %%\n",
              100.0 * (measured.natural_frequency_hz / mode.linearised.natural_frequency_hz - 1.0));
}

void PrintMoves(const cp::PlantRun& unshaped, const cp::ShaperTrial& tuned) {
  std::printf(
      "\nEach move, unshaped and shaped with %s (vibration fitted %.2f s to %.2f s after it)\n",
      cs::ShaperName(tuned.kind), cp::kSettleS, cp::kSettleS + cp::kResidualS);
  std::printf("      tracking error [mrad]        residual vibration [mrad]   shaped/unshaped\n");
  std::printf("move  unshaped RMS/max  shaped RMS/max   unshaped    shaped    simulated  theory\n");
  for (std::size_t move = 0; move < unshaped.moves.size(); ++move) {
    const cp::MoveReport& plain = unshaped.moves[move];
    const cp::MoveReport& shaped = tuned.run.moves[move];
    std::printf("%4zu  %6.3f / %6.3f  %6.3f / %6.3f  %9.4f  %9.5f   %8.4f  %7.4f\n", move + 1,
                1e3 * plain.tracking_rms_rad, 1e3 * plain.tracking_max_rad,
                1e3 * shaped.tracking_rms_rad, 1e3 * shaped.tracking_max_rad,
                1e3 * plain.residual_rad, 1e3 * shaped.residual_rad, tuned.ratios[move],
                tuned.predicted_ratio);
  }
}

void PrintTrialHeader() {
  std::printf(
      "\nShapers designed for the measured frequency and for one 20 %% off (error: the design's\n"
      "over the measured, minus 1). Ratio: shaped over unshaped vibration in the same span, mean\n"
      "of the moves; V: the same, each vibration taken the same time after its own move.\n");
  std::printf(
      "shaper        error  duration  ratio simulated  theory  worst gap   V simulated  theory\n");
}

void PrintTrial(const cp::ShaperTrial& trial, bool tuned) {
  const std::string name = std::string(cs::ShaperName(trial.kind)) + (tuned ? " (tuned)" : "");
  std::printf("%-14s %+4.0f %%  %5.1f ms  %15.4f  %6.4f  %9.4f  %11.4f  %6.4f\n", name.c_str(),
              100.0 * trial.frequency_error, 1e3 * trial.shaper.times_s.back(), Mean(trial.ratios),
              trial.predicted_ratio, WorstGap(trial), Mean(trial.ratios) * trial.decay,
              trial.predicted_ratio * trial.decay);
}

void PrintQualification(const control::window::QualificationReport& report) {
  std::printf("\nQualification of the shaped stream at a compute fraction limit of %.2f\n",
              report.compute_fraction_limit);
  std::printf(
      "  qualified %s, %zu windows (%zu prefilled), compute time max %.3f ms, p99 %.3f ms,\n"
      "  total %.3f ms, min margin %.3f ms, %zu underrun windows\n",
      report.qualified ? "yes" : "no", report.total_windows, report.prefill_windows,
      1e3 * report.max_compute_time_s, 1e3 * report.p99_compute_time_s,
      1e3 * report.total_compute_time_s, 1e3 * report.min_margin_s, report.underrun_windows);
}

// Writes every sample as a line: time [s], payload deflection unshaped and shaped [mrad], then
// the command per joint unshaped and shaped [rad].
void WritePlantSamples(std::FILE* file, const cp::PlantRun& unshaped, const cp::PlantRun& shaped) {
  const Eigen::Index rows = std::min(unshaped.stream.command.rows(), shaped.stream.command.rows());
  for (Eigen::Index k = 0; k < rows; ++k) {
    std::fprintf(file, "%.4f %.6g %.6g", static_cast<double>(k) * cp::kSampleTimeS,
                 1e3 * unshaped.stream.deflection(k), 1e3 * shaped.stream.deflection(k));
    for (const cp::PlantRun* run : {&unshaped, &shaped}) {
      for (Eigen::Index j = 0; j < cp::kArmJoints; ++j) {
        std::fprintf(file, " %.6g", run->stream.command(k, j));
      }
    }
    std::fputc('\n', file);
  }
}

// Payload deflection above, the command of each joint below, unshaped in red and shaped in blue,
// the samples that the producer held shaded; one legend for all panels.
void WritePlantPlot(const std::string& path, const cp::PlantRun& unshaped,
                    const cp::ShaperTrial& tuned) {
  static const char* const kJointNames[] = {"shoulder", "elbow", "wrist"};
  DrawPng(path, 1000, 1000, [&](std::FILE* gnuplot) {
    std::fprintf(gnuplot, "$samples << EOD\n");
    WritePlantSamples(gnuplot, unshaped, tuned.run);
    std::fprintf(gnuplot, "EOD\n");
    for (const cp::SampleSpan& hold : unshaped.stream.holds) {
      std::fprintf(gnuplot,
                   "set object rect from %g, graph 0 to %g, graph 1 fc rgb 'gold' "
                   "fs solid 0.4 noborder behind\n",
                   static_cast<double>(hold.first) * cp::kSampleTimeS,
                   static_cast<double>(hold.first + hold.count) * cp::kSampleTimeS);
    }
    std::fprintf(gnuplot,
                 "set multiplot layout 4,1 title 'Flexible arm moved by the lifted-MPC stream'\n"
                 "set xlabel 'time [s]'\nset lmargin 12\nset key outside top center horizontal\n"
                 "set ylabel 'payload deflection [mrad]'\n"
                 "plot $samples using 1:2 with lines lc 'red' title 'unshaped', "
                 "$samples using 1:3 with lines lc 'blue' title 'shaped with %s', "
                 "keyentry with boxes fs solid 0.4 fc rgb 'gold' title 'reference held'\n"
                 "unset key\n",
                 cs::ShaperName(tuned.kind));
    for (Eigen::Index j = 0; j < cp::kArmJoints; ++j) {
      std::fprintf(gnuplot,
                   "set ylabel '%s command [rad]'\n"
                   "plot $samples using 1:%ld with lines lc 'red', "
                   "$samples using 1:%ld with lines lc 'blue'\n",
                   kJointNames[j], static_cast<long>(4 + j),
                   static_cast<long>(4 + cp::kArmJoints + j));
    }
    std::fprintf(gnuplot, "unset multiplot\n");
  });
}

}  // namespace

void RunPlantDemo(const DemoOptions& options) {
  std::printf(
      "corvane-window-demo: plant mode, %ld point-to-point moves streamed through the lifted-MPC\n"
      "path into a simulated flexible arm (MuJoCo), in lockstep on simulated time\n",
      static_cast<long>(kMoves));
  std::fflush(stdout);
  cp::PlantExperiment experiment(kMoves);
  PrintMode(experiment.mode());
  const cs::ShaperChoice choice =
      cs::ChooseShaper(experiment.mode().measured.mode, kFrequencyUncertainty);
  std::printf(
      "\nTuned for a mode within +-%.0f %% of the measured one: %s, %.1f ms long, residual\n"
      "vibration at most %.1f %% over that band\n",
      100.0 * kFrequencyUncertainty, cs::ShaperName(choice.kind), 1e3 * choice.duration_s,
      100.0 * choice.worst_vibration);

  Speed speed;
  speed.Add(experiment.unshaped());
  std::vector<cs::ShaperKind> kinds(std::begin(kCompared), std::end(kCompared));
  if (std::find(kinds.begin(), kinds.end(), choice.kind) == kinds.end()) {
    kinds.push_back(choice.kind);
  }
  std::vector<cp::ShaperTrial> trials;
  for (const cs::ShaperKind kind : kinds) {
    for (const double error : kFrequencyErrors) {
      trials.push_back(experiment.Trial(kind, error));
      speed.Add(trials.back().run);
    }
  }
  const cp::ShaperTrial& tuned = *std::find_if(trials.begin(), trials.end(), [&](const auto& t) {
    return t.kind == choice.kind && t.frequency_error == 0.0;
  });

  PrintMoves(experiment.unshaped(), tuned);
  PrintTrialHeader();
  for (const cp::ShaperTrial& trial : trials) PrintTrial(trial, trial.kind == choice.kind);
  std::printf(
      "\nCo-simulation: %zu runs, %.1f s of motion simulated in %.2f s, %.0f times real "
      "time\n",
      trials.size() + 1, speed.simulated_s, speed.wall_s, speed.simulated_s / speed.wall_s);
  PrintQualification(tuned.run.stream.qualification);
  if (!options.plot_path.empty()) WritePlantPlot(options.plot_path, experiment.unshaped(), tuned);
  if (!options.record_path.empty()) WriteRunRecord(options.record_path, tuned.run.stream);
  if (!options.timing_path.empty()) {
    const TimingRecord timing{tuned.run.stream.timing, 0};
    WriteTimingCsv(options.timing_path, timing);
    if (!options.plot_path.empty()) {
      WriteTimingPlot(TimingPlotPath(options.plot_path), timing, LoggedPopLatencies(timing), {});
    }
  }
  PrintPlanChanges(experiment, trials, choice.kind, options.plot_path);
}

}  // namespace corvane::demo
