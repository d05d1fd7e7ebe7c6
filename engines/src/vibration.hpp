// The residual vibration of a shaper, for callers that have checked its arguments once.
#pragma once

#include "corvane_shaper_engines/impulse_sequence.hpp"

namespace corvane::control::engines {

// ResidualVibration() of a valid shaper and mode, without checking them again. Throws
// std::invalid_argument naming natural_frequency_hz when the phase over the shaper's duration
// is not finite.
double UncheckedResidualVibration(const ImpulseSequence& shaper, const VibrationMode& mode);

}  // namespace corvane::control::engines
