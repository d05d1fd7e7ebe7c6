// The reference of a smooth stop: the plan it ends, braked to rest without a kink.
//
// The stop takes over from the plan's last kept sample with that sample's position, velocity and
// acceleration, so that position, velocity and acceleration run on across the join. Its velocity
// then falls along a cubic to rest, with no acceleration left at the end, and the position holds
// where the braking ends. The braking lasts the fewest samples for which no joint brakes harder,
// or changes its acceleration faster, than the stored reference ever does: its largest second and
// third differences, joint by joint. All joints share that duration, so that the machine stops
// along the path it was taking. Everything counts in samples, so the sample period is not needed.
#pragma once

#include <cstddef>

#include "window/records.hpp"
#include "window/reference_buffer.hpp"

namespace corvane::control::window {

// How hard a reference ever accelerates and how fast its acceleration ever changes, joint by
// joint; zero for a joint with too few samples to tell.
struct ReferenceLimits {
  Eigen::RowVectorXd acceleration;  // [unit / sample^2] largest |second difference|
  Eigen::RowVectorXd jerk;          // [unit / sample^3] largest |third difference|
  std::size_t samples = 0;          // samples read
};

// The limits of the rows of `plan`.
ReferenceLimits LimitsOf(const SampleMatrix& plan);

// The limits of every sample stored in `reference`, read block_samples (> 0) at a time, so that its
// lock is held for one block's copy only and its readers and writers go on meanwhile. Samples
// appended during the read may be left out; samples the retention drops meanwhile are skipped.
ReferenceLimits ReadLimits(const AppendableReferenceBuffer& reference,
                           std::size_t block_samples = 4096);

// The samples that follow `before`, the last (up to three) samples kept of the plan: the braking
// rows, then hold_samples rows at rest. When the plan sets no limit on a joint that moves, or its
// figures overflow, the last row of `before` is held at once. The braking never lasts more samples
// than `limits` read. `before` has at least one row, and `limits` one value per joint of it.
SampleMatrix BrakingStop(const SampleMatrix& before, const ReferenceLimits& limits,
                         std::size_t hold_samples);

}  // namespace corvane::control::window
