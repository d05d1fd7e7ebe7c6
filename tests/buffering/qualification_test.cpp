// The qualification report: exact figures on known histories, and the 0.99 quantile against a
// full sort on random ones.
#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "support/scripted_producer.hpp"
#include "window/async_buffer.hpp"

namespace corvane::control::window {
namespace {

using testing::MakeWindow;
using testing::Recorded;
using testing::Script;

// A buffer whose history holds exactly these compute times and durations: one-row windows that
// declare compute times far above what producing them takes, and durations as sample periods
// ("" for a window without rows, which lasts no time at all).
AsyncWindowBuffer BufferWithHistory(const std::vector<double>& compute_s,
                                    const std::vector<std::string>& duration_text,
                                    std::size_t prefill_windows) {
  Script script;
  script.produce = [=](std::size_t i) {
    WindowPayload window = MakeWindow(0.0, i, duration_text[i].empty() ? 0 : 1);
    window.compute_time_s = compute_s[i];
    window.metadata["sample_time_s"] = duration_text[i];
    return std::optional<WindowPayload>(window);
  };
  Recorded recorded(script);
  AsyncWindowBuffer buffer(std::move(recorded.producer), prefill_windows);
  EXPECT_EQ(buffer.Prefill(compute_s.size()), compute_s.size());
  return buffer;
}

TEST(QualificationTest, RejectsBadLimitsAndQualifiesAnEmptyHistory) {
  AsyncWindowBuffer buffer(Recorded().producer, 7);
  for (double limit : {0.0, -1.0, std::numeric_limits<double>::infinity(),
                       std::numeric_limits<double>::quiet_NaN()}) {
    try {
      buffer.Qualify(limit);
      ADD_FAILURE() << "accepted " << limit;
    } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(error.what(), "compute_fraction_limit must be finite and positive.");
    }
  }
  const QualificationReport empty = buffer.Qualify(std::numeric_limits<double>::denorm_min());
  EXPECT_TRUE(empty.qualified);
  EXPECT_EQ(empty.prefill_windows, 7u);
  EXPECT_EQ(empty.total_windows, 0u);
  EXPECT_EQ(empty.min_margin_s, 0.0);  // not infinity
}

TEST(QualificationTest, OneWindowIsJudgedByItsComputeFraction) {
  AsyncWindowBuffer buffer = BufferWithHistory({0.4}, {"0.5"}, 0);
  const QualificationReport relaxed = buffer.Qualify(1.0);
  EXPECT_TRUE(relaxed.qualified);
  EXPECT_EQ(relaxed.min_margin_s, 0.5 - 0.4);
  EXPECT_EQ(relaxed.p99_compute_time_s, 0.4);
  EXPECT_TRUE(buffer.Qualify(0.8).qualified);  // a fraction equal to the limit passes
  const QualificationReport strict = buffer.Qualify(0.5);
  EXPECT_FALSE(strict.qualified);
  EXPECT_EQ(strict.min_margin_s, relaxed.min_margin_s);
}

TEST(QualificationTest, PrefillCreditDecidesTheUnderruns) {
  const std::vector<double> compute_s{0.5, 0.2, 0.3};
  const std::vector<std::string> durations{"0.25", "0.25", "0.25"};
  const QualificationReport credited = BufferWithHistory(compute_s, durations, 1).Qualify(1.5);
  EXPECT_EQ(credited.min_margin_s, 0.25);
  EXPECT_EQ(credited.underrun_windows, 0u);
  EXPECT_FALSE(credited.qualified);  // the first window costs twice its duration
  EXPECT_EQ(credited.max_compute_time_s, 0.5);
  const double frac = 0.99 * 2.0 - 1.0;
  EXPECT_EQ(credited.p99_compute_time_s, std::fma(0.3, 1.0 - frac, frac * 0.5));
  EXPECT_EQ(credited.total_compute_time_s, 0.5 + 0.2 + 0.3);
  EXPECT_EQ(credited.total_windows, 3u);

  const QualificationReport uncredited = BufferWithHistory(compute_s, durations, 0).Qualify(1.5);
  EXPECT_EQ(uncredited.min_margin_s, -0.25);
  EXPECT_EQ(uncredited.underrun_windows, 3u);
  EXPECT_TRUE(BufferWithHistory(compute_s, durations, 9).Qualify(2.0).qualified);

  // A window that lasts no time fails whatever it cost; its margin still counts.
  const QualificationReport instant = BufferWithHistory({1e-3, 1e-3}, {"1", ""}, 2).Qualify(1e9);
  EXPECT_FALSE(instant.qualified);
  EXPECT_EQ(instant.underrun_windows, 0u);
}

// The quantile is found by selection; it must equal the interpolation over a full sort.
TEST(QualificationTest, QuantileMatchesTheSortedDefinitionOnRandomHistories) {
  std::mt19937_64 random(20261122);
  std::uniform_real_distribution<double> compute(1.0, 100.0);
  std::uniform_int_distribution<std::size_t> length(1, 2000);
  for (int trial = 0; trial < 20; ++trial) {
    std::vector<double> compute_s(trial < 3 ? static_cast<std::size_t>(trial + 1) : length(random));
    for (double& value : compute_s) value = std::round(compute(random) * 8.0) / 8.0;  // ties too
    const QualificationReport report =
        BufferWithHistory(compute_s, std::vector<std::string>(compute_s.size(), "1"), 0)
            .Qualify(1.0);
    std::sort(compute_s.begin(), compute_s.end());
    const double pos = 0.99 * static_cast<double>(compute_s.size() - 1);
    const double frac = pos - std::floor(pos);
    const double expected =
        std::fma(compute_s[static_cast<std::size_t>(std::floor(pos))], 1.0 - frac,
                 frac * compute_s[static_cast<std::size_t>(std::ceil(pos))]);
    EXPECT_EQ(report.p99_compute_time_s, expected) << "history of " << compute_s.size();
    EXPECT_EQ(report.max_compute_time_s, compute_s.back());
  }
}

}  // namespace
}  // namespace corvane::control::window
