// The shaper as a filter on a sampled reference, shared by offline and online shaping.
#pragma once

#include <vector>

#include <Eigen/Core>
#include <window/records.hpp>

#include "corvane_shaper_engines/impulse_sequence.hpp"

namespace corvane::control::engines {

// An impulse at a delay of d = n + f samples (n whole, f in [0, 1)) reads the reference between
// samples k - n and k - n - 1, interpolated linearly: (1 - f) x[k - n] + f x[k - n - 1]. Each
// impulse thus becomes two taps of a causal FIR filter. Offline and online shaping share these
// taps, so they sum the very same products in the very same order.
class ShapingTaps {
 public:
  // Throws std::invalid_argument for a malformed shaper, a period that is not finite and
  // positive, or one so short that the shaper spans 2^53 samples or more.
  ShapingTaps(const ImpulseSequence& shaper, double sample_time_s);

  // Rows first, first + 1, ..., of the shaped source. Source rows before 0 read as row 0 and
  // rows past its end as its last row: the reference rests on its ends.
  control::window::SampleMatrix Shape(const control::window::SampleMatrix& source,
                                      Eigen::Index first, Eigen::Index rows) const;

  // The taps as the impulse sequence that the shaping applies: each at its whole delay of
  // sample_time_s [s] periods, in order of delay.
  ImpulseSequence Impulses(double sample_time_s) const;

  // Rows of reference before a shaped row that the taps read: the longest delay, rounded up.
  Eigen::Index history_rows() const { return history_rows_; }

 private:
  struct Tap {
    Eigen::Index lag;  // [samples] whole delay
    double weight;     // [-] share of the impulse's amplitude
  };
  std::vector<Tap> taps_;
  Eigen::Index history_rows_ = 0;
};

}  // namespace corvane::control::engines
