#include "corvane_shaper_engines/scheduled_shaping_session.hpp"

#include <algorithm>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "apply_samples.hpp"
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

// The scheduled shaper as a filter on a sampled reference, with the designs of the last two
// poses kept: at rest, and between nearby rows of a slow motion, the design is not redone.
bool SameModes(const std::vector<VibrationMode>& a, const std::vector<VibrationMode>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& x, const auto& y) {
    return x.natural_frequency_hz == y.natural_frequency_hz && x.damping_ratio == y.damping_ratio;
  });
}

class ScheduledTaps {
 public:
  ScheduledTaps(ShaperSchedule schedule, double sample_time_s)
      : schedule_(std::move(schedule)), sample_time_s_(sample_time_s) {
    CheckSchedule(schedule_, sample_time_s_);
  }

  // The shaper for a reference resting on `pose`.
  const ImpulseSequence& ShaperAt(const Eigen::RowVectorXd& pose) {
    std::vector<VibrationMode> modes = schedule_.modes(pose);
    for (Design& design : designs_) {
      if (SameModes(design.modes, modes)) return design.shaper;
    }
    if (modes.empty()) throw std::invalid_argument("The mode schedule must give at least one mode.");
    try {
      for (const VibrationMode& mode : modes) ValidateVibrationMode(mode);
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument(std::string("The mode schedule gave a bad mode: ") + error.what());
    }
    std::vector<std::optional<ShaperKind>> kinds(modes.size(), schedule_.kind);
    Design design{modes, MultiModeShaper(kinds, modes, schedule_.vibration_tolerance)};
    if (design.shaper.times_s.back() > schedule_.longest_shaper_s * (1.0 + 1e-12)) {
      throw std::domain_error("A scheduled shaper lasts " +
                              std::to_string(design.shaper.times_s.back()) +
                              " s, longer than longest_shaper_s.");
    }
    std::swap(designs_[0], designs_[1]);
    designs_[0] = std::move(design);
    return designs_[0].shaper;
  }

  // Rows first, first + 1, ... of the source shaped, its rows before 0 read as row 0.
  cw::SampleMatrix Shape(const cw::SampleMatrix& source, Eigen::Index first, Eigen::Index rows) {
    cw::SampleMatrix shaped = cw::SampleMatrix::Zero(rows, source.cols());
    for (Eigen::Index row = 0; row < rows; ++row) {
      const auto k = static_cast<double>(first + row);
      // The design read where the last impulse reads: first guessed from the pose at row k.
      const double guess = ShaperAt(At(source, k)).times_s.back() / sample_time_s_;
      const ImpulseSequence& shaper = ShaperAt(At(source, k - guess));
      for (std::size_t i = 0; i < shaper.times_s.size(); ++i) {
        shaped.row(row) += shaper.amplitudes[i] * At(source, k - shaper.times_s[i] / sample_time_s_);
      }
    }
    return shaped;
  }

  // Reference rows that the longest scheduled shaper reads before a row.
  Eigen::Index history_rows() const {
    return static_cast<Eigen::Index>(std::ceil(schedule_.longest_shaper_s / sample_time_s_)) + 1;
  }

 private:
  struct Design {
    std::vector<VibrationMode> modes;
    ImpulseSequence shaper;
  };

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
  Design designs_[2];
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
  const Eigen::Index apply = ApplySamples(request);
  impl_->history.CheckContinues(request);
  Eigen::Index before = 0;
  const cw::SampleMatrix source = impl_->history.Source(request, before);
  cw::WindowSlice shaped;
  shaped.positions = impl_->taps.Shape(source, before, request.positions.rows());
  shaped.start_index = request.start_index;
  shaped.stop_index = request.stop_index;
  shaped.metadata = request.metadata;
  cw::WindowPayload payload = impl_->solver->Solve(shaped);
  impl_->history.Remember(request, apply);
  return payload;
}

}  // namespace corvane::control::engines
