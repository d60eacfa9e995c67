#pragma once

#include <cerrno>
#include <system_error>

namespace varnel::utils {

/// What errno says of the call that has just failed.
[[nodiscard]] inline std::error_code LastError() {
  return {errno, std::generic_category()};
}

}  // namespace varnel::utils
