// Error types shared by the corvane shaper libraries.
//
// `Error` lives in libcorvane_shaper_common; `InvalidArgumentError` is defined entirely here.
// Both derive from std::runtime_error, so a handler for std::runtime_error (or std::exception)
// catches every error of this family, while a handler for std::invalid_argument does not.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "native/export.hpp"

namespace corvane::native {

// What kind of failure an Error reports.
enum class ErrorCode : std::int32_t {
  InvalidArgument = 0,  // an argument or record broke the rules of the called operation
};

// Base class of the family's errors: a message plus a code and two optional strings.
// what() returns `message` exactly as given.
class CORVANE_EXPORT Error : public std::runtime_error {
 public:
  // Throws only what std::string and std::runtime_error may throw (std::bad_alloc).
  Error(ErrorCode code, std::string message, std::optional<std::string> detail,
        std::optional<std::string> context);
  ~Error() override;

  // The kind of failure.
  ErrorCode code() const noexcept;
  // First optional string: what the failure concerns (a field name, say), when given.
  const std::optional<std::string>& detail() const noexcept;
  // Second optional string: where the failure happened, when given.
  const std::optional<std::string>& context() const noexcept;

 private:
  ErrorCode code_;
  std::optional<std::string> detail_;
  std::optional<std::string> context_;
};

// A bad argument, reported with ErrorCode::InvalidArgument and no context.
class CORVANE_EXPORT InvalidArgumentError : public Error {
 public:
  // An Error with code InvalidArgument, the given message and detail, and no context.
  InvalidArgumentError(std::string message, std::optional<std::string> detail)
      : Error(ErrorCode::InvalidArgument, std::move(message), std::move(detail), std::nullopt) {}
};

}  // namespace corvane::native
