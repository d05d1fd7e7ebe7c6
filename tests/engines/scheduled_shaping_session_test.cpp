#include <corvane_shaper_engines/scheduled_shaping_session.hpp>

#include <cmath>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <corvane_shaper_engines/multi_mode_shaper.hpp>

#include "support/follow_reference_solver.hpp"

namespace corvane::control::engines {
namespace {

namespace cw = control::window;

constexpr double kSampleTimeS = 0.001;
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// Two joints over 600 samples: the first swings, the second (which the schedule reads) ramps
// from 0 to 1 between samples 100 and 400.
cw::SampleMatrix Reference() {
  const Eigen::ArrayXd k = Eigen::ArrayXd::LinSpaced(600, 0.0, 599.0);
  cw::SampleMatrix reference(600, 2);
  reference.col(0) = (k * 0.03).sin();
  reference.col(1) = ((k - 100.0) / 300.0).max(0.0).min(1.0);
  return reference;
}

// A shoulder-like mode from 6 to 10 Hz as the second joint goes from 0 to 1, and a payload-like
// one from 28 to 24 Hz.
ShaperSchedule Moving(ShaperKind kind) {
  ShaperSchedule schedule;
  schedule.modes = [](const Eigen::RowVectorXd& pose) {
    return std::vector<VibrationMode>{{6.0 + 4.0 * pose(1), 0.02}, {28.0 - 4.0 * pose(1), 0.03}};
  };
  schedule.kind = kind;
  schedule.longest_shaper_s = 0.3;
  return schedule;
}

// A schedule that gives the same modes everywhere is the fixed shaper of each mode, applied one
// after another: re-timing that reads the wrong pose or rows would show here.
TEST(ScheduledShapingSessionTest, StillScheduleIsTheFixedShapers) {
  const VibrationMode low{6.3, 0.02}, high{27.1, 0.03};
  for (const ShaperKind kind : {ShaperKind::kZv, ShaperKind::kZvd, ShaperKind::kEi}) {
    ShaperSchedule schedule = Moving(kind);
    schedule.modes = [&](const Eigen::RowVectorXd&) {
      return std::vector<VibrationMode>{low, high};
    };
    const cw::SampleMatrix fixed =
        ShapeSamples(ShapeSamples(Reference(), kSampleTimeS, DesignShaper(kind, low)), kSampleTimeS,
                     DesignShaper(kind, high));
    EXPECT_LT((ShapeSamples(Reference(), kSampleTimeS, schedule) - fixed).cwiseAbs().maxCoeff(),
              1e-12);
    EXPECT_EQ(ScheduledShaper(schedule, Reference().row(0)).times_s,
              MultiModeShaper({kind, kind}, {low, high}).times_s);
  }
}

// Requests of 40 rows applying 10, with every third one asked again, shape as the offline call
// does the whole reference: a history that keeps too few rows, or the wrong ones, shows here.
TEST(ScheduledShapingSessionTest, StreamedShapingEqualsOfflineShaping) {
  const cw::SampleMatrix reference = Reference();
  ScheduledShapingSession session(std::make_unique<cw::testing::FollowReferenceSolver>(),
                                  Moving(ShaperKind::kZv), kSampleTimeS);
  session.Prepare();
  cw::SampleMatrix streamed(0, 2);
  for (Eigen::Index start = 0, request = 0; start + 40 <= reference.rows(); ++request) {
    cw::WindowSlice slice;
    slice.positions = reference.middleRows(start, 40);
    slice.start_index = static_cast<std::size_t>(start);
    slice.stop_index = slice.start_index + 40;
    slice.metadata["apply_samples"] = "10";
    const cw::WindowPayload answer = session.Solve(slice);
    if (request % 3 == 2) continue;  // lost downstream: the same request comes again
    streamed.conservativeResize(streamed.rows() + 10, 2);
    streamed.bottomRows(10) = answer.positions;
    start += 10;
  }
  const cw::SampleMatrix offline = ShapeSamples(reference, kSampleTimeS, Moving(ShaperKind::kZv));
  EXPECT_LT((streamed - offline.topRows(streamed.rows())).cwiseAbs().maxCoeff(), 1e-12);
}

TEST(ScheduledShapingSessionTest, RefusesBadArgumentsAndSchedulesByName) {
  const auto solver = [] { return std::make_unique<cw::testing::FollowReferenceSolver>(); };
  EXPECT_THROW(ScheduledShapingSession(nullptr, Moving(ShaperKind::kZv), kSampleTimeS),
               std::invalid_argument);
  struct Case {
    ShaperSchedule schedule;
    double sample_time_s;
    const char* named;
  };
  std::vector<Case> cases;
  const auto with = [&](auto change, double period, const char* named) {
    ShaperSchedule schedule = Moving(ShaperKind::kZv);
    change(schedule);
    cases.push_back({schedule, period, named});
  };
  with([](ShaperSchedule& s) { s.modes = nullptr; }, kSampleTimeS, "mode function");
  with([](ShaperSchedule& s) { s.vibration_tolerance = 1.0; }, kSampleTimeS, "vibration_tolerance");
  with([](ShaperSchedule& s) { s.longest_shaper_s = kNan; }, kSampleTimeS, "longest_shaper_s");
  with([](ShaperSchedule& s) { s.longest_shaper_s = 0.0; }, kSampleTimeS, "longest_shaper_s");
  with([](ShaperSchedule&) {}, 0.0, "sample_time_s");
  with([](ShaperSchedule&) {}, kNan, "sample_time_s");
  for (const Case& c : cases) {
    try {
      ScheduledShapingSession(solver(), c.schedule, c.sample_time_s);
      ADD_FAILURE() << c.named;
    } catch (const std::invalid_argument& error) {
      EXPECT_NE(std::string(error.what()).find(c.named), std::string::npos) << error.what();
    }
  }
  // What the schedule gives is checked where it is used.
  using Modes = std::vector<VibrationMode>;
  const std::function<Modes(const Eigen::RowVectorXd&)> bad[] = {
      [](const Eigen::RowVectorXd&) { return Modes{}; },
      [](const Eigen::RowVectorXd&) {
        return Modes{{kNan, 0.02}};
      },
      [](const Eigen::RowVectorXd& pose) {
        return Modes(pose(1) > 0.5 ? 2 : 1, {8.0, 0.02});
      },
  };
  for (const auto& modes : bad) {
    ShaperSchedule schedule = Moving(ShaperKind::kZv);
    schedule.modes = modes;
    EXPECT_THROW(ShapeSamples(Reference(), kSampleTimeS, schedule), std::invalid_argument);
  }
  ShaperSchedule short_history = Moving(ShaperKind::kZv);
  short_history.longest_shaper_s = 0.05;
  EXPECT_THROW(ShapeSamples(Reference(), kSampleTimeS, short_history), std::domain_error);
}

}  // namespace
}  // namespace corvane::control::engines
