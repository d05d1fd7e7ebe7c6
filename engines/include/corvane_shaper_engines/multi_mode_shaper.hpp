// Shapers for a machine with several vibration modes: one design per mode, convolved.
//
// Convolving two shapers multiplies their vibration curves, so the convolution leaves on every
// mode at most what either factor leaves there, and lasts the sum of their durations.
#pragma once

#include <optional>
#include <vector>

#include <native/export.hpp>

#include "corvane_shaper_engines/impulse_sequence.hpp"
#include "corvane_shaper_engines/shaper_designs.hpp"

namespace corvane::control::engines {

// The convolution of two shapers: an impulse for every pair, at the sum of their times with the
// product of their amplitudes; impulses that fall within 1e-12 s of one another are merged.
// Throws std::invalid_argument for a malformed shaper (see ValidateImpulseSequence).
CORVANE_EXPORT ImpulseSequence ConvolveShapers(const ImpulseSequence& first,
                                               const ImpulseSequence& second);

// The convolution of the design of kinds[i] for modes[i], over every mode; a mode whose kind is
// empty gets no design of its own (another mode's design is left to cover it), and with no
// design at all the result is the single unit impulse. Throws std::invalid_argument when the
// vectors differ in length or are empty, and as DesignShaper() does for a mode or the tolerance.
CORVANE_EXPORT ImpulseSequence MultiModeShaper(
    const std::vector<std::optional<ShaperKind>>& kinds, const std::vector<VibrationMode>& modes,
    double vibration_tolerance = kDefaultVibrationTolerance);

// A mode whose natural frequency is known only within a band.
struct ModeBand {
  VibrationMode mode;                  // the band's centre
  double frequency_uncertainty = 0.0;  // [-] half width over the centre: 0.2 for +-20 %
};

// A shaper chosen for several modes, each known within a band.
struct MultiModeChoice {
  std::vector<std::optional<ShaperKind>> kinds;  // the design per band; empty: none of its own
  ImpulseSequence shaper;                        // the convolution of the designs
  double duration_s = 0.0;                       // [s] the delay the shaper adds
  std::vector<double> worst_vibration;           // [-] largest residual vibration over each band
};

// The shortest combination of designs of the family, one or none per band, whose convolution
// keeps the residual vibration at or below vibration_limit over every band (see
// WorstVibration()); of equally long ones, the one with the smaller worst case over the bands.
// Up to three bands. Throws std::invalid_argument naming the argument for no band or more than
// three, a bad mode, a frequency_uncertainty outside [0, 1) or a vibration_limit outside (0, 1),
// and std::domain_error when no combination meets every band.
CORVANE_EXPORT MultiModeChoice ChooseMultiModeShaper(
    const std::vector<ModeBand>& bands, double vibration_limit = kDefaultVibrationTolerance);

}  // namespace corvane::control::engines
