#include "utils/local_time.h"

#include <fmt/format.h>

#include <ctime>

namespace varnel::utils {

std::optional<std::string> LocalTimeDigits(int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm local{};
  // localtime_r alone reads the zone once in the life of a process.
  ::tzset();
  if (!localtime_r(&time, &local)) {
    return std::nullopt;
  }
  const int64_t year = int64_t{local.tm_year} + 1900;
  if (year < 1 || year > 9999) {
    return std::nullopt;
  }
  return fmt::format("{:04}{:02}{:02}{:02}{:02}{:02}", year, local.tm_mon + 1, local.tm_mday,
                     local.tm_hour, local.tm_min, local.tm_sec);
}

}  // namespace varnel::utils
