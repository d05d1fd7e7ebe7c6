// The qualification report: exact figures on known histories, and every figure against a plain
// copy of long random histories, to the bit, whole or retained in part, and with windows unplayed.
#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "buffering/window_statistics.hpp"
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
                                    std::size_t prefill_windows,
                                    std::optional<std::size_t> retention = std::nullopt) {
  Script script;
  script.produce = [=](std::size_t i) {
    WindowPayload window = MakeWindow(0.0, i, duration_text[i].empty() ? 0 : 1);
    window.compute_time_s = compute_s[i];
    window.metadata["sample_time_s"] = duration_text[i];
    return std::optional<WindowPayload>(window);
  };
  Recorded recorded(script);
  AsyncWindowBuffer buffer = retention
                                 ? AsyncWindowBuffer(std::move(recorded.producer), prefill_windows,
                                                     std::nullopt, *retention)
                                 : AsyncWindowBuffer(std::move(recorded.producer), prefill_windows);
  EXPECT_EQ(buffer.Prefill(compute_s.size()), compute_s.size());
  return buffer;
}

TEST(QualificationTest, RejectsBadLimitsAndRetentionsAndQualifiesAnEmptyHistory) {
  EXPECT_EQ(testing::MessageOf<std::invalid_argument>(
                [] { AsyncWindowBuffer(Recorded().producer, 0, std::nullopt, 0); }),
            "statistics_retention_windows must be positive.");
  AsyncWindowBuffer buffer(Recorded().producer, 7);
  for (double limit : {0.0, -1.0, std::numeric_limits<double>::infinity(),
                       std::numeric_limits<double>::quiet_NaN()}) {
    EXPECT_EQ(testing::MessageOf<std::invalid_argument>([&] { buffer.Qualify(limit); }),
              "compute_fraction_limit must be finite and positive.");
  }
  const QualificationReport empty = buffer.Qualify(std::numeric_limits<double>::denorm_min());
  EXPECT_TRUE(empty.qualified);
  EXPECT_EQ(empty.prefill_windows, 7u);
  EXPECT_EQ(empty.total_windows, 0u);
  EXPECT_EQ(empty.min_margin_s, 0.0);  // not infinity
  EXPECT_EQ(buffer.Totals().total_windows, 0u);
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

// The report over a plain copy of the whole history, judging its last `reported` windows with
// the margins that the whole history gives them.
QualificationReport PlainReport(const std::vector<double>& comp, const std::vector<double>& dur,
                                std::size_t prefill, double limit, std::size_t reported) {
  QualificationReport report;
  report.compute_fraction_limit = limit;
  report.prefill_windows = prefill;
  report.total_windows = reported;
  if (reported == 0) return report;
  const std::size_t skip = comp.size() - reported;
  double credit = 0.0, played = 0.0, spent = 0.0;
  for (std::size_t i = 0; i < std::min(prefill, comp.size()); ++i) credit += comp[i];
  report.min_margin_s = std::numeric_limits<double>::infinity();
  report.max_compute_time_s = comp[skip];
  for (std::size_t i = 0; i < comp.size(); ++i) {
    played += dur[i];
    spent += comp[i];
    if (i < skip) continue;
    const double margin = (played + credit) - spent;
    report.min_margin_s = std::min(report.min_margin_s, margin);
    report.underrun_windows += margin < 0.0 ? 1 : 0;
    report.qualified = report.qualified && limit >= comp[i] / dur[i];
    report.max_compute_time_s = std::max(report.max_compute_time_s, comp[i]);
    report.total_compute_time_s += comp[i];
  }
  report.qualified = report.qualified && report.underrun_windows == 0;
  std::vector<double> s(comp.begin() + static_cast<std::ptrdiff_t>(skip), comp.end());
  std::sort(s.begin(), s.end());
  const double pos = 0.99 * static_cast<double>(s.size() - 1);
  const double frac = pos - std::floor(pos);
  report.p99_compute_time_s = std::fma(s[static_cast<std::size_t>(std::floor(pos))], 1.0 - frac,
                                       frac * s[static_cast<std::size_t>(std::ceil(pos))]);
  return report;
}

// Histories across several statistics chunks, with ties, with and without a retention, huge too.
TEST(QualificationTest, MatchesAPlainCopyOfTheHistoryToTheBit) {
  std::mt19937_64 random(20261122);
  std::uniform_real_distribution<double> compute(0.5, 1.5);
  std::uniform_int_distribution<std::size_t> length(1, 15000);
  for (int trial = 0; trial < 16; ++trial) {
    const std::size_t n = trial < 3 ? static_cast<std::size_t>(trial + 1) : length(random);
    const std::size_t prefill = random() % 20000;
    const std::optional<std::size_t> retention =
        trial % 2 == 0   ? std::nullopt
        : trial % 4 == 3 ? std::optional<std::size_t>(~std::size_t{0} - random() % 4096)  // all
                         : std::optional<std::size_t>(1 + random() % 5000);
    std::vector<double> comp(n), dur(n);
    std::vector<std::string> text(n);
    for (std::size_t i = 0; i < n; ++i) {
      comp[i] = std::round(compute(random) * 8.0) / 8.0;  // ties too
      text[i] = std::to_string(compute(random));
      dur[i] = std::stod(text[i]);
    }
    AsyncWindowBuffer buffer = BufferWithHistory(comp, text, prefill, retention);
    const QualificationReport got = buffer.Qualify(1.2);
    const QualificationReport want =
        PlainReport(comp, dur, prefill, 1.2, std::min(n, retention.value_or(n)));
    SCOPED_TRACE(::testing::Message() << "history of " << n << ", prefill " << prefill);
    EXPECT_EQ(got.qualified, want.qualified);
    EXPECT_EQ(got.prefill_windows, want.prefill_windows);
    EXPECT_EQ(got.max_compute_time_s, want.max_compute_time_s);
    EXPECT_EQ(got.p99_compute_time_s, want.p99_compute_time_s);
    EXPECT_EQ(got.min_margin_s, want.min_margin_s);
    EXPECT_EQ(got.underrun_windows, want.underrun_windows);
    EXPECT_EQ(got.total_windows, want.total_windows);
    EXPECT_EQ(got.total_compute_time_s, want.total_compute_time_s);
    // The totals cover the whole life, whatever was retained.
    const ProductionTotals totals = buffer.Totals();
    EXPECT_EQ(totals.total_windows, n);
    EXPECT_EQ(totals.total_compute_time_s, PlainReport(comp, dur, 0, 1.0, n).total_compute_time_s);
    EXPECT_EQ(totals.max_compute_time_s, *std::max_element(comp.begin(), comp.end()));
  }
}

// What a snapshot reads: what played before the retained windows, and in them, summed in order.
std::pair<double, double> Reads(const StatisticsSnapshot& snapshot) {
  double played_s = 0.0;
  snapshot.ForEachRetainedPlayed([&](double, double play_s, double) { played_s += play_s; });
  return {snapshot.PlayedBeforeRetained(), played_s};
}

// Windows recorded `records` at a time, up to 3 of the last `reach` discarded each time: every
// snapshot reads, to the bit, what a plain list folded at every change gives, and still does later.
// Catches an insertion out of order before a full block, a change writing over a block an earlier
// snapshot reads, and a fold counted twice or summed out of order.
TEST(QualificationTest, UnplayedWindowsReadAsAPlainListToTheBit) {
  const std::size_t cases[][3] = {{30, 8, SIZE_MAX}, {30, 3000, SIZE_MAX}, {12, 12000, 1}};
  for (const auto& [records, reach, retention] : cases) {
    SCOPED_TRACE(reach);
    std::mt19937_64 random(11);
    WindowStatistics statistics(0);
    statistics.RetainOnly(retention);
    std::vector<double> recorded;  // 0 once discarded
    UnplayedList plain;
    double folded_s = 0.0;
    StatisticsSnapshot earlier;
    std::pair<double, double> earlier_reads;
    while (recorded.size() < 12000) {
      for (std::size_t i = 0; i < records; ++i) {
        WindowStatistics::Growth growth = statistics.PrepareRecord();
        recorded.push_back(1e-3 * double(random() % 1000 + 1) / 7.0);
        statistics.Record(1.0, recorded.back(), growth);
      }
      UnplayedList picked;
      const std::size_t from = recorded.size() - std::min(recorded.size(), reach);
      for (std::size_t w = from + random() % (recorded.size() - from);
           w < recorded.size() && picked.size() < 3; w += 1 + random() % 2) {
        if (recorded[w] > 0.0) picked.push_back({w, std::exchange(recorded[w], 0.0)});
      }
      plain.insert(plain.end(), picked.begin(), picked.end());
      std::sort(plain.begin(), plain.end(), [](auto& a, auto& b) { return a.window < b.window; });
      for (auto first = statistics.Snapshot().first_retained;
           !plain.empty() && plain.front().window < first; plain.erase(plain.begin()))
        folded_s += plain.front().duration_s;
      UnplayedWindows next = statistics.PrepareUnplayed(statistics.CurrentUnplayed(), picked);
      statistics.MarkUnplayed(next);
      const StatisticsSnapshot now = statistics.Snapshot();
      double unplayed_s = folded_s;
      for (auto e = plain.begin(); e != plain.end() && e->window < now.first_retained; ++e)
        unplayed_s += e->duration_s;
      const double played_s = std::accumulate(recorded.begin() + std::ptrdiff_t(now.first_retained),
                                              recorded.end(), 0.0);
      EXPECT_EQ(Reads(now), std::make_pair(now.played_before_s - unplayed_s, played_s));
      EXPECT_EQ(Reads(earlier), earlier_reads);
      earlier = now, earlier_reads = Reads(now);
    }
  }
}

}  // namespace
}  // namespace corvane::control::window
