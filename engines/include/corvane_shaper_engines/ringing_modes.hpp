// Reading up to two vibration modes from one free ringing of the machine.
#pragma once

#include <vector>

#include <Eigen/Core>
#include <native/export.hpp>

#include "corvane_shaper_engines/impulse_sequence.hpp"

namespace corvane::control::engines {

// One mode read from a free ringing, with the spread of its estimate.
struct ModeEstimate {
  VibrationMode mode;                     // natural frequency [Hz] and damping ratio [-]
  double amplitude = 0.0;                 // [unit of the samples] at the first sample
  double frequency_uncertainty_hz = 0.0;  // [Hz] one standard deviation of the frequency
  double damping_uncertainty = 0.0;       // [-] one standard deviation of the damping ratio
};

// The modes read from a free ringing.
struct RingingModes {
  std::vector<ModeEstimate> modes;  // one or two, by rising frequency
  double noise_rms = 0.0;           // [unit of the samples] of what the fitted ringing leaves
};

// Estimates one or two damped modes in a free ringing: deflection or acceleration samples taken
// sample_rate_hz [Hz] apart, a constant offset allowed. Poles from a matrix pencil of the samples
// start a least-squares fit of one and of two damped sines plus offset; the uncertainties come
// from the fit's covariance. Two modes are returned when the second lowers the misfit
// significantly (an F test of its four parameters above 10) and both stand clear of the noise
// and of each other (their frequencies more than three standard deviations apart); one mode when
// the second adds nothing.
// Throws std::invalid_argument, saying which, for a rate that is not finite and positive, fewer
// than 16 samples, samples that are not finite, or a recording with no ringing; and
// std::domain_error when the recording holds a second mode that cannot be told apart from the
// first (too close for the recording's length and noise), rather than return the two as one.
CORVANE_EXPORT RingingModes EstimateRingingModes(const Eigen::VectorXd& samples,
                                                 double sample_rate_hz);

}  // namespace corvane::control::engines
