// The reference of a smooth stop: the plan it ends, braked to rest without a kink.
//
// The stop takes over from the plan's last kept sample with that sample's position, velocity and
// acceleration, so that position, velocity and acceleration run on across the join. Its velocity
// then falls along a cubic to rest, with no acceleration left at the end, and the position holds
// where the braking ends. The braking lasts the fewest samples for which no joint brakes harder,
// or changes its acceleration faster, than the plan itself ever does: the largest second and third
// differences of the stored samples, joint by joint. All joints share that duration, so that the
// machine stops along the path it was taking. Everything counts in samples, so the sample period
// is not needed.
#pragma once

#include <cstddef>

#include "window/records.hpp"

namespace corvane::control::window {

// The samples that replace `plan` from row `join` on: the braking rows, then hold_samples rows
// at rest. `plan` is every stored sample, oldest first; join (at most plan.rows()) is the first
// row replaced. Before the first row (join 0) the plan's first row is held; when the plan never
// accelerates (so sets no limit), or its differences overflow, the position of row join - 1 is
// held at once. The braking never lasts more samples than `plan` has rows. Throws
// std::invalid_argument when `plan` has no rows or join exceeds them.
SampleMatrix BrakingStop(const SampleMatrix& plan, std::size_t join, std::size_t hold_samples);

}  // namespace corvane::control::window
