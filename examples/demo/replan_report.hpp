// The plant mode's section on plans changed while the arm moves: a move's goal changed in its
// middle and another move stopped in its middle, unshaped and shaped.
#pragma once

#include <string>
#include <vector>

#include <corvane_shaper_engines/shaper_designs.hpp>

#include "plant/experiment.hpp"

namespace corvane::demo {

// Streams the changed plans unshaped and with the shaper of every trial designed for the measured
// frequency, and prints the command's steps at each join against its largest step elsewhere, and
// the vibration after the re-targeted move against theory. With a plot_path of FILE.png it also
// draws FILE_replan.png (ReplanPlotPath): the old plans dashed, the new plan and the command,
// unshaped and shaped with `tuned`. Throws what the plant and the plot throw.
void PrintPlanChanges(plant::PlantExperiment& experiment,
                      const std::vector<plant::ShaperTrial>& trials,
                      control::engines::ShaperKind tuned, const std::string& plot_path);

// FILE_replan.png for FILE.png: the path of the changed plans' plot beside the plant's plot.
std::string ReplanPlotPath(const std::string& plot_path);

}  // namespace corvane::demo
