// The demo's plant mode: point-to-point moves streamed through the lifted-MPC path into a
// simulated flexible arm, unshaped and shaped, with the vibration they leave against theory.
#pragma once

#include "demo/options.hpp"

namespace corvane::demo {

// Measures the arm's payload mode, tunes a shaper to it, runs the moves unshaped and with each
// shaper, and prints the tables and the qualification report; with options.plot_path also draws
// the payload deflection and the command per joint. Throws what the plant and the plot throw.
void RunPlantDemo(const DemoOptions& options);

}  // namespace corvane::demo
