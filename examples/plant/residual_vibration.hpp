// Residual vibration after a move: measured on a recorded signal, and predicted in closed form.
#pragma once

#include <vector>

#include <Eigen/Core>
#include <corvane_shaper_engines/impulse_sequence.hpp>

namespace corvane::plant {

// A span of a signal sampled at a fixed period.
struct SampleSpan {
  Eigen::Index first = 0;  // first sample
  Eigen::Index count = 0;  // samples, at least 3
};

// The amplitude, at the span's first sample, of the decaying sine of `mode` that fits the span of
// `signal` best in the least-squares sense (with a constant offset): sqrt(a^2 + b^2) of
//   signal(t) ~ exp(-zeta w t) (a cos(wd t) + b sin(wd t)) + c,  t from the span's first sample.
// Units are the signal's. Throws std::invalid_argument for a span outside the signal.
double FittedAmplitude(const Eigen::VectorXd& signal, double sample_time_s, SampleSpan span,
                       const control::engines::VibrationMode& mode);

// The same for several modes at once: the amplitude of each mode's decaying sine in the joint
// least-squares fit of all of them (and the offset) to the span, in the order of `modes`.
std::vector<double> FittedAmplitudes(const Eigen::VectorXd& signal, double sample_time_s,
                                     SampleSpan span,
                                     const std::vector<control::engines::VibrationMode>& modes);

// The factor exp(-zeta w t) by which the mode's free vibration shrinks in duration_s [s].
double Decay(const control::engines::VibrationMode& mode, double duration_s);

// The ratio of shaped to unshaped residual vibration of `mode` that a shaper leaves, both taken
// at the same time after the move: the shaped move ends the shaper's duration tn later, so its
// vibration has had that much less time to decay than the unshaped one's, and the ratio is
// the shaper's residual vibration V (ResidualVibration()) over Decay(mode, tn).
double SameTimeVibrationRatio(const control::engines::ImpulseSequence& shaper,
                              const control::engines::VibrationMode& mode);

}  // namespace corvane::plant
