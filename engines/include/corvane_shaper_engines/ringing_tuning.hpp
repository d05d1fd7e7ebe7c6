// Tuning a shaper from a measured free ringing of the machine.
#pragma once

#include <native/export.hpp>

#include "corvane_shaper_engines/impulse_sequence.hpp"
#include "corvane_shaper_engines/shaper_designs.hpp"

namespace corvane::control::engines {

// The mode read from a free ringing.
struct RingingEstimate {
  VibrationMode mode;      // natural frequency [Hz] and damping ratio [-]
  double amplitude = 0.0;  // [unit of the samples] of the ringing at the first sample
  double noise_rms = 0.0;  // [unit of the samples] of what the fitted ringing leaves
};

// Estimates the frequency and damping of a free ringing: deflection or acceleration samples
// taken sample_rate_hz [Hz] apart, a constant offset allowed. A least-squares fit of a damped
// sine plus offset, started from the strongest spectral line of the samples.
// Throws std::invalid_argument, saying which: a rate that is not finite and positive; a
// recording too short (fewer than 16 samples, or less than two periods of the ringing); samples
// that are not finite; a recording with no ringing (constant, or no decaying oscillation that
// explains most of the samples' variation).
CORVANE_EXPORT RingingEstimate EstimateRinging(const Eigen::VectorXd& samples,
                                               double sample_rate_hz);

// A shaper chosen for a mode whose frequency is known only within a band.
struct ShaperChoice {
  ShaperKind kind = ShaperKind::kZv;  // which design of the family was chosen
  ImpulseSequence shaper;             // its impulses, designed for the mode
  double duration_s = 0.0;            // [s] the delay the shaper adds: its last impulse's time
  double worst_vibration = 0.0;       // [-] largest residual vibration over the frequency band
};

// The shortest shaper of the family whose residual vibration stays at or below vibration_limit
// for every natural frequency within frequency_uncertainty (a fraction: 0.2 for +-20 %) of the
// mode's, at the mode's damping ratio; the EI family is designed with vibration_limit as its
// tolerance. Of equally long shapers, the one with the smaller worst case.
// Throws std::invalid_argument naming the argument for a bad mode, frequency_uncertainty outside
// [0, 1) or vibration_limit outside (0, 1), and std::domain_error when no shaper of the family
// meets the band.
CORVANE_EXPORT ShaperChoice ChooseShaper(const VibrationMode& mode, double frequency_uncertainty,
                                         double vibration_limit = kDefaultVibrationTolerance);

// The worst residual vibration [-] that the shaper leaves over the natural frequencies within
// frequency_uncertainty of the mode's, at its damping ratio, taken on a fine grid of the band.
// Throws as ResidualVibration() and ChooseShaper() do for their arguments.
CORVANE_EXPORT double WorstVibration(const ImpulseSequence& shaper, const VibrationMode& mode,
                                     double frequency_uncertainty);

}  // namespace corvane::control::engines
