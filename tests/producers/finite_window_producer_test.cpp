#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "window/producers.hpp"

namespace corvane::control::window {
namespace {

using Call = std::function<void()>;

template <typename Error>
testing::Matcher<Call> Throws(const std::string& message) {
  return testing::ThrowsMessage<Error>(testing::StrEq(message));
}

// A valid window of `rows` samples starting at global index `start`, tagged with its start.
WindowPayload MakeWindow(std::size_t start, Eigen::Index rows = 2) {
  WindowPayload window;
  window.positions = SampleMatrix::Constant(rows, 3, double(start));
  window.velocities = SampleMatrix::Zero(rows, 3);
  window.time_s = Eigen::VectorXd::LinSpaced(rows, 0.0, 1.0);
  window.start_index = start;
  window.stop_index = start + std::size_t(rows);
  window.compute_time_s = 0.5;
  window.metadata = {{"id", std::to_string(start)}};
  return window;
}

// Every field equal; the tag comes first, so arrays of different shapes are never compared.
bool Same(const std::optional<WindowPayload>& actual, const WindowPayload& expected) {
  const auto fields = [](const WindowPayload& w) {
    return std::tie(w.metadata, w.start_index, w.stop_index, w.compute_time_s, w.positions,
                    w.velocities, w.accelerations, w.time_s);
  };
  return actual.has_value() && fields(*actual) == fields(expected);
}

// Moves, a self-move included, carry the replay position along.
TEST(FiniteWindowProducerTest, ReplaysMainlineThenDrainsTailWithExactCopiesAcrossMoves) {
  const std::vector<WindowPayload> mainline = {MakeWindow(0), MakeWindow(2), MakeWindow(4)};
  FiniteWindowProducer original(mainline, {MakeWindow(6), MakeWindow(8, 0)});
  original.PrepareSession();
  EXPECT_TRUE(Same(original.ProduceNext(), mainline[0]));
  FiniteWindowProducer moved(std::move(original));
  FiniteWindowProducer& alias = moved;
  moved = std::move(alias);
  EXPECT_TRUE(Same(moved.ProduceNext(), mainline[1]));
  FiniteWindowProducer producer({MakeWindow(10)}, {});
  producer = std::move(moved);
  EXPECT_FALSE(producer.IsExhausted());
  EXPECT_TRUE(Same(producer.ProduceNext(), mainline[2]));
  EXPECT_TRUE(producer.IsExhausted());
  EXPECT_FALSE(producer.ProduceNext().has_value());
  EXPECT_TRUE(Same(producer.Finalize(), MakeWindow(6)));
  EXPECT_TRUE(Same(producer.Finalize(), MakeWindow(8, 0)));
  EXPECT_FALSE(producer.Finalize().has_value());
}

// Misuse throws without disturbing the replay; the first invalid window in replay order is
// reported.
TEST(FiniteWindowProducerTest, MisuseAndInvalidWindowsThrowWithExactMessages) {
  FiniteWindowProducer empty({}, {}), unprepared({MakeWindow(0)}, {}),
      producing({MakeWindow(0)}, {});
  EXPECT_TRUE(empty.IsExhausted());  // needs no preparation
  producing.PrepareSession();
  WindowPayload negative_compute = MakeWindow(0), bad_range = MakeWindow(0);
  negative_compute.compute_time_s = -1.0;
  bad_range.stop_index = 10;
  const auto construct = [](std::vector<WindowPayload> mainline, std::vector<WindowPayload> tail) {
    return [=] { FiniteWindowProducer(mainline, tail); };
  };
  using std::runtime_error, std::invalid_argument;
  const std::pair<Call, testing::Matcher<Call>> cases[] = {
      {[&] { unprepared.ProduceNext(); },
       Throws<runtime_error>("PrepareSession() must run before ProduceNext().")},
      {[&] { unprepared.Finalize(); },  // the first of two faults
       Throws<runtime_error>("PrepareSession() must run before Finalize().")},
      {[&] { empty.Finalize(); },  // though nothing is left to produce
       Throws<runtime_error>("PrepareSession() must run before Finalize().")},
      {[&] { producing.Finalize(); },
       Throws<runtime_error>("Finalize() requires an exhausted mainline sequence.")},
      {[&] { producing.PrepareSession(); },
       Throws<runtime_error>("FiniteWindowProducer may only be prepared once.")},
      {construct({MakeWindow(0)}, {MakeWindow(2), negative_compute}),
       Throws<invalid_argument>("compute_time_s must be finite and non-negative.")},
      {construct({MakeWindow(0), bad_range}, {negative_compute}),
       Throws<invalid_argument>("The global half-open range must match the position row count.")}};
  for (const auto& [call, error] : cases) EXPECT_THAT(call, error);
  EXPECT_TRUE(Same(producing.ProduceNext(), MakeWindow(0)));
  EXPECT_FALSE(producing.Finalize().has_value());
}

}  // namespace
}  // namespace corvane::control::window
