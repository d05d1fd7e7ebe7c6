// Reading a solve request's "apply_samples", shared by the engines that serve requests.
#pragma once

#include <Eigen/Core>
#include <window/records.hpp>

namespace corvane::control::engines {

// The request's "apply_samples": a decimal count from 1 to the request's row count.
// Throws std::invalid_argument when it is missing or not such a count.
Eigen::Index ApplySamples(const control::window::WindowSlice& request);

// Throws std::invalid_argument unless the request's positions hold finite samples of at least
// one joint.
void CheckRequestPositions(const control::window::WindowSlice& request);

}  // namespace corvane::control::engines
