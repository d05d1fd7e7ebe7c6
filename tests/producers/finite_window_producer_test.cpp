#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "window/producers.hpp"

namespace corvane::control::window {
namespace {

// A valid window of `rows` samples starting at global index `start`, tagged with its start.
WindowPayload MakeWindow(std::size_t start, Eigen::Index rows = 2) {
  WindowPayload window;
  window.positions = SampleMatrix::Constant(rows, 3, static_cast<double>(start));
  window.velocities = SampleMatrix::Zero(rows, 3);
  window.time_s = Eigen::VectorXd::LinSpaced(rows, 0.0, 1.0);
  window.start_index = start;
  window.stop_index = start + static_cast<std::size_t>(rows);
  window.compute_time_s = 0.5;
  window.metadata = {{"id", std::to_string(start)}};
  return window;
}

void ExpectSameWindow(const std::optional<WindowPayload>& actual, const WindowPayload& expected) {
  ASSERT_TRUE(actual.has_value());
  EXPECT_EQ(actual->positions, expected.positions);
  EXPECT_EQ(actual->velocities, expected.velocities);
  EXPECT_EQ(actual->accelerations, expected.accelerations);
  EXPECT_EQ(actual->time_s, expected.time_s);
  EXPECT_EQ(actual->start_index, expected.start_index);
  EXPECT_EQ(actual->stop_index, expected.stop_index);
  EXPECT_EQ(actual->compute_time_s, expected.compute_time_s);
  EXPECT_EQ(actual->metadata, expected.metadata);
}

template <typename Exception>
void ExpectThrowsWithMessage(const std::function<void()>& call, const std::string& message) {
  try {
    call();
    ADD_FAILURE() << "no exception, expected: " << message;
  } catch (const Exception& error) {
    EXPECT_EQ(error.what(), message);
  }
}

TEST(FiniteWindowProducerTest, ReplaysMainlineThenDrainsTailWithExactCopies) {
  const std::vector<WindowPayload> mainline = {MakeWindow(0), MakeWindow(2), MakeWindow(4)};
  const std::vector<WindowPayload> tail = {MakeWindow(6), MakeWindow(8, 0)};
  FiniteWindowProducer producer(mainline, tail);
  producer.PrepareSession();

  for (const WindowPayload& expected : mainline) {
    EXPECT_FALSE(producer.IsExhausted());
    ExpectSameWindow(producer.ProduceNext(), expected);
  }
  EXPECT_TRUE(producer.IsExhausted());
  EXPECT_FALSE(producer.ProduceNext().has_value());
  for (const WindowPayload& expected : tail) {
    ExpectSameWindow(producer.Finalize(), expected);
  }
  EXPECT_FALSE(producer.Finalize().has_value());
  EXPECT_FALSE(producer.Finalize().has_value());
}

TEST(FiniteWindowProducerTest, LifecycleMisuseThrowsRuntimeError) {
  FiniteWindowProducer unprepared({}, {});
  EXPECT_TRUE(unprepared.IsExhausted());  // needs no preparation
  ExpectThrowsWithMessage<std::runtime_error>([&] { unprepared.ProduceNext(); },
                                              "PrepareSession() must run before ProduceNext().");
  // Even with nothing left to produce, the missing preparation is what gets reported.
  ExpectThrowsWithMessage<std::runtime_error>([&] { unprepared.Finalize(); },
                                              "PrepareSession() must run before Finalize().");

  FiniteWindowProducer producing({MakeWindow(0)}, {});
  producing.PrepareSession();
  ExpectThrowsWithMessage<std::runtime_error>(
      [&] { producing.Finalize(); }, "Finalize() requires an exhausted mainline sequence.");
  ExpectThrowsWithMessage<std::runtime_error>([&] { producing.PrepareSession(); },
                                              "FiniteWindowProducer may only be prepared once.");
  // Neither error disturbed the replay.
  ExpectSameWindow(producing.ProduceNext(), MakeWindow(0));
  EXPECT_FALSE(producing.Finalize().has_value());
}

TEST(FiniteWindowProducerTest, ConstructorReportsTheFirstInvalidWindowInReplayOrder) {
  WindowPayload negative_compute = MakeWindow(0);
  negative_compute.compute_time_s = -1.0;
  WindowPayload bad_range = MakeWindow(0);
  bad_range.stop_index = 10;
  struct Case {
    const char* name;
    std::vector<WindowPayload> mainline;
    std::vector<WindowPayload> tail;
    const char* message;
  };
  const Case cases[] = {
      {"bad tail window",
       {MakeWindow(0)},
       {MakeWindow(2), negative_compute},
       "compute_time_s must be finite and non-negative."},
      {"mainline checked before tail",
       {MakeWindow(0), bad_range},
       {negative_compute},
       "The global half-open range must match the position row count."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ExpectThrowsWithMessage<std::invalid_argument>(
        [&] { FiniteWindowProducer producer(c.mainline, c.tail); }, c.message);
  }
}

TEST(FiniteWindowProducerTest, MovesCarryTheReplayPosition) {
  FiniteWindowProducer original({MakeWindow(0), MakeWindow(2)}, {MakeWindow(4)});
  original.PrepareSession();
  ExpectSameWindow(original.ProduceNext(), MakeWindow(0));

  FiniteWindowProducer moved(std::move(original));
  FiniteWindowProducer& alias = moved;
  moved = std::move(alias);
  ExpectSameWindow(moved.ProduceNext(), MakeWindow(2));

  FiniteWindowProducer assigned({MakeWindow(10)}, {});
  assigned = std::move(moved);
  EXPECT_TRUE(assigned.IsExhausted());
  ExpectSameWindow(assigned.Finalize(), MakeWindow(4));
}

}  // namespace
}  // namespace corvane::control::window
