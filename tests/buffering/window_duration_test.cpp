// How long a window lasts: its time-stamp span, else its rows times its declared sample period,
// else its row count.
#include <limits>

#include <gtest/gtest.h>

#include "buffering/window_duration.hpp"

namespace corvane::control::window {
namespace {

struct Case {
  const char* name;
  Eigen::Index rows;
  std::optional<std::vector<double>> time_s;
  std::optional<std::string> sample_time_s;
  double expected_s;
};

TEST(WindowDurationTest, FollowsTimeStampsThenSamplePeriodThenRowCount) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const Case cases[] = {
      {"time-stamp span", 3, std::vector<double>{0.0, 0.1, 0.2}, "5", 0.2},
      {"two stamps", 2, std::vector<double>{1.0, 1.5}, "5", 0.5},
      {"zero span falls through", 2, std::vector<double>{1.0, 1.0}, "0.01", 0.02},
      {"NaN span falls through", 2, std::vector<double>{nan, 1.0}, std::nullopt, 2.0},
      {"single stamp is no span", 1, std::vector<double>{3.0}, "0.5", 0.5},
      {"sample period", 50, std::nullopt, "0.004", 50 * 0.004},
      {"trailing text ignored", 50, std::nullopt, " 0.004 s", 50 * 0.004},
      {"no number", 50, std::nullopt, "abc", 50.0},
      {"negative", 50, std::nullopt, "-1", 50.0},
      {"zero", 50, std::nullopt, "0", 50.0},
      {"printf of 1e-7", 50, std::nullopt, "0.000000", 50.0},
      {"infinite", 50, std::nullopt, "inf", 50.0},
      {"out of range", 50, std::nullopt, "1e999", 50.0},
      {"no key", 50, std::nullopt, std::nullopt, 50.0},
      {"same text as before", 50, std::nullopt, "1e999", 50.0},
      {"earlier text again", 50, std::nullopt, "0.004", 50 * 0.004},
  };
  for (const Case& c : cases) {
    WindowPayload window;
    window.positions = SampleMatrix::Zero(c.rows, 2);
    if (c.time_s) {
      window.time_s = Eigen::Map<const Eigen::VectorXd>(
          c.time_s->data(), static_cast<Eigen::Index>(c.time_s->size()));
    }
    if (c.sample_time_s) window.metadata["sample_time_s"] = *c.sample_time_s;
    window.metadata["Sample_time_s"] = "1000";  // keys are case-sensitive
    EXPECT_EQ(WindowDurationSeconds(window), c.expected_s) << c.name;
  }
}

}  // namespace
}  // namespace corvane::control::window
