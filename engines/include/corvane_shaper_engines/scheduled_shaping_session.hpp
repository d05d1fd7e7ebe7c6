// Shaping that follows the machine's pose: the shaper is designed anew for the modes at the pose
// the reference passes through, and its impulses are re-timed as the motion goes.
//
// Each mode gets a stage of its own, and the stages are applied one after another. Row k of a
// stage's output is the sum over i of A_i(k) times its input at k - t_i(k) / sample_time_s
// samples (interpolated linearly), where A(k), t(k) is the design for the stage's mode at the
// pose that its last impulse reads: the input at k less the duration of the design for the mode
// at row k. For modes that stay put this is the fixed shapers, one after another. For a mode that
// moves, the design is exact only in the limit of a mode that changes slowly compared with its
// own period: a ZV stage re-timed this way lets through, to first order, about (pi / 8) times the
// fractional change of the mode over one of its periods of the vibration that each part of the
// motion excites.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include <Eigen/Core>
#include <native/export.hpp>
#include <window/producers.hpp>
#include <window/records.hpp>
#include <window/replacement.hpp>

#include "corvane_shaper_engines/impulse_sequence.hpp"
#include "corvane_shaper_engines/shaper_designs.hpp"

namespace corvane::control::engines {

// The machine's vibration modes at a pose: a row of joint positions [rad] in, at least one mode
// out (the same number at every pose). Called from the thread that shapes.
using ModeSchedule = std::function<std::vector<VibrationMode>(const Eigen::RowVectorXd& pose)>;

// How the shaper follows the pose: a stage with the design of `kind` for each mode the schedule
// gives.
struct ShaperSchedule {
  ModeSchedule modes;                                       // never empty
  ShaperKind kind = ShaperKind::kZv;                        // the design for every mode
  double vibration_tolerance = kDefaultVibrationTolerance;  // [-] of the EI family, in (0, 1)
  // [s] bound on the stages' durations summed, at any row: the reference history kept
  double longest_shaper_s = 0.0;
};

// The shaper that the schedule gives a reference resting on `pose`: the stages' designs there,
// convolved. Throws std::invalid_argument naming the fault for a bad schedule (see ShapeSamples()
// below) and as MultiModeShaper() does.
CORVANE_EXPORT ImpulseSequence ScheduledShaper(const ShaperSchedule& schedule,
                                               const Eigen::RowVectorXd& pose);

// Offline scheduled shaping of a whole reference, with the reference resting on its first row
// before it starts (the session below gives the same rows). Throws std::invalid_argument for an
// empty or non-finite reference, a period that is not finite and positive, a schedule with no
// mode function, a tolerance outside (0, 1) or a longest_shaper_s that is not finite and positive,
// and for a schedule that gives no mode or a bad one; std::domain_error when a scheduled shaper
// lasts longer than longest_shaper_s.
CORVANE_EXPORT control::window::SampleMatrix ShapeSamples(
    const control::window::SampleMatrix& reference, double sample_time_s,
    const ShaperSchedule& schedule);

// A solver session like ShapingSolveSession, whose shaper follows the pose by `schedule`. It keeps
// the reference rows that the longest scheduled shaper reads, and takes requests as
// ShapingSolveSession does. To let the shaped motion come to rest, append
// longest_shaper_s / sample_time_s copies of the last sample (rounded up) before finishing. After
// a replacement it resumes as ShapingSolveSession does: the schedule reads only reference rows, so
// the shaped stream equals ShapeSamples() of the spliced reference with the schedule.
class CORVANE_EXPORT ScheduledShapingSession final : public control::window::LiftedMpcSolveSession,
                                                     public control::window::ResumableSolveSession {
 public:
  // solver: the session that receives the shaped requests, never null. sample_time_s: [s] the
  // period of the request rows. Throws std::invalid_argument naming the argument at fault.
  ScheduledShapingSession(std::unique_ptr<control::window::LiftedMpcSolveSession> solver,
                          ShaperSchedule schedule, double sample_time_s);
  // Takes the other session's state; the other holds none afterwards.
  ScheduledShapingSession(ScheduledShapingSession&& other) noexcept;
  // Takes the other session's state and drops the state held before.
  ScheduledShapingSession& operator=(ScheduledShapingSession&& other) noexcept;
  ScheduledShapingSession(const ScheduledShapingSession&) = delete;
  ScheduledShapingSession& operator=(const ScheduledShapingSession&) = delete;
  ~ScheduledShapingSession() override;

  // Forgets the history and prepares the wrapped solver.
  void Prepare() override;
  // Shapes the request's positions by the schedule and solves them with the wrapped solver.
  // Throws as ShapingSolveSession::Solve() does, and as ShapeSamples() above for what the
  // schedule gives; a failed solve keeps no history.
  control::window::WindowPayload Solve(const control::window::WindowSlice& request) override;
  // Finalizes the wrapped solver.
  void Finalize() override;

  // Whether the wrapped solver implements ResumableSolveSession and can resume.
  bool CanResume() const override;
  // The rows the longest scheduled shaper reads before a row, plus those the wrapped solver asks
  // for.
  std::size_t ResumeHistorySamples() const override;
  // Resumes as ShapingSolveSession::ResumeFrom() does, shaping the rows the wrapped solver asks
  // for by the schedule. Throws as that does, and as ShapeSamples() above for what the schedule
  // gives.
  void ResumeFrom(const control::window::SolveResumePoint& point) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace corvane::control::engines
