// The reference rows that a shaping stage keeps between requests, and the steps by which the
// shaping stages (ShapingSolveSession, ScheduledShapingSession) solve and resume with them.
#pragma once

#include <cstddef>
#include <functional>

#include <Eigen/Core>
#include <window/producers.hpp>
#include <window/records.hpp>
#include <window/replacement.hpp>

namespace corvane::control::engines {

// A stage's shaper: rows first, first + 1, ... of `source` shaped, its rows before 0 read as
// row 0.
using ShapeRows = std::function<control::window::SampleMatrix(
    const control::window::SampleMatrix& source, Eigen::Index first, Eigen::Index rows)>;

// `taps` (a stage's filter, with a Shape(source, first, rows) of that meaning) as its shaper; the
// taps must outlive it.
template <class Taps>
ShapeRows ShapeBy(Taps& taps) {
  return [&taps](const control::window::SampleMatrix& source, Eigen::Index first,
                 Eigen::Index rows) { return taps.Shape(source, first, rows); };
}

// The applied rows of the requests solved so far, as far back as a shaper reads. A request must
// start where the applied rows end, or where the last solved request started (a repeat after a
// failed window). Before the first request's start the reference rests on its first row.
class ReferenceHistory {
 public:
  // rows_read: reference rows that the shaper reads before a row.
  explicit ReferenceHistory(Eigen::Index rows_read) : rows_read_(rows_read) {}

  // Reference rows that the shaper reads before a row.
  Eigen::Index rows_read() const { return rows_read_; }
  // Forgets every row, so that the next request starts the reference.
  void Reset();
  // Throws std::invalid_argument unless the request continues the history and keeps the joint
  // count.
  void CheckContinues(const control::window::WindowSlice& request) const;
  // The request's positions below the history rows that the shaper reads before them;
  // `before` is set to the number of those rows.
  control::window::SampleMatrix Source(const control::window::WindowSlice& request,
                                       Eigen::Index& before) const;
  // Makes the request's first `apply` rows history, keeping what the next request may read.
  void Remember(const control::window::WindowSlice& request, Eigen::Index apply);
  // Throws std::invalid_argument when `before`, reference rows before a join, would change the
  // joint count of the rows kept.
  void CheckResumes(const control::window::SampleMatrix& before) const;
  // Takes the last rows_read() rows of `before`, the reference rows just before reference index
  // `start`, as the history, as if the applied rows ended at `start`. With no row before the
  // join the next request starts the reference afresh, as after Reset().
  void ResumeFrom(std::size_t start, const control::window::SampleMatrix& before);

 private:
  // The first reference index that a request starting at `start` reads.
  std::size_t FirstRead(std::size_t start) const;
  // Throws std::invalid_argument unless `joints` is the joint count of the rows kept.
  void CheckJoints(Eigen::Index joints) const;

  Eigen::Index rows_read_;
  bool started_ = false;                // a request has been solved since Reset()
  control::window::SampleMatrix rows_;  // reference rows [first_, stop_)
  std::size_t first_ = 0;               // reference index of rows_'s first row
  std::size_t stop_ = 0;                // one past the last applied row
  std::size_t previous_start_ = 0;      // start of the last solved request
};

// The solver's resumable side, when it has one and can resume; null otherwise.
control::window::ResumableSolveSession* Resumable(control::window::LiftedMpcSolveSession& solver);

// Reference rows that a shaping stage needs before a join: those its shaper reads, plus those
// the wrapped solver asks for when it can resume.
std::size_t ResumeRows(const ReferenceHistory& history,
                       control::window::LiftedMpcSolveSession& solver);

// A shaping stage's solve: checks the request's "apply_samples", its positions and that it
// continues the history, in that order; shapes its positions reading the history before them;
// solves the shaped request (the request's range and metadata, no velocities or accelerations)
// with `solver`, whose answer comes back unchanged; and only then makes the applied rows history.
// Throws std::invalid_argument for a bad request; the shaper's and solver's exceptions pass
// through.
control::window::WindowPayload SolveShaped(const control::window::WindowSlice& request,
                                           ReferenceHistory& history,
                                           control::window::LiftedMpcSolveSession& solver,
                                           const ShapeRows& shape);

// A shaping stage's resume: the wrapped solver sees shaped requests, so it resumes from the rows
// it asks for shaped, each reading the reference rows before it; then the reference rows before
// the join become the history. Throws std::runtime_error when the wrapped solver cannot resume and
// std::invalid_argument when the rows' joint count differs from the history's, before anything
// changes; the shaper's and the wrapped solver's exceptions pass through.
void ResumeShaped(const control::window::SolveResumePoint& point, ReferenceHistory& history,
                  control::window::LiftedMpcSolveSession& solver, const ShapeRows& shape);

}  // namespace corvane::control::engines
