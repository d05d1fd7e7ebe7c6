#include "native/error.hpp"

#include <utility>

namespace corvane::native {

Error::Error(ErrorCode code, std::string message, std::optional<std::string> detail,
             std::optional<std::string> context)
    : std::runtime_error(message),
      code_(code),
      detail_(std::move(detail)),
      context_(std::move(context)) {}

Error::~Error() = default;

ErrorCode Error::code() const noexcept { return code_; }

const std::optional<std::string>& Error::detail() const noexcept { return detail_; }

const std::optional<std::string>& Error::context() const noexcept { return context_; }

}  // namespace corvane::native
