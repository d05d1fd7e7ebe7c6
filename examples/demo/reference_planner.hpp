// The arm's reference motion, and the planner thread that streams it to the MPC mode.
#pragma once

#include <atomic>
#include <chrono>
#include <exception>
#include <optional>
#include <thread>

#include <window/async_buffer.hpp>
#include <window/records.hpp>
#include <window/reference_buffer.hpp>

namespace corvane::demo {

// Point-to-point moves of every joint, starting from the zero pose: each move is a quintic to a
// new pose (at rest at both ends) followed by a short rest, about 0.75 s per move.
control::window::SampleMatrix PointToPointReference(Eigen::Index joints, double sample_time_s,
                                                    double duration_s);

// When the control loop plays a sample: sample k of the stored reference, held samples
// included, at start + k sample periods.
struct PlaybackClock {
  std::chrono::steady_clock::time_point start;
  double sample_time_s;
};

// Streams a reference into an AppendableWindowBuffer from a thread of its own, in blocks of
// irregular size, then finishes the stream. With a playback clock each block goes in well ahead
// of its playback, except that every sixth comes late: only after the producer has run out of
// reference and held the last sample for a while. Without one every block goes in at once.
class ReferenceStreamer {
 public:
  // stored: the reference buffer behind `buffer`, on which the streamer sees the producer hold.
  ReferenceStreamer(control::window::AppendableWindowBuffer& buffer,
                    control::window::AppendableReferenceBuffer& stored,
                    control::window::SampleMatrix reference, std::optional<PlaybackClock> pacing);
  // Stops streaming at the next block and waits for the thread.
  ~ReferenceStreamer();
  ReferenceStreamer(const ReferenceStreamer&) = delete;
  ReferenceStreamer& operator=(const ReferenceStreamer&) = delete;

  // Waits until the whole reference has been appended; rethrows a failure of the thread.
  void Join();

 private:
  void Run();
  // Sleeps until the next block is due.
  void WaitUntilDue(bool late) const;

  control::window::AppendableWindowBuffer& buffer_;
  control::window::AppendableReferenceBuffer& stored_;
  const control::window::SampleMatrix reference_;
  const std::optional<PlaybackClock> pacing_;
  std::atomic<bool> stop_{false};
  std::exception_ptr failure_;
  std::thread thread_;  // last: starts once everything above is ready
};

}  // namespace corvane::demo
