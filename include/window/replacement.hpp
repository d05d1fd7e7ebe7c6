// Replacing the part of a streamed reference that has not been played yet.
//
// A planner that learns of a new goal, an obstacle or a stop request calls
// AppendableWindowBuffer::ReplaceReference(k, samples): every reference sample from global index k
// on is replaced, queued windows that hold sample k or later are discarded and never handed out,
// and production resumes from the state the machine will have at sample k - 1, so that the
// command goes on without a jump. This header declares the records that the replacement returns
// and the two interfaces through which a producer and its solver take part: a producer that
// implements ResumableWindowProducer can be rewound by its buffer, and the lifted-MPC producer
// does so when its solve session also implements ResumableSolveSession.
#pragma once

#include <cstddef>
#include <optional>

#include <Eigen/Core>

#include "native/export.hpp"
#include "window/records.hpp"

namespace corvane::control::window {

// The metadata key through which each window tells which plan it came from: the decimal count of
// replacements made before the window was produced. Windows of the original plan do not carry it,
// so a stream that is never replaced keeps its metadata as it was.
inline constexpr char kReplacementsMetadataKey[] = "replacements";

// The command at one sample, as the window that held that sample carried it.
struct CommandSample {
  Eigen::RowVectorXd positions;                     // [joints] commanded position
  std::optional<Eigen::RowVectorXd> velocities;     // [joints] when the window had velocities
  std::optional<Eigen::RowVectorXd> accelerations;  // [joints] when the window had accelerations
};

// Where a solve session resumes after a replacement. Reference indices count rows of the
// reference buffer from 0, as the request's start_index does.
struct SolveResumePoint {
  std::size_t start_index = 0;  // reference index at which the next request starts
  // The command at start_index - 1, the state the machine will be in; absent when start_index is
  // the first sample of the stream, where the session starts afresh as after Prepare().
  std::optional<CommandSample> previous_command;
  // Reference rows [start_index - rows, start_index), the rows before the join that the session
  // asked for through ResumeHistorySamples() (fewer at the start of the stream).
  SampleMatrix reference_before;
};

// A lifted-MPC solve session that can resume from a given point instead of from the state its
// own last solve reached. A LiftedMpcSolveSession implements it beside its own interface.
class CORVANE_EXPORT ResumableSolveSession {
 public:
  virtual ~ResumableSolveSession() = default;
  // Whether ResumeFrom can be called; fixed for the session's life. A session that wraps another
  // can resume only when the wrapped one can.
  virtual bool CanResume() const = 0;
  // How many reference rows before the join the session needs to resume (0 when its state is the
  // command alone); fixed for the session's life.
  virtual std::size_t ResumeHistorySamples() const = 0;
  // Makes the next Solve() continue from `point`, as if the last applied row had been the
  // reference row start_index - 1 and had been commanded as previous_command. Called between
  // solves, on the thread that solves. Throws std::invalid_argument when the point does not fit
  // the session (a joint count that differs from the session's).
  virtual void ResumeFrom(const SolveResumePoint& point) = 0;
};

// A window producer that its buffer can rewind after a replacement. The buffer calls Resume() on
// the thread that produces, never under a lock, and only between two ProduceNext() calls.
class CORVANE_EXPORT ResumableWindowProducer {
 public:
  virtual ~ResumableWindowProducer() = default;
  // Whether Resume() can be called; fixed for the producer's life. The buffer asks once, when it
  // is built.
  virtual bool CanResume() const = 0;
  // Global index of the first sample that the producer yields; fixed for the producer's life.
  virtual std::size_t FirstGlobalIndex() const = 0;
  // Makes the next ProduceNext() produce from global index `start_index` (at least
  // FirstGlobalIndex()), with the machine in the state of `previous_command`, the command at
  // start_index - 1 (absent when start_index is FirstGlobalIndex()). Throws std::runtime_error
  // before the session is prepared or when the producer cannot resume; its solver's exceptions
  // pass through.
  virtual void Resume(std::size_t start_index,
                      const std::optional<CommandSample>& previous_command) = 0;
};

// What one replacement did. Global indices, as the windows carry them.
struct ReferenceReplacement {
  std::size_t start_index = 0;        // first replaced sample: the index the call used
  std::size_t stop_index = 0;         // one past the last new sample
  std::size_t resume_index = 0;       // first sample of the first window produced again
  std::size_t discarded_windows = 0;  // queued windows this call discarded
  std::size_t replacements = 0;       // this replacement's number, 1 for the first
};

// Running totals over the replacements of one buffer. Every discarded window was produced, so
// Totals() counts it and its compute time as it counts every other window; these figures tell
// which share of that went to windows that were never handed out.
struct ReplacementTotals {
  std::size_t replacements = 0;           // replacements made
  std::size_t discarded_windows = 0;      // produced windows never handed out
  double discarded_compute_time_s = 0.0;  // [s] compute time charged to them: spent
  double discarded_duration_s = 0.0;      // [s] their duration: never played
};

}  // namespace corvane::control::window
