#include <functional>
#include <future>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/detached_call.hpp"
#include "support/follow_reference_solver.hpp"
#include "support/scripted_producer.hpp"
#include "window/producers.hpp"
#include "window/reference_buffer.hpp"

namespace corvane::control::window {
namespace {

using Call = std::function<void()>;
using Metadata = std::map<std::string, std::string>;

template <typename Error>
::testing::Matcher<Call> Throws(const std::string& message) {
  return ::testing::ThrowsMessage<Error>(::testing::StrEq(message));
}

// What a solver that follows the reference answers, with `extra_rows` more rows and a range
// `short_stop` shorter, and metadata of its own, one key of which the producer must replace.
WindowPayload Answer(const WindowSlice& request, Eigen::Index extra_rows = 0, int short_stop = 0) {
  WindowPayload answer = testing::FollowReference(request, extra_rows);
  answer.stop_index -= std::size_t(short_stop);
  answer.compute_time_s = 0.25;
  answer.metadata = {{"solver", "kept"}, {"sample_time_s", "9"}};
  return answer;
}

// Records each request and answers with Answer; on deletion, tells the reference's owner count.
class MockSolver : public LiftedMpcSolveSession {
 public:
  MockSolver() {
    ON_CALL(*this, Solve).WillByDefault([this](const WindowSlice& request) {
      requests.push_back(request);
      return Answer(request);
    });
  }
  ~MockSolver() override { Deleted(reference.use_count()); }
  MOCK_METHOD(void, Prepare, (), (override));
  MOCK_METHOD(WindowPayload, Solve, (const WindowSlice&), (override));
  MOCK_METHOD(void, Finalize, (), (override));
  MOCK_METHOD(void, Deleted, (long reference_owners));
  std::vector<WindowSlice> requests;
  std::weak_ptr<AppendableReferenceBuffer> reference;
};

// A producer with a period of 0.01 s over an open reference of `samples` samples of two joints,
// sample i being (i, -i), of which the test keeps its own share.
struct Harness {
  Harness(Eigen::Index samples, std::size_t apply, std::size_t lookahead, std::size_t start = 100)
      : producer(std::unique_ptr<LiftedMpcSolveSession>(solver), reference, apply, lookahead, 0.01,
                 start) {
    const Eigen::VectorXd ramp = Eigen::VectorXd::LinSpaced(samples, 0, double(samples - 1));
    if (samples > 0)
      reference->AppendReference((SampleMatrix(samples, 2) << ramp, -ramp).finished());
    solver->reference = reference;
  }
  std::shared_ptr<AppendableReferenceBuffer> reference =
      std::make_shared<AppendableReferenceBuffer>(2);
  ::testing::NiceMock<MockSolver>* solver = new ::testing::NiceMock<MockSolver>;
  AppendableLiftedMpcWindowProducer producer;
};

// Apply 5, lookahead 20, global start 100, a reference of 12 samples, cursor 10.
TEST(AppendableLiftedMpcWindowProducer, WorkedExampleHoldsAnOpenReferenceAndShortensAFinishedOne) {
  for (const bool finished : {false, true}) {
    Harness h(12, 5, 20);
    h.producer.PrepareSession();
    for (int i = 0; i < 2; ++i) h.producer.ProduceNext();
    EXPECT_EQ(h.reference->available_samples(), 12u);  // no hold while 5 samples remain
    if (finished) h.reference->Finish();
    // Guarded aborts the run should the call hang, so the call may use the test's locals.
    const auto window = testing_support::Guarded([&] { return h.producer.ProduceNext(); });
    const std::size_t applied = finished ? 2 : 5;
    const std::string padding = finished ? "18" : "15";
    const WindowSlice& request = h.solver->requests.back();
    // Sample 10, then sample 11, held (open) or padded (finished) to the end of the lookahead.
    const Eigen::VectorXd col =
        (Eigen::VectorXd(20) << 10, Eigen::VectorXd::Constant(19, 11)).finished();
    EXPECT_EQ(request.positions, (SampleMatrix(20, 2) << col, -col).finished());
    EXPECT_EQ(request.start_index, 10u);
    EXPECT_EQ(request.stop_index, 30u);
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
    EXPECT_EQ(h.reference->available_samples(), 10u + applied);
    h.reference->Finish();
    EXPECT_TRUE(h.producer.IsExhausted());  // so the cursor is 10 + applied
    EXPECT_FALSE(h.producer.ProduceNext().has_value());
  }
}

TEST(AppendableLiftedMpcWindowProducer, ConstructorChecksPointersThenWindowSizesThenPeriod) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  const std::string null = "solve_session and reference_buffer must not be null.";
  const std::string sizes = "lookahead_samples must be at least one apply window.";
  const std::string period = "sample_time_s must be finite and positive.";
  const std::string retention =
      "reference_buffer retention_samples must be at least apply_samples (20), not 19.";
  // solver given, reference given (retaining 19), apply samples (of 20), sample time, message
  const std::tuple<bool, bool, std::size_t, double, std::string> cases[] = {
      {false, true, 5, 0.01, null},  {true, false, 0, nan, null},  {true, true, 0, nan, sizes},
      {true, true, 21, 0.01, sizes}, {true, true, 5, 0.0, period}, {true, true, 5, -0.01, period},
      {true, true, 5, nan, period},  {true, true, 5, inf, period}, {true, true, 20, 1, retention}};
  for (const auto& [with_solver, with_reference, apply, sample_time_s, message] : cases) {
    auto solver = std::make_unique<::testing::StrictMock<MockSolver>>();
    EXPECT_CALL(*solver, Deleted(0));  // not leaked when the constructor throws
    auto reference = with_reference ? std::make_shared<AppendableReferenceBuffer>(2, 19) : nullptr;
    EXPECT_THAT(
        [&] {
          AppendableLiftedMpcWindowProducer(with_solver ? std::move(solver) : nullptr, reference,
                                            apply, 20, sample_time_s, 0);
        },
        Throws<std::invalid_argument>(message));
  }
  EXPECT_NO_THROW(Harness(1, 20, 20));
}

// Over a retention of 4 with apply 4, the caller stays at most 4 samples ahead of the cursor: an
// append or a hold that would drop a sample not read yet throws, and the stream goes on.
TEST(AppendableLiftedMpcWindowProducer, ARetentionNeverDropsSamplesNotReadYet) {
  const auto reference = std::make_shared<AppendableReferenceBuffer>(1, 4);
  AppendableLiftedMpcWindowProducer producer(std::make_unique<testing::FollowReferenceSolver>(),
                                             reference, 4, 8, 0.01, 0);
  producer.PrepareSession();
  reference->AppendReference(SampleMatrix::Zero(3, 1));
  EXPECT_THROW(reference->ExtendHoldTo(5), std::runtime_error);
  EXPECT_EQ(producer.ProduceNext()->stop_index, 4u);  // sample 2 held once
  EXPECT_EQ(reference->appendable_samples(), 4u);
  EXPECT_THAT([&] { reference->AppendReference(SampleMatrix::Zero(5, 1)); },
              Throws<std::runtime_error>(
                  "command would drop reference sample 4, which has not been read yet."));
  reference->AppendReference(SampleMatrix::Zero(4, 1));
  EXPECT_EQ(producer.ProduceNext()->stop_index, 8u);
}

// Only the first sample (or the end of an empty reference) is waited for, then the last sample
// is held. The solver appends while it solves, which deadlocks should a lock be held around it.
TEST(AppendableLiftedMpcWindowProducer, WaitsOnlyForTheFirstSampleAndSolvesOutsideTheLock) {
  for (const bool append : {true, false}) {
    auto h = std::make_shared<Harness>(0, 3, 4);
    ON_CALL(*h->solver, Solve).WillByDefault([reference = h->reference.get()](const auto& r) {
      reference->AppendReference(SampleMatrix{{7, 7}});
      return Answer(r);
    });
    h->producer.PrepareSession();
    auto started = std::make_shared<std::promise<void>>();
    std::future<void> waiting = started->get_future();
    auto window = testing_support::StartDetached([h, started] {
      started->set_value();
      return h->producer.ProduceNext();
    });
    waiting.wait();
    append ? void(h->reference->AppendReference(SampleMatrix{{1, 2}})) : h->reference->Finish();
    ASSERT_TRUE(testing_support::ReadyInTime(window));
    EXPECT_EQ(window.get().has_value(), append);
    EXPECT_EQ(h->reference->available_samples(), append ? 4u : 0u);  // 1, 2 held, 1
    EXPECT_EQ(h->producer.IsExhausted(), !append);
  }
}

// The answer is validated as it came back, before its row count is compared; the cursor stays.
TEST(AppendableLiftedMpcWindowProducer, BadAnswersFailAndTheNextCallAsksForTheSameWindow) {
  const std::pair<::testing::Action<WindowPayload(const WindowSlice&)>, ::testing::Matcher<Call>>
      cases[] = {{[](const WindowSlice& r) { return Answer(r, 1); },
                  Throws<std::runtime_error>(
                      "Lifted MPC solve output must match the requested apply count.")},
                 {[](const WindowSlice& r) { return Answer(r, 1, 1); },
                  Throws<std::invalid_argument>(
                      "The global half-open range must match the position row count.")},
                 {::testing::Throw(std::domain_error("solver failed")),
                  Throws<std::domain_error>("solver failed")}};
  for (const auto& [bad_answer, error] : cases) {
    Harness h(12, 5, 8);
    h.producer.PrepareSession();
    h.producer.ProduceNext();
    EXPECT_CALL(*h.solver, Solve(::testing::Field(&WindowSlice::start_index, 5u)))
        .WillOnce(bad_answer)
        .WillOnce([](const WindowSlice& r) { return Answer(r); });
    EXPECT_THAT([&] { h.producer.ProduceNext(); }, error);
    EXPECT_EQ(h.producer.ProduceNext()->start_index, 105u);
  }
}

// Preparation is checked before anything is waited for. Prepare() and Finalize() reach the
// solver until one call returns, Prepare() never again.
TEST(AppendableLiftedMpcWindowProducer, PrepareAndFinalizeReachTheSolverUntilOneCallReturns) {
  Harness h(0, 1, 2);  // empty and open: waiting on it would block
  EXPECT_CALL(*h.solver, Prepare())
      .WillOnce(::testing::Throw(std::runtime_error("Prepare failed")))
      .WillOnce(::testing::Return());
  EXPECT_CALL(*h.solver, Finalize())
      .WillOnce(::testing::Throw(std::runtime_error("Finalize failed")))
      .WillOnce(::testing::Return());
  // The message is taken on the guarded thread: only a plain string crosses to this one.
  EXPECT_EQ(testing_support::Guarded([&] {
              return testing::MessageOf<std::runtime_error>([&] { h.producer.ProduceNext(); });
            }),
            "PrepareSession() must run before ProduceNext().");
  EXPECT_THAT([&] { h.producer.PrepareSession(); }, Throws<std::runtime_error>("Prepare failed"));
  h.producer.PrepareSession();
  EXPECT_THAT(
      [&] { h.producer.PrepareSession(); },
      Throws<std::runtime_error>("AppendableLiftedMpcWindowProducer may only be prepared once."));
  EXPECT_THAT([&] { h.producer.Finalize(); }, Throws<std::runtime_error>("Finalize failed"));
  EXPECT_FALSE(h.producer.Finalize().has_value());
  EXPECT_FALSE(h.producer.Finalize().has_value());  // nor again in the destructor
}

// The destructor finalizes only a prepared, unfinalized solver, swallowing its failure; it
// releases the reference before the solver.
TEST(AppendableLiftedMpcWindowProducer, DestructorFinalizesOnlyAPreparedUnfinalizedSolver) {
  // PrepareSession() called, Finalize() called, calls of the solver's Finalize()
  const std::tuple<bool, bool, int> cases[] = {
      {false, false, 0}, {true, false, 1}, {false, true, 1}, {true, true, 1}};
  for (const auto& [prepare, finalize, calls] : cases) {
    Harness h(3, 1, 2);
    EXPECT_CALL(*h.solver, Finalize()).Times(calls);
    EXPECT_CALL(*h.solver, Deleted(1));
    if (prepare) h.producer.PrepareSession();
    if (finalize) h.producer.Finalize();
    ON_CALL(*h.solver, Finalize())
        .WillByDefault(::testing::Throw(std::runtime_error("in destructor")));
  }
}

TEST(AppendableLiftedMpcWindowProducer, MovesHandOverTheSessionAndDropTheOldOneUnfinalized) {
  Harness target(12, 5, 8), source(12, 5, 8, 0);
  EXPECT_CALL(*target.solver, Finalize()).Times(0);
  EXPECT_CALL(*target.solver, Deleted(1));
  EXPECT_CALL(*source.solver, Finalize());
  target.producer.PrepareSession();
  source.producer.PrepareSession();
  source.producer.ProduceNext();
  AppendableLiftedMpcWindowProducer& alias = target.producer;
  target.producer = std::move(alias);  // keeps its state
  EXPECT_FALSE(target.producer.IsExhausted());
  target.producer = std::move(source.producer);
  AppendableLiftedMpcWindowProducer moved(std::move(target.producer));
  EXPECT_EQ(moved.ProduceNext()->start_index, 5u);  // the source's cursor and global start
}

}  // namespace
}  // namespace corvane::control::window
