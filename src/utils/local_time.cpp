#include "utils/local_time.h"

#include <fmt/format.h>

#include <ctime>

namespace varnel::utils {
namespace {

/// The year counts from 0, the month from 1.
std::optional<std::tm> LocalTime(int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm local{};
  // localtime_r alone reads the zone once in the life of a process.
  ::tzset();
  if (!localtime_r(&time, &local)) return std::nullopt;
  constexpr int kEpoch = 1900;
  if (local.tm_year < 1 - kEpoch || local.tm_year > 9999 - kEpoch) return std::nullopt;
  local.tm_year += kEpoch;
  ++local.tm_mon;
  return local;
}

}  // namespace

std::optional<std::string> LocalTimeDigits(int64_t seconds) {
  const auto local = LocalTime(seconds);
  if (!local) return std::nullopt;
  return fmt::format("{:04}{:02}{:02}{:02}{:02}{:02}", local->tm_year, local->tm_mon,
                     local->tm_mday, local->tm_hour, local->tm_min, local->tm_sec);
}

std::optional<std::string> LocalDate(int64_t seconds) {
  const auto local = LocalTime(seconds);
  if (!local) return std::nullopt;
  return fmt::format("{:04}-{:02}-{:02}", local->tm_year, local->tm_mon, local->tm_mday);
}

std::optional<std::string> LocalTimeText(int64_t seconds) {
  const auto local = LocalTime(seconds);
  if (!local) return std::nullopt;
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", local->tm_year, local->tm_mon,
                     local->tm_mday, local->tm_hour, local->tm_min, local->tm_sec);
}

std::string LocalTimeText(std::chrono::system_clock::time_point time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time.time_since_epoch());
  return LocalTimeText(seconds.count()).value_or("");
}

}  // namespace varnel::utils
