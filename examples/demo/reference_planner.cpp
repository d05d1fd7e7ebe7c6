#include "demo/reference_planner.hpp"

#include <algorithm>
#include <cmath>
#include <random>
#include <utility>

namespace corvane::demo {

namespace cw = control::window;
using Clock = std::chrono::steady_clock;

namespace {

constexpr double kMoveSeconds = 0.75;  // [s] one move and its rest
constexpr double kRestShare = 0.2;     // share of a move's time spent at rest
constexpr Eigen::Index kSmallestBlock = 20;
constexpr Eigen::Index kLargestBlock = 150;
constexpr int kLateEvery = 6;
constexpr auto kAhead = std::chrono::milliseconds(100);  // normal blocks: this long early
constexpr auto kLate = std::chrono::milliseconds(20);    // late blocks: this long into a hold
constexpr auto kLongestHoldWait = std::chrono::seconds(1);

// Position along a move, from 0 to 1, with zero velocity and acceleration at both ends.
double Quintic(double s) { return s * s * s * (10.0 + s * (-15.0 + 6.0 * s)); }

// The pose after move `move`: every joint swings somewhere within +-0.8 rad.
Eigen::RowVectorXd PoseAfter(Eigen::Index move, Eigen::Index joints) {
  Eigen::RowVectorXd pose(joints);
  for (Eigen::Index joint = 0; joint < joints; ++joint) {
    pose(joint) =
        0.8 * std::sin(1.7 * static_cast<double>(move + 1) + 0.9 * static_cast<double>(joint));
  }
  return pose;
}

}  // namespace

cw::SampleMatrix PointToPointReference(Eigen::Index joints, double sample_time_s,
                                       double duration_s) {
  const auto samples = static_cast<Eigen::Index>(std::lround(duration_s / sample_time_s));
  const auto moves = std::max<Eigen::Index>(1, std::lround(duration_s / kMoveSeconds));
  const double samples_per_move = static_cast<double>(samples) / static_cast<double>(moves);
  cw::SampleMatrix reference(samples, joints);
  for (Eigen::Index move = 0; move < moves; ++move) {
    const Eigen::RowVectorXd from =
        move == 0 ? Eigen::RowVectorXd::Zero(joints) : PoseAfter(move - 1, joints);
    const Eigen::RowVectorXd to = PoseAfter(move, joints);
    const auto first =
        static_cast<Eigen::Index>(std::lround(samples_per_move * static_cast<double>(move)));
    const auto stop =
        static_cast<Eigen::Index>(std::lround(samples_per_move * static_cast<double>(move + 1)));
    const double moving_samples = samples_per_move * (1.0 - kRestShare);
    for (Eigen::Index k = first; k < stop; ++k) {
      const double s = std::min(1.0, static_cast<double>(k - first) / moving_samples);
      reference.row(k) = from + Quintic(s) * (to - from);
    }
  }
  return reference;
}

ReferenceStreamer::ReferenceStreamer(cw::AppendableWindowBuffer& buffer,
                                     cw::AppendableReferenceBuffer& stored,
                                     cw::SampleMatrix reference,
                                     std::optional<PlaybackClock> pacing)
    : buffer_(buffer),
      stored_(stored),
      reference_(std::move(reference)),
      pacing_(pacing),
      thread_([this] { Run(); }) {}

ReferenceStreamer::~ReferenceStreamer() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
}

void ReferenceStreamer::Join() {
  thread_.join();
  if (failure_) std::rethrow_exception(failure_);
}

void ReferenceStreamer::Run() {
  try {
    std::mt19937 random(7);
    std::uniform_int_distribution<Eigen::Index> block_size(kSmallestBlock, kLargestBlock);
    Eigen::Index appended = 0;
    for (int block = 1; appended < reference_.rows() && !stop_; ++block) {
      const Eigen::Index rows = std::min(block_size(random), reference_.rows() - appended);
      if (pacing_) WaitUntilDue(block % kLateEvery == 0);
      if (stop_) break;
      buffer_.AppendReference(reference_.middleRows(appended, rows));
      appended += rows;
    }
    buffer_.Finish();
  } catch (...) {
    failure_ = std::current_exception();
  }
}

void ReferenceStreamer::WaitUntilDue(bool late) const {
  const std::size_t stored = stored_.available_samples();
  if (late) {
    // A sample beyond those stored now can only be one that the producer held.
    stored_.WaitUntilSamples(stored + 1, kLongestHoldWait);
    std::this_thread::sleep_for(kLate);
    return;
  }
  // The next block is played after every sample stored so far.
  const double ahead_s = static_cast<double>(stored) * pacing_->sample_time_s;
  std::this_thread::sleep_until(
      pacing_->start - kAhead +
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(ahead_s)));
}

}  // namespace corvane::demo
