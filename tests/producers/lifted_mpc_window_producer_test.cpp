#include <algorithm>
#include <functional>
#include <future>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/detached_call.hpp"
#include "window/producers.hpp"
#include "window/reference_buffer.hpp"

namespace corvane::control::window {
namespace {

using Metadata = std::map<std::string, std::string>;
using Call = std::function<void()>;

template <typename Error>
testing::Matcher<Call> Throws(const std::string& message) {
  return testing::ThrowsMessage<Error>(testing::StrEq(message));
}

// What the solver double saw; shared with the test, so it outlives the solver.
struct SolverLog {
  std::vector<WindowSlice> requests;
  int prepare_calls = 0, finalize_calls = 0;
  std::string failing_call;  // "Prepare" or "Finalize" throws while named here
  std::function<void(WindowPayload&)> spoil = [](WindowPayload&) {};
  std::weak_ptr<AppendableReferenceBuffer> reference;
  bool deleted = false, reference_released_first = false;
};

// Answers with the first "apply_samples" rows of the request over [0, rows), with metadata of
// its own, one key of which the producer must replace.
class RecordingSolver : public LiftedMpcSolveSession {
 public:
  explicit RecordingSolver(std::shared_ptr<SolverLog> log) : log_(std::move(log)) {}
  ~RecordingSolver() override {
    log_->deleted = true;
    log_->reference_released_first = log_->reference.use_count() == 1;
  }
  void Prepare() override { Record(log_->prepare_calls, "Prepare"); }
  void Finalize() override { Record(log_->finalize_calls, "Finalize"); }
  WindowPayload Solve(const WindowSlice& request) override {
    log_->requests.push_back(request);
    WindowPayload answer;
    answer.stop_index = std::stoul(request.metadata.at("apply_samples"));
    answer.positions = request.positions.topRows(Eigen::Index(answer.stop_index));
    answer.compute_time_s = 0.25;
    answer.metadata = {{"solver", "kept"}, {"sample_time_s", "9"}};
    log_->spoil(answer);
    return answer;
  }

 private:
  void Record(int& calls, const char* call) {
    ++calls;
    if (log_->failing_call == call) throw std::runtime_error(std::string(call) + " failed");
  }
  std::shared_ptr<SolverLog> log_;
};

// A reference of `count` samples of two joints, open; sample i is (i, -i).
std::shared_ptr<AppendableReferenceBuffer> ReferenceOf(Eigen::Index count) {
  auto reference = std::make_shared<AppendableReferenceBuffer>(2);
  const Eigen::VectorXd ramp = Eigen::VectorXd::LinSpaced(count, 0, double(count - 1));
  reference->AppendReference((SampleMatrix(count, 2) << ramp, -ramp).finished());
  return reference;
}

// A producer with a period of 0.01 s; the test keeps its own share of the reference.
struct Harness {
  std::shared_ptr<SolverLog> log = std::make_shared<SolverLog>();
  std::shared_ptr<AppendableReferenceBuffer> reference;
  AppendableLiftedMpcWindowProducer producer;

  Harness(std::shared_ptr<AppendableReferenceBuffer> ref, std::size_t apply, std::size_t lookahead,
          std::size_t global_start = 100)
      : reference(ref),
        producer(std::make_unique<RecordingSolver>(log), ref, apply, lookahead, 0.01,
                 global_start) {
    log->reference = ref;
  }
};

// Apply 5, lookahead 20, global start 100, a reference of 12 samples, cursor 10.
TEST(AppendableLiftedMpcWindowProducer, WorkedExampleHoldsAnOpenReferenceAndShortensAFinishedOne) {
  for (const bool finished : {false, true}) {
    Harness harness(ReferenceOf(12), 5, 20);
    harness.producer.PrepareSession();
    harness.producer.ProduceNext();
    harness.producer.ProduceNext();
    EXPECT_EQ(harness.reference->available_samples(), 12u);  // no hold while 5 samples remain
    if (finished) harness.reference->Finish();
    const std::optional<WindowPayload> window = harness.producer.ProduceNext();
    const std::size_t applied = finished ? 2 : 5;
    const std::string padding = finished ? "18" : "15";

    const WindowSlice& request = harness.log->requests.back();
    EXPECT_EQ(request.start_index, 10u);
    EXPECT_EQ(request.stop_index, 30u);
    // Sample 10, then sample 11, held (open) or padded (finished) to the end of the lookahead.
    EXPECT_EQ(request.positions.col(0),
              (Eigen::VectorXd(20) << 10, Eigen::VectorXd::Constant(19, 11)).finished());
    EXPECT_EQ(request.positions.col(1), -request.positions.col(0));
    EXPECT_FALSE(request.velocities || request.accelerations || request.time_s);
    EXPECT_EQ(request.metadata, (Metadata{{"apply_samples", std::to_string(applied)},
                                          {"terminal_padding_samples", padding}}));

    ASSERT_TRUE(window.has_value());
    EXPECT_EQ(window->start_index, 110u);
    EXPECT_EQ(window->stop_index, 110u + applied);
    EXPECT_EQ(window->positions, request.positions.topRows(Eigen::Index(applied)));
    EXPECT_EQ(window->compute_time_s, 0.25);
    EXPECT_EQ(window->metadata, (Metadata{{"sample_time_s", "0.010000"},
                                          {"solver", "kept"},
                                          {"terminal_padding_samples", padding}}));
    EXPECT_EQ(harness.reference->available_samples(), 10u + applied);
    harness.reference->Finish();
    EXPECT_TRUE(harness.producer.IsExhausted());  // so the cursor is 10 + applied
    EXPECT_FALSE(harness.producer.ProduceNext().has_value());
  }
}

TEST(AppendableLiftedMpcWindowProducer, ConstructorChecksPointersThenWindowSizesThenPeriod) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  const std::string null = "solve_session and reference_buffer must not be null.";
  const std::string sizes = "lookahead_samples must be at least one apply window.";
  const std::string period = "sample_time_s must be finite and positive.";
  const struct {
    bool solver, reference;
    std::size_t apply;
    double sample_time_s;
    std::string message;
  } cases[] = {{false, true, 5, 0.01, null}, {true, false, 0, nan, null},
               {true, true, 0, nan, sizes},  {true, true, 21, 0.01, sizes},
               {true, true, 5, 0.0, period}, {true, true, 5, -0.01, period},
               {true, true, 5, nan, period}, {true, true, 5, inf, period}};
  for (const auto& c : cases) {
    auto log = std::make_shared<SolverLog>();
    EXPECT_THAT(
        [&] {
          AppendableLiftedMpcWindowProducer(
              c.solver ? std::make_unique<RecordingSolver>(log) : nullptr,
              c.reference ? ReferenceOf(1) : nullptr, c.apply, 20, c.sample_time_s, 0);
        },
        Throws<std::invalid_argument>(c.message));
    EXPECT_EQ(log->deleted, c.solver);
  }
  EXPECT_NO_THROW(Harness(ReferenceOf(1), 20, 20));
}

TEST(AppendableLiftedMpcWindowProducer, MustBePreparedExactlyOnceBeforeProducing) {
  // An empty, open reference: waiting on it before preparation would block.
  auto harness = std::make_shared<Harness>(std::make_shared<AppendableReferenceBuffer>(2), 2, 4);
  auto early = testing_support::StartDetached([harness] { harness->producer.ProduceNext(); });
  ASSERT_TRUE(testing_support::ReadyInTime(early));
  EXPECT_THAT([&] { early.get(); },
              Throws<std::runtime_error>("PrepareSession() must run before ProduceNext()."));
  harness->log->failing_call = "Prepare";
  EXPECT_THAT([&] { harness->producer.PrepareSession(); },
              Throws<std::runtime_error>("Prepare failed"));
  harness->log->failing_call = "";
  harness->producer.PrepareSession();  // a failed preparation may be retried
  EXPECT_THAT(
      [&] { harness->producer.PrepareSession(); },
      Throws<std::runtime_error>("AppendableLiftedMpcWindowProducer may only be prepared once."));
  EXPECT_EQ(harness->log->prepare_calls, 2);
  EXPECT_TRUE(harness->log->requests.empty());
}

// The producer waits for the first sample (or the end of an empty reference), then holds. Its
// solver appends while it solves, which must not deadlock: no lock is held around the solver.
TEST(AppendableLiftedMpcWindowProducer, WaitsOnlyForTheFirstSampleAndSolvesOutsideTheLock) {
  for (const bool append : {true, false}) {
    auto harness = std::make_shared<Harness>(std::make_shared<AppendableReferenceBuffer>(2), 3, 4);
    harness->log->spoil = [reference = harness->reference.get()](WindowPayload&) {
      reference->AppendReference(SampleMatrix{{7, 7}});
    };
    harness->producer.PrepareSession();
    auto started = std::make_shared<std::promise<void>>();
    std::future<void> waiting = started->get_future();
    auto window = testing_support::StartDetached([harness, started] {
      started->set_value();
      return harness->producer.ProduceNext();
    });
    waiting.wait();
    append ? void(harness->reference->AppendReference(SampleMatrix{{1, 2}}))
           : harness->reference->Finish();
    ASSERT_TRUE(testing_support::ReadyInTime(window));
    EXPECT_EQ(window.get().has_value(), append);
    EXPECT_EQ(harness->reference->available_samples(), append ? 4u : 0u);  // 1, 2 held, 1
    EXPECT_EQ(harness->producer.IsExhausted(), !append);
  }
}

TEST(AppendableLiftedMpcWindowProducer, WindowsTileTheGlobalIndexLine) {
  Harness harness(ReferenceOf(23), 5, 8, 7);
  harness.reference->Finish();
  harness.producer.PrepareSession();
  std::size_t next = 7;
  while (!harness.producer.IsExhausted()) {
    const std::optional<WindowPayload> window = harness.producer.ProduceNext();
    ASSERT_TRUE(window.has_value());
    EXPECT_EQ(window->start_index, next);
    next = window->stop_index;
  }
  EXPECT_EQ(next, 30u);
  for (const WindowSlice& request : harness.log->requests) {
    const std::size_t padding = std::max<std::size_t>(request.stop_index, 23) - 23;
    EXPECT_EQ(request.metadata.at("terminal_padding_samples"), std::to_string(padding));
  }
}

// The answer is validated as it came back, before its row count is compared.
TEST(AppendableLiftedMpcWindowProducer, BadAnswersFailAndTheNextCallAsksForTheSameWindow) {
  const auto add_row = [](WindowPayload& w) { w.positions.conservativeResize(6, Eigen::NoChange); };
  const std::pair<std::function<void(WindowPayload&)>, testing::Matcher<Call>> cases[] = {
      {[&](WindowPayload& w) { add_row(w), ++w.stop_index; },
       Throws<std::runtime_error>("Lifted MPC solve output must match the requested apply count.")},
      {add_row, Throws<std::invalid_argument>(
                    "The global half-open range must match the position row count.")},
      {[](WindowPayload&) { throw std::domain_error("solver failed"); },
       Throws<std::domain_error>("solver failed")},
  };
  for (const auto& [spoil, error] : cases) {
    Harness harness(ReferenceOf(12), 5, 8);
    harness.producer.PrepareSession();
    harness.producer.ProduceNext();
    harness.log->spoil = spoil;
    EXPECT_THAT([&] { harness.producer.ProduceNext(); }, error);
    harness.log->spoil = [](WindowPayload&) {};
    EXPECT_EQ(harness.producer.ProduceNext()->start_index, 105u);
    EXPECT_EQ(harness.log->requests.at(1).start_index, harness.log->requests.at(2).start_index);
  }
}

// Finalize() runs the solver's at most once after it returned normally; the destructor does so
// only for a prepared session and swallows its failure; the reference is released first.
TEST(AppendableLiftedMpcWindowProducer, SolverIsFinalizedOnceAndOnlyWhenPrepared) {
  const struct {
    bool prepare;
    int explicit_calls;
    bool first_call_fails;
    int expected_calls;
  } cases[] = {{false, 0, false, 0},
               {true, 0, false, 1},
               {true, 2, false, 1},
               {false, 1, false, 1},
               {true, 2, true, 2}};
  for (const auto& c : cases) {
    auto log = std::make_shared<SolverLog>();
    {
      Harness harness(ReferenceOf(3), 1, 2);
      log = harness.log;
      if (c.prepare) harness.producer.PrepareSession();
      log->failing_call = c.first_call_fails ? "Finalize" : "";
      for (int i = 0; i < c.explicit_calls; ++i) {
        if (i == 0 && c.first_call_fails) {
          EXPECT_THAT([&] { harness.producer.Finalize(); },
                      Throws<std::runtime_error>("Finalize failed"));
        } else {
          EXPECT_FALSE(harness.producer.Finalize().has_value());
        }
        log->failing_call = "";
      }
      log->failing_call = "Finalize";
    }
    EXPECT_EQ(log->finalize_calls, c.expected_calls);
    EXPECT_TRUE(log->deleted && log->reference_released_first);
  }
}

TEST(AppendableLiftedMpcWindowProducer, MovesHandOverTheSessionAndDropTheOldOneUnfinalized) {
  Harness target(ReferenceOf(12), 5, 8), source(ReferenceOf(12), 5, 8, 0);
  target.producer.PrepareSession();
  source.producer.PrepareSession();
  source.producer.ProduceNext();
  {
    AppendableLiftedMpcWindowProducer& alias = target.producer;
    target.producer = std::move(alias);  // keeps its state
    target.producer = std::move(source.producer);
    EXPECT_TRUE(target.log->deleted && target.log->reference_released_first);
    EXPECT_EQ(target.log->finalize_calls, 0);
    AppendableLiftedMpcWindowProducer moved(std::move(target.producer));
    EXPECT_EQ(moved.ProduceNext()->start_index, 5u);  // the source's cursor and global start
  }
  EXPECT_EQ(source.log->finalize_calls, 1);
}

}  // namespace
}  // namespace corvane::control::window
