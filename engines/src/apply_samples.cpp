#include "apply_samples.hpp"

#include <charconv>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <system_error>

namespace corvane::control::engines {

Eigen::Index ApplySamples(const control::window::WindowSlice& request) {
  const auto entry = request.metadata.find("apply_samples");
  const std::string text = entry == request.metadata.end() ? std::string() : entry->second;
  std::size_t count = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  if (error != std::errc() || end != text.data() + text.size()) count = 0;
  if (count == 0 || count > static_cast<std::size_t>(request.positions.rows())) {
    throw std::invalid_argument("apply_samples must be a count from 1 to the request rows.");
  }
  return static_cast<Eigen::Index>(count);
}

void CheckRequestPositions(const control::window::WindowSlice& request) {
  if (request.positions.cols() < 1 || !request.positions.allFinite()) {
    throw std::invalid_argument(
        "The request's positions must hold finite samples of at least one joint.");
  }
}

}  // namespace corvane::control::engines
