#include <memory>
#include <optional>
#include <stdexcept>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "native/error.hpp"
#include "window/producers.hpp"

namespace corvane::control::window {
namespace {

using testing::Return;

class MockHandle : public TrajectoryWindowHandle {
 public:
  MOCK_METHOD(void, Prepare, (), (override));
  MOCK_METHOD(void, Advance, (std::optional<std::size_t>), (override));
  MOCK_METHOD(std::optional<ShapedTrajectoryWindow>, NextWindow, (), (override));
  MOCK_METHOD(bool, HasMoreWindows, (), (const, override));
  MOCK_METHOD(void, Cancel, (), (override));
  MOCK_METHOD(void, Finalize, (), (override));
  MOCK_METHOD(void, Die, ());
  ~MockHandle() override { Die(); }
};

// A producer over a strict mock handle, which expects one Finalize() call per entry of
// `finalize_throws` (throwing where true), then its deletion.
struct Harness {
  explicit Harness(const std::vector<bool>& finalize_throws = {false}) {
    const testing::InSequence order;
    for (const bool throws : finalize_throws) {
      EXPECT_CALL(*handle, Finalize()).WillOnce([throws] {
        if (throws) throw std::runtime_error("Finalize failed");
      });
    }
    EXPECT_CALL(*handle, Die());
  }
  testing::StrictMock<MockHandle>* handle = new testing::StrictMock<MockHandle>;
  ShaperWindowProducer producer{std::unique_ptr<TrajectoryWindowHandle>(handle)};
};

ShapedTrajectoryWindow MakeShaped(Eigen::Index rows, bool is_tail) {
  ShapedTrajectoryWindow window;
  window.positions = SampleMatrix::Constant(rows, 2, 1.0);
  window.velocities = SampleMatrix::Constant(rows, 2, 2.0);
  window.accelerations = SampleMatrix::Constant(rows, 2, 3.0);
  window.time_s = Eigen::VectorXd::LinSpaced(rows, 0.0, 0.1);
  window.start_index = 7;
  window.stop_index = 7 + std::size_t(rows);
  window.is_tail = is_tail;
  window.compute_time_s = 0.25;
  return window;
}

TEST(ShaperWindowProducerTest, NullHandleThrowsInvalidArgumentError) {
  try {
    ShaperWindowProducer producer(nullptr);
    FAIL() << "no exception";
  } catch (const corvane::native::InvalidArgumentError& error) {
    EXPECT_STREQ(error.what(), "ShaperWindowProducer requires a trajectory handle.");
    EXPECT_FALSE(error.detail().has_value());
  }
}

// Polls; when nothing is ready, advances one step and polls once more. The payload carries every
// array, present even when empty, and "is_tail" as its only metadata.
TEST(ShaperWindowProducerTest, PollsAdvancesOncePollsAgainAndCarriesTheWholeWindow) {
  using Shaped = std::optional<ShapedTrajectoryWindow>;
  const std::pair<Shaped, Shaped> cases[] = {
      {MakeShaped(3, true), std::nullopt}, {std::nullopt, MakeShaped(0, false)}, {{}, {}}};
  for (const auto& [first, second] : cases) {
    Harness h;
    const testing::InSequence order;
    EXPECT_CALL(*h.handle, NextWindow()).WillOnce(Return(first));
    if (!first) {
      EXPECT_CALL(*h.handle, Advance(std::optional<std::size_t>(1)));
      EXPECT_CALL(*h.handle, NextWindow()).WillOnce(Return(second));
    }
    const std::optional<WindowPayload> p = h.producer.ProduceNext();
    const Shaped& s = first ? first : second;
    ASSERT_EQ(p.has_value(), s.has_value());
    if (!s) continue;
    EXPECT_TRUE(std::tie(p->positions, p->velocities, p->accelerations, p->time_s, p->start_index,
                         p->stop_index, p->compute_time_s) ==
                std::tie(s->positions, s->velocities, s->accelerations, s->time_s, s->start_index,
                         s->stop_index, s->compute_time_s));
    EXPECT_THAT(p->metadata,
                testing::ElementsAre(testing::Pair("is_tail", s->is_tail ? "true" : "false")));
  }
}

// Prepare and Finalize reach the handle until one call succeeds; IsExhausted asks every time.
TEST(ShaperWindowProducerTest, LifecycleCallsReachTheHandle) {
  Harness h({true, false});
  EXPECT_CALL(*h.handle, Prepare())
      .WillOnce([] { throw std::runtime_error("Prepare failed"); })
      .WillOnce(Return());
  EXPECT_CALL(*h.handle, HasMoreWindows()).WillOnce(Return(false)).WillOnce(Return(true));
  EXPECT_THROW(h.producer.PrepareSession(), std::runtime_error);
  h.producer.PrepareSession();
  h.producer.PrepareSession();
  EXPECT_TRUE(h.producer.IsExhausted());
  EXPECT_FALSE(h.producer.IsExhausted());
  EXPECT_THROW(h.producer.Finalize(), std::runtime_error);
  EXPECT_FALSE(h.producer.Finalize().has_value());
  EXPECT_FALSE(h.producer.Finalize().has_value());
}

// Each handle is finalized once, by the destructor unless before, and never once moved from.
TEST(ShaperWindowProducerTest, DestructionAndMovesFinalizeEachHandleAtMostOnce) {
  for (const bool throws : {false, true}) {
    const Harness unfinalized({throws});  // the destructor swallows a failure
  }
  Harness finalized;
  finalized.producer.Finalize();                // not again in the destructor
  Harness target(std::vector<bool>{}), source;  // target's handle is never finalized
  EXPECT_CALL(*source.handle, Prepare());
  ShaperWindowProducer moved(std::move(source.producer));
  ShaperWindowProducer& alias = moved;
  moved = std::move(alias);            // keeps the handle
  target.producer = std::move(moved);  // deletes the old handle
  target.producer.PrepareSession();
}

}  // namespace
}  // namespace corvane::control::window
