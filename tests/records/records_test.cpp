// A copied payload is independent of its source, and which handlers catch what validators throw.
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "native/error.hpp"
#include "records/record_fixtures.hpp"
#include "window/records.hpp"

namespace corvane::control::window {
namespace {

using native::Error;

// Whether what `call` throws is caught by a handler for `Handler`.
template <typename Handler>
bool CaughtAs(const std::function<void()>& call) {
  try {
    call();
  } catch (const Handler&) {
    return true;
  } catch (...) {
  }
  return false;
}

TEST(Records, CopyOfPayloadIsIndependent) {
  const WindowPayload source = testing::ValidPayload();
  WindowPayload copy = source;
  copy.positions(0, 0) = (*copy.velocities)(0, 0) = 7.0;
  copy.metadata.clear();
  EXPECT_EQ(source.positions(0, 0), 0.5);
  EXPECT_EQ((*source.velocities)(0, 0), 0.0);
  EXPECT_EQ(source.metadata.at("sample_time_s"), "0.01");
}

// The default records below are invalid (no columns). The tables elsewhere check exact types.
TEST(ErrorTypes, TaskSpaceErrorsAreNativeErrorsJointSpaceOnesInvalidArgument) {
  const native::InvalidArgumentError built("bad.", std::string("positions"));
  EXPECT_EQ(static_cast<int>(built.code()), 0);
  EXPECT_EQ(built.detail(), std::optional<std::string>("positions"));
  EXPECT_FALSE(built.context().has_value());
  EXPECT_STREQ(built.what(), "bad.");

  const auto task_space = [] { ValidateTaskSpaceShapedWindow({}); };
  EXPECT_TRUE(CaughtAs<Error>(task_space) && CaughtAs<std::runtime_error>(task_space));
  EXPECT_FALSE(CaughtAs<std::invalid_argument>(task_space));
  try {
    task_space();
  } catch (const Error& error) {
    EXPECT_TRUE(error.code() == native::ErrorCode::InvalidArgument && !error.detail() &&
                !error.context());
  }
  for (auto joint_space :
       {+[] { ValidateWindowSlice({}); }, +[] { ValidateWindowPayload({}); },
        +[] { ValidateShapedTrajectoryWindow({}); }, +[] { ValidateTrajectoryWindow({}); }}) {
    EXPECT_TRUE(CaughtAs<std::invalid_argument>(joint_space) && !CaughtAs<Error>(joint_space));
  }
}

}  // namespace
}  // namespace corvane::control::window
