#include "demo/replan_report.hpp"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <optional>

#include "demo/gnuplot.hpp"
#include "plant/residual_vibration.hpp"

namespace corvane::demo {

namespace cp = plant;
namespace cs = control::engines;

namespace {

const char* const kChangeNames[] = {"new goal", "stop"};

// A run of the changed plans and the shaper it was shaped with, if any.
struct ShapedReplan {
  std::string name;
  std::optional<cs::ImpulseSequence> shaper;
  cp::ReplanRun run;
};

// The value formatted, or blank without one.
std::string Cell(std::optional<double> value, const char* format) {
  if (!value) return "";
  char text[32];
  std::snprintf(text, sizeof text, format, *value);
  return text;
}

void PrintIntro(const cp::ReplanRun& run) {
  const auto& changes = run.replanned.changes;
  std::printf(
      "\nPlans changed while the arm moves. In the middle of a move the shoulder's goal moves\n"
      "%.2f rad further from sample %zu on (ReplaceReference from the earliest sample not yet\n"
      "handed out; the new plan turns a lookahead later, so the solver previews the turn), and\n"
      "the new plan goes on to a second move, stopped in its middle from sample %zu on\n"
      "(StopSmoothly). The solver resumes from the command before each join.\n",
      cp::kRetargetShoulderRad, changes.front().replacement.start_index,
      changes.back().replacement.start_index);
}

// A row of the join table; the join's own steps are blank for the row of the unchanged plan.
void PrintSteps(const char* run, const char* change, const std::string& sample,
                const std::optional<cp::CommandSteps>& at_join, const cp::CommandSteps& elsewhere) {
  const auto join = [&](double cp::CommandSteps::*step, double scale) {
    return at_join ? std::optional<double>(scale * (*at_join).*step) : std::nullopt;
  };
  std::printf("%-11s %-13s %6s %6s %9.3f %7s %9.2f %7s %9.3f\n", run, change, sample.c_str(),
              Cell(join(&cp::CommandSteps::position_rad, 1e3), "%.3f").c_str(),
              1e3 * elsewhere.position_rad,
              Cell(join(&cp::CommandSteps::velocity_rad_s, 1e3), "%.2f").c_str(),
              1e3 * elsewhere.velocity_rad_s,
              Cell(join(&cp::CommandSteps::acceleration_rad_s2, 1.0), "%.3f").c_str(),
              elsewhere.acceleration_rad_s2);
}

void PrintJoins(const std::vector<ShapedReplan>& runs) {
  std::printf(
      "\nSteps of the command into the first sample produced after each change, against the\n"
      "largest step between any two other successive samples of the same stream, and before the\n"
      "first change (largest over the joints)\n");
  std::printf(
      "                                position [mrad]   velocity [mrad/s] acceleration [rad/s^2]\n"
      "run         change        sample   join elsewhere    join elsewhere    join elsewhere\n");
  for (const ShapedReplan& shaped : runs) {
    const cp::ReplannedStream& replanned = shaped.run.replanned;
    for (std::size_t change = 0; change < replanned.joins.size(); ++change) {
      const cp::JoinSteps& steps = replanned.joins[change];
      PrintSteps(shaped.name.c_str(), kChangeNames[change],
                 std::to_string(replanned.changes[change].replacement.resume_index), steps.at_join,
                 steps.elsewhere);
    }
    PrintSteps(shaped.name.c_str(), "before both", "", std::nullopt, replanned.before_changes);
  }
}

void PrintStops(const std::vector<ShapedReplan>& runs) {
  std::printf(
      "\nThe stop brakes the plan to rest no harder, and changes its acceleration no faster,\n"
      "than the plan itself does, then holds; the payload's largest deflection from the stop on,\n"
      "against the largest before the changes\n");
  std::printf("run          braking [ms]  beyond the join [mrad]  deflection [mrad]  before\n");
  for (const ShapedReplan& shaped : runs) {
    const cp::StopFigures& stop = shaped.run.replanned.stop;
    std::printf("%-12s %12.0f %23.1f %18.2f %7.2f\n", shaped.name.c_str(),
                static_cast<double>(stop.braking_samples) * cp::kSampleTimeS * 1e3,
                1e3 * stop.braking_distance_rad, 1e3 * stop.peak_deflection_rad,
                1e3 * stop.moving_deflection_rad);
  }
}

void PrintVibration(const std::vector<ShapedReplan>& runs, const cs::VibrationMode& mode) {
  std::printf(
      "\nResidual vibration after the re-targeted move (fitted %.2f s to %.2f s after its end)\n"
      "and its ratio to the unshaped one, against the closed form\n",
      cp::kSettleS, cp::kSettleS + cp::kResidualS);
  std::printf("shaper       vibration [mrad]  ratio simulated  theory\n");
  const double unshaped = runs.front().run.retargeted.residual_rad;
  std::printf("%-12s %16.4f\n", runs.front().name.c_str(), 1e3 * unshaped);
  for (auto shaped = runs.begin() + 1; shaped != runs.end(); ++shaped) {
    std::printf("%-12s %16.5f  %15.4f  %6.4f\n", shaped->name.c_str(),
                1e3 * shaped->run.retargeted.residual_rad,
                shaped->run.retargeted.residual_rad / unshaped,
                cp::SameTimeVibrationRatio(*shaped->shaper, mode));
  }
}

void PrintBookkeeping(const ShapedReplan& tuned, double simulated_s, double wall_s,
                      std::size_t runs) {
  const cp::LockstepRun& stream = tuned.run.replanned.stream;
  const control::window::ReplacementTotals& totals = stream.replacements;
  std::printf(
      "\nThe stream shaped with %s: %zu replacements discarded %zu produced windows (%.3f ms of\n"
      "compute spent on them, %.3f s of motion never played); qualified %s, %zu windows in all\n",
      tuned.name.c_str(), totals.replacements, totals.discarded_windows,
      1e3 * totals.discarded_compute_time_s, totals.discarded_duration_s,
      stream.qualification.qualified ? "yes" : "no", stream.qualification.total_windows);
  std::printf(
      "Co-simulation: %zu runs, %.1f s of motion simulated in %.2f s, %.0f times real time\n", runs,
      simulated_s, wall_s, simulated_s / wall_s);
}

// Writes every sample as a line: time [s], payload deflection unshaped and shaped [mrad], then
// per joint the new plan, the command unshaped and the command shaped [rad].
void WriteReplanSamples(std::FILE* file, const cp::LockstepRun& unshaped,
                        const cp::LockstepRun& shaped) {
  const Eigen::Index rows =
      std::min({unshaped.reference.rows(), unshaped.command.rows(), shaped.command.rows()});
  for (Eigen::Index k = 0; k < rows; ++k) {
    std::fprintf(file, "%.4f %.6g %.6g", static_cast<double>(k) * cp::kSampleTimeS,
                 1e3 * unshaped.deflection(k), 1e3 * shaped.deflection(k));
    for (const auto* series : {&unshaped.reference, &unshaped.command, &shaped.command}) {
      for (Eigen::Index j = 0; j < cp::kArmJoints; ++j) {
        std::fprintf(file, " %.6g", (*series)(k, j));
      }
    }
    std::fputc('\n', file);
  }
}

// Writes the plan that a change replaced, from its join on, as the data block $old<number>.
void WriteReplacedPlan(std::FILE* file, const cp::PlanChange& change, std::size_t number) {
  std::fprintf(file, "$old%zu << EOD\n", number);
  for (Eigen::Index k = 0; k < change.replaced.rows(); ++k) {
    const auto sample =
        static_cast<double>(change.replacement.start_index) + static_cast<double>(k);
    std::fprintf(file, "%.4f", sample * cp::kSampleTimeS);
    for (Eigen::Index j = 0; j < cp::kArmJoints; ++j) {
      std::fprintf(file, " %.6g", change.replaced(k, j));
    }
    std::fputc('\n', file);
  }
  std::fprintf(file, "EOD\n");
}

// Payload deflection above, each joint below: the replaced plans dashed, the new plan in black,
// the command unshaped in red and shaped in blue, a dotted line at each join.
void WriteReplanPlot(const std::string& path, const ShapedReplan& unshaped,
                     const ShapedReplan& tuned) {
  static const char* const kJointNames[] = {"shoulder", "elbow", "wrist"};
  const cp::ReplannedStream& replanned = unshaped.run.replanned;
  DrawPng(path, 1000, 1000, [&](std::FILE* gnuplot) {
    std::fprintf(gnuplot, "$samples << EOD\n");
    WriteReplanSamples(gnuplot, replanned.stream, tuned.run.replanned.stream);
    std::fprintf(gnuplot, "EOD\n");
    for (std::size_t change = 0; change < replanned.changes.size(); ++change) {
      WriteReplacedPlan(gnuplot, replanned.changes[change], change);
      std::fprintf(gnuplot, "set arrow from %g, graph 0 to %g, graph 1 nohead dt 3 lc 'gray50'\n",
                   static_cast<double>(replanned.changes[change].replacement.resume_index) *
                       cp::kSampleTimeS,
                   static_cast<double>(replanned.changes[change].replacement.resume_index) *
                       cp::kSampleTimeS);
    }
    std::fprintf(gnuplot,
                 "set multiplot layout 4,1 title 'Plans changed while the arm moves: a new goal, "
                 "then a stop'\n"
                 "set xlabel 'time [s]'\nset lmargin 12\nset key outside top center horizontal\n"
                 "set xrange [0:%g]\nset ylabel 'payload deflection [mrad]'\n"
                 "plot $samples using 1:2 with lines lc 'red' title 'unshaped', "
                 "$samples using 1:3 with lines lc 'blue' title 'shaped with %s', "
                 "keyentry with lines dt 2 lc 'gray40' title 'old plan', "
                 "keyentry with lines lc 'black' title 'new plan'\n"
                 "unset key\n",
                 static_cast<double>(replanned.stream.command.rows()) * cp::kSampleTimeS,
                 tuned.name.c_str());
    for (Eigen::Index j = 0; j < cp::kArmJoints; ++j) {
      std::fprintf(gnuplot, "set ylabel '%s [rad]'\nplot ", kJointNames[j]);
      for (std::size_t change = 0; change < replanned.changes.size(); ++change) {
        std::fprintf(gnuplot, "$old%zu using 1:%ld with lines dt 2 lc 'gray40', ", change,
                     static_cast<long>(2 + j));
      }
      std::fprintf(gnuplot,
                   "$samples using 1:%ld with lines lc 'black', "
                   "$samples using 1:%ld with lines lc 'red', "
                   "$samples using 1:%ld with lines lc 'blue'\n",
                   static_cast<long>(4 + j), static_cast<long>(4 + cp::kArmJoints + j),
                   static_cast<long>(4 + 2 * cp::kArmJoints + j));
    }
    std::fprintf(gnuplot, "unset multiplot\n");
  });
}

}  // namespace

std::string ReplanPlotPath(const std::string& plot_path) {
  const std::filesystem::path path(plot_path);
  return (path.parent_path() / (path.stem().string() + "_replan" + path.extension().string()))
      .string();
}

void PrintPlanChanges(cp::PlantExperiment& experiment, const std::vector<cp::ShaperTrial>& trials,
                      cs::ShaperKind tuned, const std::string& plot_path) {
  std::vector<ShapedReplan> runs;
  runs.push_back({"unshaped", std::nullopt, experiment.Replan(std::nullopt)});
  std::size_t tuned_run = 0;
  for (const cp::ShaperTrial& trial : trials) {
    if (trial.frequency_error != 0.0) continue;
    if (trial.kind == tuned) tuned_run = runs.size();
    const std::string name =
        std::string(cs::ShaperName(trial.kind)) + (trial.kind == tuned ? " (tuned)" : "");
    runs.push_back({name, trial.shaper, experiment.Replan(trial.shaper)});
  }
  double simulated_s = 0.0;
  double wall_s = 0.0;
  for (const ShapedReplan& shaped : runs) {
    const cp::LockstepRun& stream = shaped.run.replanned.stream;
    simulated_s += static_cast<double>(stream.command.rows()) * cp::kSampleTimeS;
    wall_s += stream.wall_time_s;
  }
  PrintIntro(runs.front().run);
  PrintJoins({runs.front(), runs[tuned_run]});
  PrintStops({runs.front(), runs[tuned_run]});
  PrintVibration(runs, experiment.mode().measured.mode);
  PrintBookkeeping(runs[tuned_run], simulated_s, wall_s, runs.size());
  if (!plot_path.empty()) {
    WriteReplanPlot(ReplanPlotPath(plot_path), runs.front(), runs[tuned_run]);
  }
}

}  // namespace corvane::demo
