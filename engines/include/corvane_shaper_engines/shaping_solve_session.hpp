// Online shaping of a streamed reference, in front of a lifted-MPC solver.
#pragma once

#include <cstddef>
#include <memory>

#include <native/export.hpp>
#include <window/producers.hpp>
#include <window/records.hpp>
#include <window/replacement.hpp>

#include "corvane_shaper_engines/impulse_sequence.hpp"

namespace corvane::control::engines {

// The shaper as a filter on sampled references, internal to the library.
class ShapingTaps;
// The reference rows a shaping stage keeps between requests, internal to the library.
class ReferenceHistory;

// A solver session that shapes each request's reference with an input shaper before handing it
// to the solver it wraps. The shaping is causal and keeps the reference history it needs across
// requests, so a shaper longer than a window is no trouble: the first "apply_samples" rows of
// each solved request become history, and the next request must start where they end (or, after
// a failed window, where that request started). Held samples are shaped like any other. When no
// reference comes late, the applied rows of the shaped stream equal ShapeSamples() of the whole
// stored reference; when some does, they equal ShapeSamples() of the stored reference with its
// held samples. To let the shaped motion come to rest, append ShaperSamples() copies of the last
// sample before finishing the reference. After a replacement it resumes from the reference rows
// before the join, so the shaped stream equals ShapeSamples() of the spliced reference.
class CORVANE_EXPORT ShapingSolveSession final : public control::window::LiftedMpcSolveSession,
                                                 public control::window::ResumableSolveSession {
 public:
  // solver: the session that receives the shaped requests, never null. shaper: a valid impulse
  // sequence. sample_time_s: [s] the period of the request rows, finite and positive.
  // Throws std::invalid_argument naming the argument at fault.
  ShapingSolveSession(std::unique_ptr<control::window::LiftedMpcSolveSession> solver,
                      ImpulseSequence shaper, double sample_time_s);

  // Forgets the history, so that the next request starts the reference at its first row, and
  // prepares the wrapped solver.
  void Prepare() override;
  // Shapes the request's positions and solves the shaped request (the request's range and
  // metadata, no velocities or accelerations) with the wrapped solver, whose answer comes back
  // unchanged. Throws std::invalid_argument when "apply_samples" is not a count from 1 to the
  // request rows, when the positions are not finite samples of at least one joint, when the request
  // does not start where the history ends (or where the previous request started), or when the
  // joint count changes. The wrapped solver's exceptions pass through, and a failed solve keeps no
  // history.
  control::window::WindowPayload Solve(const control::window::WindowSlice& request) override;
  // Finalizes the wrapped solver.
  void Finalize() override;

  // Whether the wrapped solver implements ResumableSolveSession and can resume.
  bool CanResume() const override;
  // The rows the shaper reads before a row, plus those the wrapped solver asks for.
  std::size_t ResumeHistorySamples() const override;
  // Takes the reference rows before the join as the history, so that the next request, which
  // must start at point.start_index, is shaped as if the stream had always run through them;
  // then resumes the wrapped solver with the same point. Throws std::runtime_error when the
  // wrapped solver cannot resume, and std::invalid_argument when the history's joint count
  // differs from the session's; the wrapped solver's exceptions pass through.
  void ResumeFrom(const control::window::SolveResumePoint& point) override;

 private:
  std::unique_ptr<control::window::LiftedMpcSolveSession> solver_;
  std::shared_ptr<const ShapingTaps> taps_;  // the shaper as a filter, built once
  // The applied reference rows the taps read; held alone, shared_ptr only to keep the class movable
  // with the type declared here.
  std::shared_ptr<ReferenceHistory> history_;
};

}  // namespace corvane::control::engines
