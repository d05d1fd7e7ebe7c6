// The published family of input shapers, each designed for a damped vibration mode.
//
// Short shapers delay the motion least; longer ones tolerate a larger error in the mode's
// frequency. The zero-vibration designs (ZV, MZV, ZVD) leave no vibration at the design mode;
// the extra-insensitive ones (EI, two-hump EI, three-hump EI) leave exactly the vibration
// tolerance there and at most that tolerance across a wider band of frequencies.
#pragma once

#include <optional>

#include <native/export.hpp>

#include "corvane_shaper_engines/impulse_sequence.hpp"

namespace corvane::control::engines {

// The designs of the family, shortest first for an undamped mode of period T:
// ZV 0.5 T, MZV 0.75 T, ZVD and EI 1 T, two-hump EI 1.5 T, three-hump EI 2 T.
enum class ShaperKind { kZv, kMzv, kZvd, kEi, kTwoHumpEi, kThreeHumpEi };

// Every kind, in the order above.
inline constexpr ShaperKind kShaperKinds[] = {ShaperKind::kZv,        ShaperKind::kMzv,
                                              ShaperKind::kZvd,       ShaperKind::kEi,
                                              ShaperKind::kTwoHumpEi, ShaperKind::kThreeHumpEi};

// The residual vibration that the EI family allows at its humps unless told otherwise.
inline constexpr double kDefaultVibrationTolerance = 0.05;

// "ZV", "MZV", "ZVD", "EI", "2H-EI" or "3H-EI".
CORVANE_EXPORT const char* ShaperName(ShaperKind kind);

// Zero vibration: two impulses half a damped period apart.
// Throws std::invalid_argument naming the argument for a frequency that is not finite and
// positive or a damping ratio outside [0, 1); so do all the designs below.
CORVANE_EXPORT ImpulseSequence ZvShaper(const VibrationMode& mode);

// Modified zero vibration: three impulses 3/8 of a damped period apart; zero vibration at the
// design mode, shorter than ZVD and more tolerant than ZV.
CORVANE_EXPORT ImpulseSequence MzvShaper(const VibrationMode& mode);

// Zero vibration and derivative: three impulses half a damped period apart; zero vibration and
// zero slope of the vibration against frequency at the design mode.
CORVANE_EXPORT ImpulseSequence ZvdShaper(const VibrationMode& mode);

// Extra-insensitive: three impulses; vibration_tolerance [-] (in (0, 1)) at the design frequency,
// where the vibration peaks, with a zero on either side. Also throws std::invalid_argument
// naming vibration_tolerance outside (0, 1), and std::domain_error when no design exists for so
// large a damping ratio and tolerance; so do the two below.
CORVANE_EXPORT ImpulseSequence EiShaper(const VibrationMode& mode,
                                        double vibration_tolerance = kDefaultVibrationTolerance);

// Two-hump extra-insensitive: four impulses; zero vibration at the design frequency and two
// humps of exactly vibration_tolerance on either side, bounded by zeros.
CORVANE_EXPORT ImpulseSequence
TwoHumpEiShaper(const VibrationMode& mode, double vibration_tolerance = kDefaultVibrationTolerance);

// Three-hump extra-insensitive: five impulses; three humps of exactly vibration_tolerance, the
// middle one at the design frequency, separated and bounded by zeros.
CORVANE_EXPORT ImpulseSequence ThreeHumpEiShaper(
    const VibrationMode& mode, double vibration_tolerance = kDefaultVibrationTolerance);

// Where the designs of `kind` stop existing as the damping ratio grows: the largest damping ratio
// [-] up to which a design with vibration_tolerance [-] exists, found by following the design
// from the undamped one in adaptive steps until they fall under 1e-7 (an amplitude reaching 0,
// impulses meeting, a hump above the tolerance or no solution); 1 for the zero-vibration kinds and
// for a design that lasts up to 0.999, and nothing when not even the undamped design is found.
// Every damping ratio from 0 up to it has a design; the EI designs above throw
// std::domain_error beyond it. Tolerances below about 1e-5 put the zeros closer to the design
// frequency than the designs resolve, and may end them early (ZVD is what EI tends to as the
// tolerance goes to 0). Throws std::invalid_argument naming vibration_tolerance outside (0, 1).
CORVANE_EXPORT std::optional<double> MaximumDampingRatio(
    ShaperKind kind, double vibration_tolerance = kDefaultVibrationTolerance);

// The design of the given kind; the zero-vibration kinds ignore vibration_tolerance but still
// check it. Throws as the design does.
CORVANE_EXPORT ImpulseSequence
DesignShaper(ShaperKind kind, const VibrationMode& mode,
             double vibration_tolerance = kDefaultVibrationTolerance);

}  // namespace corvane::control::engines
