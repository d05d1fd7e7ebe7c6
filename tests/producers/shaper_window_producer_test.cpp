#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "window/producers.hpp"

namespace corvane::control::window {
namespace {

using ::testing::ElementsAre;

// What the producer did to a RecordingHandle, and what the handle answers. Shared with the test
// so that it outlives the handle, which the producer owns and deletes.
struct HandleLog {
  std::vector<std::string> calls;
  std::deque<std::optional<ShapedTrajectoryWindow>> polls;  // NextWindow answers; empty after
  bool has_more = true;
  std::map<std::string, int> failures;  // how many times a call throws before it succeeds

  void Record(const std::string& call) {
    calls.push_back(call);
    if (failures[call] > 0) {
      --failures[call];
      throw std::runtime_error(call + " failed");
    }
  }
  long Count(const std::string& call) const { return std::count(calls.begin(), calls.end(), call); }
};

class RecordingHandle : public TrajectoryWindowHandle {
 public:
  explicit RecordingHandle(std::shared_ptr<HandleLog> log) : log_(std::move(log)) {}
  ~RecordingHandle() override { log_->calls.push_back("delete"); }

  void Prepare() override { log_->Record("Prepare"); }
  void Advance(std::optional<std::size_t> steps) override {
    log_->Record("Advance(" + (steps ? std::to_string(*steps) : "none") + ")");
  }
  std::optional<ShapedTrajectoryWindow> NextWindow() override {
    log_->Record("NextWindow");
    if (log_->polls.empty()) {
      return std::nullopt;
    }
    std::optional<ShapedTrajectoryWindow> answer = std::move(log_->polls.front());
    log_->polls.pop_front();
    return answer;
  }
  bool HasMoreWindows() const override {
    log_->Record("HasMoreWindows");
    return log_->has_more;
  }
  void Cancel() override { log_->Record("Cancel"); }
  void Finalize() override { log_->Record("Finalize"); }

 private:
  std::shared_ptr<HandleLog> log_;
};

ShapedTrajectoryWindow MakeShaped(Eigen::Index rows, bool is_tail) {
  ShapedTrajectoryWindow window;
  window.positions = SampleMatrix::Constant(rows, 2, 1.0);
  window.velocities = SampleMatrix::Constant(rows, 2, 2.0);
  window.accelerations = SampleMatrix::Constant(rows, 2, 3.0);
  window.time_s = Eigen::VectorXd::LinSpaced(rows, 0.0, 0.1);
  window.start_index = 7;
  window.stop_index = 7 + static_cast<std::size_t>(rows);
  window.is_tail = is_tail;
  window.compute_time_s = 0.25;
  return window;
}

ShaperWindowProducer MakeProducer(const std::shared_ptr<HandleLog>& log) {
  return ShaperWindowProducer(std::make_unique<RecordingHandle>(log));
}

class ShaperWindowProducerTest : public ::testing::Test {
 protected:
  std::shared_ptr<HandleLog> log_ = std::make_shared<HandleLog>();
};

TEST_F(ShaperWindowProducerTest, NullHandleThrowsInvalidArgumentError) {
  try {
    ShaperWindowProducer producer(nullptr);
    FAIL() << "no exception";
  } catch (const corvane::native::InvalidArgumentError& error) {
    EXPECT_STREQ(error.what(), "ShaperWindowProducer requires a trajectory handle.");
    EXPECT_EQ(error.code(), corvane::native::ErrorCode::InvalidArgument);
    EXPECT_FALSE(error.detail().has_value());
  }
}

TEST_F(ShaperWindowProducerTest, PollsAdvancesOnceAndPollsOnceMore) {
  struct Case {
    const char* name;
    bool first_poll_ready;
    bool second_poll_ready;
    std::vector<std::string> calls;
  };
  const std::vector<std::string> retried = {"NextWindow", "Advance(1)", "NextWindow"};
  const Case cases[] = {
      {"first poll ready", true, false, {"NextWindow"}},
      {"second poll ready", false, true, retried},
      {"nothing ready", false, false, retried},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto log = std::make_shared<HandleLog>();
    log->polls = {std::nullopt, std::nullopt};
    if (c.first_poll_ready) log->polls[0] = MakeShaped(1, false);
    if (c.second_poll_ready) log->polls[1] = MakeShaped(1, false);
    ShaperWindowProducer producer = MakeProducer(log);

    const std::optional<WindowPayload> payload = producer.ProduceNext();

    EXPECT_EQ(payload.has_value(), c.first_poll_ready || c.second_poll_ready);
    EXPECT_EQ(log->calls, c.calls);
  }
}

TEST_F(ShaperWindowProducerTest, PayloadCarriesEveryArrayAndOnlyTheTailFlag) {
  struct Case {
    Eigen::Index rows;
    bool is_tail;
    const char* tail_text;
  };
  for (const Case& c : {Case{3, true, "true"}, Case{0, false, "false"}}) {
    SCOPED_TRACE(c.rows);
    const ShapedTrajectoryWindow shaped = MakeShaped(c.rows, c.is_tail);
    log_->polls = {shaped};
    ShaperWindowProducer producer = MakeProducer(log_);

    const std::optional<WindowPayload> payload = producer.ProduceNext();

    ASSERT_TRUE(payload.has_value());
    EXPECT_EQ(payload->positions, shaped.positions);
    ASSERT_TRUE(payload->velocities && payload->accelerations && payload->time_s);
    EXPECT_EQ(*payload->velocities, shaped.velocities);
    EXPECT_EQ(*payload->accelerations, shaped.accelerations);
    EXPECT_EQ(*payload->time_s, shaped.time_s);
    EXPECT_EQ(payload->start_index, shaped.start_index);
    EXPECT_EQ(payload->stop_index, shaped.stop_index);
    EXPECT_EQ(payload->compute_time_s, shaped.compute_time_s);
    const std::map<std::string, std::string> expected = {{"is_tail", c.tail_text}};
    EXPECT_EQ(payload->metadata, expected);
  }
}

TEST_F(ShaperWindowProducerTest, PrepareAndFinalizeReachTheHandleUntilOneCallSucceeds) {
  struct Step {
    const char* call;
    void (*run)(ShaperWindowProducer&);
  };
  const Step steps[] = {
      {"Prepare", [](ShaperWindowProducer& producer) { producer.PrepareSession(); }},
      {"Finalize", [](ShaperWindowProducer& producer) { EXPECT_FALSE(producer.Finalize()); }},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.call);
    auto log = std::make_shared<HandleLog>();
    log->failures[step.call] = 1;
    ShaperWindowProducer producer = MakeProducer(log);

    EXPECT_THROW(step.run(producer), std::runtime_error);
    step.run(producer);
    step.run(producer);

    EXPECT_EQ(log->Count(step.call), 2);
  }
}

TEST_F(ShaperWindowProducerTest, DestructorFinalizesAnUnfinalizedHandleOnceThenDeletesIt) {
  struct Case {
    const char* name;
    bool finalized_before;
    int finalize_failures;
  };
  const Case cases[] = {
      {"never finalized", false, 0},
      {"Finalize throws in the destructor", false, 1},
      {"already finalized", true, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto log = std::make_shared<HandleLog>();
    log->failures["Finalize"] = c.finalize_failures;
    {
      ShaperWindowProducer producer = MakeProducer(log);
      if (c.finalized_before) producer.Finalize();
    }
    EXPECT_THAT(log->calls, ElementsAre("Finalize", "delete"));
  }
}

TEST_F(ShaperWindowProducerTest, MovesHandTheHandleOverAndDropTheOldOneUnfinalized) {
  auto old_log = std::make_shared<HandleLog>();
  {
    ShaperWindowProducer target = MakeProducer(old_log);
    ShaperWindowProducer source = MakeProducer(log_);
    ShaperWindowProducer moved(std::move(source));
    ShaperWindowProducer& alias = moved;
    moved = std::move(alias);  // keeps the handle
    target = std::move(moved);
    EXPECT_THAT(old_log->calls, ElementsAre("delete"));
    target.PrepareSession();
  }
  // One handle, finalized and deleted once: the moved-from producers hold nothing.
  EXPECT_THAT(log_->calls, ElementsAre("Prepare", "Finalize", "delete"));
}

TEST_F(ShaperWindowProducerTest, IsExhaustedAsksTheHandleEveryTime) {
  ShaperWindowProducer producer = MakeProducer(log_);
  for (bool has_more : {true, false, true}) {
    log_->has_more = has_more;
    EXPECT_EQ(producer.IsExhausted(), !has_more);
  }
  EXPECT_EQ(log_->Count("HasMoreWindows"), 3);
}

}  // namespace
}  // namespace corvane::control::window
