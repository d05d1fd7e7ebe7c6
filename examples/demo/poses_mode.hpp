// The demo's poses mode: an arm on a compliant shoulder, whose first mode moves with the elbow,
// moved at poses spread over its workspace, unshaped and with four ways of shaping.
#pragma once

#include "demo/options.hpp"

namespace corvane::demo {

// Maps the arm's two modes over the workspace (linearised and by free ringings), runs every move
// under every shaping, and prints the mode map, the residual vibration per move and mode against
// the closed form, the duration each shaper adds, the slowly-varying approximation and the
// targets; with options.plot_path also draws the mode map and the vibration per move. Throws what
// the plant and the plot throw.
void RunPosesDemo(const DemoOptions& options);

}  // namespace corvane::demo
