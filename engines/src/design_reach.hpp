// Designs of the family where they exist, for callers that choose among them.
#pragma once

#include <optional>

#include "corvane_shaper_engines/shaper_designs.hpp"

namespace corvane::control::engines {

// DesignShaper(), or nothing where the design of `kind` ends below the mode's damping ratio
// (above MaximumDampingRatio()): the same continuation, stopped at the mode's damping ratio.
// Throws std::invalid_argument as DesignShaper() does.
std::optional<ImpulseSequence> DesignIfExists(ShaperKind kind, const VibrationMode& mode,
                                              double vibration_tolerance);

}  // namespace corvane::control::engines
