#include "corvane_shaper_engines/multi_mode_shaper.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <utility>

#include "corvane_shaper_engines/ringing_tuning.hpp"

namespace corvane::control::engines {

namespace {

constexpr std::size_t kMaximumBands = 3;
constexpr double kMergedS = 1e-12;  // [s] impulses closer than this become one

// One design that a band may get, or none (an empty kind and the unit impulse).
struct Option {
  std::optional<ShaperKind> kind;
  ImpulseSequence shaper;
};

ImpulseSequence UnitImpulse() { return {{1.0}, {0.0}}; }

void CheckBands(const std::vector<ModeBand>& bands, double vibration_limit) {
  if (bands.empty() || bands.size() > kMaximumBands) {
    throw std::invalid_argument("bands must hold one to three modes.");
  }
  for (const ModeBand& band : bands) {
    ValidateVibrationMode(band.mode);
    if (!(band.frequency_uncertainty >= 0.0 && band.frequency_uncertainty < 1.0)) {
      throw std::invalid_argument("frequency_uncertainty must lie in [0, 1).");
    }
  }
  if (!(vibration_limit > 0.0 && vibration_limit < 1.0)) {
    throw std::invalid_argument("vibration_limit must lie in (0, 1).");
  }
}

// No design, then every design of the family that exists for the band's mode.
std::vector<Option> OptionsFor(const ModeBand& band, double vibration_limit) {
  std::vector<Option> options{{std::nullopt, UnitImpulse()}};
  for (const ShaperKind kind : kShaperKinds) {
    try {
      options.push_back({kind, DesignShaper(kind, band.mode, vibration_limit)});
    } catch (const std::domain_error&) {
      // no such design for this damping and limit
    }
  }
  return options;
}

// Every combination of one option per band, as indices, shortest total duration first.
std::vector<std::vector<std::size_t>> CombinationsByDuration(
    const std::vector<std::vector<Option>>& options) {
  std::vector<std::vector<std::size_t>> combinations{{}};
  for (const std::vector<Option>& band : options) {
    std::vector<std::vector<std::size_t>> longer;
    for (const std::vector<std::size_t>& combination : combinations) {
      for (std::size_t index = 0; index < band.size(); ++index) {
        longer.push_back(combination);
        longer.back().push_back(index);
      }
    }
    combinations = std::move(longer);
  }
  const auto duration = [&](const std::vector<std::size_t>& combination) {
    double sum = 0.0;
    for (std::size_t band = 0; band < combination.size(); ++band) {
      sum += options[band][combination[band]].shaper.times_s.back();
    }
    return sum;
  };
  std::stable_sort(combinations.begin(), combinations.end(),
                   [&](const auto& a, const auto& b) { return duration(a) < duration(b); });
  return combinations;
}

MultiModeChoice Convolved(const std::vector<std::vector<Option>>& options,
                          const std::vector<std::size_t>& combination) {
  MultiModeChoice choice;
  choice.shaper = UnitImpulse();
  for (std::size_t band = 0; band < options.size(); ++band) {
    const Option& option = options[band][combination[band]];
    choice.kinds.push_back(option.kind);
    choice.shaper = ConvolveShapers(choice.shaper, option.shaper);
  }
  choice.duration_s = choice.shaper.times_s.back();
  return choice;
}

// Fills in the worst vibration over each band; false, at the first band found beyond the limit
// (by its centre first, which is quick), when the choice does not meet every band.
bool MeetsBands(const std::vector<ModeBand>& bands, double vibration_limit,
                MultiModeChoice& choice) {
  // The EI family peaks at exactly the limit; rounding must not rule it out.
  const double limit = vibration_limit * (1.0 + 1e-9);
  for (const ModeBand& band : bands) {
    if (ResidualVibration(choice.shaper, band.mode) > limit) return false;
  }
  for (const ModeBand& band : bands) {
    choice.worst_vibration.push_back(
        WorstVibration(choice.shaper, band.mode, band.frequency_uncertainty));
    if (choice.worst_vibration.back() > limit) return false;
  }
  return true;
}

double Worst(const MultiModeChoice& choice) {
  return *std::max_element(choice.worst_vibration.begin(), choice.worst_vibration.end());
}

}  // namespace

ImpulseSequence ConvolveShapers(const ImpulseSequence& first, const ImpulseSequence& second) {
  ValidateImpulseSequence(first);
  ValidateImpulseSequence(second);
  std::vector<std::pair<double, double>> impulses;  // time, amplitude
  for (std::size_t i = 0; i < first.times_s.size(); ++i) {
    for (std::size_t j = 0; j < second.times_s.size(); ++j) {
      impulses.emplace_back(first.times_s[i] + second.times_s[j],
                            first.amplitudes[i] * second.amplitudes[j]);
    }
  }
  std::sort(impulses.begin(), impulses.end());
  ImpulseSequence product;
  for (const auto& [time, amplitude] : impulses) {
    if (!product.times_s.empty() && time - product.times_s.back() < kMergedS) {
      product.amplitudes.back() += amplitude;
    } else {
      product.times_s.push_back(time);
      product.amplitudes.push_back(amplitude);
    }
  }
  return product;
}

ImpulseSequence MultiModeShaper(const std::vector<std::optional<ShaperKind>>& kinds,
                                const std::vector<VibrationMode>& modes,
                                double vibration_tolerance) {
  if (kinds.empty() || kinds.size() != modes.size()) {
    throw std::invalid_argument("kinds and modes must hold one entry per mode, at least one.");
  }
  ImpulseSequence shaper = UnitImpulse();
  for (std::size_t mode = 0; mode < modes.size(); ++mode) {
    ValidateVibrationMode(modes[mode]);
    if (kinds[mode]) {
      shaper =
          ConvolveShapers(shaper, DesignShaper(*kinds[mode], modes[mode], vibration_tolerance));
    }
  }
  return shaper;
}

MultiModeChoice ChooseMultiModeShaper(const std::vector<ModeBand>& bands, double vibration_limit) {
  CheckBands(bands, vibration_limit);
  std::vector<std::vector<Option>> options;
  for (const ModeBand& band : bands) options.push_back(OptionsFor(band, vibration_limit));
  std::optional<MultiModeChoice> best;
  for (const std::vector<std::size_t>& combination : CombinationsByDuration(options)) {
    MultiModeChoice candidate = Convolved(options, combination);
    // Longer than a choice already made: so is every combination after it.
    if (best && candidate.duration_s > best->duration_s * (1.0 + 1e-12)) break;
    if (!MeetsBands(bands, vibration_limit, candidate)) continue;
    if (!best || Worst(candidate) < Worst(*best)) best = std::move(candidate);
  }
  if (!best) {
    throw std::domain_error(
        "No combination of the family's shapers keeps every mode within vibration_limit over its "
        "band.");
  }
  return *best;
}

}  // namespace corvane::control::engines
