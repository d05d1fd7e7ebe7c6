// Constants of angle shared by the engines.
#pragma once

namespace corvane::control::engines {

inline constexpr double kPi = 3.14159265358979323846;

}  // namespace corvane::control::engines
