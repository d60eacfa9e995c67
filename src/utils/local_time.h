#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace varnel::utils {

/// Fourteen digits, "%Y%m%d%H%M%S", of the local time `seconds` after the epoch; nothing outside
/// the years 1 to 9999. Follows a time zone that changes while the process runs.
[[nodiscard]] std::optional<std::string> LocalTimeDigits(int64_t seconds);
/// "2025-01-31"; otherwise the same.
[[nodiscard]] std::optional<std::string> LocalDate(int64_t seconds);
/// "2025-01-31 23:59:59"; otherwise the same.
[[nodiscard]] std::optional<std::string> LocalTimeText(int64_t seconds);
/// The same of a time, for people; empty outside those years.
[[nodiscard]] std::string LocalTimeText(std::chrono::system_clock::time_point time);

}  // namespace varnel::utils
