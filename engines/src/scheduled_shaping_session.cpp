#include "corvane_shaper_engines/scheduled_shaping_session.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "corvane_shaper_engines/multi_mode_shaper.hpp"
#include "reference_history.hpp"

namespace corvane::control::engines {

namespace cw = control::window;

namespace {

void CheckSchedule(const ShaperSchedule& schedule, double sample_time_s) {
  if (!schedule.modes) throw std::invalid_argument("The schedule needs a mode function.");
  if (!(schedule.vibration_tolerance > 0.0 && schedule.vibration_tolerance < 1.0)) {
    throw std::invalid_argument("vibration_tolerance must lie in (0, 1).");
  }
  if (!std::isfinite(schedule.longest_shaper_s) || schedule.longest_shaper_s <= 0.0) {
    throw std::invalid_argument("longest_shaper_s must be finite and positive.");
  }
  if (!std::isfinite(sample_time_s) || sample_time_s <= 0.0) {
    throw std::invalid_argument("sample_time_s must be finite and positive.");
  }
}

// The scheduled shaper as a filter on a sampled reference: one stage per mode, each re-timed by
// its own mode, applied one after another. A stage's impulses are designed for its mode at the
// pose that its last impulse reads, in the stage's input. For modes that stay put the cascade is
// the fixed shapers applied one after another (in continuous time, their convolution); for modes
// that move, each stage replays the same input for its own mode, which a convolution re-timed as
// a whole would not.
class ScheduledTaps {
 public:
  ScheduledTaps(ShaperSchedule schedule, double sample_time_s)
      : schedule_(std::move(schedule)), sample_time_s_(sample_time_s) {
    CheckSchedule(schedule_, sample_time_s_);
  }

  // The shaper for a reference resting on `pose`: the stages' designs there, convolved.
  ImpulseSequence ShaperAt(const Eigen::RowVectorXd& pose) {
    ImpulseSequence shaper{{1.0}, {0.0}};
    for (std::size_t stage = 0; stage < StageCount(pose); ++stage) {
      shaper = ConvolveShapers(shaper, StageShaper(stage, pose));
    }
    return shaper;
  }

  // Rows first, first + 1, ... of the source shaped, its rows before 0 read as row 0. Every stage
  // is worked out from history_rows() before `first`, which is as far back as the later stages
  // read together.
  cw::SampleMatrix Shape(const cw::SampleMatrix& source, Eigen::Index first, Eigen::Index rows) {
    const Eigen::Index from = std::max<Eigen::Index>(0, first - history_rows());
    const Eigen::Index end = first + rows;
    cw::SampleMatrix input = source.topRows(end);
    std::vector<double> durations(static_cast<std::size_t>(end - from), 0.0);
    for (std::size_t stage = 0; stage < StageCount(At(input, static_cast<double>(first)));
         ++stage) {
      cw::SampleMatrix output = input;
      for (Eigen::Index k = from; k < end; ++k) {
        const ImpulseSequence& shaper = StageAt(stage, input, static_cast<double>(k));
        output.row(k).setZero();
        for (std::size_t i = 0; i < shaper.times_s.size(); ++i) {
          output.row(k) += shaper.amplitudes[i] *
                           At(input, static_cast<double>(k) - shaper.times_s[i] / sample_time_s_);
        }
        double& duration = durations[static_cast<std::size_t>(k - from)];
        duration += shaper.times_s.back();
        if (duration > schedule_.longest_shaper_s * (1.0 + 1e-12)) {
          throw std::domain_error("A scheduled shaper lasts " + std::to_string(duration) +
                                  " s, longer than longest_shaper_s.");
        }
      }
      input = std::move(output);
    }
    return input.bottomRows(rows);
  }

  // Reference rows that the longest scheduled shaper reads before a row.
  Eigen::Index history_rows() const {
    return static_cast<Eigen::Index>(std::ceil(schedule_.longest_shaper_s / sample_time_s_)) + 1;
  }

 private:
  struct Design {
    VibrationMode mode;
    ImpulseSequence shaper;
  };

  // The modes the schedule gives at `pose`, checked.
  std::vector<VibrationMode> ModesAt(const Eigen::RowVectorXd& pose) const {
    const std::vector<VibrationMode> modes = schedule_.modes(pose);
    if (modes.empty())
      throw std::invalid_argument("The mode schedule must give at least one mode.");
    try {
      for (const VibrationMode& mode : modes) ValidateVibrationMode(mode);
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument(std::string("The mode schedule gave a bad mode: ") +
                                  error.what());
    }
    return modes;
  }

  std::size_t StageCount(const Eigen::RowVectorXd& pose) {
    const std::size_t count = ModesAt(pose).size();
    if (designs_.empty()) designs_.resize(count);
    if (count != designs_.size()) {
      throw std::invalid_argument("The mode schedule must give as many modes at every pose.");
    }
    return count;
  }

  // The stage's design for row k of its input: read where its last impulse reads, found from a
  // first guess at row k.
  const ImpulseSequence& StageAt(std::size_t stage, const cw::SampleMatrix& input, double k) {
    const double guess = StageShaper(stage, At(input, k)).times_s.back() / sample_time_s_;
    return StageShaper(stage, At(input, k - guess));
  }

  // The stage's design for its mode at `pose`; the last two designs of each stage are kept, so
  // that at rest, and between the rows of a slow motion, none is redone.
  const ImpulseSequence& StageShaper(std::size_t stage, const Eigen::RowVectorXd& pose) {
    const std::vector<VibrationMode> modes = ModesAt(pose);
    if (modes.size() != designs_.size()) {
      throw std::invalid_argument("The mode schedule must give as many modes at every pose.");
    }
    const VibrationMode& mode = modes[stage];
    auto& kept = designs_[stage];
    for (const std::optional<Design>& design : kept) {
      if (design && design->mode.natural_frequency_hz == mode.natural_frequency_hz &&
          design->mode.damping_ratio == mode.damping_ratio) {
        return design->shaper;
      }
    }
    std::swap(kept[0], kept[1]);
    kept[0] = Design{mode, DesignShaper(schedule_.kind, mode, schedule_.vibration_tolerance)};
    return kept[0]->shaper;
  }

  // The source at a fractional row, linear between rows, resting on its ends; a position within
  // rounding of a whole row reads that row.
  static Eigen::RowVectorXd At(const cw::SampleMatrix& source, double position) {
    const double nearest = std::round(position);
    if (std::abs(position - nearest) < 1e-9) position = nearest;
    const double whole = std::floor(position);
    const double fraction = position - whole;
    const Eigen::Index last = source.rows() - 1;
    const auto row = [&](double index) {
      return source.row(std::clamp<Eigen::Index>(static_cast<Eigen::Index>(index), 0, last));
    };
    if (fraction == 0.0) return row(whole);
    return (1.0 - fraction) * row(whole) + fraction * row(whole + 1.0);
  }

  ShaperSchedule schedule_;
  double sample_time_s_;
  std::vector<std::array<std::optional<Design>, 2>> designs_;  // per stage, the last two
};

}  // namespace

struct ScheduledShapingSession::Impl {
  std::unique_ptr<cw::LiftedMpcSolveSession> solver;
  ScheduledTaps taps;
  ReferenceHistory history;
};

ImpulseSequence ScheduledShaper(const ShaperSchedule& schedule, const Eigen::RowVectorXd& pose) {
  return ScheduledTaps(schedule, 1.0).ShaperAt(pose);
}

cw::SampleMatrix ShapeSamples(const cw::SampleMatrix& reference, double sample_time_s,
                              const ShaperSchedule& schedule) {
  ScheduledTaps taps(schedule, sample_time_s);
  if (reference.rows() < 1 || reference.cols() < 1 || !reference.allFinite()) {
    throw std::invalid_argument("The reference must hold finite samples of at least one joint.");
  }
  return taps.Shape(reference, 0, reference.rows());
}

ScheduledShapingSession::ScheduledShapingSession(std::unique_ptr<cw::LiftedMpcSolveSession> solver,
                                                 ShaperSchedule schedule, double sample_time_s) {
  if (!solver) throw std::invalid_argument("solver must not be null.");
  ScheduledTaps taps(std::move(schedule), sample_time_s);
  const Eigen::Index rows = taps.history_rows();
  impl_ = std::make_unique<Impl>(Impl{std::move(solver), std::move(taps), ReferenceHistory(rows)});
}

ScheduledShapingSession::ScheduledShapingSession(ScheduledShapingSession&&) noexcept = default;
ScheduledShapingSession& ScheduledShapingSession::operator=(ScheduledShapingSession&&) noexcept =
    default;
ScheduledShapingSession::~ScheduledShapingSession() = default;

void ScheduledShapingSession::Prepare() {
  impl_->history.Reset();
  impl_->solver->Prepare();
}

void ScheduledShapingSession::Finalize() { impl_->solver->Finalize(); }

cw::WindowPayload ScheduledShapingSession::Solve(const cw::WindowSlice& request) {
  return SolveShaped(request, impl_->history, *impl_->solver, ShapeBy(impl_->taps));
}

bool ScheduledShapingSession::CanResume() const { return Resumable(*impl_->solver) != nullptr; }

std::size_t ScheduledShapingSession::ResumeHistorySamples() const {
  return ResumeRows(impl_->history, *impl_->solver);
}

void ScheduledShapingSession::ResumeFrom(const cw::SolveResumePoint& point) {
  ResumeShaped(point, impl_->history, *impl_->solver, ShapeBy(impl_->taps));
}

}  // namespace corvane::control::engines
