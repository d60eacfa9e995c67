#pragma once

#include <string_view>
#include <system_error>

namespace varnel::utils {

/// Writes every byte, over interruptions and short writes. What was written before an error stays.
[[nodiscard]] std::error_code WriteAll(int fd, std::string_view bytes);

}  // namespace varnel::utils
