// ValidateWindowSlice and ValidateWindowPayload. Both throw std::invalid_argument on the first
// failing rule, in the fixed order below; messages are built only when throwing.
#include <optional>
#include <stdexcept>
#include <string>

#include "records/record_rules.hpp"
#include "window/records.hpp"

namespace corvane::control::window {
namespace {

// An optional member that, when present, must have the shape of positions and be finite.
// `name` ("velocities" or "accelerations") leads the message.
void CheckOptionalSampleMatrix(const std::optional<SampleMatrix>& member,
                               const SampleMatrix& positions, const char* name) {
  if (!member) {
    return;
  }
  if (member->rows() != positions.rows() || member->cols() != positions.cols()) {
    throw std::invalid_argument(std::string(name) + " must match the positions shape.");
  }
  if (!detail::IsFinite(*member)) {
    throw std::invalid_argument(std::string(name) + " must be finite.");
  }
}

// The rules common to WindowSlice and WindowPayload: all of ValidateWindowSlice.
void ValidateSliceFields(const SampleMatrix& positions,
                         const std::optional<SampleMatrix>& velocities,
                         const std::optional<SampleMatrix>& accelerations,
                         const std::optional<Eigen::VectorXd>& time_s, std::size_t start_index,
                         std::size_t stop_index) {
  if (positions.cols() < 1) {
    throw std::invalid_argument("positions must have at least one column.");
  }
  if (!detail::IsFinite(positions)) {
    throw std::invalid_argument("positions must be finite.");
  }
  if (stop_index < start_index) {
    throw std::invalid_argument("stop_index must be greater than or equal to start_index.");
  }
  if (!detail::RangeMatchesRows(start_index, stop_index, positions.rows())) {
    throw std::invalid_argument("The global half-open range must match the position row count.");
  }
  CheckOptionalSampleMatrix(velocities, positions, "velocities");
  CheckOptionalSampleMatrix(accelerations, positions, "accelerations");
  if (time_s && time_s->size() != positions.rows()) {
    throw std::invalid_argument("time_s must match the positions row count.");
  }
  if (time_s && !detail::IsFinite(*time_s)) {
    throw std::invalid_argument("time_s must be finite.");
  }
}

}  // namespace

void ValidateWindowSlice(const WindowSlice& slice) {
  ValidateSliceFields(slice.positions, slice.velocities, slice.accelerations, slice.time_s,
                      slice.start_index, slice.stop_index);
}

void ValidateWindowPayload(const WindowPayload& payload) {
  ValidateSliceFields(payload.positions, payload.velocities, payload.accelerations, payload.time_s,
                      payload.start_index, payload.stop_index);
  if (!detail::IsNonNegativeTime(payload.compute_time_s)) {
    throw std::invalid_argument("compute_time_s must be finite and non-negative.");
  }
}

}  // namespace corvane::control::window
