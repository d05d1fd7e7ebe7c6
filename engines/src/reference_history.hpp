// The reference rows that the scheduled shaping stage keeps between requests, by the rules of
// ShapingSolveSession.
#pragma once

#include <cstddef>

#include <Eigen/Core>
#include <window/records.hpp>

namespace corvane::control::engines {

// The applied rows of the requests solved so far, as far back as a shaper reads. A request must
// start where the applied rows end, or where the last solved request started (a repeat after a
// failed window). Before the first request's start the reference rests on its first row.
class ReferenceHistory {
 public:
  // rows_read: reference rows that the shaper reads before a row.
  explicit ReferenceHistory(Eigen::Index rows_read) : rows_read_(rows_read) {}

  // Forgets every row, so that the next request starts the reference.
  void Reset() { started_ = false; }
  // Throws std::invalid_argument unless the request continues the history and keeps the joint
  // count.
  void CheckContinues(const control::window::WindowSlice& request) const;
  // The request's positions below the history rows that the shaper reads before them;
  // `before` is set to the number of those rows.
  control::window::SampleMatrix Source(const control::window::WindowSlice& request,
                                       Eigen::Index& before) const;
  // Makes the request's first `apply` rows history, keeping what the next request may read.
  void Remember(const control::window::WindowSlice& request, Eigen::Index apply);

 private:
  // The first reference index that a request starting at `start` reads.
  std::size_t FirstRead(std::size_t start) const;

  Eigen::Index rows_read_;
  bool started_ = false;                // a request has been solved since Reset()
  control::window::SampleMatrix rows_;  // reference rows [first_, stop_)
  std::size_t first_ = 0;               // reference index of rows_'s first row
  std::size_t stop_ = 0;                // one past the last applied row
  std::size_t previous_start_ = 0;      // start of the last solved request
};

}  // namespace corvane::control::engines
