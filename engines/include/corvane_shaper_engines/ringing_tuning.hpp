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
  // Above a quarter of the sample rate, fewer than four samples per period: the mode may be the
  // alias of one above the Nyquist frequency, and is coarse to shape at this rate.
  bool near_nyquist = false;
};

// Estimates the frequency and damping of a free ringing: deflection or acceleration samples
// taken sample_rate_hz [Hz] apart, a constant offset and a linear drift allowed. A least-squares
// fit of a damped sine on a straight line, started from the strongest spectral line of the
// samples less their trend that the recording covers at least twice.
//
// What it sees: the one mode that dominates the recording, between two periods per recording
// and the Nyquist frequency (sample_rate_hz / 2), damped or not (an undamped ringing gives a
// damping ratio of 0; the ratio is never negative). What it cannot see: a mode above the
// Nyquist frequency comes back folded, at its distance from the nearest multiple of the sample
// rate (600 Hz sampled at 1 kHz reads as 400 Hz) with nothing in the samples to tell; a mode
// near it is flagged (near_nyquist), and a recording whose mode may lie that high needs a
// faster rate or an anti-aliasing filter. Of several modes, only the strongest is read.
// Cost: O(n log n) in the sample count n, at any n.
//
// Throws std::invalid_argument, saying which: a rate that is not finite and positive; a
// recording too short (fewer than 16 samples, or less than two periods of the ringing); samples
// that are not finite; a recording with no ringing (constant, a straight line, or no decaying
// oscillation that explains most of the samples' variation about their trend); an oscillation
// that grows; a ringing damped so strongly that it dies out within two periods.
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

// ChooseShaper() for a shaper applied to a reference sampled sample_time_s [s] apart: each
// candidate is judged by its worst SampledResidualVibration() over the band, and the EI family,
// designed with vibration_limit as its tolerance, is redesigned with a tolerance lowered by what
// the sampling adds until it meets the limit (at most four times). An EI kind whose design ends
// below the mode's damping ratio (MaximumDampingRatio()) is not a candidate. Throws as
// ChooseShaper() does, std::invalid_argument naming sample_time_s when it is not finite and
// positive or when the band reaches the Nyquist frequency (1 / (2 sample_time_s)), and
// std::domain_error saying that the mode is too close to the Nyquist frequency when a shaper
// would meet the band but none does once applied at this period.
CORVANE_EXPORT ShaperChoice ChooseShaper(const VibrationMode& mode, double frequency_uncertainty,
                                         double vibration_limit, double sample_time_s);

// The worst residual vibration [-] that the shaper leaves over the natural frequencies within
// frequency_uncertainty of the mode's, at its damping ratio, taken on a fine grid of the band.
// Throws as ResidualVibration() and ChooseShaper() do for their arguments.
CORVANE_EXPORT double WorstVibration(const ImpulseSequence& shaper, const VibrationMode& mode,
                                     double frequency_uncertainty);

// WorstVibration() of the shaper as applied at sample_time_s [s]: the worst
// SampledResidualVibration() over the band. Throws as that and WorstVibration() do.
CORVANE_EXPORT double WorstVibration(const ImpulseSequence& shaper, const VibrationMode& mode,
                                     double frequency_uncertainty, double sample_time_s);

}  // namespace corvane::control::engines
