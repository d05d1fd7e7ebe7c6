// The records (copies, default state) and the error types: which handlers catch what the
// validators throw.
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "native/error.hpp"
#include "records/record_fixtures.hpp"
#include "window/records.hpp"

namespace corvane::control::window {
namespace {

using native::Error;
using native::ErrorCode;
using native::InvalidArgumentError;

// Whether what `call` throws is caught by a handler for `Handler`.
template <typename Handler, typename Call>
bool CaughtAs(Call call) {
  try {
    try {
      call();
    } catch (const Handler&) {
      return true;
    }
  } catch (...) {
  }
  return false;
}

TEST(Records, CopyOfPayloadIsIndependent) {
  const WindowPayload source = testing::ValidPayload();
  WindowPayload copy = source;
  copy.positions(0, 0) = 7.0;
  (*copy.velocities)(0, 0) = 7.0;
  copy.metadata["sample_time_s"] = "changed";
  EXPECT_EQ(source.positions(0, 0), 0.5);
  EXPECT_EQ((*source.velocities)(0, 0), 0.0);
  EXPECT_EQ(source.metadata.at("sample_time_s"), "0.010000");
}

TEST(Records, DefaultConstructedState) {
  const WindowPayload payload{};
  EXPECT_EQ(payload.positions.size(), 0);
  EXPECT_FALSE(payload.velocities || payload.accelerations || payload.time_s);
  EXPECT_TRUE(payload.metadata.empty() && WindowSlice{}.metadata.empty());
  EXPECT_EQ(payload.start_index + payload.stop_index, 0u);
  EXPECT_EQ(payload.compute_time_s, 0.0);
  EXPECT_FALSE(TrajectoryWindow{}.vibration_shaping_weight_profile.has_value());
  EXPECT_FALSE(ShapedTrajectoryWindow{}.is_tail);
  const TaskSpaceShapedWindow task_space{};
  EXPECT_FALSE(task_space.trajectory.orientations.has_value() || task_space.is_tail);
  EXPECT_EQ(task_space.trajectory.time_s.size(), 0);
}

TEST(ErrorTypes, InvalidArgumentErrorForwardsToError) {
  const InvalidArgumentError error("bad positions.", std::string("positions"));
  EXPECT_EQ(static_cast<std::int32_t>(error.code()), 0);
  EXPECT_EQ(error.code(), ErrorCode::InvalidArgument);
  EXPECT_EQ(error.detail(), std::optional<std::string>("positions"));
  EXPECT_FALSE(error.context().has_value());
  EXPECT_STREQ(error.what(), "bad positions.");
}

TEST(ErrorTypes, OnlyTaskSpaceValidatorsThrowNativeErrors) {
  TaskSpaceShapedWindow task_space = testing::ValidTaskSpaceWindow();
  task_space.compute_time_s = -1.0;
  const auto task_space_call = [&] { ValidateTaskSpaceShapedWindow(task_space); };
  EXPECT_TRUE(CaughtAs<Error>(task_space_call));
  EXPECT_TRUE(CaughtAs<std::runtime_error>(task_space_call));
  EXPECT_FALSE(CaughtAs<std::invalid_argument>(task_space_call));
  try {
    task_space_call();
  } catch (const Error& error) {
    EXPECT_EQ(error.code(), ErrorCode::InvalidArgument);
    EXPECT_FALSE(error.detail().has_value() || error.context().has_value());
  }

  WindowPayload payload = testing::ValidPayload();
  ShapedTrajectoryWindow shaped = testing::ValidShaped();
  TrajectoryWindow trajectory = testing::ValidTrajectory();
  payload.stop_index = shaped.stop_index = trajectory.stop_index = 9;
  for (const std::function<void()>& joint_space_call :
       std::vector<std::function<void()>>{[&] { ValidateWindowPayload(payload); },
                                          [&] { ValidateWindowSlice(testing::SliceOf(payload)); },
                                          [&] { ValidateShapedTrajectoryWindow(shaped); },
                                          [&] { ValidateTrajectoryWindow(trajectory); }}) {
    EXPECT_FALSE(CaughtAs<Error>(joint_space_call));
    EXPECT_TRUE(CaughtAs<std::invalid_argument>(joint_space_call));
  }
}

}  // namespace
}  // namespace corvane::control::window
