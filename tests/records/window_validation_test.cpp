// ValidateWindowSlice and ValidateWindowPayload, rule by rule. A row's mutation that also breaks a
// later rule fixes the checking order. "" marks a valid record.
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "records/record_fixtures.hpp"
#include "window/records.hpp"

namespace corvane::control::window {
namespace {

using testing::ExpectCases;
using testing::kInf;
using testing::kNaN;
using P = WindowPayload;

TEST(WindowValidation, SliceAndPayloadRulesInOrder) {
  // clang-format off
  const std::vector<testing::Case<P>> slice_rules = {
      {"", {[](P&) {},
            [](P& p) { p = P{SampleMatrix(0, 6), {}, {}, {}, 4, 4, 0.0, {}}; },
            [](P& p) { (*p.time_s)[2] = -1.0; p.metadata = {{"apply_samples", "x"}}; }}},
      {"positions must have at least one column.",
       {[](P& p) { p.positions.resize(3, 0); p.stop_index = 9; }}},
      {"positions must be finite.", {[](P& p) { p.positions(1, 1) = -kInf; p.stop_index = 9; }}},
      {"stop_index must be greater than or equal to start_index.",
       {[](P& p) { p.stop_index = 9; }}},
      {"The global half-open range must match the position row count.",
       {[](P& p) { p.stop_index = 12; },
        [](P& p) { p.stop_index = 14; p.velocities->resize(1, 2); }}},
      {"velocities must match the positions shape.",
       {[](P& p) { p.velocities->setConstant(3, 3, kInf); }}},
      {"velocities must be finite.",
       {[](P& p) { (*p.velocities)(2, 1) = kNaN; p.accelerations->resize(1, 2); }}},
      {"accelerations must match the positions shape.",
       {[](P& p) { p.accelerations->setConstant(2, 2, kNaN); }}},
      {"accelerations must be finite.",
       {[](P& p) { (*p.accelerations)(0, 1) = kInf; p.time_s->resize(2); }}},
      {"time_s must match the positions row count.",
       {[](P& p) { p.time_s->setConstant(4, kNaN); }}},
      {"time_s must be finite.", {[](P& p) { (*p.time_s)[1] = kInf; }}},
  };
  const auto validate_slice = [](const P& p) { ValidateWindowSlice(testing::SliceOf(p)); };
  ExpectCases<std::invalid_argument>(testing::ValidPayload(), validate_slice, slice_rules);
  ExpectCases<std::invalid_argument>(testing::ValidPayload(), ValidateWindowPayload, slice_rules);
  ExpectCases<std::invalid_argument>(testing::ValidPayload(), ValidateWindowPayload, {
      {"", {[](P& p) { p.compute_time_s = -0.0; }}},
      {"compute_time_s must be finite and non-negative.",
       {[](P& p) { p.compute_time_s = -1e-12; }, [](P& p) { p.compute_time_s = kNaN; },
        [](P& p) { p.compute_time_s = kInf; }}},
      {"time_s must be finite.", {[](P& p) { p.compute_time_s = kNaN; (*p.time_s)[0] = kNaN; }}},
  });
  // clang-format on
}

}  // namespace
}  // namespace corvane::control::window
